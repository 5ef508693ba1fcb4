/* Asynchronous event registrations of an HCA. */
#ifndef AD_TAVOR_ASYNC_EVENTS_H
#define AD_TAVOR_ASYNC_EVENTS_H

#include "ox-adaptor-common.h"

__BEGIN_KERNEL_DECLS

/* Frees every callback registration of the HCA (HCA close owns the HCA then: no lock). */
ox_return_t ox_mlx_destroy_async_events(ox_opened_hca_t *opened_hca_p);

__END_KERNEL_DECLS

#endif
