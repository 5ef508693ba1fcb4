/* The upper-layer verbs shim for completion queues and queue pairs, through the provider's
 * function table; QP attribute records read and written by field path. */
#include <stddef.h>
#include <stdio.h>
#include <string.h>

#include "layout-table.h"

#include "ox-types.h"
#include "ox-provider.h"

#include "ulp_verbs_queues.h"

/* ---- Completion queues -------------------------------------------------------------------------- */

int ulp_cq_create(const ulp_funcs_t *funcs, void *hca, uint32_t entries, ulp_cq_callback_t callback,
                  void *context, void **cq, uint32_t *actual) {
    return funcs->ox_cq_create((ox_opened_hca_t *)hca, entries, (ox_app_com_event_callback_t)callback,
                               context, (ox_cq_h_t *)cq, actual);
}

int ulp_cq_query(const ulp_funcs_t *funcs, void *hca, void *cq, uint32_t *size, void **context) {
    return funcs->ox_cq_query((ox_opened_hca_t *)hca, (ox_cq_h_t)cq, size, context);
}

int ulp_cq_resize(const ulp_funcs_t *funcs, void *hca, void *cq, uint32_t entries, uint32_t *actual) {
    return funcs->ox_cq_resize((ox_opened_hca_t *)hca, (ox_cq_h_t)cq, entries, actual);
}

int ulp_cq_modify_attrib(const ulp_funcs_t *funcs, void *hca, void *cq, void *context,
                         ulp_cq_callback_t callback) {
    return funcs->ox_cq_modify_attrib((ox_opened_hca_t *)hca, (ox_cq_h_t)cq, context,
                                      (ox_app_com_event_callback_t)callback);
}

int ulp_cq_destroy(const ulp_funcs_t *funcs, void *hca, void *cq) {
    return funcs->ox_cq_destroy((ox_opened_hca_t *)hca, (ox_cq_h_t)cq);
}

/* ---- QP attribute records ------------------------------------------------------------------------- */

/* Every field by its C path, with the generic mask bit (OX_QP_AT_*) that selects a modify field as
 * its tag (0: no bit selects it). */
#define QF(path) LAYOUT_RAW(ox_qp_attr_t, path)
#define QF_M(path, bit) LAYOUT_RAW_TAG(ox_qp_attr_t, path, bit)
#define OPT OX_QP_AT_OPTIONAL

/* The fields of an address vector at `av`, all under the bit `bit`. */
#define QF_AV(av, bit)                                                                                   \
    QF_M(av.phy_port_num, bit), QF_M(av.service_level, bit), QF_M(av.grh_flag, bit), QF_M(av.dlid, bit), \
        QF_M(av.pmtu, bit), QF_M(av.max_static_rate, bit), QF_M(av.l_ack_timeout, bit),                  \
        QF_M(av.retry_count, bit), QF_M(av.rnr_retry_count, bit), QF_M(av.source_path_bit, bit),         \
        QF_M(av.global_dest.flow_lable, bit), QF_M(av.global_dest.hope_limit, bit),                      \
        QF_M(av.global_dest.traffic_class, bit), QF_M(av.global_dest.s_gid_index, bit),                  \
        QF_M(av.global_dest.d_gid, bit)
/* An alternate path at `alt`. */
#define QF_ALT(alt, bit) \
    QF_M(alt.al_path_p_key_indx, bit), QF_M(alt.al_path_port_num, bit), QF_AV(alt.al_path_add_vec, bit)

/* The optional queue depths and RNR timer that RTR and RTS both take, at `params`. */
#define QF_OPT_DEPTHS(params)                                                  \
    QF_M(params.opt_send_max_outstand_wr, OX_QP_AT_S_MAX_OUT_WR | OPT),        \
        QF_M(params.opt_receive_max_outstand_wr, OX_QP_AT_R_MAX_OUT_WR | OPT), \
        QF_M(params.opt_min_rnr_nak_timer, OX_QP_AT_MIN_RNR_NAK_T | OPT)

