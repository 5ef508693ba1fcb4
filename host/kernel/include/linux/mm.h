/* Memory information: si_meminfo and the end of the direct map (high_memory). */
#ifndef _LINUX_MM_H
#define _LINUX_MM_H

#include <linux/types.h>
#include <asm/page.h>

struct sysinfo {
    long uptime;
    unsigned long loads[3];
    unsigned long totalram;  /* in pages (mem_unit = PAGE_SIZE) */
    unsigned long freeram;
    unsigned long sharedram;
    unsigned long bufferram;
    unsigned long totalswap;
    unsigned long freeswap;
    unsigned short procs;
    unsigned long totalhigh;
    unsigned long freehigh;
    unsigned int mem_unit;
};

__BEGIN_KERNEL_DECLS
extern void *high_memory;
extern unsigned long num_physpages;
void si_meminfo(struct sysinfo *val);
__END_KERNEL_DECLS

#endif
