/* Entry points whose implementation is not in the module yet. Each refuses with
 * ox_return_err_not_implemented and does nothing else; an implementation replaces its line
 * here when it lands. */
#include "ox-entry-points.h"

ox_return_t oxi_mlx_cq_create(ox_opened_hca_t * /*opened_hca_p*/, u32 /*cq_req_size*/,
                              ox_app_com_event_callback_t /*com_event_callback*/, void * /*cq_context*/,
                              ox_cq_h_t * /*cq_h*/, u32 * /*cq_act_size*/) {
    return ox_return_err_not_implemented;
}
ox_return_t oxi_mlx_cq_query(ox_opened_hca_t * /*opened_hca_p*/, ox_cq_h_t /*cq_h*/, u32 * /*cq_size*/,
                             void ** /*cq_context_p*/) {
    return ox_return_err_not_implemented;
}
ox_return_t oxi_mlx_cq_resize(ox_opened_hca_t * /*opened_hca_p*/, ox_cq_h_t /*cq_h*/, u32 /*cq_req_size*/,
                              u32 * /*cq_act_size*/) {
    return ox_return_err_not_implemented;
}
ox_return_t oxi_mlx_cq_destroy(ox_opened_hca_t * /*opened_hca_p*/, ox_cq_h_t /*cq_h*/) {
    return ox_return_err_not_implemented;
}
ox_return_t oxi_mlx_cq_modify_attrib(ox_opened_hca_t * /*opened_hca_p*/, ox_cq_h_t /*cq_h*/,
                                     void * /*cq_context*/,
                                     ox_app_com_event_callback_t /*com_event_callback*/) {
    return ox_return_err_not_implemented;
}
ox_return_t oxi_mlx_qp_create(ox_opened_hca_t * /*opened_hca_p*/, ox_qp_attr_t * /*qp_attr_req*/,
                              void * /*qp_context*/, ox_qp_h_t * /*qp_h*/, ox_qp_attr_t * /*qp_attr*/) {
    return ox_return_err_not_implemented;
}
ox_return_t oxi_mlx_qp_modify(ox_opened_hca_t * /*opened_hca_p*/, ox_qp_h_t /*qp_h*/,
                              ox_qp_attr_t * /*qp_attr_req*/, ox_qp_attr_t * /*qp_attr*/) {
    return ox_return_err_not_implemented;
}
ox_return_t oxi_mlx_qp_query(ox_opened_hca_t * /*opened_hca_p*/, ox_qp_h_t /*qp_h*/, void ** /*qp_context_p*/,
                             ox_qp_attr_t * /*qp_attr_p*/) {
    return ox_return_err_not_implemented;
}
ox_return_t oxi_mlx_qp_destroy(ox_opened_hca_t * /*opened_hca_p*/, ox_qp_h_t /*qp_h*/) {
    return ox_return_err_not_implemented;
}
ox_return_t oxi_mlx_qp_get_special(ox_opened_hca_t * /*opened_hca_p*/, u32 /*port_num*/,
                                   ox_qp_attr_t * /*qp_attr_req*/, void * /*qp_context*/,
                                   ox_qp_h_t * /*qp_h*/, ox_qp_attr_t * /*qp_attr*/) {
    return ox_return_err_not_implemented;
}
ox_return_t oxi_mlx_qp_context_set(ox_opened_hca_t * /*opened_hca_p*/, ox_qp_h_t /*qp_h*/,
                                   void * /*qp_context*/) {
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
ox_return_t oxi_mlx_qp_add_h(ox_opened_hca_t * /*opened_hca_p*/, ox_qp_h_t /*qp_h*/, int /*qpn*/) {
    return ox_return_err_not_implemented;
}
ox_return_t oxi_mlx_qp_rem_h(ox_opened_hca_t * /*opened_hca_p*/, ox_qp_h_t /*qp_h*/, int /*qpn*/) {
    return ox_return_err_not_implemented;
}

/* Asynchronous event delivery is not in the module yet: HCA open registers these two so that the
 * HCA is wired the way it will be, and an event that arrives meanwhile is dropped. The
 * implementation replaces them here. */
#include "async-events.h"

void ox_mlx_async_event_callback(VAPI_hca_hndl_t /*hca_hndl*/, VAPI_event_record_t * /*event_record_p*/,
                                 void * /*private_data*/) {}
void ox_call_app_async_event_cb(unsigned long /*data*/) {}
