/* Completion event dispatch: the handler EVAPI calls for a CQ that has a completion event. */
#ifndef AD_TAVOR_COMPLETION_EVENTS_H
#define AD_TAVOR_COMPLETION_EVENTS_H

#include <vapi.h>
#include <evapi.h>

#include "ox-adaptor-common.h"

__BEGIN_KERNEL_DECLS

/* `private_data` is the CQ's ox_opened_cq_t; the owner's callback is called directly, in the
 * caller's context, when the record belongs to `cq_hndl`. Also called by the generator's timer. */
void ox_mlx_cq_completion_event_handler(VAPI_hca_hndl_t hca_hndl, VAPI_cq_hndl_t cq_hndl, void *private_data);

__END_KERNEL_DECLS

#endif
