/* Receive list: an array of generic receive requests posted in one EVAPI_post_rr_list call.
 *
 * One zeroed block per call holds `num_of_requests` VAPI_rr_desc_t followed by room for eight
 * scatter entries per request (160 bytes per request). Request i's entries start at the i-th
 * entry of that area: the area advances by one entry per request, so a request with several
 * entries is overlapped by the next one's, and lists are right when every request but the last
 * has one entry. Upper layers post lists that way, and the layout is kept as it is.
 *
 * The adaptor lock is held (interrupts off) from before the allocation to after the EVAPI call,
 * so the block is allocated without sleeping. */
#include <linux/slab.h>

#include <evapi.h>

#include "adaptor-tavor.h"
#include "ox-entry-points.h"
#include "post-receive-prep.h"

#define OX_MLX_RECEIVE_LIST_BYTES_PER_WR \
    (sizeof(VAPI_rr_desc_t) + OX_MLX_MAX_SG_PER_WR * sizeof(VAPI_sg_lst_entry_t))

ox_return_t oxi_mlx_post_receive_list(ox_opened_hca_t *opened_hca_p, ox_qp_h_t qp_h, u32 num_of_requests,
                                      ox_wr_t *work_req) {
    ox_opened_qp_t *qp = (ox_opened_qp_t *)qp_h;
    ox_return_t ret = ox_return_ok;
    VAPI_rr_desc_t *descs;
    VAPI_sg_lst_entry_t *sg_area;
    unsigned long flags;
    VAPI_ret_t stat;
    u32 i;

    OX_MLX_LOCK(flags);
    /* The block size is a 32-bit count of bytes: a list that would not fit is refused rather
     * than allocated short. */
    if (num_of_requests > 0xffffffffU / OX_MLX_RECEIVE_LIST_BYTES_PER_WR) {
        AD_TAVOR_ERROR("ERROR - num_of_requests: %u is too large", num_of_requests);
        ox_mlx_count_error();
        OX_MLX_UNLOCK(flags);
        return ox_return_err_invalid_parameter;
    }
    descs = (VAPI_rr_desc_t *)kzalloc(num_of_requests * (u32)OX_MLX_RECEIVE_LIST_BYTES_PER_WR, GFP_ATOMIC);
    if (!descs) {
        AD_TAVOR_ERROR("Fail to allocate memory: mlx_p");
        ox_mlx_count_alloc_failure();
        OX_MLX_UNLOCK(flags);
        return ox_return_err_alloc_mem;
    }
    sg_area = (VAPI_sg_lst_entry_t *)(descs + num_of_requests);

    for (i = 0; i < num_of_requests; i++) {
        if (!ox_mlx_common_post_receive_prep(opened_hca_p, qp, &work_req[i], &descs[i], &sg_area[i])) {
            /* Nothing is posted, not even the requests translated before. */
            kfree(descs);
            OX_MLX_UNLOCK(flags);
            return ox_return_err_invalid_parameter;
        }
    }

    stat = EVAPI_post_rr_list(opened_hca_p->hca_h, (VAPI_qp_hndl_t)(unsigned long)qp->qp_h, num_of_requests,
                              descs);
    if (stat == VAPI_OK) {
        g_stat.post_r_list_num += num_of_requests;
        g_stat.last_post_r_list_num += num_of_requests;
    } else {
        AD_TAVOR_ERROR("MLXAD_ERR: VAPI Fail to EVAPI_post_rr_list(), hca_h: %d, (mlx:%d, %s)",
                       (int)opened_hca_p->hca_h, stat, AD_TAVOR_MLX_STR);
        ox_mlx_count_vapi_failure(tavor_post_receive_list_indx, stat);
        ret = ox_return_err;
    }
    kfree(descs);
    OX_MLX_UNLOCK(flags);
    return ret;
}
