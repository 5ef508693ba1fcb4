// Spinlocks: a test-and-set word with acquire/release ordering; a waiter yields its host
// thread while it spins so that the holder can make progress on a busy machine.
//
// Each lock records its holding task. Misuse is reported as a kernel with spinlock debugging
// reports it, and the lock is left usable:
// - the holder taking it again ("recursion") would spin for ever; the re-take is reported and
//   counted instead, and the matching release only undoes that count, so the code in between
//   runs and the lock stays held by the outer section;
// - releasing a free lock ("already unlocked") is reported and changes nothing, not even the
//   preemption count or the interrupt state, so the caller's context stays balanced;
// - releasing a lock that another task holds ("wrong owner") is reported and releases it, but
//   leaves the releasing context alone: its preemption count was never raised for this lock.
// The emulated CPUs are not exclusive (every process thread runs on CPU 0 unless told
// otherwise), so recursion is decided by the holding task, not by the CPU number.
#include "internal.hpp"
#include <linux/hardirq.h>
#include <linux/kernel.h>
#include <linux/sched.h>
#include <linux/smp.h>
#include <linux/spinlock.h>

#include <sched.h>

namespace {

std::atomic<unsigned long> g_spinlock_bugs{0};

void spin_bug(spinlock_t *lock, const char *msg) {
    g_spinlock_bugs.fetch_add(1, std::memory_order_relaxed);
    task_struct *owner = __atomic_load_n(&lock->owner, __ATOMIC_RELAXED);
    printk(KERN_EMERG "BUG: spinlock %s on CPU#%d, %s/%d\n", msg, smp_processor_id(), current->comm,
           current->pid);
    printk(KERN_EMERG " lock: %p, .owner: %s/%d, .owner_cpu: %d\n", (void *)lock,
           owner ? owner->comm : "<none>", owner ? owner->pid : -1,
           __atomic_load_n(&lock->owner_cpu, __ATOMIC_RELAXED));
    dump_stack();
}

// The running task already holds the lock: report and count the re-take instead of spinning.
// Only the holder writes its own task into `owner`, so seeing itself there cannot be a race.
bool retaken_by_holder(spinlock_t *lock) {
    if (__atomic_load_n(&lock->owner, __ATOMIC_RELAXED) != current) return false;
    spin_bug(lock, "recursion");
    ++lock->recursion;
    return true;
}

void acquire(spinlock_t *lock) {
    while (__atomic_exchange_n(&lock->slock, 1, __ATOMIC_ACQUIRE) != 0) {
        while (__atomic_load_n(&lock->slock, __ATOMIC_RELAXED) != 0) sched_yield();
    }
    __atomic_store_n(&lock->owner, current, __ATOMIC_RELAXED);
    __atomic_store_n(&lock->owner_cpu, smp_processor_id(), __ATOMIC_RELAXED);
    __atomic_fetch_add(&lock->acquisitions, 1, __ATOMIC_RELAXED);
}

// Returns false when the running task did not hold the lock: the caller then leaves its
// context (preemption count, interrupt state) as it is.
bool release(spinlock_t *lock) {
    task_struct *owner = __atomic_load_n(&lock->owner, __ATOMIC_RELAXED);
    if (owner == current && lock->recursion > 0) {
        --lock->recursion;  // the inner release of a reported recursion: still held
        return true;
    }
    if (__atomic_load_n(&lock->slock, __ATOMIC_RELAXED) == 0) {
        spin_bug(lock, "already unlocked");
        return false;
    }
    bool mine = owner == current;
    if (!mine) spin_bug(lock, "wrong owner");
    __atomic_store_n(&lock->owner, nullptr, __ATOMIC_RELAXED);
    __atomic_store_n(&lock->owner_cpu, -1, __ATOMIC_RELAXED);
    __atomic_store_n(&lock->slock, 0, __ATOMIC_RELEASE);
    return mine;
}

}  // namespace

namespace marlix::kernel {
unsigned long spinlock_bug_count() {
    return g_spinlock_bugs.load(std::memory_order_relaxed);
}
void reset_spinlock_bug_count() {
    g_spinlock_bugs.store(0, std::memory_order_relaxed);
}
}  // namespace marlix::kernel

extern "C" {

void spin_lock_init(spinlock_t *lock) {
    __atomic_store_n(&lock->slock, 0, __ATOMIC_RELAXED);
    __atomic_store_n(&lock->owner_cpu, -1, __ATOMIC_RELAXED);
    __atomic_store_n(&lock->acquisitions, 0, __ATOMIC_RELAXED);
    __atomic_store_n(&lock->owner, nullptr, __ATOMIC_RELAXED);
    lock->recursion = 0;
}

void spin_lock(spinlock_t *lock) {
    preempt_disable();
    if (!retaken_by_holder(lock)) acquire(lock);
}

void spin_unlock(spinlock_t *lock) {
    if (release(lock)) preempt_enable();
}

int spin_trylock(spinlock_t *lock) {
    preempt_disable();
    if (__atomic_exchange_n(&lock->slock, 1, __ATOMIC_ACQUIRE) == 0) {
        __atomic_store_n(&lock->owner, current, __ATOMIC_RELAXED);
        __atomic_store_n(&lock->owner_cpu, smp_processor_id(), __ATOMIC_RELAXED);
        __atomic_fetch_add(&lock->acquisitions, 1, __ATOMIC_RELAXED);
        return 1;
    }
    preempt_enable();
    return 0;
}

int spin_is_locked(spinlock_t *lock) {
    return __atomic_load_n(&lock->slock, __ATOMIC_RELAXED) != 0;
}

unsigned long __marlix_spin_lock_irqsave(spinlock_t *lock) {
    unsigned long flags;
    local_irq_save(flags);
    preempt_disable();
    if (!retaken_by_holder(lock)) acquire(lock);
    return flags;
}

void spin_unlock_irqrestore(spinlock_t *lock, unsigned long flags) {
    if (!release(lock)) return;
    local_irq_restore(flags);
    preempt_enable();
}

void spin_lock_irq(spinlock_t *lock) {
    local_irq_disable();
    preempt_disable();
    if (!retaken_by_holder(lock)) acquire(lock);
}

void spin_unlock_irq(spinlock_t *lock) {
    if (!release(lock)) return;
    local_irq_enable();
    preempt_enable();
}

// Disabling bottom halves counts in the softirq part of the preempt count, as on 2.6.
void spin_lock_bh(spinlock_t *lock) {
    add_preempt_count(SOFTIRQ_OFFSET);
    preempt_disable();
    if (!retaken_by_holder(lock)) acquire(lock);
}

void spin_unlock_bh(spinlock_t *lock) {
    if (!release(lock)) return;
    preempt_enable();
    sub_preempt_count(SOFTIRQ_OFFSET);
}

unsigned long spin_lock_acquisitions(const spinlock_t *lock) {
    return __atomic_load_n(&lock->acquisitions, __ATOMIC_RELAXED);
}

}  // extern "C"
