/* Tasklets (run in softirq context on the softirq thread) and interrupt-context helpers. */
#ifndef _LINUX_INTERRUPT_H
#define _LINUX_INTERRUPT_H

#include <linux/types.h>
#include <linux/hardirq.h>
#include <asm/atomic.h>

struct tasklet_struct {
    struct tasklet_struct *next;
    unsigned long state;
    atomic_t count;
    void (*func)(unsigned long);
    unsigned long data;
};

enum { TASKLET_STATE_SCHED, TASKLET_STATE_RUN };

#define DECLARE_TASKLET(name, func, data) struct tasklet_struct name = {0, 0, ATOMIC_INIT(0), func, data}
#define DECLARE_TASKLET_DISABLED(name, func, data) \
    struct tasklet_struct name = {0, 0, ATOMIC_INIT(1), func, data}

__BEGIN_KERNEL_DECLS
void tasklet_init(struct tasklet_struct *t, void (*func)(unsigned long), unsigned long data);
void tasklet_schedule(struct tasklet_struct *t);
void tasklet_hi_schedule(struct tasklet_struct *t);
void tasklet_kill(struct tasklet_struct *t);
void tasklet_disable(struct tasklet_struct *t);
void tasklet_enable(struct tasklet_struct *t);
__END_KERNEL_DECLS

#endif
