#ifndef _LINUX_SMP_H
#define _LINUX_SMP_H

#include <linux/compiler.h>

#define NR_CPUS 2

__BEGIN_KERNEL_DECLS
int __marlix_smp_processor_id(void);
__END_KERNEL_DECLS

#define smp_processor_id() __marlix_smp_processor_id()
#define raw_smp_processor_id() __marlix_smp_processor_id()

#endif
