/* The upper-layer verbs shim, data path: every call through the provider's function table. */
#include <stddef.h>
#include <stdio.h>
#include <string.h>

#include "ox-types.h"
#include "ox-provider.h"

#include "ulp_datapath.h"

#define HCA(h) ((ox_opened_hca_t *)(h))

size_t ulp_sizeof_wr(void) {
    return sizeof(ox_wr_t);
}
size_t ulp_sizeof_scatgat(void) {
    return sizeof(ox_scatgat_t);
}
size_t ulp_sizeof_wc(void) {
    return sizeof(ox_wc_t);
}
size_t ulp_sizeof_add_vec(void) {
    return sizeof(ox_add_vec_t);
}
size_t ulp_sizeof_fmr(void) {
    return sizeof(ox_fmr_t);
}
size_t ulp_sizeof_fmr_map(void) {
    return sizeof(ox_fmr_map_t);
}

/* ---- Raw calls --------------------------------------------------------------------------------- */

int ulp_post_send(const ulp_funcs_t *funcs, void *hca, void *qp, void *wr, int operation_type) {
    return funcs->ox_post_send(HCA(hca), qp, (ox_wr_t *)wr, (ox_wr_operation_type_t)operation_type);
}
int ulp_post_send_vapi(const ulp_funcs_t *funcs, void *hca, void *qp, void *vapi_sr_desc) {
    return funcs->ox_post_send_vapi(HCA(hca), qp, vapi_sr_desc);
}
int ulp_post_send_nop(const ulp_funcs_t *funcs, void *hca, void *qp, void *wr, int operation_type) {
    return funcs->ox_post_send_nop(HCA(hca), qp, (ox_wr_t *)wr, (ox_wr_operation_type_t)operation_type);
}
int ulp_instant_send(const ulp_funcs_t *funcs, void *hca, void *qp, void *packet, uint32_t length) {
    return funcs->ox_instant_send(HCA(hca), qp, packet, length);
}
int ulp_post_gsi_send_on_pkey(const ulp_funcs_t *funcs, void *hca, void *qp, void *wr, int operation_type,
                              int pkey_index) {
    return funcs->ox_post_gsi_send_on_pkey(HCA(hca), qp, (ox_wr_t *)wr,
                                           (ox_wr_operation_type_t)operation_type, pkey_index);
}
int ulp_inline_post_send(const ulp_funcs_t *funcs, void *hca, void *qp, void *wr, int operation_type) {
    return funcs->ox_inline_post_send(HCA(hca), qp, (ox_wr_t *)wr, (ox_wr_operation_type_t)operation_type);
}
int ulp_post_send_list(const ulp_funcs_t *funcs, void *hca, void *qp, uint32_t count, void *wrs,
                       int operation_type) {
    return funcs->ox_post_send_list(HCA(hca), qp, count, (ox_wr_t *)wrs,
                                    (ox_wr_operation_type_t)operation_type);
}
int ulp_post_receive(const ulp_funcs_t *funcs, void *hca, void *qp, void *wr) {
    return funcs->ox_post_receive(HCA(hca), qp, (ox_wr_t *)wr);
}
int ulp_post_receive_list(const ulp_funcs_t *funcs, void *hca, void *qp, uint32_t count, void *wrs) {
    return funcs->ox_post_receive_list(HCA(hca), qp, count, (ox_wr_t *)wrs);
}
int ulp_post_receive_vapi(const ulp_funcs_t *funcs, void *hca, void *qp, void *vapi_rr_desc) {
    return funcs->ox_post_receive_vapi(HCA(hca), qp, vapi_rr_desc);
}
int ulp_post_receive_list_vapi(const ulp_funcs_t *funcs, void *hca, void *qp, uint32_t count,
                               void *vapi_rr_descs) {
    return funcs->ox_post_receive_list_vapi(HCA(hca), qp, count, vapi_rr_descs);
}

