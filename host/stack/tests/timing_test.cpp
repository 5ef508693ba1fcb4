#include <gtest/gtest.h>

#include "marlix/kernel.hpp"
#include "marlix/stack.hpp"
#include "ox-timing.h"

namespace {

std::vector<unsigned long> g_fired;
void on_timer(unsigned long data) {
    g_fired.push_back(data);
}

class Timing : public ::testing::Test {
  protected:
    void SetUp() override {
        marlix::kernel::boot();
        marlix::stack::boot();
        g_fired.clear();
    }
    void TearDown() override {
        marlix::stack::halt();
        marlix::kernel::halt(true);
    }
};

TEST_F(Timing, ArmedTimerFiresOnceWhenItsTimeComes) {
    struct timer_list timer;
    init_timing(&timer);
    timer.function = on_timer;
    timer.data = 7;
    timer.expires = marlix::kernel::now_jiffies() + 10;
    add_timing(&timer);
    marlix::kernel::advance_jiffies(9);
    EXPECT_TRUE(g_fired.empty());
    marlix::kernel::advance_jiffies(1);
    ASSERT_EQ(g_fired.size(), 1u);
    EXPECT_EQ(g_fired[0], 7u);
    marlix::kernel::advance_jiffies(100);
    EXPECT_EQ(g_fired.size(), 1u);
    del_timing(&timer);
}

TEST_F(Timing, RemovedTimerDoesNotFire) {
    struct timer_list timer;
    init_timing(&timer);
    timer.function = on_timer;
    timer.data = 1;
    timer.expires = marlix::kernel::now_jiffies() + 5;
    add_timing(&timer);
    del_timing(&timer);
    marlix::kernel::advance_jiffies(10);
    EXPECT_TRUE(g_fired.empty());
}

TEST_F(Timing, RemovingAnIdleOrUnpreparedTimerIsHarmless) {
    struct timer_list idle;
    init_timing(&idle);
    del_timing(&idle);
    del_timing(&idle);
    struct timer_list never = TIMER_INITIALIZER(on_timer, 0, 0);
    del_timing(&never);
    del_timing(nullptr);
    marlix::kernel::advance_jiffies(10);
    EXPECT_TRUE(g_fired.empty());
}

TEST_F(Timing, ArmingAPendingTimerMovesItInsteadOfQueueingTwice) {
    struct timer_list timer;
    init_timing(&timer);
    timer.function = on_timer;
    timer.data = 3;
    timer.expires = marlix::kernel::now_jiffies() + 5;
    add_timing(&timer);
    timer.expires = marlix::kernel::now_jiffies() + 20;
    add_timing(&timer);
    marlix::kernel::advance_jiffies(10);
    EXPECT_TRUE(g_fired.empty());
    marlix::kernel::advance_jiffies(10);
    EXPECT_EQ(g_fired.size(), 1u);
    del_timing(&timer);
}

}  // namespace
