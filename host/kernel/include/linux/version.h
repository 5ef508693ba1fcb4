#ifndef _LINUX_VERSION_H
#define _LINUX_VERSION_H
#define KERNEL_VERSION(a, b, c) (((a) << 16) + ((b) << 8) + (c))
#define LINUX_VERSION_CODE KERNEL_VERSION(2, 6, 9)
#define UTS_RELEASE "2.6.9-marlix"
#endif