static const struct layout_field qp_fields[] = {
    /* create */
    QF(create.qp_type),
    QF(create.cq_send_h),
    QF(create.cq_receive_h),
    QF(create.send_max_outstand_wr),
    QF(create.receive_max_outstand_wr),
    QF(create.max_scatgat_per_send_wr),
    QF(create.max_scatgat_per_receive_wr),
    QF(create.rdd_h),
    QF(create.signaling_type),
    QF(create.pd_h),
    QF(create.recv_solicited_events),
    /* create_return */
    QF(create_return.qp_num),
    QF(create_return.send_max_outstand_wr),
    QF(create_return.receive_max_outstand_wr),
    QF(create_return.max_scatgat_per_send_wr),
    QF(create_return.max_scatgat_per_receive_wr),
    /* modify */
    QF(modify.qp_modify_into_state),
    QF(modify.ox_qp_attr_mask),
    QF(modify.qp_type),
    QF_M(modify.params.init.p_key_indx, OX_QP_AT_P_KEY_IX),
    QF_M(modify.params.init.phy_port_num, OX_QP_AT_PHY_PORT_NUM),
    QF_M(modify.params.init.q_key, OX_QP_AT_Q_KEY),
    QF_M(modify.params.init.access_control, OX_QP_AT_ACCESS_CON_F),
    QF_AV(modify.params.rtr.remote_add_vec, OX_QP_AT_ADD_VEC),
    QF_M(modify.params.rtr.destanation_qp, OX_QP_AT_DEST_QP),
    QF_M(modify.params.rtr.receive_psn, OX_QP_AT_R_PSN),
    QF_M(modify.params.rtr.responder_rdma_r_atom_num, OX_QP_AT_RESP_RDMA_ATOM_OUT_NUM),
    QF_M(modify.params.rtr.opt_access_control, OX_QP_AT_ACCESS_CON_F | OPT),
    QF_ALT(modify.params.rtr.opt_alternate_path, OX_QP_AT_ALT_PATH | OPT),
    QF_M(modify.params.rtr.opt_q_key, OX_QP_AT_Q_KEY | OPT),
    QF_M(modify.params.rtr.opt_p_key_indx, OX_QP_AT_P_KEY_IX | OPT),
    QF_OPT_DEPTHS(modify.params.rtr),
    QF_M(modify.params.rts.local_ack_timeout, OX_QP_AT_L_ACK_T),
    QF_M(modify.params.rts.retry_num, OX_QP_AT_RETRY_NUM),
    QF_M(modify.params.rts.rnr_num, OX_QP_AT_RNR_NUM),
    QF_M(modify.params.rts.send_psn, OX_QP_AT_S_PSN),
    QF_M(modify.params.rts.dest_out_rdma_r_atom_num, OX_QP_AT_DEST_RDMA_ATOM_OUT_NUM),
    QF(modify.params.rts.flow_control),
    QF_M(modify.params.rts.opt_access_control, OX_QP_AT_ACCESS_CON_F | OPT),
    QF_M(modify.params.rts.opt_q_key, OX_QP_AT_Q_KEY | OPT),
    QF_ALT(modify.params.rts.opt_alternate_path, OX_QP_AT_ALT_PATH | OPT),
    QF_M(modify.params.rts.opt_path_migrate_state, OX_QP_AT_PATH_MIG_STATE | OPT),
    QF_OPT_DEPTHS(modify.params.rts),
    QF_M(modify.params.rts.sqd_state, OX_QP_AT_SQD_NOTIFY),
    /* modify_return */
    QF(modify_return.send_max_outstand_wr),
    QF(modify_return.receive_max_outstand_wr),
    /* query */
    QF(query.ox_qp_attr_mask),
    QF(query.qp_num),
    QF(query.qp_type),
    QF(query.qp_state),
    QF(query.cq_send_h),
    QF(query.cq_receive_h),
    QF(query.send_max_outstand_wr),
    QF(query.receive_max_outstand_wr),
    QF(query.max_scatgat_per_send_wr),
    QF(query.max_scatgat_per_receive_wr),
    QF(query.send_psn),
    QF(query.receve_psn),
    QF(query.access_control),
    QF(query.phy_port_num),
    QF(query.primary_p_key_indx),
    QF(query.q_key),
    QF(query.rdd_h),
    QF(query.destanation_qp),
    QF(query.rdma_r_atom_outstand_num),
    QF(query.responder_rdma_r_atom_num),
    QF(query.min_rnr_nak_timer),
    QF_AV(query.primary_add_vec, 0),
    QF(query.path_migrate_state),
    QF_ALT(query.alternate_path, 0),
    QF(query.max_send_inline_data),
    QF(query.pd_h),
    QF(query.recv_solicited_events),
    QF(query.send_signaled_comp),
    QF(query.flow_control),
};
static const struct layout_table qp_table = LAYOUT_FIELDS_TABLE(qp_fields);

