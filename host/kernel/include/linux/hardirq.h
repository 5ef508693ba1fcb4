#ifndef _LINUX_HARDIRQ_H
#define _LINUX_HARDIRQ_H

#include <linux/preempt.h>
#include <linux/irqflags.h>

#define hardirq_count() (preempt_count() & HARDIRQ_MASK)
#define softirq_count() (preempt_count() & SOFTIRQ_MASK)
#define irq_count() (preempt_count() & (HARDIRQ_MASK | SOFTIRQ_MASK))

#define in_irq() (hardirq_count())
#define in_softirq() (softirq_count())
#define in_interrupt() (irq_count())
#define in_atomic() ((preempt_count() & ~0UL) != 0)

#endif
