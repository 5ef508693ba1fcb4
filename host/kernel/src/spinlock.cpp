// Spinlocks: a test-and-set word with acquire/release ordering; a waiter yields its host
// thread while it spins so that the holder can make progress on a busy machine.
#include "internal.hpp"
#include <linux/hardirq.h>
#include <linux/smp.h>
#include <linux/spinlock.h>

#include <sched.h>

namespace {

void acquire(spinlock_t *lock) {
    while (__atomic_exchange_n(&lock->slock, 1, __ATOMIC_ACQUIRE) != 0) {
        while (__atomic_load_n(&lock->slock, __ATOMIC_RELAXED) != 0) sched_yield();
    }
    __atomic_store_n(&lock->owner_cpu, smp_processor_id(), __ATOMIC_RELAXED);
    __atomic_fetch_add(&lock->acquisitions, 1, __ATOMIC_RELAXED);
}

void release(spinlock_t *lock) {
    __atomic_store_n(&lock->owner_cpu, -1, __ATOMIC_RELAXED);
    __atomic_store_n(&lock->slock, 0, __ATOMIC_RELEASE);
}

}  // namespace

extern "C" {

void spin_lock_init(spinlock_t *lock) {
    __atomic_store_n(&lock->slock, 0, __ATOMIC_RELAXED);
    __atomic_store_n(&lock->owner_cpu, -1, __ATOMIC_RELAXED);
    __atomic_store_n(&lock->acquisitions, 0, __ATOMIC_RELAXED);
}

void spin_lock(spinlock_t *lock) {
    preempt_disable();
    acquire(lock);
}

void spin_unlock(spinlock_t *lock) {
    release(lock);
    preempt_enable();
}

int spin_trylock(spinlock_t *lock) {
    preempt_disable();
    if (__atomic_exchange_n(&lock->slock, 1, __ATOMIC_ACQUIRE) == 0) {
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
    acquire(lock);
    return flags;
}

void spin_unlock_irqrestore(spinlock_t *lock, unsigned long flags) {
    release(lock);
    local_irq_restore(flags);
    preempt_enable();
}

void spin_lock_irq(spinlock_t *lock) {
    local_irq_disable();
    preempt_disable();
    acquire(lock);
}

void spin_unlock_irq(spinlock_t *lock) {
    release(lock);
    local_irq_enable();
    preempt_enable();
}

// Disabling bottom halves counts in the softirq part of the preempt count, as on 2.6.
void spin_lock_bh(spinlock_t *lock) {
    add_preempt_count(SOFTIRQ_OFFSET);
    preempt_disable();
    acquire(lock);
}

void spin_unlock_bh(spinlock_t *lock) {
    release(lock);
    preempt_enable();
    sub_preempt_count(SOFTIRQ_OFFSET);
}

unsigned long spin_lock_acquisitions(const spinlock_t *lock) {
    return __atomic_load_n(&lock->acquisitions, __ATOMIC_RELAXED);
}

}  // extern "C"
