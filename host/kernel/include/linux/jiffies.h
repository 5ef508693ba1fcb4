/* jiffies and HZ. jiffies follows the host's clock: a virtual clock that tests and scripts
 * advance explicitly (the default), or real time. */
#ifndef _LINUX_JIFFIES_H
#define _LINUX_JIFFIES_H

#include <linux/types.h>

#define HZ 1000

__BEGIN_KERNEL_DECLS
extern volatile unsigned long jiffies;
__END_KERNEL_DECLS

#define time_after(a, b) ((long)(b) - (long)(a) < 0)
#define time_before(a, b) time_after(b, a)
#define time_after_eq(a, b) ((long)(a) - (long)(b) >= 0)
#define time_before_eq(a, b) time_after_eq(b, a)
#define msecs_to_jiffies(m) ((unsigned long)(m) * HZ / 1000)
#define jiffies_to_msecs(j) ((unsigned int)((j) * 1000 / HZ))

#endif
