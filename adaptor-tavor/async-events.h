/* Asynchronous events of an HCA: the handler VAPI calls, the deferred-delivery routine of the
 * HCA's tasklet, and discarding the upper layers' callback registrations. */
#ifndef AD_TAVOR_ASYNC_EVENTS_H
#define AD_TAVOR_ASYNC_EVENTS_H

#include <vapi.h>

#include "ox-adaptor-common.h"

__BEGIN_KERNEL_DECLS

/* The handler HCA open registers with VAPI_set_async_event_handler; `private_data` is the HCA's
 * ox_opened_hca_t. */
void ox_mlx_async_event_callback(VAPI_hca_hndl_t hca_hndl, VAPI_event_record_t *event_record_p,
                                 void *private_data);

/* The routine of the HCA's async_tasklet (initialised by HCA open with data 0). */
void ox_call_app_async_event_cb(unsigned long data);

/* Frees every callback registration of the HCA (HCA close owns the HCA then: no lock). */
ox_return_t ox_mlx_destroy_async_events(ox_opened_hca_t *opened_hca_p);

__END_KERNEL_DECLS

#endif
