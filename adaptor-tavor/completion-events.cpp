/* Completion event dispatch. */
#include <linux/kernel.h>
#include <linux/sched.h>
#include <linux/hardirq.h>

#include "adaptor-tavor.h"
#include "completion-events.h"

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