int ulp_poll(const ulp_funcs_t *funcs, void *hca, void *cq, void *wc) {
    return funcs->ox_poll_for_completion(HCA(hca), cq, (ox_wc_t *)wc);
}
int ulp_poll_vapi(const ulp_funcs_t *funcs, void *hca, void *cq, void *vapi_wc_desc) {
    return funcs->ox_poll_for_completion_vapi(HCA(hca), cq, vapi_wc_desc);
}
int ulp_request_notification(const ulp_funcs_t *funcs, void *hca, void *cq, int solicited_only_or_raw) {
    ox_request_comp_notify_t notify;

    if (solicited_only_or_raw == 1)
        notify = ox_next_solicit_event_only;
    else if (solicited_only_or_raw == 0)
        notify = ox_next_solicit_unsolicit_event;
    else
        notify = (ox_request_comp_notify_t)solicited_only_or_raw;
    return funcs->ox_request_completion_notification(HCA(hca), cq, notify);
}
int ulp_peek_cq(const ulp_funcs_t *funcs, void *hca, int arg) {
    return funcs->ox_peek_cq(HCA(hca), arg);
}
int ulp_set_completion_event_handler(const ulp_funcs_t *funcs, void *hca, void *handler) {
    return funcs->ox_set_completion_event_handler(HCA(hca), (ox_com_event_callback_t *)handler);
}

int ulp_ah_create(const ulp_funcs_t *funcs, void *hca, uint32_t pd, void *add_vec, uint64_t *ah) {
    return funcs->ox_address_hndl_create(HCA(hca), pd, (ox_add_vec_t *)add_vec, ah);
}
int ulp_ah_modify(const ulp_funcs_t *funcs, void *hca, uint64_t ah, void *add_vec) {
    return funcs->ox_address_hndl_modify(HCA(hca), ah, (ox_add_vec_t *)add_vec);
}
int ulp_ah_query(const ulp_funcs_t *funcs, void *hca, uint64_t ah, void *add_vec, uint32_t *pd) {
    return funcs->ox_address_hndl_query(HCA(hca), ah, (ox_add_vec_t *)add_vec, pd);
}
int ulp_ah_destroy(const ulp_funcs_t *funcs, void *hca, uint64_t ah) {
    return funcs->ox_address_hndl_destroy(HCA(hca), ah);
}

int ulp_mcast_attach(const ulp_funcs_t *funcs, void *hca, uint16_t dlid, const uint8_t *gid, void *qp) {
    ox_gid_t g;

    memcpy(g.gid, gid, sizeof(g.gid));
    return funcs->ox_qp_attach_to_multicast(HCA(hca), dlid, g, qp);
}
int ulp_mcast_detach(const ulp_funcs_t *funcs, void *hca, uint16_t dlid, const uint8_t *gid, uint32_t port,
                     void *qp) {
    ox_gid_t g;

    memcpy(g.gid, gid, sizeof(g.gid));
    return funcs->ox_qp_detach_from_multicast(HCA(hca), dlid, g, port, qp);
}

int ulp_fmr_alloc(const ulp_funcs_t *funcs, void *hca, void *fmr, uint64_t *fmr_h) {
    return funcs->ox_alloc_fmr(HCA(hca), (ox_fmr_t *)fmr, fmr_h);
}
int ulp_fmr_map(const ulp_funcs_t *funcs, void *hca, uint64_t fmr_h, void *map, uint32_t *l_key,
                uint32_t *r_key) {
    return funcs->ox_map_fmr(HCA(hca), fmr_h, (ox_fmr_map_t *)map, l_key, r_key);
}
int ulp_fmr_unmap(const ulp_funcs_t *funcs, void *hca, uint32_t count, uint64_t *fmr_hs) {
    return funcs->ox_unmap_fmr(HCA(hca), count, fmr_hs);
}
int ulp_fmr_free(const ulp_funcs_t *funcs, void *hca, uint64_t fmr_h) {
    return funcs->ox_free_fmr(HCA(hca), fmr_h);
}

int ulp_alloc_dev_mem(const ulp_funcs_t *funcs, void *hca, int arg) {
    return funcs->ox_alloc_dev_mem(HCA(hca), arg);
}
int ulp_free_dev_mem(const ulp_funcs_t *funcs, void *hca, int arg) {
    return funcs->ox_free_dev_mem(HCA(hca), arg);
}
int ulp_process_local_mad(const ulp_funcs_t *funcs, void *hca, unsigned port, uint16_t slid,
                          const void *mad_in, void *mad_out) {
    return funcs->ox_process_local_mad(HCA(hca), (ox_port_num_t)port, slid, mad_in, mad_out);
}

