/* adaptor-mlx: turning one generic send work request into a VAPI send descriptor.
 *
 * Every send path (post send, GSI send, inline send, send list) fills a VAPI_sr_desc_t and a
 * gather array with ox_mlx_common_post_send_prep and then hands them to its own VAPI/EVAPI call.
 * The single posts use the descriptor and the 8-entry gather array of the QP record, so a post
 * allocates nothing; the list post fills a block of its own.
 *
 * Locking: the QP record's descriptors are shared by every poster of the QP. QPs other than
 * reliable-connected ones take the QP's s_sl around the translation and the VAPI call;
 * reliable-connected QPs do not, and their owners serialise their own posts. The lock is taken
 * and released by the entry point (OX_QP_SEND_LOCK / OX_QP_SEND_UNLOCK), which traces it at DEBUG
 * under its own name.
 *
 * What the translation copies and what it does not: fence, remote address and key (RC, UC, RD),
 * remote QP, Q_Key (RD, UD) and address handle (UD). The request's immediate data, its atomic
 * operands and its solicited flag are not passed (imm_data, compare_add and swap stay 0, set_se
 * is false), nor is the RD EEC number; upper layers of this adaptor do not use them.
 *
 * Compiles as C and as C++. */
#ifndef AD_TAVOR_POST_SEND_PREP_H
#define AD_TAVOR_POST_SEND_PREP_H

#include <linux/string.h>
#include <linux/smp.h>
#include <linux/spinlock.h>
#include <asm/atomic.h>
#include <asm/page.h>

#include <vapi.h>

#include "adaptor-tavor.h"
#include "gather-address.h"
#include "translate.h"

__BEGIN_KERNEL_DECLS

/* ox_wr_operation_t -> VAPI opcode; ox_wr_mem_win_bind (8) has no row. */
#define OX_WR_TYPE_TRANSLATION_NUM 8
static const signed char wr_type_ox_to_mlx_translation[OX_WR_TYPE_TRANSLATION_NUM] = {
    VAPI_SEND,                 /* ox_wr_send */
    VAPI_SEND_WITH_IMM,        /* ox_wr_send_immed */
    VAPI_RDMA_READ,            /* ox_wr_rdma_read */
    VAPI_RDMA_WRITE,           /* ox_wr_rdma_write */
    VAPI_RDMA_WRITE_WITH_IMM,  /* ox_wr_rdma_write_immed */
    VAPI_ATOMIC_CMP_AND_SWP,   /* ox_wr_compare_swap */
    VAPI_ATOMIC_FETCH_AND_ADD, /* ox_wr_fetch_add */
    VAPI_RECEIVE,              /* ox_wr_receive */
};

/* completion_notification -> VAPI completion type: 0 unsignalled, 1..7 signalled. */
#define OX_WR_COMP_TRANSLATION_NUM 8
static const signed char wr_comp_ox_to_mlx_translation[OX_WR_COMP_TRANSLATION_NUM] = {
    VAPI_UNSIGNALED, VAPI_SIGNALED, VAPI_SIGNALED, VAPI_SIGNALED,
    VAPI_SIGNALED,   VAPI_SIGNALED, VAPI_SIGNALED, VAPI_SIGNALED,
};

/* The completion type of a request. Values past the table (8..255) are non-zero, that is
 * signalled, as the request's field means; they are not used to index past the table. */
static inline VAPI_comp_type_t ox_mlx_send_comp_type(unsigned char completion_notification) {
    if (completion_notification >= OX_WR_COMP_TRANSLATION_NUM) return VAPI_SIGNALED;
    return (VAPI_comp_type_t)wr_comp_ox_to_mlx_translation[completion_notification];
}

/* Whether posting on this QP takes its s_sl: every type but reliable-connected. */
static inline int ox_mlx_send_needs_lock(const ox_opened_qp_t *qp) {
    return qp->type != ox_qp_type_r_conn;
}

/* Take / release the QP's s_sl with interrupts saved, traced at DEBUG under the caller's name. */
#define OX_QP_SEND_LOCK(qp, flags)                                                                  \
    do {                                                                                            \
        AD_TAVOR_DEBUG("---->before OX_SPECIFIC_SL_LOCK cpu[%d] (%s(%d) %s())", smp_processor_id(), \
                       __FILE__, __LINE__, __func__);                                               \
        spin_lock_irqsave(&(qp)->s_sl, flags);                                                      \
        AD_TAVOR_DEBUG("---->OX_SPECIFIC_SL_LOCK");                                                 \
    } while (0)

