/* adaptor-mlx: the adaptor lock ox_mlx_sl, the global list of opened HCAs it guards, and
 * walking that list and an HCA's generic registrations. Compiles as C and as C++. */
#ifndef AD_TAVOR_OPENED_HCAS_H
#define AD_TAVOR_OPENED_HCAS_H

#include <linux/spinlock.h>
#include <linux/list.h>
#include <linux/smp.h>

#include "ox-adaptor-common.h"
#include "adaptor-log.h"

__BEGIN_KERNEL_DECLS

/* Guards g_opened_mlx_hcas_list, insertions into the per-HCA CQ and QP lists, the generic
 * registration list and receive posting; always taken with interrupts disabled. */
extern spinlock_t ox_mlx_sl;
/* ox_opened_hca_t records, newest first. */
extern struct list_head g_opened_mlx_hcas_list;

/* Take and release ox_mlx_sl with the DEBUG lock trace. */
#define OX_MLX_LOCK(flags)                                                                                  \
    do {                                                                                                    \
        AD_TAVOR_DEBUG("---->b ADAPTOR_LOCK cpu[%d] (%s(%d) %s())", smp_processor_id(), __FILE__, __LINE__, \
                       __func__);                                                                           \
        spin_lock_irqsave(&ox_mlx_sl, flags);                                                               \
        AD_TAVOR_DEBUG("---->ADAPTOR_LOCK cpu[%d] (%s(%d) %s())", smp_processor_id(), __FILE__, __LINE__,   \
                       __func__);                                                                           \
    } while (0)

#define OX_MLX_UNLOCK(flags)                                                                                \
    do {                                                                                                    \
        AD_TAVOR_DEBUG("---->ADAPTOR_UNLOCK cpu[%d] (%s(%d) %s())", smp_processor_id(), __FILE__, __LINE__, \
                       __func__);                                                                           \
        spin_unlock_irqrestore(&ox_mlx_sl, flags);                                                          \
    } while (0)

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

__END_KERNEL_DECLS

#endif
