// The console's clock: manual by default, ticking with wall time between `clock run` and
// `clock stop`, and an RC retransmission that happens while it ticks, with no `jiffies`.
#include <chrono>
#include <thread>

#include "console_fixture.hpp"
#include "marlix/kernel.hpp"

namespace {

using namespace std::chrono_literals;

// Waits (up to two seconds of wall time) until the kernel's clock has passed `jiffies`.
bool clock_passes(unsigned long jiffies) {
    const auto deadline = std::chrono::steady_clock::now() + 2s;
    while (std::chrono::steady_clock::now() < deadline) {
        if (marlix::kernel::now_jiffies() > jiffies) return true;
        std::this_thread::sleep_for(1ms);
    }
    return false;
}

TEST_F(ConsoleTest, ClockIsManualUntilRunAndStandsStillAgainAfterStop) {
    ASSERT_EQ(0, run("clock")) << err();
    EXPECT_EQ("manual\n", out());
    const unsigned long at_boot = marlix::kernel::now_jiffies();
    std::this_thread::sleep_for(20ms);
    EXPECT_EQ(at_boot, marlix::kernel::now_jiffies());  // nothing moves it by itself

    ASSERT_EQ(0, run("clock run; clock")) << err();
    EXPECT_EQ("running\n", out());
    EXPECT_TRUE(clock_passes(at_boot + 20));
    ASSERT_EQ(0, run("clock run")) << err();  // already running: nothing changes
    ASSERT_EQ(0, run("clock stop; clock")) << err();
    EXPECT_EQ("manual\n", out());
    const unsigned long stopped = marlix::kernel::now_jiffies();
    std::this_thread::sleep_for(20ms);
    EXPECT_EQ(stopped, marlix::kernel::now_jiffies());
    ASSERT_EQ(0, run("clock stop; jiffies +5")) << err();  // stopping a stopped clock is harmless
    EXPECT_EQ(stopped + 5, marlix::kernel::now_jiffies());
}

TEST_F(ConsoleTest, SleepReallySleepsWhileTheClockRuns) {
    ASSERT_EQ(0, run("clock run")) << err();
    const unsigned long before = marlix::kernel::now_jiffies();
    const auto start = std::chrono::steady_clock::now();
    ASSERT_EQ(0, run("sleep 50")) << err();
    EXPECT_GE(std::chrono::steady_clock::now() - start, 50ms);
    EXPECT_GE(marlix::kernel::now_jiffies(), before + 30);  // the ticker moved it meanwhile
    ASSERT_EQ(0, run("clock stop")) << err();
}

TEST_F(ConsoleTest, ClockUsageAndTheRealClock) {
    EXPECT_EQ(2, run("clock fast"));
    EXPECT_EQ("usage: clock [run|stop]\n", err());
    EXPECT_EQ(2, run("clock run now"));

    restart({.real_time = true});
    ASSERT_EQ(0, run("clock")) << err();
    EXPECT_EQ("real-time\n", out());
    EXPECT_EQ(1, run("clock run"));
    EXPECT_EQ("clock: the kernel runs on the real clock (--real-time)\n", err());
}

TEST_F(ConsoleTest, HaltingTheHostStopsARunningClock) {
    ASSERT_EQ(0, run("clock run")) << err();
    restart({});
    ASSERT_EQ(0, run("clock")) << err();
    EXPECT_EQ("manual\n", out());
    const unsigned long at_boot = marlix::kernel::now_jiffies();
    std::this_thread::sleep_for(20ms);
    EXPECT_EQ(at_boot, marlix::kernel::now_jiffies());
}

// A dropped RC packet is sent again once the ack timeout (4.096 us x 2^14, about 67 ms) has passed
// on the kernel's clock. On the manual clock nothing happens until time is moved; with the clock
// running, waiting is enough. Both engines: the stepped one does the retransmission at the next
// poll, which runs it.
class ClockRetransmission : public ConsoleTest, public ::testing::WithParamInterface<const char *> {};

TEST_P(ClockRetransmission, ALostPacketIsSentAgainWhileTheClockRuns) {
    ASSERT_EQ(0, run(std::string("engine ") + GetParam())) << err();
    ASSERT_EQ(0, run("insmod adaptor-mlx; ulp open InfiniHost0; ulp open InfiniHost1; ulp connect rc"))
        << err();
    ASSERT_EQ(0, run("ulp post recv qp2 64; link InfiniHost0 1 drop 1; ulp post send qp1 64")) << err();

    // The send was lost and the manual clock stands: no completion on either side.
    ASSERT_EQ(0, run("ulp poll cq1; ulp poll cq2")) << err();
    EXPECT_EQ("cq1: empty\ncq2: empty\n", out());
    std::this_thread::sleep_for(150ms);
    ASSERT_EQ(0, run("ulp poll cq1; ulp poll cq2")) << err();
    EXPECT_EQ("cq1: empty\ncq2: empty\n", out());

    const unsigned long before = marlix::kernel::now_jiffies();
    ASSERT_EQ(0, run("clock run; sleep 300; clock stop")) << err();
    EXPECT_GE(marlix::kernel::now_jiffies(), before + 200);  // about 300, as the ticker keeps up
    // The receiver got the message and the sender its acknowledgement: one completion each.
    ASSERT_EQ(0, run("ulp poll cq2; ulp poll cq1")) << err();
    const auto lines = lines_of(out());
    ASSERT_EQ(2u, lines.size()) << out();
    EXPECT_EQ(0u, lines[0].rfind("cq2: wr_id: 1, operation_type: ox_wc_send_rq, num_bytes_transfered: 64, "
                                 "completion_status: ox_comp_status_success,",
                                 0))
        << lines[0];
    EXPECT_EQ(0u, lines[1].rfind("cq1: wr_id: 1, operation_type: ox_wc_send_sq, num_bytes_transfered: 64, "
                                 "completion_status: ox_comp_status_success,",
                                 0))
        << lines[1];
}

INSTANTIATE_TEST_SUITE_P(Engines, ClockRetransmission, ::testing::Values("threaded", "stepped"),
                         [](const auto &info) { return std::string(info.param); });

}  // namespace
