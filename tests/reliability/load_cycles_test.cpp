// Load and unload of the adaptor, many times over, with HCAs opened and closed in between:
// nothing it allocates outlives its unload, the kernel reports no leak and no misuse, and the
// software HCA holds no resource of a closed HCA. A module that leaks on purpose shows what a
// leak looks like: the kernel names the object and where it was allocated.
//
// MARLIX_LOAD_CYCLES sets the number of cycles (default 1000, about 5 s in the default build).
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "marlix/kernel.hpp"
#include "marlix/softhca.hpp"
#include "marlix/stack.hpp"
#include "adaptor_host.hpp"
#include "ulp_verbs.h"
#include "ulp_verbs_queues.h"
#include "unload_check.hpp"

namespace reliability {
namespace {

namespace hca = marlix::softhca;

const char *const kDevices[] = {"InfiniHost0", "InfiniHost1"};

int cycles() {
    const char *text = std::getenv("MARLIX_LOAD_CYCLES");
    int n = text ? std::atoi(text) : 1000;
    return n > 0 ? n : 1000;
}

class Machine : public ::testing::Test {
  protected:
    void SetUp() override { adaptor_host::boot(2); }
    void TearDown() override { adaptor_host::halt(); }
};

using LoadCycles = Machine;

TEST_F(LoadCycles, EveryCycleUnloadsClean) {
    const size_t kernel_baseline = k::live_allocation_count();
    const int n = cycles();
    for (int i = 0; i < n; i++) {
        ASSERT_EQ(0, k::insmod("adaptor-mlx")) << "cycle " << i;
        const ulp_funcs_t *funcs = ulp_find_provider("mlx");
        ASSERT_NE(nullptr, funcs) << "cycle " << i;
        // Cycles alternate between no HCA, one HCA and both, so that opens and closes happen
        // between loads in every combination; with both open, the first also gets a PD, a CQ and
        // a QP that only its close releases.
        int opened = i % 3;
        void *h[2] = {nullptr, nullptr};
        for (int d = 0; d < opened; d++) {
            ASSERT_EQ(0, ulp_hca_open(funcs, kDevices[d], nullptr, &h[d]))
                << "cycle " << i << " " << kDevices[d];
            ASSERT_NE(nullptr, h[d]);
            EXPECT_TRUE(hca::is_open(kDevices[d]));
        }
        if (opened == 2) {
            // Leave a PD, a CQ and a QP on the first HCA for its close to tear down.
            uint32_t pd = 0, actual = 0;
            void *cq = nullptr, *qp = nullptr;
            ASSERT_EQ(0, ulp_pd_allocate(funcs, h[0], &pd)) << "cycle " << i;
            ASSERT_EQ(0, ulp_cq_create(funcs, h[0], 16, nullptr, nullptr, &cq, &actual)) << "cycle " << i;
            std::vector<unsigned char> req(ulp_sizeof_qp_attr(), 0), out(ulp_sizeof_qp_attr(), 0);
            ulp_qp_attr_set(req.data(), "create.qp_type", static_cast<uint64_t>(ulp_qp_type_value("rc")));
            ulp_qp_attr_set(req.data(), "create.cq_send_h", reinterpret_cast<uint64_t>(cq));
            ulp_qp_attr_set(req.data(), "create.cq_receive_h", reinterpret_cast<uint64_t>(cq));
            ulp_qp_attr_set(req.data(), "create.send_max_outstand_wr", 4);
            ulp_qp_attr_set(req.data(), "create.receive_max_outstand_wr", 4);
            ulp_qp_attr_set(req.data(), "create.max_scatgat_per_send_wr", 1);
            ulp_qp_attr_set(req.data(), "create.max_scatgat_per_receive_wr", 1);
            ulp_qp_attr_set(req.data(), "create.pd_h", pd);
            ASSERT_EQ(0, ulp_qp_create(funcs, h[0], req.data(), nullptr, &qp, out.data())) << "cycle " << i;
        }
        if (opened > 0) {
            // An open HCA holds the module: it cannot go before its HCAs are closed.
            EXPECT_EQ(-EBUSY, k::rmmod("adaptor_mlx")) << "cycle " << i;
            ASSERT_EQ(0, ulp_hca_close(funcs, h[0])) << "cycle " << i;
            if (h[1]) {
                ASSERT_EQ(0, ulp_hca_close(funcs, h[1])) << "cycle " << i;
            }
        }
        auto problems = unload_problems("adaptor_mlx", "adaptor-tavor");
        ASSERT_TRUE(problems.empty()) << "cycle " << i << ":\n" << ::testing::PrintToString(problems);
        for (const char *dev : kDevices) {
            EXPECT_FALSE(hca::is_open(dev)) << "cycle " << i << " " << dev;
            EXPECT_EQ(0u, hca::resource_count(dev)) << "cycle " << i << " " << dev;
        }
        ASSERT_EQ(kernel_baseline, k::live_allocation_count()) << "cycle " << i;
    }
    EXPECT_FALSE(k::find_module("adaptor_mlx"));
}

// The line of marlix-leaky.c that carries `marker` in a comment.
int marker_line(const std::string &marker) {
    std::ifstream in(MARLIX_LEAKY_SOURCE);
    std::string line;
    for (int n = 1; std::getline(in, line); ++n)
        if (line.find(marker) != std::string::npos) return n;
    ADD_FAILURE() << "no line with " << marker;
    return -1;
}

std::string object_line(const void *ptr, size_t size) {
    char buf[96];
    std::snprintf(buf, sizeof buf,
                  "unreferenced object 0x%016lx (size %zu):", reinterpret_cast<unsigned long>(ptr), size);
    return buf;
}

using LeakReport = Machine;

TEST_F(LeakReport, NamesEveryLeakedObjectAndWhereItWasAllocated) {
    ASSERT_EQ(0, k::insmod("marlix-leaky", {"leaks=2"}));
    ASSERT_EQ(4, k::write_file("/proc/marlix-leaky/trigger", "leak"));
    auto live = k::live_allocations(nullptr, true);
    std::vector<k::Allocation> mine;
    for (const auto &a : live)
        if (a.file == "tests/reliability/marlix-leaky.c") mine.push_back(a);
    ASSERT_EQ(3u, mine.size());

    auto problems = unload_problems("marlix_leaky", "marlix-leaky");
    const std::string forgotten = "  allocated at leaky_forget (tests/reliability/marlix-leaky.c:" +
                                  std::to_string(marker_line("marker: forgotten allocation")) + ")";
    const std::string on_request = "  allocated at leaky_write (tests/reliability/marlix-leaky.c:" +
                                   std::to_string(marker_line("marker: leak on request")) + ")";
    std::vector<std::string> expected = {
        "kmemleak: 3 new suspected memory leaks",
        object_line(mine[0].ptr, 48),
        forgotten,
        object_line(mine[1].ptr, 48),
        forgotten,
        object_line(mine[2].ptr, 96),
        on_request,
    };
    // The unload's report, then the three objects, which stay live (nobody can free them now).
    ASSERT_EQ(expected.size() + 3, problems.size()) << ::testing::PrintToString(problems);
    for (size_t i = 0; i < expected.size(); i++) EXPECT_EQ(expected[i], problems[i]);
    EXPECT_EQ("live: 96 bytes from leaky_write (tests/reliability/marlix-leaky.c:" +
                  std::to_string(marker_line("marker: leak on request")) + ")",
              problems.back());
}

TEST_F(LeakReport, CleanModuleReportsNothing) {
    ASSERT_EQ(0, k::insmod("marlix-leaky", {"leaks=0"}));
    EXPECT_TRUE(unload_problems("marlix_leaky", "marlix-leaky").empty());
}

}  // namespace
}  // namespace reliability
