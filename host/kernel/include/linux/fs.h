#ifndef _LINUX_FS_H
#define _LINUX_FS_H
#include <linux/types.h>
/* An open file as a proc write handler sees it; handlers of this vintage do not look inside. */
struct file {
    const char *f_path;
    unsigned int f_flags;
    loff_t f_pos;
};
#endif
