// The stack's timer calls, over the kernel's timers.
#include "ox-timing.h"

extern "C" {

void init_timing(struct timer_list *timer) {
    if (timer) init_timer(timer);
}

// Arming a timer that is already pending moves it to its new expiry instead of queueing it
// twice (which the kernel's add_timer would treat as a bug).
void add_timing(struct timer_list *timer) {
    if (!timer) return;
    if (timer_pending(timer))
        mod_timer(timer, timer->expires);
    else
        add_timer(timer);
}

// A timer that was never prepared is left alone.
void del_timing(struct timer_list *timer) {
    if (!timer || !timer->base) return;
    del_timer_sync(timer);
}

}  // extern "C"
