/* The traffic tools' posting and polling through a provider's function table. */
#include <string.h>

#include "ox-provider.h"
#include "ox-types.h"
#include "perftest/ox_verbs.h"

#define HCA(h) ((ox_opened_hca_t *)(h))

int pt_ox_post_send(const ulp_funcs_t *funcs, void *hca, void *qp, const struct pt_ox_request *r) {
    static const ox_wr_operation_t ops[] = {ox_wr_send, ox_wr_rdma_write, ox_wr_rdma_read, ox_wr_compare_swap,
                                            ox_wr_fetch_add};
    static const ox_wr_operation_type_t transports[] = {ox_operation_type_send_rc, ox_operation_type_send_uc,
                                                        ox_operation_type_send_ud};
    ox_scatgat_t sg;
    ox_wr_t wr;

    memset(&wr, 0, sizeof(wr));
    sg.v_address = (unsigned long)r->addr;
    sg.length = r->length;
    sg.l_key = r->l_key;
    wr.wr_id = r->wr_id;
    wr.completion_notification = r->signaled ? 1 : 0;
    wr.scatgat_list = &sg;
    wr.num_of_data_segments = 1;
    wr.wr_type = ops[r->op];
    switch (r->transport) {
        case pt_ox_rc:
            wr.type.send.send_qp_type.rc_type.r_addr = (unsigned long)r->remote_addr;
            wr.type.send.send_qp_type.rc_type.r_r_key = r->r_key;
            wr.type.send.send_qp_type.rc_type.atomic = r->op == pt_ox_cas || r->op == pt_ox_faa;
            wr.type.send.send_qp_type.rc_type.atomic_operands.atom_first_operand =
                (unsigned long)r->compare_add;
            wr.type.send.send_qp_type.rc_type.atomic_operands.atom_second_operand = (unsigned long)r->swap;
            break;
        case pt_ox_uc:
            wr.type.send.send_qp_type.uc_type.r_addr = (unsigned long)r->remote_addr;
            wr.type.send.send_qp_type.uc_type.r_r_key = r->r_key;
            break;
        case pt_ox_ud:
            wr.type.send.send_qp_type.ud_type.r_add_h = r->ah;
            wr.type.send.send_qp_type.ud_type.r_qp_num = r->remote_qpn;
            wr.type.send.send_qp_type.ud_type.r_q_key = r->q_key;
            break;
    }
    if (r->inline_data) return funcs->ox_inline_post_send(HCA(hca), qp, &wr, transports[r->transport]);
    return funcs->ox_post_send(HCA(hca), qp, &wr, transports[r->transport]);
}

int pt_ox_post_receive(const ulp_funcs_t *funcs, void *hca, void *qp, uint64_t wr_id, uint64_t addr,
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

int pt_ox_poll(const ulp_funcs_t *funcs, void *hca, void *cq, uint64_t *wr_id, int *status,
               uint32_t *byte_len) {
    ox_wc_t wc;
    ox_return_t rc;

    /* Cleared: the poll fills only the fields of the completion's kind. */
    memset(&wc, 0, sizeof(wc));
    rc = funcs->ox_poll_for_completion(HCA(hca), cq, &wc);
    if (rc == ox_return_err_cq_empty) return 0;
    if (rc != ox_return_ok) return -(int)rc;
    *wr_id = wc.wr_id;
    *status = (int)wc.completion_status;
    *byte_len = (uint32_t)wc.num_bytes_transfered;
    return 1;
}

int pt_ox_arm(const ulp_funcs_t *funcs, void *hca, void *cq) {
    return funcs->ox_request_completion_notification(HCA(hca), cq, ox_next_solicit_unsolicit_event);
}
