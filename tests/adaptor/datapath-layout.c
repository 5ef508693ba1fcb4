/* The data path's records (work requests, completions, address vectors, FMR records and the QP
 * and CQ tracking records), measured by the C compiler from the module's own headers, and the
 * tracking records a test builds for QPs and CQs it created through VAPI (see datapath_layout.h). */
#include <stddef.h>
#include <string.h>

#include "record-field.h"

#include <linux/slab.h>
#include <linux/spinlock.h>

#include "adaptor-tavor.h"
#include "ox-adaptor-common.h"

#include "datapath_layout.h"

struct dpl_field {
    const char *record;
    const char *field;
    size_t offset;
    size_t size;
    int is_signed;
};

#define DPL_INT(record, field)                                               \
    {#record, #field, offsetof(record, field), sizeof(((record *)0)->field), \
     (__typeof__(((record *)0)->field))-1 < (__typeof__(((record *)0)->field))1},
#define DPL_PTR(record, field) {#record, #field, offsetof(record, field), sizeof(void *), 0},
#define DPL_AT(record, field) {#record, #field, offsetof(record, field), 0, 0},

#define WR(f) DPL_INT(ox_wr_t, f)
#define RC(f) DPL_INT(ox_wr_t, type.send.send_qp_type.rc_type.f)
#define UC(f) DPL_INT(ox_wr_t, type.send.send_qp_type.uc_type.f)
#define RD(f) DPL_INT(ox_wr_t, type.send.send_qp_type.rd_type.f)
#define UD(f) DPL_INT(ox_wr_t, type.send.send_qp_type.ud_type.f)
#define WC(f) DPL_INT(ox_wc_t, f)
#define AV(f) DPL_INT(ox_add_vec_t, f)

static const struct dpl_field fields[] = {
    /* ox_wr_t */
    WR(wr_id) WR(completion_notification) DPL_PTR(ox_wr_t, scatgat_list) WR(num_of_data_segments) DPL_PTR(
        ox_wr_t, user_define_p) WR(wr_type) WR(type.send.immidiate_data_indicator)
        WR(type.send.immidiate_data) WR(type.send.solicited_event) RC(fance_indicator) RC(r_addr) RC(r_r_key)
            RC(atomic) RC(atomic_operands.atom_first_operand) RC(atomic_operands.atom_second_operand)
                RC(atomic_operands.atom_return_operand) UC(r_addr) UC(r_r_key) UC(atomic)
                    UC(atomic_operands.atom_first_operand) UC(atomic_operands.atom_second_operand)
                        RD(fance_indicator) RD(r_addr) RD(r_r_key) RD(r_qp_num) RD(r_q_key) RD(eec_number)
                            UD(r_add_h) DPL_PTR(ox_wr_t, type.send.send_qp_type.ud_type.p_add_vec)
                                UD(r_qp_num) UD(r_q_key)
    /* ox_scatgat_t */
    DPL_INT(ox_scatgat_t, v_address) DPL_INT(ox_scatgat_t, length) DPL_INT(ox_scatgat_t, l_key)
    /* ox_wc_t */
    WC(wr_id) WC(operation_type) WC(num_bytes_transfered) WC(immidiate_data_indicator) WC(immidiate_data)
        WC(addres_info.slid) WC(addres_info.sl) WC(addres_info.source_qp) WC(addres_info.etertype)
            WC(addres_info.eec_number) WC(addres_info.dlid_path_bits) WC(addres_info.remote_qp_type)
                WC(grh_indicator) WC(p_key_index) WC(completion_status) WC(freed_resource)
    /* ox_add_vec_t */
    AV(phy_port_num) AV(service_level) AV(grh_flag) AV(dlid) AV(pmtu) AV(max_static_rate) AV(l_ack_timeout)
        AV(retry_count) AV(rnr_retry_count) AV(source_path_bit) AV(global_dest.flow_lable)
            AV(global_dest.hope_limit) AV(global_dest.traffic_class) AV(global_dest.s_gid_index)
                DPL_AT(ox_add_vec_t, global_dest.d_gid)
    /* FMRs */
    DPL_INT(ox_fmr_t, pd_hndl) DPL_INT(ox_fmr_t, acl) DPL_INT(ox_fmr_t, max_pages) DPL_INT(
        ox_fmr_t, log2_page_sz) DPL_INT(ox_fmr_t, max_outstanding_maps) DPL_PTR(ox_fmr_map_t, start)
        DPL_INT(ox_fmr_map_t, size) DPL_INT(ox_fmr_map_t, page_array_len) DPL_PTR(ox_fmr_map_t, page_array)
    /* tracking records */
    DPL_PTR(ox_opened_qp_t, qp_h) DPL_INT(ox_opened_qp_t, qp_num) DPL_PTR(ox_opened_qp_t, qp_oxuser_context)
        DPL_INT(ox_opened_qp_t, type) DPL_INT(ox_opened_qp_t, s_sl.slock)
            DPL_INT(ox_opened_qp_t, s_sl.acquisitions) DPL_AT(ox_opened_qp_t, sr_desc)
                DPL_AT(ox_opened_qp_t, mlx_sg_array_s) DPL_AT(ox_opened_qp_t, rr_desc)
                    DPL_AT(ox_opened_qp_t, mlx_sg_array_r) DPL_PTR(ox_opened_cq_t, cq_h)};

