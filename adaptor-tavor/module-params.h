/* adaptor-mlx: the module's identity, its parameters and the switches other files set.
 * Compiles as C and as C++. */
#ifndef AD_TAVOR_MODULE_PARAMS_H
#define AD_TAVOR_MODULE_PARAMS_H

#include <linux/types.h>

__BEGIN_KERNEL_DECLS

#define AD_TAVOR_MODULE_NAME "adaptor-mlx"
#define AD_TAVOR_MODULE_VERSION "1.0.0"
#define AD_TAVOR_MODULE_TAG "$Name: REL_TAG_V1_0_20060112 $"

extern int oxi_mlx_max_ah_per_pd; /* "Max number of AH per PD." */
extern int hca_ix;                /* non-zero: HCA open uses "InfiniHost<hca_ix>" */

/* Set by the proc command "event_ctrl": completion notification requests are suppressed. */
extern u8 no_events_active;

__END_KERNEL_DECLS

#endif
