/* Entry points of operations the adaptor does not support: reliable datagram domains, EE
 * contexts, memory re-registration, shared regions, memory windows, raw instant sends and the
 * no-op send. Each refuses at once, without logging or counting, so a caller can probe for
 * support cheaply. */
#include "ox-entry-points.h"

ox_return_t oxi_mlx_rdd_allocate(ox_opened_hca_t * /*opened_hca_p*/, ox_rdd_h_t * /*rdd_h*/) {
    return ox_return_err_not_implemented;
}
ox_return_t oxi_mlx_rdd_deallocate(ox_opened_hca_t * /*opened_hca_p*/, ox_rdd_h_t /*rdd_h*/) {
    return ox_return_err_not_implemented;
}
ox_return_t oxi_mlx_eec_create(ox_opened_hca_t * /*opened_hca_p*/, ox_rdd_h_t /*rdd_h*/,
                               void * /*eec_context*/, ox_eec_h_t * /*eec_h*/) {
    return ox_return_err_not_implemented;
}
ox_return_t oxi_mlx_eec_modify(ox_opened_hca_t * /*opened_hca_p*/, ox_eec_h_t /*eec_h*/,
                               void * /*eec_attr_req*/, void * /*eec_attr*/) {
    return ox_return_err_not_implemented;
}
ox_return_t oxi_mlx_eec_query(ox_opened_hca_t * /*opened_hca_p*/, ox_eec_h_t /*eec_h*/,
                              void ** /*eec_context_p*/, void * /*eec_attr_p*/) {
    return ox_return_err_not_implemented;
}
ox_return_t oxi_mlx_eec_destroy(ox_opened_hca_t * /*opened_hca_p*/, ox_eec_h_t /*eec_h*/) {
    return ox_return_err_not_implemented;
}
ox_return_t oxi_mlx_mem_region_re_register(ox_opened_hca_t * /*opened_hca_p*/, ox_mem_reg_h_t /*v_mem_h*/,
                                           u32 /*change_mask*/, void * /*v_addr*/, unsigned long /*length*/,
                                           ox_pd_h_t /*pd_h*/, ox_access_con_bit_mask_t /*access_con*/,
                                           ox_mem_reg_h_t * /*new_v_mem_h*/, ox_l_key_t * /*l_key*/,
                                           ox_r_key_t * /*r_key*/) {
    return ox_return_err_not_implemented;
}
ox_return_t oxi_mlx_phy_mem_region_re_register(ox_opened_hca_t * /*opened_hca_p*/, ox_mem_reg_h_t /*p_mem_h*/,
                                               u32 /*change_mask*/, ox_phy_list_t * /*phy_list*/,
                                               ox_iova_t /*iova_request*/, unsigned long /*length*/,
                                               unsigned long /*offset*/, ox_pd_h_t /*pd_h*/,
                                               ox_access_con_bit_mask_t /*access_con*/,
                                               ox_mem_reg_h_t * /*new_p_mem_h*/, ox_iova_t * /*iova_assign*/,
                                               ox_l_key_t * /*l_key*/, ox_r_key_t * /*r_key*/) {
    return ox_return_err_not_implemented;
}
ox_return_t oxi_mlx_shared_mem_region_register(ox_opened_hca_t * /*opened_hca_p*/, ox_mem_reg_h_t /*mem_h*/,
                                               void * /*v_addr*/, ox_pd_h_t /*pd_h*/,
                                               ox_access_con_bit_mask_t /*access_con*/,
                                               ox_mem_reg_h_t * /*shared_mem_h*/, ox_l_key_t * /*l_key*/,
                                               ox_r_key_t * /*r_key*/) {
    return ox_return_err_not_implemented;
}
ox_return_t oxi_mlx_mem_win_allocate(ox_opened_hca_t * /*opened_hca_p*/, ox_pd_h_t /*pd_h*/,
                                     ox_mem_win_h_t * /*mem_win_h*/, ox_r_key_t * /*r_key*/) {
    return ox_return_err_not_implemented;
}
ox_return_t oxi_mlx_mem_win_query(ox_opened_hca_t * /*opened_hca_p*/, ox_mem_win_h_t /*mem_win_h*/,
                                  ox_pd_h_t * /*pd_h*/) {
    return ox_return_err_not_implemented;
}
ox_return_t oxi_mlx_mem_win_bind(ox_opened_hca_t * /*opened_hca_p*/, ox_qp_h_t /*qp_h*/,
                                 ox_mem_win_h_t /*mem_win_h*/, ox_wr_t * /*bind_req*/,
                                 ox_r_key_t * /*new_r_key*/) {
    return ox_return_err_not_implemented;
}
ox_return_t oxi_mlx_mem_win_deallocate(ox_opened_hca_t * /*opened_hca_p*/, ox_mem_win_h_t /*mem_win_h*/) {
    return ox_return_err_not_implemented;
}
ox_return_t oxi_mlx_instant_send(ox_opened_hca_t * /*opened_hca_p*/, ox_qp_h_t /*qp_h*/,
                                 void * /*complete_packet*/, u32 /*length*/) {
    return ox_return_err_not_implemented;
}
ox_return_t oxi_mlx_post_send_nop(ox_opened_hca_t * /*opened_hca_p*/, ox_qp_h_t /*qp_h*/,
                                  ox_wr_t * /*work_req*/, ox_wr_operation_type_t /*operation_type*/) {
    return ox_return_err_not_implemented;
}
