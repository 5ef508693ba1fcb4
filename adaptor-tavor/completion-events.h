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

/* The caller's CQ handle (the record) of the CQ whose VAPI handle value `cq_h` carries, into
 * *user_cq_h. Handles up to 1000 read their array slot unlocked and answer ox_return_ok even for
 * an empty slot (storing null); larger ones walk the HCA's CQ list under ox_mlx_sl and answer
 * ox_return_err, leaving *user_cq_h alone, when no record has that handle. Counts nothing. */
ox_return_t ox_mlx_get_user_cq_h(ox_opened_hca_t *opened_hca_p, ox_cq_h_t cq_h, ox_opened_cq_t **user_cq_h);

__END_KERNEL_DECLS

#endif
