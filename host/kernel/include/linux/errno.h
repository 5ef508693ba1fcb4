/* The kernel's errno values (the same numbers the C library uses on Linux). This header also
 * stands in for the system's <linux/errno.h>, which the C library's <errno.h> includes, so it
 * takes the values from there. */
#ifndef _MARLIX_LINUX_ERRNO_H
#define _MARLIX_LINUX_ERRNO_H
#include_next <linux/errno.h>
#endif
