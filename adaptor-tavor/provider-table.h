/* The provider table of the adaptor. */
#ifndef AD_TAVOR_PROVIDER_TABLE_H
#define AD_TAVOR_PROVIDER_TABLE_H

#include "ox-provider.h"

__BEGIN_KERNEL_DECLS
extern ox_hca_func_t oxi_mlx_funcs;
__END_KERNEL_DECLS

#endif
