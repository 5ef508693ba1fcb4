/* adaptor-mlx: turning a caller's kernel virtual address into the address VAPI is given.
 *
 * HCA open registers all of physical memory as one region (the HCA's generic registration). A
 * directly mapped kernel address v lies in it at iova + (v - PAGE_OFFSET), where iova is what the
 * first element of the HCA's generic registration list received. Gather lists of the send and
 * receive paths and the advertised addresses use this rule; only the inline send passes its
 * addresses unchanged. The HCA's open must have completed (the element must exist).
 * Compiles as C and as C++. */
#ifndef AD_TAVOR_GATHER_ADDRESS_H
#define AD_TAVOR_GATHER_ADDRESS_H

#include <linux/types.h>
#include <linux/list.h>
#include <asm/page.h>

#include "ox-adaptor-common.h"

__BEGIN_KERNEL_DECLS

/* The generic registration's I/O virtual address (first element of the list). */
static inline ox_iova_t ox_mlx_gen_iova(const ox_opened_hca_t *hca) {
    return list_entry(hca->generic_mem_reg_list.next, ox_gen_mr_element_t, list)->iova;
}

/* The VAPI address of a directly mapped kernel address. */
static inline u64 ox_mlx_gather_address(const ox_opened_hca_t *hca, unsigned long v_addr) {
    return (u64)ox_mlx_gen_iova(hca) + (u64)(v_addr - PAGE_OFFSET);
}

__END_KERNEL_DECLS

#endif
