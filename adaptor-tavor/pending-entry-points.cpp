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
