/* Kernel timers. A pending timer runs once, in softirq context, when jiffies reaches
 * `expires`. */
#ifndef _LINUX_TIMER_H
#define _LINUX_TIMER_H

#include <linux/types.h>
#include <linux/list.h>
#include <linux/jiffies.h>

struct timer_list {
    struct list_head entry; /* host bookkeeping */
    unsigned long expires;
    void (*function)(unsigned long);
    unsigned long data;
    void *base; /* host bookkeeping: non-null once init_timer ran */
};

#define TIMER_INITIALIZER(_function, _expires, _data) \
    { {0, 0}, (_expires), (_function), (_data), 0 }

__BEGIN_KERNEL_DECLS
void init_timer(struct timer_list *timer);
void add_timer(struct timer_list *timer);
int mod_timer(struct timer_list *timer, unsigned long expires);
int del_timer(struct timer_list *timer);
int del_timer_sync(struct timer_list *timer);
int timer_pending(const struct timer_list *timer);
__END_KERNEL_DECLS

static inline void setup_timer(struct timer_list *timer, void (*function)(unsigned long), unsigned long data) {
    init_timer(timer);
    timer->function = function;
    timer->data = data;
}

#endif
