/* Post send in the VAPI form: the caller hands in a ready VAPI send descriptor with exactly one
 * gather entry, whose address is placed in the generic registration in place (the caller's
 * descriptor is changed). No lock is taken: the descriptor is the caller's. */
#include <linux/kernel.h>
#include <asm/atomic.h>

#include <vapi.h>

#include "adaptor-tavor.h"
#include "gather-address.h"
#include "ox-entry-points.h"

ox_return_t oxi_mlx_post_send_vapi(ox_opened_hca_t *opened_hca_p, ox_qp_h_t qp_h, void *work_req) {
    ox_opened_qp_t *qp = (ox_opened_qp_t *)qp_h;
    VAPI_sr_desc_t *desc = (VAPI_sr_desc_t *)work_req;
    ox_iova_t iova = ox_mlx_gen_iova(opened_hca_p);
    VAPI_ret_t stat;

    g_stat.post_vapi_s_num++;
    atomic_add((int)desc->sg_lst_len, &g_stat.acc_sg);

    if (desc->sg_lst_len != 1) {
        printk("ERROR - ((VAPI_sr_desc_t*)work_req)->sg_lst_len: %d != 1\n", (int)desc->sg_lst_len);
        ox_mlx_count_error();
        return ox_return_err_invalid_parameter;
    }
    desc->sg_lst_p[0].addr =
        (VAPI_virt_addr_t)(iova + (u64)((unsigned long)desc->sg_lst_p[0].addr - PAGE_OFFSET));

    stat = VAPI_post_sr(opened_hca_p->hca_h, (VAPI_qp_hndl_t)(unsigned long)qp->qp_h, desc);
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
