/* Send list: an array of generic requests posted in one EVAPI_post_sr_list call.
 *
 * The descriptors are built in one block per call: `num_of_requests` VAPI_sr_desc_t, then the
 * gather area (eight entries per request, 232 bytes per request in all). Request i's gather
 * entries start at the i-th entry of the area, so the area advances by one entry per request: a
 * request with several entries is overlapped by the entries of the next one, and lists are
 * right when every request but the last has a single entry. That is how the list post has
 * always laid its block out, and upper layers rely on it as it is.
 *
 * The block is allocated without sleeping, because a non-RC QP's s_sl is already held. */
#include <linux/slab.h>
#include <linux/kernel.h>

#include <evapi.h>

#include "adaptor-tavor.h"
#include "ox-entry-points.h"
#include "post-send-prep.h"

#define OX_MLX_SEND_LIST_BYTES_PER_WR \
    (sizeof(VAPI_sr_desc_t) + OX_MLX_MAX_SG_PER_WR * sizeof(VAPI_sg_lst_entry_t))

ox_return_t oxi_mlx_post_send_list(ox_opened_hca_t *opened_hca_p, ox_qp_h_t qp_h, u32 num_of_requests,
                                   ox_wr_t *work_req, ox_wr_operation_type_t operation_type) {
    ox_opened_qp_t *qp = (ox_opened_qp_t *)qp_h;
    const int locked = ox_mlx_send_needs_lock(qp);
    unsigned long flags = 0;
    VAPI_sr_desc_t *descs;
    VAPI_sg_lst_entry_t *sg_area;
    u32 alloc_size;
    ox_mlx_prep_t prep;
    ox_return_t ret;
    VAPI_ret_t stat;
    u32 i;

    if (locked) OX_QP_SEND_LOCK(qp, flags);

    /* The block size is a 32-bit count of bytes; a list that does not fit is refused rather than
     * allocated short. */
    if (num_of_requests > 0xffffffffU / OX_MLX_SEND_LIST_BYTES_PER_WR) {
        AD_TAVOR_ERROR("ERROR - num_of_requests: %u is too large", num_of_requests);
        ox_mlx_count_error();
        if (locked) OX_QP_SEND_UNLOCK(qp, flags);
        return ox_return_err_invalid_parameter;
    }
    alloc_size = num_of_requests * (u32)OX_MLX_SEND_LIST_BYTES_PER_WR;
    AD_TAVOR_DEBUG("send alloc_size: %d", (int)alloc_size);
    descs = (VAPI_sr_desc_t *)kzalloc(alloc_size, GFP_ATOMIC);
    if (!descs) {
        AD_TAVOR_ERROR("Fail to allocate memory: mlx_p");
        ox_mlx_count_alloc_failure();
        if (locked) OX_QP_SEND_UNLOCK(qp, flags);
        return ox_return_err_alloc_mem;
    }
    sg_area = (VAPI_sg_lst_entry_t *)(descs + num_of_requests);

    for (i = 0; i < num_of_requests; i++) {
        prep = ox_mlx_common_post_send_prep(opened_hca_p, qp, &work_req[i], ox_mlx_raw_enum(&operation_type),
                                            &descs[i], &sg_area[i], 0);
        if (prep != OX_MLX_PREP_OK) {
            /* Nothing is posted, not even the requests translated before. */
            OX_MLX_PREP_FAILED(prep, ret);
            kfree(descs);
            if (locked) OX_QP_SEND_UNLOCK(qp, flags);
            return ret;
        }
    }

    stat = EVAPI_post_sr_list(opened_hca_p->hca_h, (VAPI_qp_hndl_t)(unsigned long)qp->qp_h, num_of_requests,
                              descs);
    if (locked) OX_QP_SEND_UNLOCK(qp, flags);

    if (stat != VAPI_OK) {
        AD_TAVOR_ERROR("MLXAD_ERR: VAPI Fail to EVAPI_post_sr_list(), hca_h: %d, (mlx:%d, %s)",
                       (int)opened_hca_p->hca_h, stat, AD_TAVOR_MLX_STR);
        ox_mlx_count_vapi_failure(tavor_post_send_list_indx, stat);
        kfree(descs);
        return ox_return_err;
    }
    g_stat.post_s_list_num += num_of_requests;
    g_stat.last_post_s_list_num += num_of_requests;
    kfree(descs);
    return ox_return_ok;
}
