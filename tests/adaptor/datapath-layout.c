/* The data path's records (work requests, completions, address vectors, FMR records and the QP
 * and CQ tracking records), measured by the C compiler from the module's own headers, and the
 * tracking records a test builds for QPs and CQs it created through VAPI (see datapath_layout.h). */
#include <stddef.h>
#include <string.h>

#include <linux/slab.h>
#include <linux/spinlock.h>

#include "adaptor-tavor.h"
#include "ox-adaptor-common.h"

#include "datapath_layout.h"
#include "layout-table.h"

#define WR(f) LAYOUT_INT(ox_wr_t, f)
#define RC(f) LAYOUT_INT(ox_wr_t, type.send.send_qp_type.rc_type.f)
#define UC(f) LAYOUT_INT(ox_wr_t, type.send.send_qp_type.uc_type.f)
#define RD(f) LAYOUT_INT(ox_wr_t, type.send.send_qp_type.rd_type.f)
#define UD(f) LAYOUT_INT(ox_wr_t, type.send.send_qp_type.ud_type.f)
#define WC(f) LAYOUT_INT(ox_wc_t, f)
#define AV(f) LAYOUT_INT(ox_add_vec_t, f)

static const struct layout_field fields[] = {
    /* ox_wr_t */
    WR(wr_id),
    WR(completion_notification),
    LAYOUT_PTR(ox_wr_t, scatgat_list),
    WR(num_of_data_segments),
    LAYOUT_PTR(ox_wr_t, user_define_p),
    WR(wr_type),
    WR(type.send.immidiate_data_indicator),
    WR(type.send.immidiate_data),
    WR(type.send.solicited_event),
    RC(fance_indicator),
    RC(r_addr),
    RC(r_r_key),
    RC(atomic),
    RC(atomic_operands.atom_first_operand),
    RC(atomic_operands.atom_second_operand),
    RC(atomic_operands.atom_return_operand),
    UC(r_addr),
    UC(r_r_key),
    UC(atomic),
    UC(atomic_operands.atom_first_operand),
    UC(atomic_operands.atom_second_operand),
    RD(fance_indicator),
    RD(r_addr),
    RD(r_r_key),
    RD(r_qp_num),
    RD(r_q_key),
    RD(eec_number),
    UD(r_add_h),
    LAYOUT_PTR(ox_wr_t, type.send.send_qp_type.ud_type.p_add_vec),
    UD(r_qp_num),
    UD(r_q_key),
    /* ox_scatgat_t */
    LAYOUT_INT(ox_scatgat_t, v_address),
    LAYOUT_INT(ox_scatgat_t, length),
    LAYOUT_INT(ox_scatgat_t, l_key),
    /* ox_wc_t */
    WC(wr_id),
    WC(operation_type),
    WC(num_bytes_transfered),
    WC(immidiate_data_indicator),
    WC(immidiate_data),
    WC(addres_info.slid),
    WC(addres_info.sl),
    WC(addres_info.source_qp),
    WC(addres_info.etertype),
    WC(addres_info.eec_number),
    WC(addres_info.dlid_path_bits),
    WC(addres_info.remote_qp_type),
    WC(grh_indicator),
    WC(p_key_index),
    WC(completion_status),
    WC(freed_resource),
    /* ox_add_vec_t */
    AV(phy_port_num),
    AV(service_level),
    AV(grh_flag),
    AV(dlid),
    AV(pmtu),
    AV(max_static_rate),
    AV(l_ack_timeout),
    AV(retry_count),
    AV(rnr_retry_count),
    AV(source_path_bit),
    AV(global_dest.flow_lable),
    AV(global_dest.hope_limit),
    AV(global_dest.traffic_class),
    AV(global_dest.s_gid_index),
    LAYOUT_AT(ox_add_vec_t, global_dest.d_gid),
    /* FMRs */
    LAYOUT_INT(ox_fmr_t, pd_hndl),
    LAYOUT_INT(ox_fmr_t, acl),
    LAYOUT_INT(ox_fmr_t, max_pages),
    LAYOUT_INT(ox_fmr_t, log2_page_sz),
    LAYOUT_INT(ox_fmr_t, max_outstanding_maps),
    LAYOUT_PTR(ox_fmr_map_t, start),
    LAYOUT_INT(ox_fmr_map_t, size),
    LAYOUT_INT(ox_fmr_map_t, page_array_len),
    LAYOUT_PTR(ox_fmr_map_t, page_array),
    /* tracking records */
    LAYOUT_PTR(ox_opened_qp_t, qp_h),
    LAYOUT_INT(ox_opened_qp_t, qp_num),
    LAYOUT_PTR(ox_opened_qp_t, qp_oxuser_context),
    LAYOUT_INT(ox_opened_qp_t, type),
    LAYOUT_INT(ox_opened_qp_t, s_sl.slock),
    LAYOUT_INT(ox_opened_qp_t, s_sl.acquisitions),
    LAYOUT_AT(ox_opened_qp_t, sr_desc),
    LAYOUT_AT(ox_opened_qp_t, mlx_sg_array_s),
    LAYOUT_AT(ox_opened_qp_t, rr_desc),
    LAYOUT_AT(ox_opened_qp_t, mlx_sg_array_r),
    LAYOUT_PTR(ox_opened_cq_t, cq_h),
};

