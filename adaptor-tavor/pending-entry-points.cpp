/* Entry points whose implementation is not in the module yet. Each refuses with
 * ox_return_err_not_implemented and does nothing else; an implementation replaces its line
 * here when it lands. */
#include "ox-entry-points.h"

ox_return_t oxi_mlx_set_async_event_cb(ox_opened_hca_t * /*opened_hca_p*/,
                                       ox_request_event_record_t /*req_er*/,
                                       ox_app_async_event_callback_t /*async_event_callback*/) {
    return ox_return_err_not_implemented;
}
ox_return_t oxi_mlx_dell_async_event_cb(ox_opened_hca_t * /*opened_hca_p*/,
                                        ox_app_async_event_callback_t /*async_event_callback*/) {
    return ox_return_err_not_implemented;
}

/* Asynchronous event delivery is not in the module yet: HCA open registers these two so that the
 * HCA is wired the way it will be, and an event that arrives meanwhile is dropped. The
 * implementation replaces them here. */
#include "async-events.h"

void ox_mlx_async_event_callback(VAPI_hca_hndl_t /*hca_hndl*/, VAPI_event_record_t * /*event_record_p*/,
                                 void * /*private_data*/) {}
void ox_call_app_async_event_cb(unsigned long /*data*/) {}
