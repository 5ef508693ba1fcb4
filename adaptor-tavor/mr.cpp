/* Memory regions: virtual and physical registration, query and destroy.
 *
 * Regions have no tracking record: the caller holds VAPI's region handle itself and every call
 * passes it straight on. The generic access bits are VAPI's own, so they travel unchanged, and a
 * physical buffer list is handed over as it is (its entries are laid out as VAPI's). Only the
 * statistics and the error bookkeeping change here. */
#include <linux/string.h>

#include <vapi.h>

#include "adaptor-tavor.h"
#include "ox-entry-points.h"

ox_return_t oxi_mlx_mem_region_register(ox_opened_hca_t *opened_hca_p, void *v_addr, unsigned long length,
                                        ox_pd_h_t pd_h, ox_access_con_bit_mask_t access_con,
                                        ox_mem_reg_h_t *v_mem_h, ox_l_key_t *l_key, ox_r_key_t *r_key) {
    VAPI_mrw_t req_mrw;
    VAPI_mrw_t rep_mrw;
    VAPI_ret_t stat;

    memset(&req_mrw, 0, sizeof(req_mrw));
    memset(&rep_mrw, 0, sizeof(rep_mrw));
    req_mrw.type = VAPI_MR;
    req_mrw.start = (VAPI_virt_addr_t)(unsigned long)v_addr;
    req_mrw.size = length;
    req_mrw.pd_hndl = pd_h;
    req_mrw.acl = access_con;
    req_mrw.pbuf_list_len = 0;
    req_mrw.pbuf_list_p = 0;
    req_mrw.iova_offset = 0;
    AD_TAVOR_DEBUG("before VAPI_register_mr(): req_mrw.size %d, req_mrw.start: %p, acl: %d(%d)",
                   (int)req_mrw.size, (void *)(unsigned long)req_mrw.start, (int)req_mrw.acl,
                   (int)access_con);

    stat = VAPI_register_mr(opened_hca_p->hca_h, &req_mrw, (VAPI_mr_hndl_t *)v_mem_h, &rep_mrw);
    if (stat != VAPI_OK) {
        AD_TAVOR_ERROR("MLXAD_ERR: VAPI Fail to register MR, hca_h: %d (mlx:%d, %s)",
                       (int)opened_hca_p->hca_h, stat, AD_TAVOR_MLX_STR);
        ox_mlx_count_vapi_failure(mem_region_register_indx, stat);
        return ox_return_err;
    }
    *l_key = rep_mrw.l_key;
    *r_key = rep_mrw.r_key;
    AD_TAVOR_DEBUG("New v_mem_h: %d, hca_h: %d, l_key: %d, r_key: %d", (int)*v_mem_h,
                   (int)opened_hca_p->hca_h, (int)*l_key, (int)*r_key);
    g_stat.mr_num++;
    g_stat.last_mr_num++;
    return ox_return_ok;
}

/* The buffer list is not checked (count, alignment, overlap): VAPI judges it. */
ox_return_t oxi_mlx_phy_mem_region_register(ox_opened_hca_t *opened_hca_p, ox_phy_list_t *phy_list,
                                            ox_iova_t iova_request, unsigned long length,
                                            unsigned long offset, ox_pd_h_t pd_h,
                                            ox_access_con_bit_mask_t access_con, ox_mem_reg_h_t *p_mem_h,
                                            ox_iova_t *iova_assign, ox_l_key_t *l_key, ox_r_key_t *r_key) {
    VAPI_mrw_t req_mrw;
    VAPI_mrw_t rep_mrw;
    VAPI_ret_t stat;

    memset(&req_mrw, 0, sizeof(req_mrw));
    memset(&rep_mrw, 0, sizeof(rep_mrw));
    req_mrw.type = VAPI_MPR;
    req_mrw.start = iova_request;
    req_mrw.size = length;
    req_mrw.pd_hndl = pd_h;
    req_mrw.acl = access_con;
    req_mrw.pbuf_list_len = phy_list->number_of_buff;
    req_mrw.pbuf_list_p = (VAPI_phy_buf_t *)(void *)phy_list->phy_list;
    req_mrw.iova_offset = offset;
    AD_TAVOR_DEBUG("iova_request: %ld, length: %ld, offset: %d, number_of_buff: %d", (long)iova_request,
                   (long)length, (int)offset, (int)phy_list->number_of_buff);
    if (phy_list->number_of_buff == 1)
        AD_TAVOR_DEBUG("phy_list add: %lu, phy_list length: %lu", (unsigned long)phy_list->phy_list[0].start,
                       (unsigned long)phy_list->phy_list[0].size);

    stat = VAPI_register_mr(opened_hca_p->hca_h, &req_mrw, (VAPI_mr_hndl_t *)p_mem_h, &rep_mrw);
    if (stat != VAPI_OK) {
        AD_TAVOR_ERROR("MLXAD_ERR: VAPI Fail to register PMR, hca_h: %d (mlx:%d, %s)",
                       (int)opened_hca_p->hca_h, stat, AD_TAVOR_MLX_STR);
        ox_mlx_count_vapi_failure(phy_mem_region_register_indx, stat);
        return ox_return_err;
    }
    *l_key = rep_mrw.l_key;
    *r_key = rep_mrw.r_key;
    *iova_assign = rep_mrw.start;
    AD_TAVOR_DEBUG("New p_mem_h: %d, hca_h: %d, l_key: %d, r_key: %d, IOVA: %d", (int)*p_mem_h,
                   (int)opened_hca_p->hca_h, (int)*l_key, (int)*r_key, (int)*iova_assign);
    g_stat.mr_num++;
    g_stat.last_mr_num++;
    return ox_return_ok;
}

