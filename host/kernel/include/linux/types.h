/* Fixed-width kernel types (x86_64, LP64). */
#ifndef _LINUX_TYPES_H
#define _LINUX_TYPES_H

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>
#ifndef __cplusplus
#include <stdbool.h>
#endif
#include <linux/compiler.h>

typedef int8_t s8;
typedef uint8_t u8;
typedef int16_t s16;
typedef uint16_t u16;
typedef int32_t s32;
typedef uint32_t u32;
typedef int64_t s64;
typedef uint64_t u64;

typedef u8 __u8;
typedef u16 __u16;
typedef u32 __u32;
typedef u64 __u64;
typedef s32 __s32;
typedef s64 __s64;

/* The C library defines loff_t itself in its default (GNU) mode. */
#ifndef __USE_MISC
typedef long long loff_t;
#endif
typedef unsigned int gfp_t;

#endif
