// The software HCA's engine commands: choosing the engine, stepping it, running it until idle,
// and faults on a link.
#include <regex>

#include "console_fixture.hpp"

namespace {

TEST_F(ConsoleTest, EngineIsShownAndChosenWhileNoAdapterIsOpen) {
    ASSERT_EQ(0, run("engine")) << err();
    EXPECT_EQ("threaded\n", out());
    EXPECT_EQ(1, run("step"));
    EXPECT_EQ("step: the engine is threaded\n", err());

    ASSERT_EQ(0, run("engine stepped; engine")) << err();
    EXPECT_EQ("stepped\n", out());
    ASSERT_EQ(0, run("step 3")) << err();
    EXPECT_EQ("step: 0 done\n", out());  // nothing was posted
    ASSERT_EQ(0, run("run")) << err();
    EXPECT_TRUE(std::regex_match(out(), std::regex("run: [0-9]+ rounds\n"))) << out();

    // The engine is chosen when the adapters boot: not while the module holds one open.
    ASSERT_EQ(0, run("insmod adaptor-mlx; ulp open InfiniHost0")) << err();
    EXPECT_EQ(1, run("engine threaded"));
    EXPECT_EQ("engine: InfiniHost0 is open\n", err());
    ASSERT_EQ(0, run("ulp close; engine threaded; engine")) << err();
    EXPECT_EQ("hca1: InfiniHost0 closed\nthreaded\n", out());
}

TEST_F(ConsoleTest, EngineUsageAndBadStepCounts) {
    EXPECT_NE(0, run("engine fast"));
    EXPECT_NE(err().find("usage: engine [threaded|stepped]"), std::string::npos) << err();
    EXPECT_NE(0, run("engine stepped; step 0"));
    EXPECT_NE(err().find("usage: step [N]"), std::string::npos) << err();
    ASSERT_EQ(0, run("engine threaded")) << err();
}

TEST_F(ConsoleTest, LinkFaultsAreSetOnExistingPortsOnly) {
    ASSERT_EQ(0, run("link InfiniHost0 1 drop 2; link InfiniHost0 1 delay 5; link InfiniHost0 1 drop all"))
        << err();
    ASSERT_EQ(0, run("link InfiniHost0 1 clear")) << err();
    EXPECT_EQ(1, run("link InfiniHost0 9 clear"));
    EXPECT_EQ("link: no such port: InfiniHost0 9\n", err());
    EXPECT_NE(0, run("link InfiniHost0 1 shake"));
    EXPECT_NE(err().find("usage: link DEVICE PORT drop N|drop all|delay MS|clear"), std::string::npos)
        << err();
}

}  // namespace
