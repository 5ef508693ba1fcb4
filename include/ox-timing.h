/* The stack's timer calls: thin wrappers that prepare, arm and remove a kernel timer. */
#ifndef OX_TIMING_H
#define OX_TIMING_H

#include <linux/timer.h>

__BEGIN_KERNEL_DECLS
void init_timing(struct timer_list *timer);  /* init_timer */
void add_timing(struct timer_list *timer);   /* add_timer at timer->expires */
void del_timing(struct timer_list *timer);   /* del_timer_sync; harmless on an idle timer */
__END_KERNEL_DECLS

#endif
