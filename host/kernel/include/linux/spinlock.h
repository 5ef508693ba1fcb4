/* Spinlocks: real mutual exclusion between host threads. Taking one disables preemption;
 * the _irqsave form also disables interrupts for the running context and saves the previous
 * state in `flags`. Each lock counts its acquisitions so tests can assert locking behaviour.
 *
 * Locks are checked as a kernel with spinlock debugging checks them, and misuse is reported in
 * the log instead of hanging or corrupting the lock: taking a lock that the running task
 * already holds ("BUG: spinlock recursion"), releasing a lock that is not held ("BUG: spinlock
 * already unlocked") and releasing one held by another task ("BUG: spinlock wrong owner"). */
#ifndef _LINUX_SPINLOCK_H
#define _LINUX_SPINLOCK_H

#include <linux/types.h>
#include <linux/preempt.h>
#include <linux/irqflags.h>

struct task_struct;

typedef struct {
    volatile int slock;          /* 0 free, 1 held */
    int owner_cpu;               /* cpu of the holder, -1 when free */
    unsigned long acquisitions;  /* number of times the lock was taken */
    struct task_struct *owner;   /* the holding task, null when free */
    unsigned int recursion;      /* reported re-takes by the holder not yet released */
} spinlock_t;

#define SPIN_LOCK_UNLOCKED {0, -1, 0, 0, 0}
#define __SPIN_LOCK_UNLOCKED(name) SPIN_LOCK_UNLOCKED
#define DEFINE_SPINLOCK(x) spinlock_t x = SPIN_LOCK_UNLOCKED

__BEGIN_KERNEL_DECLS
void spin_lock_init(spinlock_t *lock);
void spin_lock(spinlock_t *lock);
void spin_unlock(spinlock_t *lock);
int spin_trylock(spinlock_t *lock);
int spin_is_locked(spinlock_t *lock);
unsigned long __marlix_spin_lock_irqsave(spinlock_t *lock);
void spin_unlock_irqrestore(spinlock_t *lock, unsigned long flags);
void spin_lock_irq(spinlock_t *lock);
void spin_unlock_irq(spinlock_t *lock);
void spin_lock_bh(spinlock_t *lock);
void spin_unlock_bh(spinlock_t *lock);
/* Acquisitions so far (for tests and diagnostics). */
unsigned long spin_lock_acquisitions(const spinlock_t *lock);
__END_KERNEL_DECLS

#define spin_lock_irqsave(lock, flags)                  \
    do {                                                \
        (flags) = __marlix_spin_lock_irqsave(lock);     \
    } while (0)

#endif
