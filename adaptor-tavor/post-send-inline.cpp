/* Inline send: the HCA driver copies the data into the work queue entry at post time, from the
 * caller's kernel addresses as they are (they are not placed in the generic registration). */
#include <evapi.h>

#include "adaptor-tavor.h"
#include "ox-entry-points.h"
#include "post-send-prep.h"

ox_return_t oxi_mlx_inline_post_send(ox_opened_hca_t *opened_hca_p, ox_qp_h_t qp_h, ox_wr_t *work_req,
                                     ox_wr_operation_type_t operation_type) {
    ox_opened_qp_t *qp = (ox_opened_qp_t *)qp_h;
    const int locked = ox_mlx_send_needs_lock(qp);
    unsigned long flags = 0;
    ox_mlx_prep_t prep;
    ox_return_t ret;
    VAPI_ret_t stat;

    AD_TAVOR_DEBUG("working with: OX_TAVOR_STACK_SAVE_FOR_POST_SEND_IN_OPENED_QP");
    if (locked) OX_QP_SEND_LOCK(qp, flags);

    prep = ox_mlx_common_post_send_prep(opened_hca_p, qp, work_req, ox_mlx_raw_enum(&operation_type),
                                        &qp->sr_desc, qp->mlx_sg_array_s, 1);
    if (prep != OX_MLX_PREP_OK) {
        OX_MLX_PREP_FAILED(prep, ret);
        if (locked) OX_QP_SEND_UNLOCK(qp, flags);
        return ret;
    }

    stat = EVAPI_post_inline_sr(opened_hca_p->hca_h, (VAPI_qp_hndl_t)(unsigned long)qp->qp_h, &qp->sr_desc);

    if (locked) OX_QP_SEND_UNLOCK(qp, flags);

    if (stat != VAPI_OK) {
        AD_TAVOR_ERROR("MLXAD_ERR: VAPI Fail to EVAPI_post_inline_sr(), hca_h: %d, (mlx:%d, %s)",
                       (int)opened_hca_p->hca_h, stat, AD_TAVOR_MLX_STR);
        ox_mlx_count_vapi_failure(tavor_inline_post_send_indx, stat);
        return ox_return_err;
    }
    g_stat.inline_send_num++;
    g_stat.inline_send_num_last++;
    return ox_return_ok;
}
