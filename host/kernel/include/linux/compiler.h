/* Compiler helpers shared by kernel headers; usable from C and C++. */
#ifndef _LINUX_COMPILER_H
#define _LINUX_COMPILER_H

#ifdef __cplusplus
#define __BEGIN_KERNEL_DECLS extern "C" {
#define __END_KERNEL_DECLS }
#define __KERNEL_EXTERN_C extern "C"
#else
#define __BEGIN_KERNEL_DECLS
#define __END_KERNEL_DECLS
#define __KERNEL_EXTERN_C
#endif

#define __user
#define __iomem
#define __init
#define __exit
#define __initdata
#define __exitdata
#define likely(x) __builtin_expect(!!(x), 1)
#define unlikely(x) __builtin_expect(!!(x), 0)
#define barrier() __asm__ __volatile__("" : : : "memory")

#endif
