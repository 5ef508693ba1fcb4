/* Asynchronous events of an HCA: the handler VAPI calls, which translates the VAPI record into the
 * generic one, and the deferred-delivery routine of the HCA's tasklet.
 *
 * An event is delivered synchronously, once, to the newest registration of the HCA only; what a
 * registration asked for is stored but not consulted here. Events are not queued. */
#include <linux/kernel.h>
#include <linux/list.h>
#include <linux/sched.h>
#include <linux/hardirq.h>
#include <linux/slab.h>
#include <linux/string.h>

#include "adaptor-tavor.h"
#include "async-events.h"
#include "opened-hcas.h"
#include "tracking-lookup.h"

#define MAX_MLX_ASYNC_RECORD 20

/* VAPI event type -> generic event kind; 0 is a type the adaptor does not deliver. The drained
 * receive queue and the SRQ events are reported as local errors with a "port" in the low byte of
 * their modifier, as the upper layers have always received them. */
static const u32 ev_rec_type_mlx_to_ox_translation[MAX_MLX_ASYNC_RECORD] = {
    ox_async_r_path_migrated_ev,     /* VAPI_QP_PATH_MIGRATED */
    ox_async_r_eec_path_migrated_ev, /* VAPI_EEC_PATH_MIGRATED */
    ox_async_r_com_est_ev,           /* VAPI_QP_COMM_ESTABLISHED */
    ox_async_r_eec_com_est_ev,       /* VAPI_EEC_COMM_ESTABLISHED */
    ox_async_r_send_q_drained_ev,    /* VAPI_SEND_QUEUE_DRAINED */
    ox_async_r_l_err,                /* VAPI_RECEIVE_QUEUE_DRAINED */
    ox_async_r_l_err,                /* VAPI_SRQ_LIMIT_REACHED */
    ox_async_r_l_err,                /* VAPI_SRQ_CATASTROPHIC_ERROR */
    ox_async_r_cq_err,               /* VAPI_CQ_ERROR */
    ox_async_r_l_wq_err,             /* VAPI_LOCAL_WQ_INV_REQUEST_ERROR */
    ox_async_r_l_wq_err,             /* VAPI_LOCAL_WQ_ACCESS_VIOL_ERROR */
    ox_async_r_l_wq_err,             /* VAPI_LOCAL_WQ_CATASTROPHIC_ERROR */
    ox_async_r_path_migrated_err,    /* VAPI_PATH_MIG_REQ_ERROR */
    ox_async_r_l_eec_err,            /* VAPI_LOCAL_EEC_CATASTROPHIC_ERROR */
    ox_async_r_l_err,                /* VAPI_LOCAL_CATASTROPHIC_ERROR */
    ox_async_r_port,                 /* VAPI_PORT_ERROR */
    ox_async_r_port,                 /* VAPI_PORT_ACTIVE */
    0,                               /* VAPI_CQ_COMP */
    0,                               /* VAPI_GPIO */
    0,                               /* VAPI_ECC_DETECT */
};

#define OX_LOG_EVENT_CONTEXT(closing)                                                                  \
    AD_TAVOR_DEBUG("current->pid: %d, in_interrupt(): %lu,  in_irq(): %lu, in_softirq(): %lu" closing, \
                   current->pid, (unsigned long)(preempt_count() & 0xffff00UL),                        \
                   (unsigned long)(preempt_count() & 0xff0000UL),                                      \
                   (unsigned long)(preempt_count() & 0xff00UL))

