/* Completion event dispatch. */
#include <linux/kernel.h>
#include <linux/sched.h>
#include <linux/hardirq.h>

#include "adaptor-tavor.h"
#include "completion-events.h"
#include "tracking-lookup.h"

void ox_mlx_cq_completion_event_handler(VAPI_hca_hndl_t hca_hndl, VAPI_cq_hndl_t cq_hndl,
                                        void *private_data) {
    ox_opened_cq_t *opened_cq_p;

    /* Every call counts, whether or not the callback is reached. */
    g_stat.com_event_num++;
    g_stat.last_com_event_num++;

    AD_TAVOR_DEBUG("!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!");
    AD_TAVOR_DEBUG("current->pid: %d, in_interrupt(): %lu,  in_irq(): %lu, in_softirq(): %lu)", current->pid,
                   (unsigned long)(preempt_count() & 0xffff00UL),
                   (unsigned long)(preempt_count() & 0xff0000UL),
                   (unsigned long)(preempt_count() & 0xff00UL));
    AD_TAVOR_DEBUG("hca_hndl - %d, %x, cq_hndl - %d, %p, private_data - %p", (int)hca_hndl,
                   (unsigned)hca_hndl, (int)cq_hndl, (void *)cq_hndl, private_data);
    AD_TAVOR_DEBUG("opened_cq_p: %p", private_data);

    /* CQ create registered the record as the private pointer: it is trusted as it is. */
    opened_cq_p = (ox_opened_cq_t *)private_data;
    if ((VAPI_cq_hndl_t)(unsigned long)opened_cq_p->cq_h == cq_hndl) {
        AD_TAVOR_DEBUG("will call the application callback directly");
        opened_cq_p->app_com_callback((u64)(unsigned long)opened_cq_p->cq_oxuser_context);
        return;
    }
    AD_TAVOR_ERROR("ERROR - opened_cq_p->cq_h != cq_hndl %ld:%ld????", (long)(unsigned long)opened_cq_p->cq_h,
                   (long)cq_hndl);
    AD_TAVOR_ERROR("ERROR - didn't call application callback");
    ox_mlx_count_error();
}

ox_return_t ox_mlx_get_user_cq_h(ox_opened_hca_t *opened_hca_p, ox_cq_h_t cq_h, ox_opened_cq_t **user_cq_h) {
    const u64 vapi_cq_h = (u64)(unsigned long)cq_h;
    ox_opened_cq_t *last_seen = 0;
    ox_opened_cq_t *opened_cq_p;
    unsigned long flags;
    ox_return_t ret;

    if (ox_mlx_handle_has_slot(vapi_cq_h)) {
        AD_TAVOR_DEBUG("Working with: hca_context->opened_cq_array[%lu]", (unsigned long)vapi_cq_h);
        opened_cq_p = ox_mlx_cq_slot(opened_hca_p, vapi_cq_h);
        AD_TAVOR_DEBUG("opened_cq_p: %p", (void *)opened_cq_p);
        /* An empty slot is an answer too. */
        *user_cq_h = opened_cq_p;
        return ox_return_ok;
    }

    OX_MLX_LOCK(flags);
    opened_cq_p = ox_mlx_cq_in_list(opened_hca_p, vapi_cq_h, &last_seen);
    if (opened_cq_p) {
        AD_TAVOR_DEBUG("Find cq_h:%p, user cq h: %p", cq_h, (void *)opened_cq_p);
        *user_cq_h = opened_cq_p;
        ret = ox_return_ok;
    } else {
        /* The handle of the last record examined (none on an empty list: 0), then the one sought. */
        AD_TAVOR_ERROR("ERROR - didn't find opened_cq_p->cq_h == cq_h %p:%p",
                       last_seen ? last_seen->cq_h : (void *)0, cq_h);
        ret = ox_return_err;
    }
    OX_MLX_UNLOCK(flags);
    return ret;
}
