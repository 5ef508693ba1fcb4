/* adaptor-mlx: VAPI completions -> generic work completions, and the CQ notification table.
 *
 * The completion opcodes of VAPI and of the generic interface are numbered alike, so the opcode
 * is copied as it is (VAPI's invalid opcode included). Statuses go through a 22-entry table;
 * the remote node's address type through a 4-entry table, range-checked. VAPI's local QP number
 * and vendor syndrome are not part of the generic completion.
 *
 * Fields the translation does not set keep what the caller's record held: addres_info fields
 * outside the address type's branch, and completion_status when the VAPI status is unknown.
 *
 * Compiles as C and as C++. */
#ifndef AD_TAVOR_TRANSLATE_COMPLETION_H
#define AD_TAVOR_TRANSLATE_COMPLETION_H

#include <linux/types.h>

#include <vapi.h>

#include "ox-types.h"
#include "translate.h"

__BEGIN_KERNEL_DECLS

/* VAPI completion status -> ox_comp_status_t. VAPI_COMP_LOCAL_ABORT_ERR (21) reads as 100, a
 * value outside the enumeration that upper layers know as "aborted locally". */
#define WC_STATUS_TRANSLATION_NUM 22
extern const signed char wc_status_mlx_to_ox_translation[WC_STATUS_TRANSLATION_NUM];

/* VAPI remote node address type -> ox_qp_type_t; larger types read as ox_qp_type_not_valid. */
#define R_QP_TYPE_TRANSLATION_NUM 4
extern const signed char r_qp_type_mlx_to_ox_translation[R_QP_TYPE_TRANSLATION_NUM];

/* ox_request_comp_notify_t -> VAPI notification type (two entries). */
#define COM_NOTIFY_TRANSLATION_NUM 2
extern const signed char com_notify_ox_to_mlx_translation[COM_NOTIFY_TRANSLATION_NUM];

static inline ox_qp_type_t ox_mlx_remote_qp_type(u32 vapi_type) {
    if (vapi_type >= R_QP_TYPE_TRANSLATION_NUM) return ox_qp_type_not_valid;
    return (ox_qp_type_t)r_qp_type_mlx_to_ox_translation[vapi_type];
}

/* Fills `wc` from `vapi`. Returns 0 when the VAPI status has no translation (completion_status
 * is then left as it was), 1 otherwise. */
static inline int ox_mlx_wc_from_vapi(const VAPI_wc_desc_t *vapi, ox_wc_t *wc) {
    const VAPI_remote_node_addr_t *rna = &vapi->remote_node_addr;
    /* The enumeration fields are read raw: a completion entry may hold any value there. */
    const u32 type = ox_mlx_raw_enum(&rna->type);
    const u32 status = ox_mlx_raw_enum(&vapi->status);

    /* RD and UD carry a source QP; the raw types an Ethertype in the same word. */
    if (type < VAPI_RNA_RAW_ETY)
        wc->addres_info.source_qp = rna->qp_ety.qp;
    else
        wc->addres_info.etertype = (u16)rna->qp_ety.ety;
    if (type != VAPI_RNA_RD)
        wc->addres_info.dlid_path_bits = rna->ee_dlid.dst_path_bits;
    else
        wc->addres_info.eec_number = rna->ee_dlid.loc_eecn;
    wc->addres_info.sl = rna->sl;
    wc->addres_info.slid = rna->slid;
    wc->addres_info.remote_qp_type = ox_mlx_remote_qp_type(type);

    /* Stored raw: one row reads as 100, which no enumerator holds. */
    if (status < WC_STATUS_TRANSLATION_NUM)
        ox_mlx_store_raw_enum(&wc->completion_status, (u32)(int)wc_status_mlx_to_ox_translation[status]);

    wc->freed_resource = vapi->free_res_count;
    wc->grh_indicator = vapi->grh_flag;
    wc->immidiate_data_indicator = vapi->imm_data_valid;
    wc->immidiate_data = vapi->imm_data;
    wc->num_bytes_transfered = vapi->byte_len;
    ox_mlx_store_raw_enum(&wc->operation_type, ox_mlx_raw_enum(&vapi->opcode));
    wc->p_key_index = vapi->pkey_ix;
    wc->wr_id = vapi->id;
    return status < WC_STATUS_TRANSLATION_NUM;
}

__END_KERNEL_DECLS

#endif