void ox_mlx_async_event_callback(VAPI_hca_hndl_t hca_hndl, VAPI_event_record_t *event_record_p,
                                 void *private_data) {
    ox_event_record_t event_rec;
    ox_opened_hca_t *hca = 0;
    ox_opened_qp_t *opened_qp_p;
    ox_opened_cq_t *opened_cq_p;
    struct list_head *pos;
    ox_app_async_event_callback_t app_cb;
    unsigned long flags;
    u32 vapi_type;

    g_stat.async_event_num++;
    g_stat.last_async_event_num++;
    memset(&event_rec, 0, sizeof(event_rec));

    /* The whole translation runs under the adaptor lock; the callback is called after it. */
    OX_MLX_LOCK(flags);
    if (!private_data) {
        AD_TAVOR_ERROR("no HCA context!!! hca_h: %p", private_data);
        goto error_exit;
    }
    /* The record must be open and still carry the handle VAPI names. */
    list_for_each(pos, &g_opened_mlx_hcas_list) {
        ox_opened_hca_t *candidate = list_entry(pos, ox_opened_hca_t, list);

        if ((void *)candidate != private_data) continue;
        AD_TAVOR_DEBUG("found hca in hca's list  %p", (void *)candidate);
        if (candidate->hca_h == hca_hndl) {
            AD_TAVOR_DEBUG("hca_hndl matches too  %u", (unsigned)hca_hndl);
            hca = candidate;
        }
        break;
    }
    if (!hca) {
        AD_TAVOR_ERROR("hca not found in g_opened_mlx_hcas_list  -  bailing out");
        goto error_exit;
    }
    /* Any 32-bit value may arrive here: read it raw, not as the enumeration it should be. */
    static_assert(sizeof(event_record_p->type) == sizeof(vapi_type), "VAPI event types are 32 bits");
    memcpy(&vapi_type, &event_record_p->type, sizeof(vapi_type));
    if (vapi_type >= MAX_MLX_ASYNC_RECORD) {
        AD_TAVOR_ERROR("event_record_p->type (%d) >= MAX_MLX_ASYNC_RECORD (%d) or type < 0", (int)vapi_type,
                       MAX_MLX_ASYNC_RECORD);
        goto error_exit;
    }
    AD_TAVOR_DEBUG("!-!-!-!-!-!-!-!-!-!-!-!-!-!-!-!-!-!-!-!");
    OX_LOG_EVENT_CONTEXT("");

    event_rec.event_type = (ox_async_record_t)ev_rec_type_mlx_to_ox_translation[vapi_type];
    event_rec.hca_app_h = hca->app_hca_h;
    AD_TAVOR_DEBUG("hca_app_h: %p, ox event_type: %d, mlx event_type: %d", (void *)event_rec.hca_app_h,
                   (int)event_rec.event_type, (int)vapi_type);

    switch (event_rec.event_type) {
        case ox_async_r_path_migrated_ev:
        case ox_async_r_com_est_ev:
        case ox_async_r_send_q_drained_ev:
        case ox_async_r_l_wq_err:
        case ox_async_r_path_migrated_err: {
            const VAPI_qp_hndl_t qp_hndl = event_record_p->modifier.qp_hndl;

            AD_TAVOR_DEBUG("case for QP");
            /* The array is indexed by the handle's low 32 bits. */
            if (ox_mlx_handle_has_slot((u32)qp_hndl)) {
                AD_TAVOR_DEBUG("Working with: opend_hca_p->opened_qp_array[%d]", (int)(u32)qp_hndl);
                opened_qp_p = ox_mlx_qp_slot(hca, (u32)qp_hndl);
                AD_TAVOR_DEBUG("opened_qp_p: %p", (void *)opened_qp_p);
                if (!opened_qp_p) {
                    AD_TAVOR_DEBUG("NULL opened_qp_p, maybe it is NOT created by oxverbs interface");
                    goto quiet_exit;
                }
            } else {
                AD_TAVOR_DEBUG("looking in the list");
                opened_qp_p = ox_mlx_qp_in_list(hca, (u64)qp_hndl, 0);
                if (!opened_qp_p) {
                    /* DEBUG despite the wording: a QP made outside the adaptor is not its error. */
                    AD_TAVOR_DEBUG("ERROR - didn't find QP, maybe it is NOT created by oxverbs interface");
                    goto quiet_exit;
                }
                AD_TAVOR_DEBUG("find in the list: %p", (void *)opened_qp_p);
            }
            event_rec.type.qp.qp_h = (ox_qp_h_t)opened_qp_p;
            event_rec.type.qp.qp_num = opened_qp_p->qp_num;
            event_rec.type.qp.context = (ox_qp_context_t)opened_qp_p->qp_oxuser_context;
            AD_TAVOR_DEBUG("find, user qp_h: %p, qp num: %d, qp context: %p", (void *)opened_qp_p,
                           (int)opened_qp_p->qp_num, (void *)opened_qp_p->qp_oxuser_context);
            break;
        }
        case ox_async_r_cq_err: {
            const VAPI_cq_hndl_t cq_hndl = event_record_p->modifier.cq_hndl;

            AD_TAVOR_DEBUG("case for CQ");
            if (ox_mlx_handle_has_slot((u32)cq_hndl)) {
                AD_TAVOR_DEBUG("Working with: opend_hca_p->opened_cq_array[%d]", (int)(u32)cq_hndl);
                opened_cq_p = ox_mlx_cq_slot(hca, (u32)cq_hndl);
                AD_TAVOR_DEBUG("opened_cq_p: %p", (void *)opened_cq_p);
                if (!opened_cq_p) {
                    AD_TAVOR_DEBUG("NULL opened_cq_p, maybe it is NOT created by oxverbs interface");
                    goto quiet_exit;
                }
            } else {
                AD_TAVOR_DEBUG("looking in the list");
                opened_cq_p = ox_mlx_cq_in_list(hca, (u64)cq_hndl, 0);
                if (!opened_cq_p) {
                    AD_TAVOR_DEBUG("didn't find CQ, maybe it is NOT created by oxverbs interface");
                    goto quiet_exit;
                }
                AD_TAVOR_DEBUG("find in the list: %p", (void *)opened_cq_p);
            }
            event_rec.type.cq.cq_h = (ox_cq_h_t)opened_cq_p;
            event_rec.type.cq.context = (ox_cq_context_t)opened_cq_p->cq_oxuser_context;
            AD_TAVOR_DEBUG("find, user cq_h: %p, cq context: %p", (void *)opened_cq_p,
                           (void *)opened_cq_p->cq_oxuser_context);
            break;
        }
        case ox_async_r_l_err:
        case ox_async_r_port:
            event_rec.port_num = (u8)event_record_p->modifier.port_num;
            AD_TAVOR_DEBUG("case for HCA or Port %d", (int)event_rec.port_num);
            break;
        case ox_async_r_eec_path_migrated_ev:
        case ox_async_r_eec_com_est_ev:
        case ox_async_r_l_eec_err:
            AD_TAVOR_ERROR("ERROR - case for EEC - not implemented yet");
            goto error_exit;
        default:
            AD_TAVOR_ERROR("ERROR - case for default");
            goto error_exit;
    }

    if (list_empty(&hca->events_lists.reg_for_async)) {
        OX_MLX_UNLOCK(flags);
        AD_TAVOR_ERROR("got async event but the base is not register yet");
        return;
    }
    OX_MLX_UNLOCK(flags);
    /* The newest registration receives the event, whatever it asked for. */
    app_cb = list_entry(hca->events_lists.reg_for_async.next, ox_asy_ev_element_t, list)->app_cb;
    app_cb(event_rec);
    return;

error_exit:
    ox_mlx_count_error();
    OX_MLX_UNLOCK(flags);
    return;

quiet_exit:
    /* A QP or CQ that the adaptor does not track: dropped, not counted. */
    OX_MLX_UNLOCK(flags);
}