/* ---- Simple calls ------------------------------------------------------------------------------ */

int ulp_operation_type(const char *transport) {
    if (!strcmp(transport, "rc")) return ox_operation_type_send_rc;
    if (!strcmp(transport, "uc")) return ox_operation_type_send_uc;
    if (!strcmp(transport, "ud")) return ox_operation_type_send_ud;
    return -1;
}

int ulp_post_send_request(const ulp_funcs_t *funcs, void *hca, void *qp, int operation_type,
                          const struct ulp_send_request *r) {
    static const ox_wr_operation_t ops[] = {
        ox_wr_send,      ox_wr_send_immed,   ox_wr_rdma_write, ox_wr_rdma_write_immed,
        ox_wr_rdma_read, ox_wr_compare_swap, ox_wr_fetch_add};
    const int atomic = r->op == ulp_op_cas || r->op == ulp_op_faa;
    ox_scatgat_t sg;
    ox_wr_t wr;

    memset(&wr, 0, sizeof(wr));
    sg.v_address = (unsigned long)r->addr;
    sg.length = r->length;
    sg.l_key = r->l_key;
    wr.wr_id = r->wr_id;
    wr.completion_notification = r->unsignalled ? 0 : 1;
    wr.scatgat_list = &sg;
    wr.num_of_data_segments = r->length ? 1 : 0;
    wr.wr_type = ops[r->op];
    switch (operation_type) {
        case ox_operation_type_send_rc:
            wr.type.send.send_qp_type.rc_type.r_addr = (unsigned long)r->target.remote_addr;
            wr.type.send.send_qp_type.rc_type.r_r_key = r->target.r_key;
            wr.type.send.send_qp_type.rc_type.atomic = atomic;
            wr.type.send.send_qp_type.rc_type.atomic_operands.atom_first_operand =
                (unsigned long)r->compare_add;
            wr.type.send.send_qp_type.rc_type.atomic_operands.atom_second_operand = (unsigned long)r->swap;
            break;
        case ox_operation_type_send_uc:
            wr.type.send.send_qp_type.uc_type.r_addr = (unsigned long)r->target.remote_addr;
            wr.type.send.send_qp_type.uc_type.r_r_key = r->target.r_key;
            break;
        case ox_operation_type_send_ud:
            wr.type.send.send_qp_type.ud_type.r_add_h = r->target.ah;
            wr.type.send.send_qp_type.ud_type.r_qp_num = r->target.remote_qpn;
            wr.type.send.send_qp_type.ud_type.r_q_key = r->target.q_key;
            break;
        default:
            break;
    }
    if (r->inline_data)
        return funcs->ox_inline_post_send(HCA(hca), qp, &wr, (ox_wr_operation_type_t)operation_type);
    return funcs->ox_post_send(HCA(hca), qp, &wr, (ox_wr_operation_type_t)operation_type);
}

int ulp_post_send_simple(const ulp_funcs_t *funcs, void *hca, void *qp, int operation_type,
                         enum ulp_send_op op, uint64_t wr_id, void *addr, uint32_t length, uint32_t l_key,
                         const struct ulp_send_target *target) {
    struct ulp_send_request r = {.op = op, .wr_id = wr_id, .addr = addr, .length = length, .l_key = l_key};

    if (target) r.target = *target;
    return ulp_post_send_request(funcs, hca, qp, operation_type, &r);
}

int ulp_post_receive_simple(const ulp_funcs_t *funcs, void *hca, void *qp, uint64_t wr_id, void *addr,
                            uint32_t length, uint32_t l_key) {
    ox_scatgat_t sg;
    ox_wr_t wr;

    memset(&wr, 0, sizeof(wr));
    sg.v_address = (unsigned long)addr;
    sg.length = length;
    sg.l_key = l_key;
    wr.wr_id = wr_id;
    wr.completion_notification = 1;
    wr.scatgat_list = &sg;
    wr.num_of_data_segments = 1;
    wr.wr_type = ox_wr_receive;
    return funcs->ox_post_receive(HCA(hca), qp, &wr);
}

