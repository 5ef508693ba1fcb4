// The console's upper layer and events: ulp async prints the asynchronous events an HCA delivers
// (a cable pulled and replugged) and the statistics page counts them; ulp pingpong ... events waits
// for completion events instead of busy polling; the generator and event commands on real CQs.
#include <cstdio>
#include <sstream>
#include <vector>

#include "console_fixture.hpp"

namespace {

size_t count_lines(const std::string &text, const std::string &part) {
    size_t n = 0;
    for (const auto &l : lines_of(text)) n += l.find(part) != std::string::npos;
    return n;
}

class UlpEventsTest : public TwoHcaConsoleTest {};

TEST_F(UlpEventsTest, ACablePulledAndReplugedIsPrintedAndCounted) {
    page();
    ASSERT_EQ(0, run("ulp async on hca1")) << err();
    EXPECT_EQ("hca1: asynchronous events on (InfiniHost0)\n", out());
    ASSERT_EQ(0, run("cable InfiniHost0 1 unplug")) << err();
    EXPECT_EQ("ulp: async event on hca1: ox_async_r_port, port_num 1\n", out());
    ASSERT_EQ(0, run("cable InfiniHost0 1 plug")) << err();
    EXPECT_EQ("ulp: async event on hca1: ox_async_r_port, port_num 1\n", out());
    // The other HCA has no callback: its events are not printed.
    ASSERT_EQ(0, run("cable InfiniHost1 1 unplug; cable InfiniHost1 1 plug")) << err();
    EXPECT_EQ("", out());
    std::string p = page();
    EXPECT_TRUE(has_line(p, "async event: 4 (4)")) << p;

    ASSERT_EQ(1, run("ulp async on hca1"));
    EXPECT_EQ("ulp: async: already on for hca1\n", err());
    ASSERT_EQ(0, run("ulp async off hca1")) << err();
    EXPECT_EQ("hca1: asynchronous events off\n", out());
    ASSERT_EQ(0, run("cable InfiniHost0 1 unplug; cable InfiniHost0 1 plug")) << err();
    EXPECT_EQ("", out());
    ASSERT_EQ(1, run("ulp async off hca1"));
    EXPECT_EQ("ulp: async: not on for hca1\n", err());
    EXPECT_EQ(2, run("ulp async sometimes"));
}

TEST_F(UlpEventsTest, ClosingTheHcaFreesItsCallback) {
    ASSERT_EQ(0, run("ulp async on hca2")) << err();
    EXPECT_EQ("hca2: asynchronous events on (InfiniHost1)\n", out());
    ASSERT_EQ(0, run("ulp close hca2")) << err();
    ASSERT_EQ(0, run("cable InfiniHost1 1 unplug; cable InfiniHost1 1 plug")) << err();
    EXPECT_EQ("", out());
    ASSERT_EQ(0, run("ulp open InfiniHost1; ulp async on hca3")) << err();
    EXPECT_TRUE(has_line(out(), "hca3: asynchronous events on (InfiniHost1)")) << out();
}

TEST_F(UlpEventsTest, PingpongWithEventsArmsWaitsAndPolls) {
    page();
    ASSERT_EQ(0, run("ulp pingpong rc 64 20 events")) << err();
    const std::string last = lines_of(out()).back();
    EXPECT_EQ(0u, last.find("pingpong rc: 20 exchanges, 64 bytes, 2560 bytes verified, 0 errors, ")) << last;
    // At most one arming per completion waited for, at most one event per arming.
    unsigned long notifications = 0, events = 0;
    ASSERT_EQ(2, std::sscanf(last.c_str(),
                             "pingpong rc: 20 exchanges, 64 bytes, 2560 bytes verified, 0 errors, %lu "
                             "notifications, %lu completion events",
                             &notifications, &events))
        << last;
    // On the threaded engine a completion may already be there at the first poll: fewer armings.
    EXPECT_LE(notifications, 80u);
    EXPECT_LE(events, notifications);
    std::string p = page();
    std::ostringstream notify, event;
    notify << "comp notify: " << notifications << " (" << notifications << ")";
    event << " comp event: " << events << " (" << events << ")";
    EXPECT_TRUE(has_line(p, notify.str())) << p;
    EXPECT_TRUE(has_line(p, event.str())) << p;
}

TEST_F(UlpEventsTest, GeneratorAndEventCommandsOnRealCqs) {
    // The commands serve the first HCA on the module's list: the one opened last.
    ASSERT_EQ(0, run("ulp cq create 16 hca2; ulp cq create 16 hca2; ulp cq create 16 hca2")) << err();
    ASSERT_EQ(0, run("dmesg -C")) << err();
    ASSERT_EQ(0, run(std::string("echo pollcq 0 > ") + kControl + "; dmesg -t -c")) << err();
    EXPECT_EQ(3u, count_lines(out(), "Empty CQ: cq_index: ")) << out();
    ASSERT_EQ(0, run(std::string("echo pollcq 2 > ") + kControl + "; dmesg -t -c")) << err();
    // Newest first: VAPI handles 3, 2, 1; the argument matches a handle or a position.
    EXPECT_EQ(1u, count_lines(out(), "find CQ: cq_index: 2, user: 0x")) << out();
    EXPECT_EQ(2u, count_lines(out(), ", mlx: 0x0000000000000002")) << out();  // found, then polled
    EXPECT_EQ(1u, count_lines(out(), "Empty CQ: cq_index: 2, user: 0x")) << out();
    ASSERT_EQ(0, run(std::string("echo pollcq 1 > ") + kControl + "; dmesg -t -c")) << err();
    EXPECT_EQ(1u, count_lines(out(), "Empty CQ: cq_index: 1, user: 0x")) << out();
    ASSERT_EQ(0, run(std::string("echo pollcq 9 > ") + kControl + "; dmesg -t -c")) << err();
    EXPECT_TRUE(has_line(out(), "ERROR - Didn't find cq_h: 0x0000000000000009")) << out();
    // The selection array of the proc commands is never allocated: a real CQ cannot be added.
    ASSERT_EQ(0, run(std::string("echo comaddcq 1 > ") + kControl + "; dmesg -t -c")) << err();
    EXPECT_TRUE(has_line(out(), "Didn't find cq_h: 0000000000000001")) << out();
    ASSERT_EQ(0, run(std::string("echo comremcq 1 > ") + kControl + "; dmesg -t -c")) << err();
    EXPECT_EQ(1u, count_lines(out(), "ERROR - Didn't find cq in the array: ")) << out();
    ASSERT_EQ(0, run(std::string("echo comshow > ") + kControl + "; dmesg -t -c")) << err();
    EXPECT_TRUE(has_line(out(), "g_com_cq_array: 0000000000000000")) << out();
    EXPECT_TRUE(has_line(out(), "g_com_index_of_selected_cq: 0")) << out();
}

// The stepped engine does the adapters' work only when the console lets them settle: what a
// pingpong waiting for events sees is then the same on every run.
class UlpEventsSteppedTest : public UlpEventsTest {
  protected:
    void SetUp() override {
        ConsoleTest::SetUp();
        ASSERT_EQ(
            0, run("engine stepped; rep set marlix/modules/adaptor-mlx/ debug-level 1; insmod adaptor-mlx"))
            << err();
        ASSERT_EQ(0, run("ulp open InfiniHost0; ulp open InfiniHost1")) << err();
    }
};

TEST_F(UlpEventsSteppedTest, EachWaitArmsOnceAndIsWokenByOneEvent) {
    page();
    ASSERT_EQ(0, run("ulp pingpong rc 64 20 events")) << err();
    EXPECT_EQ(
        "pingpong rc: 20 exchanges, 64 bytes, 2560 bytes verified, 0 errors, 40 notifications, 40 "
        "completion events",
        lines_of(out()).back());
    std::string p = page();
    EXPECT_TRUE(has_line(p, "comp notify: 40 (40)")) << p;
    EXPECT_TRUE(has_line(p, " comp event: 40 (40)")) << p;
    EXPECT_TRUE(has_line(p, "    send WR: 40 (40) [0 (0)] {0 (0)}")) << p;
}

TEST_F(UlpEventsSteppedTest, EventControlSuppressesArmingForReal) {
    ASSERT_EQ(0, run(std::string("echo event_ctrl 1 > ") + kControl)) << err();
    // No CQ is armed, so no completion event comes: each message is lost to its waiting sender.
    EXPECT_EQ(1, run("ulp pingpong rc 8 1 events"));
    EXPECT_EQ(
        "pingpong rc: 1 exchanges, 8 bytes, 0 bytes verified, 2 errors, 2 notifications, 0 completion events",
        lines_of(out()).back());
    // Suppressed requests are not counted by the module.
    std::string p = page();
    EXPECT_TRUE(has_line(p, "comp notify: 0 (0)")) << p;
    EXPECT_TRUE(has_line(p, " comp event: 0 (0)")) << p;
    // Busy polling still moves the data.
    ASSERT_EQ(0, run("ulp pingpong rc 8 1")) << err();
    ASSERT_EQ(0, run(std::string("echo event_ctrl 0 > ") + kControl)) << err();
    ASSERT_EQ(0, run("ulp pingpong rc 8 1 events")) << err();
    EXPECT_EQ(
        "pingpong rc: 1 exchanges, 8 bytes, 16 bytes verified, 0 errors, 2 notifications, 2 completion "
        "events",
        lines_of(out()).back());
}

}  // namespace
