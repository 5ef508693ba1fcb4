/* jiffies and HZ. jiffies follows the host's clock: a virtual clock that tests and scripts
 * advance explicitly (the default), or real time. */
#ifndef _LINUX_JIFFIES_H
#define _LINUX_JIFFIES_H

#include <linux/types.h>

#define HZ 1000

__BEGIN_KERNEL_DECLS
extern volatile u64 jiffies_64;
__END_KERNEL_DECLS

/* The clock moves on another thread (the ticker, or whoever advances the virtual clock) while
 * kernel code reads it from any context: every read is one whole, atomic load of the counter. */
#define jiffies ((unsigned long)__atomic_load_n(&jiffies_64, __ATOMIC_RELAXED))

#define time_after(a, b) ((long)(b) - (long)(a) < 0)
#define time_before(a, b) time_after(b, a)
#define time_after_eq(a, b) ((long)(a) - (long)(b) >= 0)
#define time_before_eq(a, b) time_after_eq(b, a)
#define msecs_to_jiffies(m) ((unsigned long)(m) * HZ / 1000)
#define jiffies_to_msecs(j) ((unsigned int)((j) * 1000 / HZ))

#endif
