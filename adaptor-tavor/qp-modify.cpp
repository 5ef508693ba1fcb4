/* QP state transitions: the generic modify request becomes one VAPI_modify_qp call.
 *
 * The target state picks the member of the request's parameters and which generic mask bits are
 * read; each bit taken adds its VAPI mask bits from mask_ox_to_mlx_trans and copies one field (or
 * one group: the address vector, the alternate path). The state itself is always sent. The QP's
 * type is not consulted, and the adaptor keeps no state of its own: VAPI refuses a transition the
 * QP cannot make. Send-queue drain and the recoveries to RTS are refused here.
 *
 * Every attribute taken is traced: a DEBUG line naming the generic bit, then a FUNC line
 * "bitmask: <generic bit>(<VAPI mask bits>), value: <value sent>(<generic value>)" (groups print
 * the bitmask part only). */
#include <linux/kernel.h>
#include <linux/string.h>

#include <vapi.h>

#include "adaptor-tavor.h"
#include "translate.h"
#include "ox-entry-points.h"

/* VAPI state of each generic state, indexed by ox_qp_state_t. The SQD entries are never sent:
 * those targets are refused. */
static const VAPI_qp_state_t qp_modify_ox_to_mlx_translation[] = {
    VAPI_RESET, /* ox_qp_state_reset */
    VAPI_INIT,  /* ox_qp_state_init */
    VAPI_RTR,   /* ox_qp_state_rtr */
    VAPI_RTS,   /* ox_qp_state_rts */
    VAPI_RTS,   /* ox_qp_state_sqd_to_rts */
    VAPI_RTS,   /* ox_qp_state_sqe_to_rts */
    VAPI_SQD,   /* ox_qp_state_sqd */
    VAPI_SQE,   /* ox_qp_state_sqe */
    VAPI_SQD,   /* ox_qp_state_sqd_ing */
    VAPI_SQD,   /* ox_qp_state_sqd_ed */
    VAPI_ERR,   /* ox_qp_state_error */
};
#define OX_QP_STATE_NUM (sizeof(qp_modify_ox_to_mlx_translation) / sizeof(qp_modify_ox_to_mlx_translation[0]))

/* VAPI mask bits each generic mask bit adds, indexed by the generic bit number. Both depth bits
 * (5 and 6) add the one capability bit, so a caller that sets only one of them sends the other
 * depth as 0. Bit 28 only gates the optional attributes and adds nothing. */
static const VAPI_qp_attr_mask_t mask_ox_to_mlx_trans[OX_QP_AT_BIT_COUNT] = {
    QP_ATTR_QP_NUM,                /* 0 */
    0,                             /* 1 */
    QP_ATTR_QP_STATE,              /* 2: OX_QP_AT_STATE, always sent */
    0,                             /* 3 */
    0,                             /* 4 */
    QP_ATTR_CAP,                   /* 5: OX_QP_AT_S_MAX_OUT_WR */
    QP_ATTR_CAP,                   /* 6: OX_QP_AT_R_MAX_OUT_WR */
    QP_ATTR_CAP,                   /* 7 */
    QP_ATTR_CAP,                   /* 8 */
    QP_ATTR_SQ_PSN,                /* 9: OX_QP_AT_S_PSN */
    QP_ATTR_RQ_PSN,                /* 10: OX_QP_AT_R_PSN */
    QP_ATTR_REMOTE_ATOMIC_FLAGS,   /* 11: OX_QP_AT_ACCESS_CON_F */
    QP_ATTR_PORT,                  /* 12: OX_QP_AT_PHY_PORT_NUM */
    QP_ATTR_PKEY_IX,               /* 13: OX_QP_AT_P_KEY_IX */
    QP_ATTR_QKEY,                  /* 14: OX_QP_AT_Q_KEY */
    0,                             /* 15 */
    QP_ATTR_DEST_QP_NUM,           /* 16: OX_QP_AT_DEST_QP */
    QP_ATTR_OUS_DST_RD_ATOM,       /* 17: OX_QP_AT_DEST_RDMA_ATOM_OUT_NUM */
    QP_ATTR_QP_OUS_RD_ATOM,        /* 18: OX_QP_AT_RESP_RDMA_ATOM_OUT_NUM */
    QP_ATTR_MIN_RNR_TIMER,         /* 19: OX_QP_AT_MIN_RNR_NAK_T */
    QP_ATTR_AV | QP_ATTR_PATH_MTU, /* 20: OX_QP_AT_ADD_VEC */
    QP_ATTR_PATH_MIG_STATE,        /* 21: OX_QP_AT_PATH_MIG_STATE */
    QP_ATTR_ALT_PATH,              /* 22: OX_QP_AT_ALT_PATH */
    0,                             /* 23 */
    QP_ATTR_TIMEOUT,               /* 24: OX_QP_AT_L_ACK_T */
    QP_ATTR_RETRY_COUNT,           /* 25: OX_QP_AT_RETRY_NUM */
    QP_ATTR_RNR_RETRY,             /* 26: OX_QP_AT_RNR_NUM */
    QP_ATTR_EN_SQD_ASYN_NOTIF,     /* 27: OX_QP_AT_SQD_NOTIFY */
    0,                             /* 28: OX_QP_AT_OPTIONAL */
    0,                             /* 29 */
};

