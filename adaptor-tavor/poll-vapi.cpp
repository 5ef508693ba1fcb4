/* Completion polling in the VAPI form: the completion goes into the caller's VAPI record as it
 * is; the adaptor only counts (polls, empty polls, error completions by queue). */
#include <vapi.h>

#include "adaptor-tavor.h"
#include "ox-entry-points.h"
#include "translate.h"

ox_return_t oxi_mlx_poll_for_completion_vapi(ox_opened_hca_t *opened_hca_p, ox_cq_h_t cq_h, void *wc) {
    ox_opened_cq_t *cq = (ox_opened_cq_t *)cq_h;
    VAPI_wc_desc_t *wc_desc = (VAPI_wc_desc_t *)wc;
    VAPI_ret_t stat;

    g_stat.poll_num++;
    g_stat.last_poll_num++;
    g_stat.poll_vapi_num++;
    AD_TAVOR_DEBUG("polling CQ, hca_h: %d, cq_h: %p, user cq h: %p", (int)opened_hca_p->hca_h, cq->cq_h,
                   (void *)cq);

    stat = VAPI_poll_cq(opened_hca_p->hca_h, (VAPI_cq_hndl_t)(unsigned long)cq->cq_h, wc_desc);
    if (stat == VAPI_CQ_EMPTY) {
        AD_TAVOR_DEBUG("Empty CQ: cq_h: %p, user cq h: %p", cq->cq_h, (void *)cq);
        g_stat.poll_cq_empty_num++;
        g_stat.last_poll_cq_empty_num++;
        return ox_return_err_cq_empty;
    }
    if (stat != VAPI_OK) {
        AD_TAVOR_ERROR("MLX AD_ERR: Fail to poll CQ, hca_h: %d, cq_h: %p, user cq h: %p (mlx:%d, %s)",
                       (int)opened_hca_p->hca_h, cq->cq_h, (void *)cq, stat, AD_TAVOR_MLX_STR);
        ox_mlx_count_vapi_failure(poll_for_completion_indx, stat);
        return ox_return_err;
    }
    /* Read raw: the adapter may write any value into the status and opcode. */
    if (ox_mlx_raw_enum(&wc_desc->status) != (u32)VAPI_SUCCESS) {
        if (ox_mlx_raw_enum(&wc_desc->opcode) != (u32)VAPI_CQE_RQ_SEND_DATA) {
            g_stat.ox_send_error_status++;
            g_stat.ox_send_last_error_status++;
        } else {
            g_stat.ox_receive_error_status++;
            g_stat.ox_receive_last_error_status++;
        }
    }
    return ox_return_ok;
}