const char *ulp_wc_operation_name(int operation_type) {
    static const char *const names[] = {
        "ox_wc_send_sq",      "ox_wc_rdma_write_sq",   "ox_wc_rdma_read_sq", "ox_wc_comare_swap_sq",
        "ox_wc_fetch_add_sq", "ox_wc_mem_win_bind_sq", "ox_wc_send_rq",      "ox_wc_rdma_immidiate"};
    if (operation_type < 0 || (size_t)operation_type >= sizeof(names) / sizeof(names[0])) return "ox_wc_?";
    return names[operation_type];
}

const char *ulp_comp_status_name(int completion_status) {
    static const char *const names[] = {"ox_comp_status_success",
                                        "ox_comp_status_loc_len_err",
                                        "ox_comp_status_loc_qp_op_err",
                                        "ox_comp_status_loc_eec_op_err",
                                        "ox_comp_status_loc_portection_err",
                                        "ox_comp_status_wr_flush_err",
                                        "ox_comp_status_mw_bind_err",
                                        "ox_comp_status_bad_resp_err",
                                        "ox_comp_status_loc_access_err",
                                        "ox_comp_status_rem_inv_req_err",
                                        "ox_comp_status_rem_access_err",
                                        "ox_comp_status_rem_op_err",
                                        "ox_comp_status_retry_exc_err",
                                        "ox_comp_status_rnr_retry_exc_err",
                                        "ox_comp_status_loc_rdd_vio_err",
                                        "ox_comp_status_rem_inv_rd_req_err",
                                        "ox_comp_status_rem_aborted_err",
                                        "ox_comp_status_inv_eec_num_err",
                                        "ox_comp_status_inv_eec_state_err",
                                        "ox_comp_status_general_err",
                                        "ox_comp_status_timeout_err",
                                        "ox_comp_status_rnr_timeout_err"};
    if (completion_status < 0 || (size_t)completion_status >= sizeof(names) / sizeof(names[0]))
        return "ox_comp_status_?";
    return names[completion_status];
}

const int ulp_cq_empty = ox_return_err_cq_empty;

int ulp_poll_simple(const ulp_funcs_t *funcs, void *hca, void *cq, struct ulp_completion *out, char *line,
                    size_t len) {
    ox_wc_t wc;
    int rc;

    memset(&wc, 0, sizeof(wc));
    rc = funcs->ox_poll_for_completion(HCA(hca), cq, &wc);
    if (rc != ox_return_ok) return rc;
    if (out) {
        out->wr_id = wc.wr_id;
        out->operation_type = wc.operation_type;
        out->num_bytes_transfered = wc.num_bytes_transfered;
        out->immidiate_data_indicator = wc.immidiate_data_indicator;
        out->immidiate_data = wc.immidiate_data;
        out->completion_status = wc.completion_status;
        out->source_qp = wc.addres_info.source_qp;
        out->slid = wc.addres_info.slid;
    }
    if (line)
        snprintf(line, len,
                 "wr_id: %llu, operation_type: %s, num_bytes_transfered: %lu, completion_status: %s, "
                 "immidiate_data_indicator: %d, immidiate_data: 0x%x, source_qp: 0x%x, slid: %u",
                 (unsigned long long)wc.wr_id, ulp_wc_operation_name(wc.operation_type),
                 wc.num_bytes_transfered, ulp_comp_status_name(wc.completion_status),
                 (int)wc.immidiate_data_indicator, (unsigned)wc.immidiate_data,
                 (unsigned)wc.addres_info.source_qp, (unsigned)wc.addres_info.slid);
    return rc;
}

int ulp_ah_create_simple(const ulp_funcs_t *funcs, void *hca, uint32_t pd, uint16_t dlid, uint8_t sl,
                         uint64_t *ah) {
    ox_add_vec_t av;

    memset(&av, 0, sizeof(av));
    av.phy_port_num = 1;
    av.dlid = dlid;
    av.service_level = sl;
    return funcs->ox_address_hndl_create(HCA(hca), pd, &av, ah);
}
