/* Discarding the asynchronous event registrations of a closing HCA. */
#include <linux/kernel.h>
#include <linux/list.h>
#include <linux/slab.h>

#include "adaptor-tavor.h"
#include "async-events.h"

/* Registration counts its element in the accounting table; teardown deliberately does not
 * uncount it, so that row only grows. */
ox_return_t ox_mlx_destroy_async_events(ox_opened_hca_t *opened_hca_p) {
    struct list_head *pos, *n;
    int removed = 0;

    list_for_each_safe(pos, n, &opened_hca_p->events_lists.reg_for_async) {
        ox_asy_ev_element_t *element = list_entry(pos, ox_asy_ev_element_t, list);

        list_del(&element->list);
        kfree(element);
        g_stat.registered_async_event_cb_num--;
        g_stat.last_registered_async_event_cb_num--;
        removed++;
    }
    AD_TAVOR_DEBUG("Remove and free from list %d elements", removed);
    return ox_return_ok;
}
