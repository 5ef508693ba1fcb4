/* GSI send on a chosen partition key: a post send on the GSI QP whose descriptor goes to
 * EVAPI_post_gsi_sr with the P_Key table index passed through. It counts, fails and locks as an
 * ordinary post send (the same ring index). */
#include <evapi.h>

#include "adaptor-tavor.h"
#include "ox-entry-points.h"
#include "post-send-prep.h"

ox_return_t oxi_mlx_post_gsi_send_on_pkey(ox_opened_hca_t *opened_hca_p, ox_qp_h_t qp_h, ox_wr_t *work_req,
                                          ox_wr_operation_type_t operation_type, int pkey_index) {
    ox_opened_qp_t *qp = (ox_opened_qp_t *)qp_h;
    const int locked = ox_mlx_send_needs_lock(qp);
    unsigned long flags = 0;
    ox_mlx_prep_t prep;
    ox_return_t ret;
    VAPI_ret_t stat;

    if (locked) OX_QP_SEND_LOCK(qp, flags);

    prep = ox_mlx_common_post_send_prep(opened_hca_p, qp, work_req, ox_mlx_raw_enum(&operation_type),
                                        &qp->sr_desc, qp->mlx_sg_array_s, 0);
    if (prep != OX_MLX_PREP_OK) {
        OX_MLX_PREP_FAILED(prep, ret);
        if (locked) OX_QP_SEND_UNLOCK(qp, flags);
        return ret;
    }

    stat = EVAPI_post_gsi_sr(opened_hca_p->hca_h, (VAPI_qp_hndl_t)(unsigned long)qp->qp_h, &qp->sr_desc,
                             (VAPI_pkey_ix_t)pkey_index);

    if (locked) OX_QP_SEND_UNLOCK(qp, flags);

    if (stat != VAPI_OK) {
        AD_TAVOR_ERROR("MLX AD_ERR: Fail to post send WR, hca_h: %d, qp_h: %p, user qp h: %p (mlx:%d, %s)",
                       (int)opened_hca_p->hca_h, qp->qp_h, (void *)qp, stat, AD_TAVOR_MLX_STR);
        ox_mlx_count_vapi_failure(post_send_indx, stat);
        return ox_return_err;
    }
    g_stat.post_s_num++;
    g_stat.last_post_s_num++;
    return ox_return_ok;
}
