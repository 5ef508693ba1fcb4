/* Walking the list of opened HCAs and their generic registrations. */
#ifndef AD_TAVOR_OPENED_HCAS_H
#define AD_TAVOR_OPENED_HCAS_H

#include <linux/list.h>

#include "ox-adaptor-common.h"
#include "adaptor-tavor.h"

/* The first (newest) opened HCA, or null when none is open. No lock is taken. */
static inline ox_opened_hca_t *ox_mlx_first_opened_hca(void) {
    if (list_empty(&g_opened_mlx_hcas_list)) return 0;
    return list_entry(g_opened_mlx_hcas_list.next, ox_opened_hca_t, list);
}

/* The first element of an HCA's generic registration list, or null. */
static inline ox_gen_mr_element_t *ox_mlx_first_gen_mr(ox_opened_hca_t *hca) {
    if (list_empty(&hca->generic_mem_reg_list)) return 0;
    return list_entry(hca->generic_mem_reg_list.next, ox_gen_mr_element_t, list);
}

#endif