/* Deferred delivery of one event record to a list of callbacks; `data` is the list's anchor.
 * Each element and then the anchor are freed once called. */
void ox_call_app_async_event_cb(unsigned long data) {
    ox_async_list_anchor_t *list_anchor_p = (ox_async_list_anchor_t *)data;
    struct list_head *pos, *n;
    int count = 0;

    AD_TAVOR_DEBUG("!--!--!--!--!--!--!--!--!--!--!--!--!--!--!--!--!");
    OX_LOG_EVENT_CONTEXT("");
    if (!list_anchor_p) {
        AD_TAVOR_ERROR("data is NULL - no pointer into the list anchor");
        ox_mlx_count_error();
        return;
    }
    AD_TAVOR_DEBUG("list_anchor_p: %p, event_type: %d, hca_app_h: %p)", (void *)list_anchor_p,
                   (int)list_anchor_p->event_rec.event_type, (void *)list_anchor_p->event_rec.hca_app_h);
    list_for_each_safe(pos, n, &list_anchor_p->cb_list) {
        ox_async_eve_cb_element_t *element = list_entry(pos, ox_async_eve_cb_element_t, list);

        count++;
        AD_TAVOR_DEBUG("%d) element p: %p, call the application async event CB: %p", count, (void *)element,
                       (void *)element->app_cb);
        element->app_cb(list_anchor_p->event_rec);
        list_del(&element->list);
        kfree(element);
    }
    AD_TAVOR_DEBUG("call %d times, will free: %p", count, (void *)list_anchor_p);
    kfree(list_anchor_p);
}
