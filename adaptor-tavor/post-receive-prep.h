/* adaptor-mlx: turning one generic receive work request into a VAPI receive descriptor.
 *
 * Of the request only wr_id, completion_notification and the scatter list are read; wr_type and
 * the per-transport union are ignored. Scatter addresses are placed in the generic registration
 * (iova + (address - PAGE_OFFSET)). The callers hold ox_mlx_sl: receive posting of every QP is
 * serialised on the adaptor lock, not on the QP's own s_sl.
 *
 * Compiles as C and as C++. */
#ifndef AD_TAVOR_POST_RECEIVE_PREP_H
#define AD_TAVOR_POST_RECEIVE_PREP_H

#include <linux/string.h>
#include <asm/page.h>

#include <vapi.h>

#include "adaptor-tavor.h"
#include "gather-address.h"

__BEGIN_KERNEL_DECLS

/* The receive side's own completion table: 0 unsignalled, 1..7 signalled. */
#define OX_RR_COMP_TRANSLATION_NUM 8
static const signed char wr_comp_ox_to_mlx_translation[OX_RR_COMP_TRANSLATION_NUM] = {
    VAPI_UNSIGNALED, VAPI_SIGNALED, VAPI_SIGNALED, VAPI_SIGNALED,
    VAPI_SIGNALED,   VAPI_SIGNALED, VAPI_SIGNALED, VAPI_SIGNALED,
};

/* Values past the table are non-zero, that is signalled; they do not index past it. */
static inline VAPI_comp_type_t ox_mlx_receive_comp_type(unsigned char completion_notification) {
    if (completion_notification >= OX_RR_COMP_TRANSLATION_NUM) return VAPI_SIGNALED;
    return (VAPI_comp_type_t)wr_comp_ox_to_mlx_translation[completion_notification];
}

/* Fills `desc` and `sg` from `work_req` and points desc->sg_lst_p at `sg`. A request with more
 * than OX_MLX_MAX_SG_PER_WR scatter entries would write past the record's array (or the list
 * block's room) and is refused: logged at ERROR, counted once, and 0 is returned, with the
 * descriptor cleared. Returns 1 when the descriptor is ready. */
static inline int ox_mlx_common_post_receive_prep(ox_opened_hca_t *opened_hca_p, ox_opened_qp_t *qp,
                                                  const ox_wr_t *work_req, VAPI_rr_desc_t *desc,
                                                  VAPI_sg_lst_entry_t *sg) {
    ox_iova_t iova;
    u32 i;

    memset(desc, 0, sizeof(*desc));
    iova = ox_mlx_gen_iova(opened_hca_p);
    AD_TAVOR_DEBUG("user qp_h %p, mlx qp_h: %ld, qp num: %d", (void *)qp, (long)(unsigned long)qp->qp_h,
                   (int)qp->qp_num);

    if (work_req->num_of_data_segments > OX_MLX_MAX_SG_PER_WR) {
        AD_TAVOR_ERROR("ERROR - num_of_data_segments: %d > %d", (int)work_req->num_of_data_segments,
                       OX_MLX_MAX_SG_PER_WR);
        ox_mlx_count_error();
        return 0;
    }
    desc->comp_type = ox_mlx_receive_comp_type(work_req->completion_notification);
    desc->opcode = VAPI_RECEIVE;
    desc->id = work_req->wr_id;
    desc->sg_lst_len = work_req->num_of_data_segments;

    for (i = 0; i < work_req->num_of_data_segments; i++) {
        const ox_scatgat_t *entry = &work_req->scatgat_list[i];

        sg[i].addr = (VAPI_virt_addr_t)(iova + (u64)(entry->v_address - PAGE_OFFSET));
        sg[i].len = entry->length;
        sg[i].lkey = entry->l_key;
        AD_TAVOR_DEBUG("%d) v_address: %llu, length: %d, l_key: %d", (int)i,
                       (unsigned long long)entry->v_address, (int)entry->length, (int)entry->l_key);
    }
    desc->sg_lst_p = sg;
    return 1;
}

__END_KERNEL_DECLS

#endif
