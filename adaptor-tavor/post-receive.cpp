/* Post receive: one generic receive request, translated into the QP record's own receive
 * descriptor and posted with VAPI_post_rr. Every QP's receive posting is serialised on the
 * adaptor lock ox_mlx_sl (interrupts off), held across the translation and the VAPI call. */
#include <vapi.h>

#include "adaptor-tavor.h"
#include "ox-entry-points.h"
#include "post-receive-prep.h"

ox_return_t oxi_mlx_post_receive(ox_opened_hca_t *opened_hca_p, ox_qp_h_t qp_h, ox_wr_t *work_req) {
    ox_opened_qp_t *qp = (ox_opened_qp_t *)qp_h;
    ox_return_t ret = ox_return_ok;
    unsigned long flags;
    VAPI_ret_t stat;

    OX_MLX_LOCK(flags);
    if (!ox_mlx_common_post_receive_prep(opened_hca_p, qp, work_req, &qp->rr_desc, qp->mlx_sg_array_r)) {
        OX_MLX_UNLOCK(flags);
        return ox_return_err_invalid_parameter;
    }
    stat = VAPI_post_rr(opened_hca_p->hca_h, (VAPI_qp_hndl_t)(unsigned long)qp->qp_h, &qp->rr_desc);
    if (stat == VAPI_OK) {
        g_stat.post_r_num++;
        g_stat.last_post_r_num++;
    } else {
        AD_TAVOR_ERROR("MLX AD_ERR: Fail to post recieve WR, hca_h: %d, qp_h: %p, user qp h: %p (mlx:%d, %s)",
                       (int)opened_hca_p->hca_h, qp->qp_h, (void *)qp, stat, AD_TAVOR_MLX_STR);
        ox_mlx_count_vapi_failure(post_receive_indx, stat);
        ret = ox_return_err;
    }
    OX_MLX_UNLOCK(flags);
    return ret;
}