#define QP_RECORD "ox_qp_attr_t"
#define GID_BYTES 16

size_t ulp_sizeof_qp_attr(void) {
    return sizeof(ox_qp_attr_t);
}

int ulp_qp_attr_set(void *attr, const char *field, uint64_t value) {
    return layout_set(&qp_table, QP_RECORD, attr, field, (long long)value);
}

int ulp_qp_attr_get(const void *attr, const char *field, uint64_t *value) {
    long long loaded;

    if (layout_get(&qp_table, QP_RECORD, attr, field, &loaded)) return -1;
    *value = (uint64_t)loaded;
    return 0;
}

uint8_t *ulp_qp_attr_bytes(void *attr, const char *field) {
    const struct layout_field *f = layout_find(&qp_table, QP_RECORD, field);

    if (!f || f->size != GID_BYTES) return NULL;
    return (uint8_t *)attr + f->offset;
}

const char *ulp_qp_attr_field_name(const char *prefix, size_t i) {
    size_t k, n = 0, len = strlen(prefix);

    for (k = 0; k < LAYOUT_COUNT(qp_fields); k++) {
        if (strncmp(qp_fields[k].field, prefix, len) != 0 || qp_fields[k].size == GID_BYTES) continue;
        if (n++ == i) return qp_fields[k].field;
    }
    return NULL;
}

uint64_t ulp_qp_modify_field_mask(const char *state, const char *field) {
    char path[160];
    const struct layout_field *f;

    snprintf(path, sizeof(path), "modify.params.%s.%s", state, field);
    f = layout_find(&qp_table, QP_RECORD, path);
    return f ? f->tag : 0;
}

static const char *const qp_state_names[] = {
    "ox_qp_state_reset",      "ox_qp_state_init",       "ox_qp_state_rtr",   "ox_qp_state_rts",
    "ox_qp_state_sqd_to_rts", "ox_qp_state_sqe_to_rts", "ox_qp_state_sqd",   "ox_qp_state_sqe",
    "ox_qp_state_sqd_ing",    "ox_qp_state_sqd_ed",     "ox_qp_state_error",
};

const char *ulp_qp_state_name(int state) {
    if (state < 0 || (size_t)state >= sizeof(qp_state_names) / sizeof(qp_state_names[0]))
        return "ox_qp_state_?";
    return qp_state_names[state];
}

int ulp_qp_state_value(const char *short_name) {
    static const struct {
        const char *name;
        int value;
    } states[] = {
        {"reset", ox_qp_state_reset},
        {"init", ox_qp_state_init},
        {"rtr", ox_qp_state_rtr},
        {"rts", ox_qp_state_rts},
        {"sqd_to_rts", ox_qp_state_sqd_to_rts},
        {"sqe_to_rts", ox_qp_state_sqe_to_rts},
        {"sqd", ox_qp_state_sqd},
        {"sqe", ox_qp_state_sqe},
        {"err", ox_qp_state_error},
        {"error", ox_qp_state_error},
    };
    size_t i;

    for (i = 0; i < sizeof(states) / sizeof(states[0]); i++)
        if (!strcmp(states[i].name, short_name)) return states[i].value;
    return -1;
}

static const char *const qp_type_names[] = {
    "ox_qp_type_r_conn",           "ox_qp_type_u_conn",           "ox_qp_type_r_dgram",
    "ox_qp_type_u_dgram",          "ox_qp_type_special_smi_0",    "ox_qp_type_special_gsi_1",
    "ox_qp_type_special_raw_ipv6", "ox_qp_type_special_raw_eter", "ox_qp_type_not_valid",
};

