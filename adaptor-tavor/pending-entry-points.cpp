/* Entry points whose implementation is not in the module yet. Each refuses with
 * ox_return_err_not_implemented and does nothing else; an implementation replaces its line
 * here when it lands. */
#include "ox-entry-points.h"

ox_return_t oxi_mlx_address_hndl_create(ox_opened_hca_t * /*opened_hca_p*/, ox_pd_h_t /*pd_h*/,
                                        ox_add_vec_t * /*add_vec*/, ox_add_h_t * /*add_h*/) {
    return ox_return_err_not_implemented;
}
ox_return_t oxi_mlx_address_hndl_modify(ox_opened_hca_t * /*opened_hca_p*/, ox_add_h_t /*add_h*/,
                                        ox_add_vec_t * /*add_vec*/) {
    return ox_return_err_not_implemented;
}
ox_return_t oxi_mlx_address_hndl_query(ox_opened_hca_t * /*opened_hca_p*/, ox_add_h_t /*add_h*/,
                                       ox_add_vec_t * /*add_vec*/, ox_pd_h_t * /*pd_h*/) {
    return ox_return_err_not_implemented;
}
ox_return_t oxi_mlx_address_hndl_destroy(ox_opened_hca_t * /*opened_hca_p*/, ox_add_h_t /*add_h*/) {
    return ox_return_err_not_implemented;
}
ox_return_t oxi_mlx_qp_attach_to_multicast(ox_opened_hca_t * /*opened_hca_p*/, ox_lid_t /*mg_dlid*/,
                                           ox_gid_t /*mg_gid_address*/, ox_qp_h_t /*qp_h*/) {
    return ox_return_err_not_implemented;
}
ox_return_t oxi_mlx_qp_detach_from_multicast(ox_opened_hca_t * /*opened_hca_p*/, ox_lid_t /*mg_dlid*/,
                                             ox_gid_t /*mg_gid_address*/, u32 /*port_num*/,
                                             ox_qp_h_t /*qp_h*/) {
    return ox_return_err_not_implemented;
}
ox_return_t oxi_mlx_post_send_vapi(ox_opened_hca_t * /*opened_hca_p*/, ox_qp_h_t /*qp_h*/,
                                   void * /*work_req*/) {
    return ox_return_err_not_implemented;
}
ox_return_t oxi_mlx_post_send(ox_opened_hca_t * /*opened_hca_p*/, ox_qp_h_t /*qp_h*/, ox_wr_t * /*work_req*/,
                              ox_wr_operation_type_t /*operation_type*/) {
    return ox_return_err_not_implemented;
}
ox_return_t oxi_mlx_post_gsi_send_on_pkey(ox_opened_hca_t * /*opened_hca_p*/, ox_qp_h_t /*qp_h*/,
                                          ox_wr_t * /*work_req*/, ox_wr_operation_type_t /*operation_type*/,
                                          int /*pkey_index*/) {
    return ox_return_err_not_implemented;
}
ox_return_t oxi_mlx_post_receive_vapi(ox_opened_hca_t * /*opened_hca_p*/, ox_qp_h_t /*qp_h*/,
                                      void * /*work_req*/) {
    return ox_return_err_not_implemented;
}
ox_return_t oxi_mlx_post_receive(ox_opened_hca_t * /*opened_hca_p*/, ox_qp_h_t /*qp_h*/,
                                 ox_wr_t * /*work_req*/) {
    return ox_return_err_not_implemented;
}
ox_return_t oxi_mlx_poll_for_completion_vapi(ox_opened_hca_t * /*opened_hca_p*/, ox_cq_h_t /*cq_h*/,
                                             void * /*wc*/) {
    return ox_return_err_not_implemented;
}
ox_return_t oxi_mlx_poll_for_completion(ox_opened_hca_t * /*opened_hca_p*/, ox_cq_h_t /*cq_h*/,
                                        ox_wc_t * /*work_completion*/) {
    return ox_return_err_not_implemented;
}
ox_return_t oxi_mlx_request_completion_notification(ox_opened_hca_t * /*opened_hca_p*/, ox_cq_h_t /*cq_h*/,
                                                    ox_request_comp_notify_t /*comp_notify*/) {
    return ox_return_err_not_implemented;
}
ox_return_t oxi_mlx_set_completion_event_handler(ox_opened_hca_t * /*opened_hca_p*/,
                                                 ox_com_event_callback_t * /*com_callback*/) {
    return ox_return_err_not_implemented;
}
ox_return_t oxi_mlx_set_async_event_cb(ox_opened_hca_t * /*opened_hca_p*/,
                                       ox_request_event_record_t /*req_er*/,
                                       ox_app_async_event_callback_t /*async_event_callback*/) {
    return ox_return_err_not_implemented;
}
ox_return_t oxi_mlx_dell_async_event_cb(ox_opened_hca_t * /*opened_hca_p*/,
                                        ox_app_async_event_callback_t /*async_event_callback*/) {
    return ox_return_err_not_implemented;
}
ox_return_t oxi_mlx_alloc_fmr(ox_opened_hca_t * /*opened_hca_p*/, ox_fmr_t * /*fmr_props*/,
                              ox_fmr_h_t * /*fmr_h*/) {
    return ox_return_err_not_implemented;
}
ox_return_t oxi_mlx_map_fmr(ox_opened_hca_t * /*opened_hca_p*/, ox_fmr_h_t /*fmr_h*/, ox_fmr_map_t * /*map*/,
                            ox_l_key_t * /*l_key*/, ox_r_key_t * /*r_key*/) {
    return ox_return_err_not_implemented;
}
ox_return_t oxi_mlx_unmap_fmr(ox_opened_hca_t * /*opened_hca_p*/, u32 /*num_to_unmap*/,
                              ox_fmr_h_t * /*fmr_h_array_p*/) {
    return ox_return_err_not_implemented;
}
ox_return_t oxi_mlx_free_fmr(ox_opened_hca_t * /*opened_hca_p*/, ox_fmr_h_t /*fmr_h*/) {
    return ox_return_err_not_implemented;
}
ox_return_t oxi_mlx_inline_post_send(ox_opened_hca_t * /*opened_hca_p*/, ox_qp_h_t /*qp_h*/,
                                     ox_wr_t * /*work_req*/, ox_wr_operation_type_t /*operation_type*/) {
    return ox_return_err_not_implemented;
}
ox_return_t oxi_mlx_post_send_list(ox_opened_hca_t * /*opened_hca_p*/, ox_qp_h_t /*qp_h*/,
                                   u32 /*num_of_requests*/, ox_wr_t * /*work_req*/,
                                   ox_wr_operation_type_t /*operation_type*/) {
    return ox_return_err_not_implemented;
}
ox_return_t oxi_mlx_post_receive_list_vapi(ox_opened_hca_t * /*opened_hca_p*/, ox_qp_h_t /*qp_h*/,
                                           u32 /*num_of_requests*/, void * /*work_req*/) {
    return ox_return_err_not_implemented;
}
ox_return_t oxi_mlx_post_receive_list(ox_opened_hca_t * /*opened_hca_p*/, ox_qp_h_t /*qp_h*/,
                                      u32 /*num_of_requests*/, ox_wr_t * /*work_req*/) {
    return ox_return_err_not_implemented;
}
ox_return_t oxi_mlx_peek_cq(ox_opened_hca_t * /*opened_hca_p*/, int /*NOT_IMPLEMETED*/) {
    return ox_return_err_not_implemented;
}
ox_return_t oxi_mlx_alloc_dev_mem(ox_opened_hca_t * /*opened_hca_p*/, int /*NOT_IMPLEMETED*/) {
    return ox_return_err_not_implemented;
}
ox_return_t oxi_mlx_free_dev_mem(ox_opened_hca_t * /*opened_hca_p*/, int /*NOT_IMPLEMETED*/) {
    return ox_return_err_not_implemented;
}
ox_return_t oxi_mlx_process_local_mad(ox_opened_hca_t * /*opened_hca_p*/, ox_port_num_t /*port*/,
                                      ox_lid_t /*slid*/, const void * /*mad_in_p*/, void * /*mad_out_p*/) {
    return ox_return_err_not_implemented;
}

/* Asynchronous event delivery is not in the module yet: HCA open registers these two so that the
 * HCA is wired the way it will be, and an event that arrives meanwhile is dropped. The
 * implementation replaces them here. */
#include "async-events.h"

void ox_mlx_async_event_callback(VAPI_hca_hndl_t /*hca_hndl*/, VAPI_event_record_t * /*event_record_p*/,
                                 void * /*private_data*/) {}
void ox_call_app_async_event_cb(unsigned long /*data*/) {}
