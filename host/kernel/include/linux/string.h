#ifndef _LINUX_STRING_H
#define _LINUX_STRING_H
/* memset/memcpy/strlen/strcmp/strncpy... behave in the kernel as in the C library. */
#include <string.h>
#endif