const char *ulp_qp_type_name(int type) {
    if (type < 0 || (size_t)type >= sizeof(qp_type_names) / sizeof(qp_type_names[0])) return "ox_qp_type_?";
    return qp_type_names[type];
}

int ulp_qp_type_value(const char *short_name) {
    static const struct {
        const char *name;
        int value;
    } types[] = {
        {"rc", ox_qp_type_r_conn},
        {"uc", ox_qp_type_u_conn},
        {"rd", ox_qp_type_r_dgram},
        {"ud", ox_qp_type_u_dgram},
        {"smi", ox_qp_type_special_smi_0},
        {"gsi", ox_qp_type_special_gsi_1},
        {"raw_ipv6", ox_qp_type_special_raw_ipv6},
        {"raw_eter", ox_qp_type_special_raw_eter},
    };
    size_t i;

    for (i = 0; i < sizeof(types) / sizeof(types[0]); i++)
        if (!strcmp(types[i].name, short_name)) return types[i].value;
    return -1;
}

/* ---- Queue pairs ------------------------------------------------------------------------------------ */

int ulp_qp_create(const ulp_funcs_t *funcs, void *hca, void *attr_req, void *context, void **qp,
                  void *attr_out) {
    return funcs->ox_qp_create((ox_opened_hca_t *)hca, (ox_qp_attr_t *)attr_req, context, (ox_qp_h_t *)qp,
                               (ox_qp_attr_t *)attr_out);
}

int ulp_qp_get_special(const ulp_funcs_t *funcs, void *hca, unsigned port, void *attr_req, void *context,
                       void **qp, void *attr_out) {
    return funcs->ox_qp_get_special((ox_opened_hca_t *)hca, port, (ox_qp_attr_t *)attr_req, context,
                                    (ox_qp_h_t *)qp, (ox_qp_attr_t *)attr_out);
}

int ulp_qp_modify(const ulp_funcs_t *funcs, void *hca, void *qp, void *attr_req, void *attr_out) {
    return funcs->ox_qp_modify((ox_opened_hca_t *)hca, (ox_qp_h_t)qp, (ox_qp_attr_t *)attr_req,
                               (ox_qp_attr_t *)attr_out);
}

int ulp_qp_query(const ulp_funcs_t *funcs, void *hca, void *qp, void **context, void *attr_out) {
    return funcs->ox_qp_query((ox_opened_hca_t *)hca, (ox_qp_h_t)qp, context, (ox_qp_attr_t *)attr_out);
}

int ulp_qp_destroy(const ulp_funcs_t *funcs, void *hca, void *qp) {
    return funcs->ox_qp_destroy((ox_opened_hca_t *)hca, (ox_qp_h_t)qp);
}

int ulp_qp_context_set(const ulp_funcs_t *funcs, void *hca, void *qp, void *context) {
    return funcs->ox_qp_context_set((ox_opened_hca_t *)hca, (ox_qp_h_t)qp, context);
}

int ulp_qp_add_h(const ulp_funcs_t *funcs, void *hca, void *qp, int qpn) {
    return funcs->ox_qp_add_h((ox_opened_hca_t *)hca, (ox_qp_h_t)qp, qpn);
}

int ulp_qp_rem_h(const ulp_funcs_t *funcs, void *hca, void *qp, int qpn) {
    return funcs->ox_qp_rem_h((ox_opened_hca_t *)hca, (ox_qp_h_t)qp, qpn);
}

int ulp_eec_calls(const ulp_funcs_t *funcs, void *hca, int *results) {
    ox_opened_hca_t *h = (ox_opened_hca_t *)hca;
    ox_eec_h_t eec = 0x5a5a;
    void *context = (void *)0x5a5a;
    char area[64];

    results[0] = funcs->ox_eec_create(h, 7, area, &eec);
    results[1] = funcs->ox_eec_modify(h, eec, area, area);
    results[2] = funcs->ox_eec_query(h, eec, &context, area);
    results[3] = funcs->ox_eec_destroy(h, eec);
    return (eec == 0x5a5a && context == (void *)0x5a5a) ? 4 : -1;
}
