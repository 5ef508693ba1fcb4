/* The stack's verbs core: providers (HCA adaptors) register here with their function table and
 * device names; upper layers find a provider's table by provider or device name. */
#ifndef OX_VERBS_CORE_H
#define OX_VERBS_CORE_H

#include "ox-provider.h"

__BEGIN_KERNEL_DECLS

/* Registers provider `name` with its table and a null-terminated list of device names (at most
 * OX_MAX_PROVIDER_DEVICES are read). The core copies the name and the device names; the caller's
 * list may be released after the call. `*prov_p` receives the provider record. */
ox_return_t ox_provider_reg(const char *name, ox_hca_func_t *funcs, char **devices, ox_hca_prov_t **prov_p);
/* Removes a registration; a null record is ignored. */
ox_return_t ox_provider_unreg(ox_hca_prov_t *prov);
/* Prints every provider and its devices to the kernel log. */
void ox_hca_show_all(void);
/* Name of the default HCA: the first device of the first provider registered, or "InfiniHost0"
 * when no provider has devices. */
char *ox_default_hca_name(void);

/* Upper-layer side. */
ox_hca_func_t *ox_find_provider_funcs(const char *provider_name);
ox_hca_func_t *ox_find_hca_funcs(const char *hca_name); /* the provider serving that device */

__END_KERNEL_DECLS

#endif
