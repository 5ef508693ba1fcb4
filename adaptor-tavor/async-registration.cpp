/* Registering and removing the upper layers' asynchronous event callbacks of an HCA. The newest
 * registration is at the head of the HCA's list and is the one events are delivered to. */
#include <linux/kernel.h>
#include <linux/list.h>
#include <linux/slab.h>

#include "ox-entry-points.h"
#include "adaptor-tavor.h"
#include "async-events.h"
#include "opened-hcas.h"

ox_return_t oxi_mlx_set_async_event_cb(ox_opened_hca_t *opened_hca_p, ox_request_event_record_t req_er,
                                       ox_app_async_event_callback_t async_event_callback) {
    ox_asy_ev_element_t *element;
    unsigned long flags;

    /* Not zeroed: an "all" registration leaves its handle fields unset, and nothing reads them. */
    element = (ox_asy_ev_element_t *)kmalloc(sizeof(ox_asy_ev_element_t), GFP_ATOMIC);
    if (!element) {
        AD_TAVOR_ERROR("Fail to allocate memory: ox_asy_ev_element_t");
        ox_mlx_count_alloc_failure();
        return ox_return_err;
    }
    mem_alloc_add(mem_async_ix);
    element->app_cb = async_event_callback;
    element->req_asy_ev.req_event_type = req_er.req_event_type;
    AD_TAVOR_DEBUG("event type: %d, callback: %p", (int)req_er.req_event_type, (void *)async_event_callback);

    if (req_er.req_event_type & OX_ASYNC_EVEN_ALL_KINDS) {
        AD_TAVOR_DEBUG("event type is for ALL");
    } else {
        AD_TAVOR_DEBUG("Case for the specific event");
        switch (req_er.req_event_type) {
            case ox_async_even_qp:
                element->req_asy_ev.type = req_er.type;
                element->vend_h.qp_vend_h =
                    (VAPI_qp_hndl_t)(unsigned long)((ox_opened_qp_t *)req_er.type.qp_h)->qp_h;
                AD_TAVOR_DEBUG("Insert into qp async");
                break;
            case ox_async_even_cq:
                element->req_asy_ev.type = req_er.type;
                element->vend_h.cq_vend_h =
                    (VAPI_cq_hndl_t)(unsigned long)((ox_opened_cq_t *)req_er.type.cq_h)->cq_h;
                AD_TAVOR_DEBUG("Insert into cq async");
                break;
            case ox_async_even_eec:
                /* The element stays allocated and accounted: the refusal does not undo it. */
                AD_TAVOR_ERROR("ERROR - Insert into eec async - not suported yet");
                ox_mlx_count_error();
                return ox_return_err;
            default:
                element->req_asy_ev.type = req_er.type;
                element->vend_h.hca_vend_h = opened_hca_p->hca_h;
                AD_TAVOR_DEBUG("Insert into hca/port async list");
                break;
        }
    }

    OX_MLX_LOCK(flags);
    list_add(&element->list, &opened_hca_p->events_lists.reg_for_async);
    OX_MLX_UNLOCK(flags);

    g_stat.registered_async_event_cb_num++;
    g_stat.last_registered_async_event_cb_num++;
    AD_TAVOR_DEBUG("Insert into all async list, num of registered CB: %d",
                   (int)g_stat.registered_async_event_cb_num);
    return ox_return_ok;
}

/* Removes every registration of the callback, whatever it was registered for. The accounting row
 * of the registrations is not decreased: it counts registrations made. */
ox_return_t oxi_mlx_dell_async_event_cb(ox_opened_hca_t *opened_hca_p,
                                        ox_app_async_event_callback_t async_event_callback) {
    struct list_head *pos, *n;
    unsigned long flags;
    int removed = 0;

    OX_MLX_LOCK(flags);
    list_for_each_safe(pos, n, &opened_hca_p->events_lists.reg_for_async) {
        ox_asy_ev_element_t *element = list_entry(pos, ox_asy_ev_element_t, list);

        if (element->app_cb != async_event_callback) continue;
        AD_TAVOR_DEBUG("find in list CB: %p", (void *)async_event_callback);
        list_del(&element->list);
        kfree(element);
        g_stat.registered_async_event_cb_num--;
        g_stat.last_registered_async_event_cb_num--;
        removed++;
    }
    AD_TAVOR_DEBUG("Remove from list: %d elements, remaining: %d", removed,
                   (int)g_stat.registered_async_event_cb_num);
    OX_MLX_UNLOCK(flags);
    return ox_return_ok;
}
