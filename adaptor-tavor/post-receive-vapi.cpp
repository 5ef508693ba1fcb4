/* Receive posting in the VAPI form: the caller hands in ready VAPI receive descriptors (one, or
 * an array) and the adaptor only places their scatter addresses in the generic registration, in
 * place: the caller's descriptors are changed, so posting one descriptor twice translates its
 * addresses twice. No lock is taken: the descriptors are the caller's. */
#include <evapi.h>

#include "adaptor-tavor.h"
#include "gather-address.h"
#include "ox-entry-points.h"

static inline void ox_mlx_rr_desc_to_gen_reg(ox_iova_t iova, VAPI_rr_desc_t *desc) {
    u32 i;

    for (i = 0; i < desc->sg_lst_len; i++)
        desc->sg_lst_p[i].addr =
            (VAPI_virt_addr_t)(iova + (u64)((unsigned long)desc->sg_lst_p[i].addr - PAGE_OFFSET));
}

ox_return_t oxi_mlx_post_receive_vapi(ox_opened_hca_t *opened_hca_p, ox_qp_h_t qp_h, void *work_req) {
    ox_opened_qp_t *qp = (ox_opened_qp_t *)qp_h;
    VAPI_rr_desc_t *desc = (VAPI_rr_desc_t *)work_req;
    ox_iova_t iova = ox_mlx_gen_iova(opened_hca_p);
    VAPI_ret_t stat;

    g_stat.post_vapi_r_num++;
    ox_mlx_rr_desc_to_gen_reg(iova, desc);
    stat = VAPI_post_rr(opened_hca_p->hca_h, (VAPI_qp_hndl_t)(unsigned long)qp->qp_h, desc);
    if (stat != VAPI_OK) {
        AD_TAVOR_ERROR("MLX AD_ERR: Fail to post send WR, hca_h: %d, qp_h: %p, user qp h: %p (mlx:%d, %s)",
                       (int)opened_hca_p->hca_h, qp->qp_h, (void *)qp, stat, AD_TAVOR_MLX_STR);
        ox_mlx_count_vapi_failure(post_receive_indx, stat);
        return ox_return_err;
    }
    g_stat.post_r_num++;
    g_stat.last_post_r_num++;
    return ox_return_ok;
}

ox_return_t oxi_mlx_post_receive_list_vapi(ox_opened_hca_t *opened_hca_p, ox_qp_h_t qp_h, u32 num_of_requests,
                                           void *work_req) {
    ox_opened_qp_t *qp = (ox_opened_qp_t *)qp_h;
    VAPI_rr_desc_t *descs = (VAPI_rr_desc_t *)work_req;
    ox_iova_t iova = ox_mlx_gen_iova(opened_hca_p);
    VAPI_ret_t stat;
    u32 i;

    g_stat.post_vapi_r_num++;
    for (i = 0; i < num_of_requests; i++) ox_mlx_rr_desc_to_gen_reg(iova, &descs[i]);
    stat = EVAPI_post_rr_list(opened_hca_p->hca_h, (VAPI_qp_hndl_t)(unsigned long)qp->qp_h, num_of_requests,
                              descs);
    if (stat != VAPI_OK) {
        AD_TAVOR_ERROR("MLX AD_ERR: Fail to post send WR, hca_h: %d, qp_h: %p, user qp h: %p (mlx:%d, %s)",
                       (int)opened_hca_p->hca_h, qp->qp_h, (void *)qp, stat, AD_TAVOR_MLX_STR);
        ox_mlx_count_vapi_failure(tavor_post_receive_list_indx, stat);
        return ox_return_err;
    }
    g_stat.post_r_list_num += num_of_requests;
    g_stat.last_post_r_list_num += num_of_requests;
    return ox_return_ok;
}