#define OX_QP_SEND_UNLOCK(qp, flags)                                                                     \
    do {                                                                                                 \
        AD_TAVOR_DEBUG("---->OX_SPECIFIC_SL_UNLOCK cpu[%d] (%s(%d) %s())", smp_processor_id(), __FILE__, \
                       __LINE__, __func__);                                                              \
        spin_unlock_irqrestore(&(qp)->s_sl, flags);                                                      \
    } while (0)

/* What the preparation answers besides "prepared". */
typedef enum {
    OX_MLX_PREP_OK = 0,
    OX_MLX_PREP_UNSUPPORTED, /* operation type raw, receive, bind or beyond: counted once here */
    OX_MLX_PREP_BAD_REQUEST  /* a request the descriptors cannot hold: logged and counted here */
} ox_mlx_prep_t;

/* Fills `desc` and `sg` (room for OX_MLX_MAX_SG_PER_WR entries) from `work_req`, adds the gather
 * count to acc_sg and the gather bytes to tx_byte (an RDMA read moves nothing out), and sets
 * desc->sg_lst_p to `sg`. `is_inline`: gather addresses are passed unchanged instead of being
 * placed in the generic registration. The descriptor is cleared first.
 *
 * Refused before anything is counted (the descriptor may be left cleared or half filled):
 *  - more than OX_MLX_MAX_SG_PER_WR gather entries: the record and the list blocks have room for
 *    eight per request, and more would write past them;
 *  - a wr_type past the opcode table (a bind request): there is no VAPI opcode to give.
 * Both are logged at ERROR and counted once; the caller returns ox_return_err_invalid_parameter.
 * An unsupported operation type counts one error here; the caller counts it again.
 *
 * `operation_type` and the request's wr_type arrive as raw values (ox_mlx_raw_enum): a caller
 * may put any number there, and they are range-checked before use. */