static const struct {
    const char *name;
    size_t size;
} sizes[] = {
    {"ox_wr_t", sizeof(ox_wr_t)},
    {"ox_scatgat_t", sizeof(ox_scatgat_t)},
    {"ox_wc_t", sizeof(ox_wc_t)},
    {"ox_add_vec_t", sizeof(ox_add_vec_t)},
    {"ox_fmr_t", sizeof(ox_fmr_t)},
    {"ox_fmr_map_t", sizeof(ox_fmr_map_t)},
    {"ox_opened_qp_t", sizeof(ox_opened_qp_t)},
    {"ox_opened_cq_t", sizeof(ox_opened_cq_t)},
};

#define CONST(name) {#name, (long long)(name)},
static const struct {
    const char *name;
    long long value;
} constants[] = {
    CONST(ox_operation_type_send_rc) CONST(ox_operation_type_send_uc) CONST(ox_operation_type_send_rd) CONST(
        ox_operation_type_send_ud) CONST(ox_operation_type_send_raw) CONST(ox_operation_type_receive)
        CONST(ox_operation_type_bind) CONST(ox_wr_send) CONST(ox_wr_send_immed) CONST(ox_wr_rdma_read) CONST(
            ox_wr_rdma_write) CONST(ox_wr_rdma_write_immed) CONST(ox_wr_compare_swap) CONST(ox_wr_fetch_add)
            CONST(ox_wr_receive) CONST(ox_wr_mem_win_bind) CONST(ox_qp_type_r_conn) CONST(ox_qp_type_u_conn)
                CONST(ox_qp_type_r_dgram) CONST(ox_qp_type_u_dgram) CONST(ox_qp_type_special_smi_0)
                    CONST(ox_qp_type_special_gsi_1) CONST(ox_qp_type_special_raw_ipv6)
                        CONST(ox_qp_type_special_raw_eter) CONST(ox_qp_type_not_valid)
                            CONST(ox_next_solicit_event_only) CONST(ox_next_solicit_unsolicit_event) CONST(
                                OX_MLX_MAX_SG_PER_WR) CONST(post_send_indx) CONST(post_receive_indx)
                                CONST(poll_for_completion_indx) CONST(request_completion_notification_indx)
                                    CONST(address_hndl_create_indx) CONST(address_hndl_modify_indx)
                                        CONST(address_hndl_query_indx) CONST(address_hndl_destroy_indx)
                                            CONST(qp_attach_to_multicast_indx)
                                                CONST(qp_detach_from_multicast_indx)
                                                    CONST(tavor_alloc_fmr_indx) CONST(tavor_map_fmr_indx)
                                                        CONST(tavor_unmap_fmr_indx) CONST(tavor_free_fmr_indx)
                                                            CONST(tavor_inline_post_send_indx)
                                                                CONST(tavor_post_send_list_indx)
                                                                    CONST(tavor_post_receive_list_indx)
                                                                        CONST(tavor_peek_cq_indx)
                                                                            CONST(tavor_free_dev_mem_indx)};

#define N(array) (sizeof(array) / sizeof((array)[0]))

static const struct dpl_field *find(const char *record, const char *field) {
    size_t i;

    for (i = 0; i < N(fields); i++)
        if (!strcmp(fields[i].record, record) && !strcmp(fields[i].field, field)) return &fields[i];
    return 0;
}

size_t dpl_sizeof(const char *record) {
    size_t i;

    for (i = 0; i < N(sizes); i++)
        if (!strcmp(sizes[i].name, record)) return sizes[i].size;
    return 0;
}

long dpl_offset(const char *record, const char *field) {
    const struct dpl_field *f = find(record, field);
    return f ? (long)f->offset : -1;
}

int dpl_get(const char *record, const void *base, const char *field, long long *value) {
    const struct dpl_field *f = find(record, field);

    if (!f || !f->size) return -1;
    return record_field_load((const char *)base + f->offset, f->size, f->is_signed, value);
}

int dpl_set(const char *record, void *base, const char *field, long long value) {
    const struct dpl_field *f = find(record, field);

    if (!f || !f->size) return -1;
    return record_field_store((char *)base + f->offset, f->size, (unsigned long long)value);
}

long long dpl_const(const char *name, int *found) {
    size_t i;

    for (i = 0; i < N(constants); i++) {
        if (!strcmp(constants[i].name, name)) {
            if (found) *found = 1;
            return constants[i].value;
        }
    }
    if (found) *found = 0;
    return 0;
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
