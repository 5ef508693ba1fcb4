#ifndef _LINUX_ERRNO_H
#define _LINUX_ERRNO_H
/* The kernel's errno values are the C library's on Linux. */
#include <errno.h>
#endif
