// The statistics page parser the stress test reads the module's page with.
#include <gtest/gtest.h>

#include "statistics_page.hpp"

namespace stress {
namespace {

const char *const kPage =
    "Mellanox adaptor:\n"
    "- 1) MLX handle: 1, adapt: 00007f0000001000, app hca_h: 0000000000000002:\n"
    "- 2) MLX handle: 0, adapt: 00007f0000002000, app hca_h: 0000000000000001:\n"
    "     errors: 0 (0)\n"
    "VAPI errors: 0 (0)\n"
    " mem errors: 0 (0)\n"
    "  num of CQ: 5 (1)\n"
    "  num of QP: 6 (0)\n"
    "  num of AH: 2 (0), MR: 2 (0), MG: 0 (0)\n"
    "    send WR: 1234 (34) [0 (0)] {0 (0)}\n"
    "     acc sg: 3000\n"
    " receive WR: 700 (0) [600 (0)]\n"
    "vapi (s,r,p): 0, 0, 0\n"
    "  Byte - TX: -1294967296 (0) RX: 42 (0)\n"
    "       poll: OK: 9 (0) empty: 4 (0)\n"
    "   comp err: RX: 0 (0)    TX: 3 (0)\n"
    "comp notify: 7 (0)\n"
    " comp event: 7 (0)\n"
    "async event: 8 (0)\n"
    "=======================================\n";

TEST(StressStatisticsPage, ReadsEveryCounterAndItsCompanion) {
    StatisticsPage page;
    std::string why;
    ASSERT_TRUE(parse_statistics_page(kPage, page, &why)) << why;
    EXPECT_EQ(2, page.hca_lines);
    EXPECT_EQ(5, page.counter("num of CQ"));
    EXPECT_EQ(1, page.counter("num of CQ", 1));
    EXPECT_EQ(1234, page.counter("send WR"));
    EXPECT_EQ(34, page.counter("send WR", 1));
    EXPECT_EQ(3000, page.counter("acc sg"));
    EXPECT_EQ(600, page.counter("receive WR", 2));
    EXPECT_EQ(-1294967296, page.counter("Byte - TX"));  // 3000000000 printed with %d
    EXPECT_EQ(42, page.counter("Byte - TX", 2));
    EXPECT_EQ(4, page.counter("poll", 2));
    EXPECT_EQ(3, page.counter("comp err", 2));
    EXPECT_EQ(8, page.counter("async event"));
    std::string which;
    EXPECT_FALSE(page.companions_zero(&which));
    EXPECT_EQ("num of CQ #0: 1", which);
}

TEST(StressStatisticsPage, RefusesPagesOfAnotherShape) {
    StatisticsPage page;
    std::string why;
    EXPECT_FALSE(parse_statistics_page("Mellanox:\n", page, &why));
    EXPECT_EQ("the page does not start with \"Mellanox adaptor:\"", why);
    std::string cut = kPage;
    cut.erase(cut.find(" comp event"));
    EXPECT_FALSE(parse_statistics_page(cut, page, &why));
    EXPECT_EQ("the page has no line \"async event\" with 2 numbers", why);
}

}  // namespace
}  // namespace stress
