// The program's modes and options (each run boots and halts its own host).
#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "console.hpp"

namespace {

struct Result {
    int status;
    std::string out, err;
};

Result run_program(std::vector<std::string> args) {
    args.insert(args.begin(), "marlix");
    std::vector<char *> argv;
    for (auto &a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    std::ostringstream out, err;
    int status = marlix::console::main(static_cast<int>(args.size()), argv.data(), out, err);
    return {status, out.str(), err.str()};
}

TEST(Program, CommandsFromTheCommandLine) {
    Result r = run_program({"-c", "echo a; logger level"});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, "a\n5\n");
    EXPECT_EQ(r.err, "");
}

TEST(Program, FailureStopsUnlessKeepGoing) {
    Result r = run_program({"-c", "nosuch; echo after"});
    EXPECT_EQ(r.status, 127);
    EXPECT_EQ(r.out, "");
    r = run_program({"-k", "-c", "nosuch; echo after"});
    EXPECT_EQ(r.status, 127);
    EXPECT_EQ(r.out, "after\n");
    r = run_program({"-kx", "-c", "nosuch; echo after"});
    EXPECT_EQ(r.out, "marlix# nosuch\nmarlix# echo after\nafter\n");
}

TEST(Program, RealTimeClock) {
    Result r = run_program({"--real-time", "-c", "sleep 2; echo woke"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "woke\n");
}

TEST(Program, ExitStatusOfExit) {
    EXPECT_EQ(run_program({"-c", "exit 4"}).status, 4);
}

TEST(Program, RunsAScriptFile) {
    std::string path = ::testing::TempDir() + "marlix_program_test.marlix";
    {
        std::ofstream f(path);
        f << "# a script\necho first\n\nrep set k/ v 3; rep get k/ v\n";
    }
    Result r = run_program({"-x", "run", path});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "marlix# echo first\nfirst\nmarlix# rep set k/ v 3\nmarlix# rep get k/ v\n3\n");
    std::remove(path.c_str());

    r = run_program({"run", "/no/such/script"});
    EXPECT_EQ(r.status, 127);
    EXPECT_EQ(r.err, "marlix: /no/such/script: No such file or directory\n");
}

TEST(Program, DefaultScenarioDemonstratesTheAdaptor) {
    Result r = run_program({});
    EXPECT_EQ(r.status, 0) << r.err;
    const std::vector<std::string> expected_in_order = {
        "marlix# ibstat\nCA 'InfiniHost0'\n",
        "marlix# insmod adaptor-mlx\nmarlix# lsmod\nModule                  Size  Used by\nadaptor_mlx ",
        "marlix# ls /proc/marlix/adaptor-mlx\ncontrol\nlink\nversion\n",
        "marlix# cat /proc/marlix/adaptor-mlx/version\nadaptor-mlx 0 REL_TAG_V1_0_20060112 (",
        "marlix# cat /proc/marlix/adaptor-mlx/link\nPORT_ACTIVE\n",
        "marlix# cat /sys/module/adaptor_mlx/parameters/oxi_mlx_max_ah_per_pd\n2252\n",
        "LOGGER: Added key marlix/modules/adaptor-mlx/, trace level 1\n",
        "marlix# ulp open InfiniHost0\nhca1: InfiniHost0 opened\nmarlix# ulp open InfiniHost1\nhca2: "
        "InfiniHost1 opened\n",
        "pingpong rc: 10 exchanges, 4096 bytes, 81920 bytes verified, 0 errors\n",
        "pingpong ud: 10 exchanges, 256 bytes, 5120 bytes verified, 0 errors\n",
        "pingpong rc: 20 exchanges, 64 bytes, 2560 bytes verified, 0 errors, ",
        "marlix# cat /proc/marlix/adaptor-mlx/control\nMellanox adaptor:\n- 1) MLX handle: 1, ",
        "  num of QP: 6 (6)\n",
        "compile with: MLX_EVAPI_CQ_EH_CHANGES\n",
        "marlix# ulp async on hca1\nhca1: asynchronous events on (InfiniHost0)\n"
        "marlix# cable InfiniHost0 1 unplug\nulp: async event on hca1: ox_async_r_port, port_num 1\n"
        "marlix# cat /proc/marlix/adaptor-mlx/link\nPORT_DOWN\n"
        "marlix# cable InfiniHost0 1 plug\nulp: async event on hca1: ox_async_r_port, port_num 1\n"
        "marlix# cat /proc/marlix/adaptor-mlx/link\nPORT_ACTIVE\n",
        "async event: 2 (2)\n",
        "Empty CQ: cq_index: 3, user: 0x",
        "new_jiff_timer_num: 32, old value: 0\n",
        "Working without events - no interrupts\nWorking in a polling mode\n",
        "pingpong rc: 5 exchanges, 64 bytes, 640 bytes verified, 0 errors\n",
        "pingpong rc: 5 exchanges, 64 bytes, 640 bytes verified, 0 errors, ",
        "gen /proc: unknown command: 'no_such_command'\nusage:\n",
        "marlix# ulp close hca1\nhca1: InfiniHost0 closed\n",
        "  num of CQ: 0 (-6)\n",
        "marlix# rmmod adaptor-mlx\nmarlix# lsmod\nModule                  Size  Used by\nmarlix# dmesg -t\n",
        "DEBUG   : AD_TAVOR : ox_mlx_exit:(adaptor_tavor):stop g_com_timer\n",
    };
    size_t at = 0;
    for (const auto &piece : expected_in_order) {
        size_t found = r.out.find(piece, at);
        ASSERT_NE(found, std::string::npos) << "missing after offset " << at << ": " << piece << "\n"
                                            << r.out;
        at = found + piece.size();
    }
}

TEST(Program, BadOptions) {
    Result r = run_program({"--bogus"});
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(r.err.rfind("marlix: --bogus: unknown option or mode\nusage: marlix ", 0), 0u) << r.err;
    r = run_program({"-c"});
    EXPECT_EQ(r.status, 2);
    r = run_program({"--help"});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out.rfind("usage: marlix [-k] [-x] [--real-time]", 0), 0u);
}

}  // namespace
