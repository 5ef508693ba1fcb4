/* The preemption counter of the running context and the kernel's masks over it.
 * Process context runs on caller threads; softirq context (timers, tasklets) and hardirq
 * context (device interrupts) run on host threads of their own with the matching bits set. */
#ifndef _LINUX_PREEMPT_H
#define _LINUX_PREEMPT_H

#include <linux/compiler.h>

#define PREEMPT_BITS 8
#define SOFTIRQ_BITS 8
#define HARDIRQ_BITS 8

#define PREEMPT_SHIFT 0
#define SOFTIRQ_SHIFT (PREEMPT_SHIFT + PREEMPT_BITS)
#define HARDIRQ_SHIFT (SOFTIRQ_SHIFT + SOFTIRQ_BITS)

#define __IRQ_MASK(x) ((1UL << (x)) - 1)
#define PREEMPT_MASK (__IRQ_MASK(PREEMPT_BITS) << PREEMPT_SHIFT) /* 0x000000ff */
#define SOFTIRQ_MASK (__IRQ_MASK(SOFTIRQ_BITS) << SOFTIRQ_SHIFT) /* 0x0000ff00 */
#define HARDIRQ_MASK (__IRQ_MASK(HARDIRQ_BITS) << HARDIRQ_SHIFT) /* 0x00ff0000 */

#define PREEMPT_OFFSET (1UL << PREEMPT_SHIFT)
#define SOFTIRQ_OFFSET (1UL << SOFTIRQ_SHIFT)
#define HARDIRQ_OFFSET (1UL << HARDIRQ_SHIFT)

__BEGIN_KERNEL_DECLS
/* The running thread's counter (thread-local in the emulation). */
unsigned long *__marlix_preempt_count_ptr(void);
__END_KERNEL_DECLS

#define preempt_count() (*__marlix_preempt_count_ptr())
#define add_preempt_count(val) (preempt_count() += (val))
#define sub_preempt_count(val) (preempt_count() -= (val))
#define inc_preempt_count() add_preempt_count(1)
#define dec_preempt_count() sub_preempt_count(1)
#define preempt_disable() inc_preempt_count()
#define preempt_enable() dec_preempt_count()

#endif