static inline ox_mlx_prep_t ox_mlx_common_post_send_prep(ox_opened_hca_t *opened_hca_p, ox_opened_qp_t *qp,
                                                         const ox_wr_t *work_req, u32 operation_type,
                                                         VAPI_sr_desc_t *desc, VAPI_sg_lst_entry_t *sg,
                                                         int is_inline) {
    const ox_send_wr_t *send = &work_req->type.send;
    ox_iova_t iova;
    const u32 wr_type = ox_mlx_raw_enum(&work_req->wr_type);
    u32 total = 0;
    u32 i;

    memset(desc, 0, sizeof(*desc));
    iova = is_inline ? 0 : ox_mlx_gen_iova(opened_hca_p);
    AD_TAVOR_DEBUG("user qp_h %p, mlx qp_h: %ld, qp num: %d", (void *)qp, (long)(unsigned long)qp->qp_h,
                   (int)qp->qp_num);

    desc->comp_type = ox_mlx_send_comp_type(work_req->completion_notification);
    AD_TAVOR_DEBUG("ox completion_notification: %d, mlx comp_type: %d",
                   (int)work_req->completion_notification, (int)desc->comp_type);

    desc->set_se = FALSE;
    desc->sg_lst_len = work_req->num_of_data_segments;
    desc->id = work_req->wr_id;
    AD_TAVOR_DEBUG("post sr parameters: sg_lst_p: %p(%p), wr_id: %p(%p)", (void *)desc->sg_lst_p,
                   (void *)work_req->scatgat_list, (void *)(unsigned long)desc->id,
                   (void *)(unsigned long)work_req->wr_id);

    if (wr_type >= OX_WR_TYPE_TRANSLATION_NUM) {
        AD_TAVOR_ERROR("ERROR - wr_type: %d has no VAPI opcode", (int)wr_type);
        ox_mlx_count_error();
        return OX_MLX_PREP_BAD_REQUEST;
    }
    if (work_req->num_of_data_segments > OX_MLX_MAX_SG_PER_WR) {
        AD_TAVOR_ERROR("ERROR - num_of_data_segments: %d > %d", (int)work_req->num_of_data_segments,
                       OX_MLX_MAX_SG_PER_WR);
        ox_mlx_count_error();
        return OX_MLX_PREP_BAD_REQUEST;
    }
    desc->opcode = (VAPI_wr_opcode_t)wr_type_ox_to_mlx_translation[wr_type];

    switch (operation_type) {
        case ox_operation_type_send_rc:
            desc->fence = send->send_qp_type.rc_type.fance_indicator;
            desc->remote_addr = send->send_qp_type.rc_type.r_addr;
            desc->r_key = send->send_qp_type.rc_type.r_r_key;
            break;
        case ox_operation_type_send_uc:
            AD_TAVOR_FUNC("ox_operation_type_send_uc");
            AD_TAVOR_DEBUG(
                "need to fix: work_req->type.send.send_qp_type.uc_type.atomic_operands.atom_first_operan");
            AD_TAVOR_DEBUG(
                "need to fix: work_req->type.send.send_qp_type.uc_type.atomic_operands.atom_second_operand");
            desc->remote_addr = send->send_qp_type.uc_type.r_addr;
            desc->r_key = send->send_qp_type.uc_type.r_r_key;
            break;
        case ox_operation_type_send_rd:
            AD_TAVOR_FUNC("ox_operation_type_send_rd");
            desc->fence = send->send_qp_type.rd_type.fance_indicator;
            desc->remote_addr = send->send_qp_type.rd_type.r_addr;
            desc->remote_qkey = send->send_qp_type.rd_type.r_q_key;
            desc->remote_qp = send->send_qp_type.rd_type.r_qp_num;
            desc->r_key = send->send_qp_type.rd_type.r_r_key;
            break;
        case ox_operation_type_send_ud:
            desc->remote_ah = send->send_qp_type.ud_type.r_add_h;
            desc->remote_qkey = send->send_qp_type.ud_type.r_q_key;
            desc->remote_qp = send->send_qp_type.ud_type.r_qp_num;
            AD_TAVOR_DEBUG("post sr UD parameters: remote_ah: %d(%d), remote_qkey: %d(%d), remote_qp: %d(%d)",
                           (int)desc->remote_ah, (int)send->send_qp_type.ud_type.r_add_h,
                           (int)desc->remote_qkey, (int)send->send_qp_type.ud_type.r_q_key,
                           (int)desc->remote_qp, (int)send->send_qp_type.ud_type.r_qp_num);
            break;
        default:
            ox_mlx_count_error();
            return OX_MLX_PREP_UNSUPPORTED;
    }

    atomic_add((int)work_req->num_of_data_segments, &g_stat.acc_sg);

    for (i = 0; i < work_req->num_of_data_segments; i++) {
        const ox_scatgat_t *entry = &work_req->scatgat_list[i];

        sg[i].len = entry->length;
        sg[i].lkey = entry->l_key;
        if (is_inline) {
            sg[i].addr = (VAPI_virt_addr_t)entry->v_address;
            AD_TAVOR_DEBUG("%d) v_address: %p, length: %d, l_key: %d", (int)i, (void *)entry->v_address,
                           (int)entry->length, (int)entry->l_key);
        } else {
            sg[i].addr = (VAPI_virt_addr_t)(iova + (u64)(entry->v_address - PAGE_OFFSET));
            AD_TAVOR_DEBUG("%d) send sg, addr: %llx, length: %d, l_key: %d  src addr: %llx PAGE_OFFSET: %lx",
                           (int)i, (unsigned long long)sg[i].addr, (int)entry->length, (int)entry->l_key,
                           (unsigned long long)entry->v_address, (unsigned long)PAGE_OFFSET);
        }
        total += entry->length;
    }
    desc->sg_lst_p = sg;

    if (wr_type != (u32)ox_wr_rdma_read) {
        g_stat.tx_byte += total;
        g_stat.last_tx_byte += total;
    }
    return OX_MLX_PREP_OK;
}

/* The caller's side of a refused preparation: the ERROR line and the second count of an
 * unsupported operation type, and the status to return in `ret`. */
#define OX_MLX_PREP_FAILED(prep, ret)                                                \
    do {                                                                             \
        if ((prep) == OX_MLX_PREP_UNSUPPORTED) {                                     \
            AD_TAVOR_ERROR("ERROR - ox_mlx_common_post_send_prep() returned error"); \
            ox_mlx_count_error();                                                    \
            (ret) = ox_return_err_not_implemented;                                   \
        } else {                                                                     \
            (ret) = ox_return_err_invalid_parameter;                                 \
        }                                                                            \
    } while (0)

__END_KERNEL_DECLS

#endif