/* A failed query leaves every output as it was and writes no ring entry. */
ox_return_t oxi_mlx_mem_region_query(ox_opened_hca_t *opened_hca_p, ox_mem_reg_h_t v_mem_h,
                                     void **local_v_addr, unsigned long *local_length, void **remote_v_addr,
                                     unsigned long *remote_length, ox_pd_h_t *pd_h,
                                     ox_access_con_bit_mask_t *access_con, ox_l_key_t *l_key,
                                     ox_r_key_t *r_key) {
    VAPI_mrw_t rep_mrw;
    VAPI_virt_addr_t remote_start = 0;
    VAPI_size_t remote_size = 0;
    VAPI_ret_t stat;

    memset(&rep_mrw, 0, sizeof(rep_mrw));
    stat = VAPI_query_mr(opened_hca_p->hca_h, (VAPI_mr_hndl_t)v_mem_h, &rep_mrw, &remote_start, &remote_size);
    if (stat != VAPI_OK) {
        AD_TAVOR_ERROR("MLXAD_ERR: VAPI Fail to query MR, hca_h: %d, v_mem_h: %d (mlx:%d, %s)",
                       (int)opened_hca_p->hca_h, (int)v_mem_h, stat, AD_TAVOR_MLX_STR);
        ox_mlx_count_vapi_failure_no_ring();
        return ox_return_err;
    }
    *local_v_addr = (void *)(unsigned long)rep_mrw.start;
    *local_length = (unsigned long)rep_mrw.size;
    *remote_v_addr = (void *)(unsigned long)remote_start;
    *remote_length = (unsigned long)remote_size;
    *pd_h = (ox_pd_h_t)rep_mrw.pd_hndl;
    *access_con = rep_mrw.acl;
    *l_key = rep_mrw.l_key;
    *r_key = rep_mrw.r_key;
    AD_TAVOR_DEBUG("OK - VAPI_query_mr()");
    return ox_return_ok;
}

ox_return_t oxi_mlx_mem_region_destroy(ox_opened_hca_t *opened_hca_p, ox_mem_reg_h_t v_mem_h) {
    VAPI_ret_t stat = VAPI_deregister_mr(opened_hca_p->hca_h, (VAPI_mr_hndl_t)v_mem_h);

    if (stat != VAPI_OK) {
        AD_TAVOR_ERROR("MLXAD_ERR: VAPI Fail to destroy MR, hca_h: %d, v_mem_h: %d (mlx:%d, %s)",
                       (int)opened_hca_p->hca_h, (int)v_mem_h, stat, AD_TAVOR_MLX_STR);
        ox_mlx_count_vapi_failure(mem_region_destroy_indx, stat);
        return ox_return_err;
    }
    AD_TAVOR_DEBUG("Destroy MR, hca_h: %d, v_mem_h: %d", (int)opened_hca_p->hca_h, (int)v_mem_h);
    g_stat.mr_num--;
    g_stat.last_mr_num--;
    return ox_return_ok;
}
