// Spinlocks, the sleeping-in-atomic check and allocation fault injection.
#include "kernel_fixture.hpp"

#include <thread>

#include <linux/hardirq.h>
#include <linux/kernel.h>
#include <linux/sched.h>
#include <linux/slab.h>
#include <linux/spinlock.h>

namespace mk = marlix::kernel;
using Lines = std::vector<std::string>;

namespace {

TEST_F(KernelTest, SpinlockExcludesAndCounts) {
    static DEFINE_SPINLOCK(lock);
    spin_lock_init(&lock);
    long counter = 0;
    auto work = [&] {
        for (int i = 0; i < 20000; ++i) {
            unsigned long flags;
            spin_lock_irqsave(&lock, flags);
            long v = counter;
            counter = v + 1;
            spin_unlock_irqrestore(&lock, flags);
        }
    };
    std::thread a(work), b(work);
    a.join();
    b.join();
    EXPECT_EQ(counter, 40000);
    EXPECT_EQ(spin_lock_acquisitions(&lock), 40000u);
    EXPECT_FALSE(spin_is_locked(&lock));
}

TEST_F(KernelTest, SpinlockStateOfTheRunningContext) {
    spinlock_t lock = SPIN_LOCK_UNLOCKED;
    unsigned long flags;
    EXPECT_EQ(preempt_count(), 0u);
    spin_lock_irqsave(&lock, flags);
    EXPECT_EQ(preempt_count(), 1u);
    EXPECT_TRUE(irqs_disabled());
    EXPECT_TRUE(in_atomic());
    EXPECT_FALSE(spin_trylock(&lock));
    spin_unlock_irqrestore(&lock, flags);
    EXPECT_EQ(preempt_count(), 0u);
    EXPECT_FALSE(irqs_disabled());
    spin_lock_bh(&lock);
    EXPECT_TRUE(in_softirq());
    spin_unlock_bh(&lock);
    EXPECT_FALSE(in_softirq());
    EXPECT_EQ(lock.acquisitions, 2u);
}

TEST_F(KernelTest, TrylockOfALockTheTaskHoldsFailsWithoutReport) {
    spinlock_t lock = SPIN_LOCK_UNLOCKED;
    spin_lock(&lock);
    EXPECT_FALSE(spin_trylock(&lock));
    EXPECT_EQ(preempt_count(), 1u);
    spin_unlock(&lock);
    EXPECT_EQ(texts(), Lines{});
    EXPECT_EQ(mk::spinlock_bug_count(), 0u);
}

TEST_F(KernelTest, SpinlockReportsAreCountedUntilTheNextBoot) {
    spinlock_t lock = SPIN_LOCK_UNLOCKED;
    spin_lock_bh(&lock);
    spin_lock_bh(&lock);  // recursion: reported, not hung
    spin_unlock_bh(&lock);
    EXPECT_TRUE(spin_is_locked(&lock));  // still held by the outer section
    spin_unlock_bh(&lock);
    EXPECT_FALSE(spin_is_locked(&lock));
    EXPECT_FALSE(in_softirq());
    spin_unlock_irq(&lock);  // already unlocked: interrupts stay as they were
    EXPECT_FALSE(irqs_disabled());
    EXPECT_EQ(preempt_count(), 0u);
    EXPECT_EQ(mk::spinlock_bug_count(), 2u);
    auto t = texts();
    ASSERT_EQ(t.size(), 8u);
    EXPECT_EQ(t[0], "BUG: spinlock recursion on CPU#0, marlix/1000");
    EXPECT_EQ(t[4], "BUG: spinlock already unlocked on CPU#0, marlix/1000");
    mk::halt(true);
    mk::boot({});
    EXPECT_EQ(mk::spinlock_bug_count(), 0u);
    mk::reset_spinlock_bug_count();
}

TEST_F(KernelTest, SleepingAllocationWhileAtomicIsReported) {
    spinlock_t lock = SPIN_LOCK_UNLOCKED;
    unsigned long flags;
    spin_lock_irqsave(&lock, flags);
    int line = __LINE__ + 1;
    void *p = kmalloc(64, GFP_KERNEL);
    void *q = kmalloc(64, GFP_ATOMIC);  // fine
    spin_unlock_irqrestore(&lock, flags);
    EXPECT_NE(p, nullptr);  // the allocation still happens
    kfree(p);
    kfree(q);
    EXPECT_EQ(
        texts(),
        (Lines{"BUG: sleeping function called from invalid context at host/kernel/tests/lock_test.cpp:" +
                   std::to_string(line),
               "in_atomic(): 1, irqs_disabled(): 1, pid: 1000, name: marlix"}));
    EXPECT_EQ(levels(), (std::vector<int>{3, 3}));
    EXPECT_EQ(mk::sleeping_in_atomic_count(), 1u);
    mk::reset_sleeping_in_atomic_count();
    EXPECT_EQ(mk::sleeping_in_atomic_count(), 0u);
}

TEST_F(KernelTest, SleepingInIrqContextIsReported) {
    mk::raise_irq([] { kfree(kmalloc(16, GFP_KERNEL)); }, true);
    mk::raise_irq([] { might_sleep(); }, true);
    auto t = texts();
    ASSERT_EQ(t.size(), 4u);
    EXPECT_EQ(t[1], "in_atomic(): 1, irqs_disabled(): 0, pid: 4, name: irq/1");
    EXPECT_EQ(mk::sleeping_in_atomic_count(), 2u);
    kfree(kmalloc(16, GFP_KERNEL));  // process context: fine
    EXPECT_EQ(mk::sleeping_in_atomic_count(), 2u);
}

TEST_F(KernelTest, AllocationsAreTrackedWithSizeClasses) {
    size_t before = mk::live_allocation_count();
    void *p = kzalloc(100, GFP_KERNEL);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(static_cast<unsigned char *>(p)[99], 0);
    EXPECT_EQ(ksize(p), 128u);
    EXPECT_EQ(mk::live_allocation_count(), before + 1);
    auto live = mk::live_allocations(nullptr, false);
    ASSERT_FALSE(live.empty());
    EXPECT_EQ(live.back().ptr, p);
    EXPECT_EQ(live.back().size, 100u);
    EXPECT_EQ(live.back().func, "TestBody");
    kfree(p);
    EXPECT_EQ(mk::live_allocation_count(), before);
    EXPECT_EQ(kmalloc(131073, GFP_KERNEL), nullptr);  // above the largest cache
    kfree(p);                                         // twice: reported, not freed
    EXPECT_EQ(texts()[0].substr(0, 18), "kfree: bad object ");
}

void *alloc_here(size_t n) {
    return kmalloc(n, GFP_ATOMIC);
}

TEST_F(KernelTest, AllocationFaultRules) {
    mk::AllocFault nth;
    nth.nth = 2;
    mk::add_alloc_fault(nth);
    void *a = kmalloc(8, GFP_ATOMIC);
    void *b = kmalloc(8, GFP_ATOMIC);
    void *c = kmalloc(8, GFP_ATOMIC);
    EXPECT_NE(a, nullptr);
    EXPECT_EQ(b, nullptr);
    EXPECT_NE(c, nullptr);
    EXPECT_EQ(mk::injected_alloc_failures(), 1u);

    mk::AllocFault by_size;
    by_size.size = 800;
    mk::add_alloc_fault(by_size);
    void *d = kmalloc(8, GFP_ATOMIC);
    EXPECT_NE(d, nullptr);
    EXPECT_EQ(kmalloc(800, GFP_ATOMIC), nullptr);
    void *e = kmalloc(800, GFP_ATOMIC);
    EXPECT_NE(e, nullptr);

    mk::AllocFault by_site;
    by_site.site = "alloc_here";
    by_site.always = true;
    mk::add_alloc_fault(by_site);
    EXPECT_EQ(alloc_here(4), nullptr);
    EXPECT_EQ(alloc_here(4), nullptr);
    void *f = kmalloc(4, GFP_ATOMIC);
    EXPECT_NE(f, nullptr);
    EXPECT_EQ(mk::injected_alloc_failures(), 4u);
    mk::clear_alloc_faults();
    void *g = alloc_here(4);
    EXPECT_NE(g, nullptr);

    mk::AllocFault by_line;
    by_line.site = "lock_test.cpp:" + std::to_string(__LINE__ + 2);
    mk::add_alloc_fault(by_line);
    EXPECT_EQ(kmalloc(4, GFP_ATOMIC), nullptr);
    for (void *p : {a, c, d, e, f, g}) kfree(p);
}

}  // namespace
