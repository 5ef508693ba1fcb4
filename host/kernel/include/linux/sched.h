/* The running task: process threads each get a task with a pid; softirq and hardirq
 * threads have tasks of their own ("ksoftirqd/N", "irq/N"). */
#ifndef _LINUX_SCHED_H
#define _LINUX_SCHED_H

#include <linux/types.h>
#include <linux/smp.h>

#define TASK_COMM_LEN 16

struct task_struct {
    int pid;
    char comm[TASK_COMM_LEN];
};

__BEGIN_KERNEL_DECLS
struct task_struct *get_current(void);
/* Process-context sleep helpers; calling them while atomic is reported like kmalloc(GFP_KERNEL). */
void might_sleep(void);
void schedule(void);
void __marlix_might_sleep(const char *file, int line);
__END_KERNEL_DECLS

/* Name the caller's file and line in the report, as the kernel's might_sleep() does. */
#define might_sleep() __marlix_might_sleep(__FILE__, __LINE__)
#define current get_current()

#endif
