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
__END_KERNEL_DECLS

#define current get_current()

#endif