static const struct layout_size sizes[] = {
    LAYOUT_SIZE(ox_wr_t),        LAYOUT_SIZE(ox_scatgat_t),   LAYOUT_SIZE(ox_wc_t),
    LAYOUT_SIZE(ox_add_vec_t),   LAYOUT_SIZE(ox_fmr_t),       LAYOUT_SIZE(ox_fmr_map_t),
    LAYOUT_SIZE(ox_opened_qp_t), LAYOUT_SIZE(ox_opened_cq_t),
};

static const struct layout_constant constants[] = {
    LAYOUT_CONST(ox_operation_type_send_rc),
    LAYOUT_CONST(ox_operation_type_send_uc),
    LAYOUT_CONST(ox_operation_type_send_rd),
    LAYOUT_CONST(ox_operation_type_send_ud),
    LAYOUT_CONST(ox_operation_type_send_raw),
    LAYOUT_CONST(ox_operation_type_receive),
    LAYOUT_CONST(ox_operation_type_bind),
    LAYOUT_CONST(ox_wr_send),
    LAYOUT_CONST(ox_wr_send_immed),
    LAYOUT_CONST(ox_wr_rdma_read),
    LAYOUT_CONST(ox_wr_rdma_write),
    LAYOUT_CONST(ox_wr_rdma_write_immed),
    LAYOUT_CONST(ox_wr_compare_swap),
    LAYOUT_CONST(ox_wr_fetch_add),
    LAYOUT_CONST(ox_wr_receive),
    LAYOUT_CONST(ox_wr_mem_win_bind),
    LAYOUT_CONST(ox_qp_type_r_conn),
    LAYOUT_CONST(ox_qp_type_u_conn),
    LAYOUT_CONST(ox_qp_type_r_dgram),
    LAYOUT_CONST(ox_qp_type_u_dgram),
    LAYOUT_CONST(ox_qp_type_special_smi_0),
    LAYOUT_CONST(ox_qp_type_special_gsi_1),
    LAYOUT_CONST(ox_qp_type_special_raw_ipv6),
    LAYOUT_CONST(ox_qp_type_special_raw_eter),
    LAYOUT_CONST(ox_qp_type_not_valid),
    LAYOUT_CONST(ox_next_solicit_event_only),
    LAYOUT_CONST(ox_next_solicit_unsolicit_event),
    LAYOUT_CONST(OX_MLX_MAX_SG_PER_WR),
    LAYOUT_CONST(post_send_indx),
    LAYOUT_CONST(post_receive_indx),
    LAYOUT_CONST(poll_for_completion_indx),
    LAYOUT_CONST(request_completion_notification_indx),
    LAYOUT_CONST(address_hndl_create_indx),
    LAYOUT_CONST(address_hndl_modify_indx),
    LAYOUT_CONST(address_hndl_query_indx),
    LAYOUT_CONST(address_hndl_destroy_indx),
    LAYOUT_CONST(qp_attach_to_multicast_indx),
    LAYOUT_CONST(qp_detach_from_multicast_indx),
    LAYOUT_CONST(tavor_alloc_fmr_indx),
    LAYOUT_CONST(tavor_map_fmr_indx),
    LAYOUT_CONST(tavor_unmap_fmr_indx),
    LAYOUT_CONST(tavor_free_fmr_indx),
    LAYOUT_CONST(tavor_inline_post_send_indx),
    LAYOUT_CONST(tavor_post_send_list_indx),
    LAYOUT_CONST(tavor_post_receive_list_indx),
    LAYOUT_CONST(tavor_peek_cq_indx),
    LAYOUT_CONST(tavor_free_dev_mem_indx),
};

static const struct layout_table table = LAYOUT_TABLE(fields, sizes, constants);

const struct layout_table *dpl_layout(void) {
    return &table;
}

void *dpl_make_qp_record(void *hca, unsigned long vapi_handle, unsigned qp_num, int type) {
    ox_opened_hca_t *h = (ox_opened_hca_t *)hca;
    ox_opened_qp_t *qp = (ox_opened_qp_t *)kmalloc(sizeof(*qp), GFP_KERNEL);

    /* Not zeroed, as creation leaves the descriptors to the data path: fill them with a pattern so
     * that a test sees what a post clears. */
    memset(qp, 0x5a, sizeof(*qp));
    qp->qp_h = (ox_qp_h_t)vapi_handle;
    qp->qp_num = qp_num;
    qp->qp_oxuser_context = 0;
    qp->type = (ox_qp_type_t)type;
    spin_lock_init(&qp->s_sl);
    list_add(&qp->list, &h->opened_qp_list);
    if (vapi_handle <= OX_OPENED_ARRAY_MAX_IX) h->opened_qp_array[vapi_handle] = qp;
    return qp;
}

void *dpl_make_cq_record(void *hca, unsigned long vapi_handle) {
    ox_opened_hca_t *h = (ox_opened_hca_t *)hca;
    ox_opened_cq_t *cq = (ox_opened_cq_t *)kzalloc(sizeof(*cq), GFP_KERNEL);

    cq->cq_h = (ox_cq_h_t)vapi_handle;
    list_add(&cq->list, &h->opened_cq_list);
    if (vapi_handle <= OX_OPENED_ARRAY_MAX_IX) h->opened_cq_array[vapi_handle] = cq;
    return cq;
}
