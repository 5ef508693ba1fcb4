/* User-space copies. The emulated process shares one address space, so a copy is a bounded
 * memcpy; both return the number of bytes NOT copied (0 on success). */
#ifndef _ASM_UACCESS_H
#define _ASM_UACCESS_H
#include <linux/types.h>
__BEGIN_KERNEL_DECLS
unsigned long copy_from_user(void *to, const void __user *from, unsigned long n);
unsigned long copy_to_user(void __user *to, const void *from, unsigned long n);
__END_KERNEL_DECLS
#endif
