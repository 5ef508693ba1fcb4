/* Local interrupt state: "disabling interrupts" is per executing context (thread). */
#ifndef _LINUX_IRQFLAGS_H
#define _LINUX_IRQFLAGS_H

#include <linux/compiler.h>

__BEGIN_KERNEL_DECLS
unsigned long __marlix_local_irq_save(void); /* returns previous state, disables */
void __marlix_local_irq_restore(unsigned long flags);
void __marlix_local_irq_disable(void);
void __marlix_local_irq_enable(void);
int __marlix_irqs_disabled(void);
__END_KERNEL_DECLS

#define local_irq_save(flags)                  \
    do {                                       \
        (flags) = __marlix_local_irq_save();   \
    } while (0)
#define local_irq_restore(flags) __marlix_local_irq_restore(flags)
#define local_irq_disable() __marlix_local_irq_disable()
#define local_irq_enable() __marlix_local_irq_enable()
#define irqs_disabled() __marlix_irqs_disabled()

#endif
