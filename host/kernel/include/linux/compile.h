/* Build identification baked into kernel objects. */
#ifndef _LINUX_COMPILE_H
#define _LINUX_COMPILE_H
#include <linux/version.h>
#define LINUX_COMPILER __VERSION__
#define UTS_MACHINE "x86_64"
#endif
