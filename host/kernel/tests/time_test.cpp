// The virtual clock, timers, tasklets and interrupt context.
#include "kernel_fixture.hpp"

#include <atomic>

#include <linux/hardirq.h>
#include <linux/interrupt.h>
#include <linux/jiffies.h>
#include <linux/kernel.h>
#include <linux/sched.h>
#include <linux/smp.h>
#include <linux/timer.h>

namespace mk = marlix::kernel;
using Lines = std::vector<std::string>;

namespace {

void log_timer(unsigned long data) {
    printk("timer %lu at %lu softirq=%d irq=%d interrupt=%d cpu=%d comm=%s\n", data, jiffies,
           in_softirq() ? 1 : 0, in_irq() ? 1 : 0, in_interrupt() ? 1 : 0, smp_processor_id(), current->comm);
}

void note(unsigned long data) {
    printk("t%lu@%lu\n", data, jiffies);
}

struct timer_list rearming;
int rearm_count;
void rearm(unsigned long) {
    printk("tick %lu\n", jiffies);
    if (++rearm_count < 4) mod_timer(&rearming, jiffies + 10);
}

TEST_F(KernelTest, TimersRunInExpiryOrderUnderTheVirtualClock) {
    struct timer_list a, b, c, d;
    setup_timer(&a, note, 1);
    setup_timer(&b, note, 2);
    setup_timer(&c, note, 3);
    setup_timer(&d, note, 4);
    a.expires = 30;
    b.expires = 10;
    c.expires = 30;
    d.expires = 500;
    add_timer(&a);
    add_timer(&b);
    add_timer(&c);
    add_timer(&d);
    EXPECT_TRUE(timer_pending(&a));
    mk::advance_jiffies(29);
    EXPECT_EQ(texts(), (Lines{"t2@10"}));
    EXPECT_EQ(mk::now_jiffies(), 29u);
    mk::advance_jiffies(1);
    EXPECT_EQ(texts(), (Lines{"t2@10", "t1@30", "t3@30"}));  // same expiry: in the order armed
    EXPECT_FALSE(timer_pending(&a));
    EXPECT_EQ(mod_timer(&d, 40), 1);
    EXPECT_EQ(del_timer(&c), 0);
    mk::advance_jiffies(100);
    EXPECT_EQ(texts().back(), "t4@40");
    EXPECT_EQ(jiffies, 130u);
}

TEST_F(KernelTest, DeletedTimerDoesNotRun) {
    struct timer_list t;
    setup_timer(&t, note, 9);
    EXPECT_EQ(mod_timer(&t, 5), 0);
    EXPECT_EQ(del_timer(&t), 1);
    EXPECT_EQ(del_timer_sync(&t), 0);
    mk::advance_jiffies(10);
    EXPECT_TRUE(texts().empty());
}

TEST_F(KernelTest, TimersRunInSoftirqContext) {
    struct timer_list t;
    setup_timer(&t, log_timer, 7);
    t.expires = jiffies + 3;
    add_timer(&t);
    mk::advance_jiffies(3);
    EXPECT_EQ(texts(), (Lines{"timer 7 at 3 softirq=1 irq=0 interrupt=1 cpu=0 comm=ksoftirqd/0"}));
}

TEST_F(KernelTest, RearmingHandlerRunsWithinTheAdvancedSpan) {
    rearm_count = 0;
    setup_timer(&rearming, rearm, 0);
    mod_timer(&rearming, 10);
    mk::advance_jiffies(35);
    EXPECT_EQ(texts(), (Lines{"tick 10", "tick 20", "tick 30"}));
    EXPECT_TRUE(timer_pending(&rearming));
    mk::advance_jiffies(100);
    EXPECT_EQ(texts().back(), "tick 40");
    EXPECT_FALSE(timer_pending(&rearming));
}

std::atomic<int> tasklet_runs;
void count_tasklet(unsigned long data) {
    tasklet_runs++;
    printk("tasklet %lu softirq=%d pid=%d\n", data, in_softirq() ? 1 : 0, current->pid);
}

TEST_F(KernelTest, TaskletRunsOnceWhenScheduledTwice) {
    tasklet_runs = 0;
    struct tasklet_struct t;
    tasklet_init(&t, count_tasklet, 5);
    tasklet_disable(&t);  // hold it back so both schedules happen before it runs
    tasklet_schedule(&t);
    tasklet_schedule(&t);
    mk::softirq_sync();
    EXPECT_EQ(tasklet_runs, 0);
    tasklet_enable(&t);
    mk::softirq_sync();
    EXPECT_EQ(tasklet_runs, 1);
    EXPECT_EQ(texts(), (Lines{"tasklet 5 softirq=1 pid=3"}));
    tasklet_schedule(&t);
    tasklet_kill(&t);
    EXPECT_EQ(tasklet_runs, 2);
}

TEST_F(KernelTest, RaiseIrqRunsInHardirqContext) {
    mk::raise_irq(
        [] {
            printk("irq=%d softirq=%d cpu=%d comm=%s\n", in_irq() ? 1 : 0, in_softirq() ? 1 : 0,
                   smp_processor_id(), current->comm);
        },
        true);
    EXPECT_EQ(texts(), (Lines{"irq=1 softirq=0 cpu=1 comm=irq/1"}));
    std::atomic<int> n{0};
    for (int i = 0; i < 5; ++i) mk::raise_irq([&] { n++; });
    mk::irq_sync();
    EXPECT_EQ(n, 5);
}

TEST_F(KernelTest, ProcessContextTasks) {
    EXPECT_EQ(current->pid, 1000);
    EXPECT_STREQ(current->comm, "marlix");
    EXPECT_FALSE(in_interrupt());
    EXPECT_EQ(smp_processor_id(), 0);
    int other_pid = 0;
    std::thread([&] { other_pid = current->pid; }).join();
    EXPECT_EQ(other_pid, 1001);
    mk::run_in_softirq([] { printk("soft %d\n", in_softirq() ? 1 : 0); });
    EXPECT_EQ(texts(), (Lines{"soft 1"}));
}

TEST_F(KernelTest, HandlerLeavingPreemptCountIsReported) {
    mk::raise_irq([] { preempt_disable(); }, true);
    ASSERT_EQ(texts().size(), 1u);
    EXPECT_EQ(texts()[0].substr(0, 24), "huh, entered irq handler");
    mk::raise_irq([] { printk("count %lx\n", preempt_count()); }, true);
    EXPECT_EQ(texts().back(), "count 10000");
}

}  // namespace