/* The bit number of a generic mask bit. */
#define OX_QP_AT_NUM(flag) __builtin_ctzll(flag)

/* Takes one attribute: `vapi_field` of the VAPI record receives `value` when `flag` is set. */
#define OX_QP_TAKE(flag, vapi_field, value)                                                    \
    do {                                                                                       \
        if (mask & (flag)) {                                                                   \
            AD_TAVOR_DEBUG("bitmask: " #flag);                                                 \
            attr.vapi_field = (value);                                                         \
            vapi_mask |= mask_ox_to_mlx_trans[OX_QP_AT_NUM(flag)];                             \
            AD_TAVOR_FUNC("bitmask: %d(%d), value: %d(%d)", OX_QP_AT_NUM(flag),                \
                          (int)mask_ox_to_mlx_trans[OX_QP_AT_NUM(flag)], (int)attr.vapi_field, \
                          (int)(value));                                                       \
        }                                                                                      \
    } while (0)

/* Remote access rights from the generic bits, each VAPI flag traced. */
#define OX_QP_TAKE_ACCESS(access)                                                                \
    do {                                                                                         \
        if (mask & OX_QP_AT_ACCESS_CON_F) {                                                      \
            AD_TAVOR_DEBUG("bitmask: OX_QP_AT_ACCESS_CON_F");                                    \
            attr.remote_atomic_flags = ox_mlx_access_to_vapi(access);                            \
            if (attr.remote_atomic_flags & VAPI_EN_REM_ATOMIC_OP)                                \
                AD_TAVOR_DEBUG("remote_atomic_flags = VAPI_EN_REM_ATOMIC_OP");                   \
            if (attr.remote_atomic_flags & VAPI_EN_REM_READ)                                     \
                AD_TAVOR_DEBUG("remote_atomic_flags = VAPI_EN_REM_READ");                        \
            if (attr.remote_atomic_flags & VAPI_EN_REM_WRITE)                                    \
                AD_TAVOR_DEBUG("remote_atomic_flags = VAPI_EN_REM_WRITE");                       \
            vapi_mask |= mask_ox_to_mlx_trans[OX_QP_AT_NUM(OX_QP_AT_ACCESS_CON_F)];              \
            AD_TAVOR_FUNC("bitmask: %d(%d), value: %d(%d)", OX_QP_AT_NUM(OX_QP_AT_ACCESS_CON_F), \
                          (int)mask_ox_to_mlx_trans[OX_QP_AT_NUM(OX_QP_AT_ACCESS_CON_F)],        \
                          (int)attr.remote_atomic_flags, (int)(access));                         \
        }                                                                                        \
    } while (0)

/* The alternate path; its port is 1 on the way to RTR and left 0 on the way to RTS. */
#define OX_QP_TAKE_ALT_PATH(path, alt_port_value)                                      \
    do {                                                                               \
        if (mask & OX_QP_AT_ALT_PATH) {                                                \
            AD_TAVOR_DEBUG("bitmask: OX_QP_AT_ALT_PATH");                              \
            ox_mlx_add_vec_to_vapi(&(path).al_path_add_vec, &attr.alt_av);             \
            attr.alt_av.port = (alt_port_value);                                       \
            attr.alt_pkey_ix = (path).al_path_p_key_indx;                              \
            attr.alt_timeout = (VAPI_timeout_t)(path).al_path_add_vec.l_ack_timeout;   \
            vapi_mask |= mask_ox_to_mlx_trans[OX_QP_AT_NUM(OX_QP_AT_ALT_PATH)];        \
            AD_TAVOR_FUNC("bitmask: %d(%d)", OX_QP_AT_NUM(OX_QP_AT_ALT_PATH),          \
                          (int)mask_ox_to_mlx_trans[OX_QP_AT_NUM(OX_QP_AT_ALT_PATH)]); \
        }                                                                              \
    } while (0)

/* The port every path of the RTR transition is given, whatever the request says. */
#define OX_QP_RTR_PATH_PORT 1

ox_return_t oxi_mlx_qp_modify(ox_opened_hca_t *opened_hca_p, ox_qp_h_t qp_h, ox_qp_attr_t *qp_attr_req,
                              ox_qp_attr_t *qp_attr) {
    ox_opened_qp_t *opened_qp_p = (ox_opened_qp_t *)qp_h;
    /* Request and result may share the union: the request is read whole before the result is
     * written. */
    const ox_qp_modify_t *req = &qp_attr_req->modify;
    const ox_qp_at_mask_t mask = req->ox_qp_attr_mask;
    const u32 into_state = ox_mlx_raw_enum(&req->qp_modify_into_state);
    VAPI_qp_attr_mask_t vapi_mask;
    VAPI_qp_attr_t attr;
    VAPI_qp_cap_t cap;
    VAPI_ret_t stat;
    int vapi_state;

    memset(&attr, 0, sizeof(attr));
    memset(&cap, 0, sizeof(cap));
    vapi_mask = 0;

    AD_TAVOR_DEBUG("user qp_h %p, mlx qp_h: %ld, qp num: %d", (void *)opened_qp_p,
                   (long)(unsigned long)opened_qp_p->qp_h, (int)opened_qp_p->qp_num);
    AD_TAVOR_DEBUG("ox_qp_attr_mask: 0x%llx", (unsigned long long)mask);
    AD_TAVOR_DEBUG("bitmask: OX_QP_AT_STATE");

    /* A state beyond the table is refused below; it is not looked up (it is shown as -1). */
    vapi_state = into_state < OX_QP_STATE_NUM ? (int)qp_modify_ox_to_mlx_translation[into_state] : -1;
    if (vapi_state >= 0) attr.qp_state = (VAPI_qp_state_t)vapi_state;
    vapi_mask |= QP_ATTR_QP_STATE;
    AD_TAVOR_DEBUG("change to qp_state: %d(%d)", vapi_state, (int)into_state);

    switch (into_state) {
        case ox_qp_state_reset:
            AD_TAVOR_DEBUG("change QP state into RESET");
            break;
        case ox_qp_state_error:
            AD_TAVOR_DEBUG("change QP state into ERROR");
            break;
        case ox_qp_state_init: {
            const ox_qp_modify_init_t *init = &req->params.init;

            AD_TAVOR_DEBUG("change QP state into INIT");
            OX_QP_TAKE(OX_QP_AT_P_KEY_IX, pkey_ix, init->p_key_indx);
            OX_QP_TAKE(OX_QP_AT_PHY_PORT_NUM, port, init->phy_port_num);
            OX_QP_TAKE(OX_QP_AT_Q_KEY, qkey, init->q_key);
            OX_QP_TAKE_ACCESS(init->access_control);
            AD_TAVOR_DEBUG("state: %d, attr_mask: %d, pkey_ix: %d, attr_mlx.port: %d, qkey: %d",
                           (int)attr.qp_state, (int)vapi_mask, (int)attr.pkey_ix, (int)attr.port,
                           (int)attr.qkey);
            break;
        }
        case ox_qp_state_rtr: {
            const ox_qp_modify_rtr_t *rtr = &req->params.rtr;

            AD_TAVOR_DEBUG("change QP state into RTR");
            OX_QP_TAKE(OX_QP_AT_DEST_QP, dest_qp_num, rtr->destanation_qp);
            OX_QP_TAKE(OX_QP_AT_R_PSN, rq_psn, rtr->receive_psn);
            if (mask & OX_QP_AT_ADD_VEC) {
                AD_TAVOR_DEBUG("bitmask: OX_QP_AT_ADD_VEC");
                ox_mlx_add_vec_to_vapi(&rtr->remote_add_vec, &attr.av);
                attr.av.port = OX_QP_RTR_PATH_PORT;
                attr.path_mtu = (IB_mtu_t)rtr->remote_add_vec.pmtu;
                vapi_mask |= mask_ox_to_mlx_trans[OX_QP_AT_NUM(OX_QP_AT_ADD_VEC)];
                AD_TAVOR_DEBUG("qp_attr_mlx.av.dlid: %d", (int)attr.av.dlid);
                AD_TAVOR_DEBUG("qp_attr_mlx.av.static_rate: %d", (int)attr.av.static_rate);
                AD_TAVOR_DEBUG("qp_attr_mlx.av.sl: %d", (int)attr.av.sl);
                AD_TAVOR_DEBUG("qp_attr_mlx.av.src_path_bits: %d", (int)attr.av.src_path_bits);
                AD_TAVOR_DEBUG("qp_attr_mlx.av.port: %d", (int)attr.av.port);
                AD_TAVOR_DEBUG("qp_attr_mlx.path_mtu: %d (ox: %d)", (int)attr.path_mtu,
                               (int)rtr->remote_add_vec.pmtu);
                AD_TAVOR_FUNC("bitmask: %d(%d)", OX_QP_AT_NUM(OX_QP_AT_ADD_VEC),
                              (int)mask_ox_to_mlx_trans[OX_QP_AT_NUM(OX_QP_AT_ADD_VEC)]);
                /* The requester's timers travel in the address vector, and only with it. */
                OX_QP_TAKE(OX_QP_AT_L_ACK_T, timeout, (VAPI_timeout_t)rtr->remote_add_vec.l_ack_timeout);
                OX_QP_TAKE(OX_QP_AT_RETRY_NUM, retry_count,
                           (VAPI_retry_count_t)rtr->remote_add_vec.retry_count);
                OX_QP_TAKE(OX_QP_AT_RNR_NUM, rnr_retry,
                           (VAPI_retry_count_t)rtr->remote_add_vec.rnr_retry_count);
            }
            OX_QP_TAKE(OX_QP_AT_RESP_RDMA_ATOM_OUT_NUM, qp_ous_rd_atom,
                       (u_int8_t)rtr->responder_rdma_r_atom_num);
            if (mask & OX_QP_AT_OPTIONAL) {
                AD_TAVOR_DEBUG("need to fill some opt attributes");
                OX_QP_TAKE_ALT_PATH(rtr->opt_alternate_path, OX_QP_RTR_PATH_PORT);
                OX_QP_TAKE(OX_QP_AT_MIN_RNR_NAK_T, min_rnr_timer,
                           (IB_rnr_nak_timer_code_t)rtr->opt_min_rnr_nak_timer);
                OX_QP_TAKE(OX_QP_AT_P_KEY_IX, pkey_ix, rtr->opt_p_key_indx);
                OX_QP_TAKE(OX_QP_AT_Q_KEY, qkey, rtr->opt_q_key);
                OX_QP_TAKE(OX_QP_AT_R_MAX_OUT_WR, cap.max_oust_wr_rq, rtr->opt_receive_max_outstand_wr);
                OX_QP_TAKE(OX_QP_AT_S_MAX_OUT_WR, cap.max_oust_wr_sq, rtr->opt_send_max_outstand_wr);
                OX_QP_TAKE_ACCESS(rtr->opt_access_control);
            }
            break;
        }
        case ox_qp_state_rts: {
            const ox_qp_modify_rts_t *rts = &req->params.rts;

            AD_TAVOR_DEBUG("change QP state into RTS");
            OX_QP_TAKE(OX_QP_AT_L_ACK_T, timeout, (VAPI_timeout_t)rts->local_ack_timeout);
            OX_QP_TAKE(OX_QP_AT_DEST_RDMA_ATOM_OUT_NUM, ous_dst_rd_atom,
                       (u_int8_t)rts->dest_out_rdma_r_atom_num);
            OX_QP_TAKE(OX_QP_AT_RETRY_NUM, retry_count, (VAPI_retry_count_t)rts->retry_num);
            OX_QP_TAKE(OX_QP_AT_RNR_NUM, rnr_retry, (VAPI_retry_count_t)rts->rnr_num);
            OX_QP_TAKE(OX_QP_AT_S_PSN, sq_psn, rts->send_psn);
            OX_QP_TAKE(OX_QP_AT_SQD_NOTIFY, en_sqd_asyn_notif, (MT_bool)rts->sqd_state);
            if (mask & OX_QP_AT_OPTIONAL) {
                AD_TAVOR_DEBUG("need to fill some opt attributes");
                OX_QP_TAKE_ALT_PATH(rts->opt_alternate_path, 0);
                OX_QP_TAKE(OX_QP_AT_Q_KEY, qkey, rts->opt_q_key);
                OX_QP_TAKE(OX_QP_AT_MIN_RNR_NAK_T, min_rnr_timer,
                           (IB_rnr_nak_timer_code_t)rts->opt_min_rnr_nak_timer);
                OX_QP_TAKE(OX_QP_AT_PATH_MIG_STATE, path_mig_state,
                           (VAPI_mig_state_t)rts->opt_path_migrate_state);
                OX_QP_TAKE(OX_QP_AT_R_MAX_OUT_WR, cap.max_oust_wr_rq, rts->opt_receive_max_outstand_wr);
                OX_QP_TAKE(OX_QP_AT_S_MAX_OUT_WR, cap.max_oust_wr_sq, rts->opt_send_max_outstand_wr);
                OX_QP_TAKE_ACCESS(rts->opt_access_control);
            }
            AD_TAVOR_DEBUG("qp_state: %d, qp_attr_mask: %d, sq_psn: %d", (int)attr.qp_state, (int)vapi_mask,
                           (int)attr.sq_psn);
            break;
        }
        case ox_qp_state_sqd_to_rts:
            AD_TAVOR_DEBUG("change QP state into SQD_RTS");
            return ox_return_err_not_implemented;
        case ox_qp_state_sqe_to_rts:
            AD_TAVOR_DEBUG("change QP state into SQE_RTS");
            return ox_return_err_not_implemented;
        default:
            /* Send-queue drain and error states may not be requested. */
            AD_TAVOR_ERROR("ERROR not valid state: %d", (int)into_state);
            ox_mlx_count_error();
            return ox_return_err_invalid_state;
    }

    AD_TAVOR_DEBUG("change to mlx qp_state: %d (qp_attr_mask: %d)", (int)attr.qp_state, (int)vapi_mask);
    stat = VAPI_modify_qp(opened_hca_p->hca_h, (VAPI_qp_hndl_t)opened_qp_p->qp_h, &attr, &vapi_mask, &cap);
    if (stat != VAPI_OK) {
        AD_TAVOR_ERROR(
            "MLX AD_ERR: Fail to modify QP, hca_h: %d, qp_h: %p, user qp h: %p, into state: %d  (mlx:%d, %s)",
            (int)opened_hca_p->hca_h, opened_qp_p->qp_h, (void *)opened_qp_p, (int)into_state, stat,
            AD_TAVOR_MLX_STR);
        ox_mlx_count_vapi_failure(qp_modify_indx, stat);
        return ox_return_err;
    }
    AD_TAVOR_DEBUG("OK - VAPI_modify_qp()");
    if (qp_attr) {
        qp_attr->modify_return.send_max_outstand_wr = cap.max_oust_wr_sq;
        qp_attr->modify_return.receive_max_outstand_wr = cap.max_oust_wr_rq;
        AD_TAVOR_DEBUG("OK - VAPI_modify_qp(), max_oust_wr_rq: %d, max_oust_wr_sq: %d",
                       (int)cap.max_oust_wr_rq, (int)cap.max_oust_wr_sq);
    } else {
        AD_TAVOR_DEBUG("No return parameters");
    }
    return ox_return_ok;
}
