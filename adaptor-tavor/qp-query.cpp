/* QP query: VAPI's view of a QP in the generic query record, its CQs as the caller's CQ handles.
 *
 * Fields the generic record has and VAPI does not report are left as the caller had them: the
 * attribute mask, the QP type, the ports of both paths, the inline size, the signalling types and
 * flow control. The access bits are OR-ed into what the caller's record holds, so the caller
 * clears the field first. */
#include <linux/kernel.h>
#include <linux/string.h>

#include <vapi.h>

#include "adaptor-tavor.h"
#include "completion-events.h"
#include "tracking-lookup.h"
#include "translate.h"
#include "ox-entry-points.h"

/* Generic state of each VAPI state, indexed by VAPI_qp_state_t. */
static const ox_qp_state_t qp_query_mlx_to_ox_translation[] = {
    ox_qp_state_reset, /* VAPI_RESET */
    ox_qp_state_init,  /* VAPI_INIT */
    ox_qp_state_rtr,   /* VAPI_RTR */
    ox_qp_state_rts,   /* VAPI_RTS */
    ox_qp_state_sqd,   /* VAPI_SQD */
    ox_qp_state_sqe,   /* VAPI_SQE */
    ox_qp_state_error, /* VAPI_ERR */
};
#define OX_QP_QUERY_STATES \
    (sizeof(qp_query_mlx_to_ox_translation) / sizeof(qp_query_mlx_to_ox_translation[0]))

/* The caller's handle of the CQ whose VAPI handle is `vapi_cq_h`, into *user_cq_h. Array first;
 * an empty slot is reported and then asked of the look-up, which answers with the same empty
 * slot; handles above 1000 go to the look-up's list walk. When that fails *user_cq_h keeps its
 * value. Neither failure fails the query. */
#define OX_QP_QUERY_USER_CQ(vapi_cq_h, user_cq_h)                                                        \
    do {                                                                                                 \
        int found_in_array = 0;                                                                          \
        if (ox_mlx_handle_has_slot(vapi_cq_h)) {                                                         \
            AD_TAVOR_DEBUG("Working with: hca_context->opened_cq_array[%ld]", (long)(vapi_cq_h));        \
            if (ox_mlx_cq_slot(opened_hca_p, vapi_cq_h)) {                                               \
                (user_cq_h) = (ox_cq_h_t)ox_mlx_cq_slot(opened_hca_p, vapi_cq_h);                        \
                found_in_array = 1;                                                                      \
            } else {                                                                                     \
                AD_TAVOR_ERROR("ERROR - opened_hca_p->opened_cq_array[] == NULL");                       \
                ox_mlx_count_error();                                                                    \
            }                                                                                            \
        }                                                                                                \
        if (!found_in_array) {                                                                           \
            ox_opened_cq_t *user_cq_p = (ox_opened_cq_t *)(user_cq_h);                                   \
            if (ox_mlx_get_user_cq_h(opened_hca_p, (ox_cq_h_t)(unsigned long)(vapi_cq_h), &user_cq_p) == \
                ox_return_ok) {                                                                          \
                (user_cq_h) = (ox_cq_h_t)user_cq_p;                                                      \
            } else {                                                                                     \
                AD_TAVOR_ERROR("Didn't find user handle for receive CQ");                                \
                ox_mlx_count_error();                                                                    \
            }                                                                                            \
        }                                                                                                \
    } while (0)

ox_return_t oxi_mlx_qp_query(ox_opened_hca_t *opened_hca_p, ox_qp_h_t qp_h, void **qp_context_p,
                             ox_qp_attr_t *qp_attr_p) {
    ox_opened_qp_t *opened_qp_p = (ox_opened_qp_t *)qp_h;
    ox_qp_query_t *query = &qp_attr_p->query;
    VAPI_qp_attr_mask_t vapi_mask;
    VAPI_qp_init_attr_t init;
    VAPI_qp_attr_t attr;
    VAPI_ret_t stat;
    u32 vapi_state;

    memset(&attr, 0, sizeof(attr));
    memset(&init, 0, sizeof(init));
    vapi_mask = QP_ATTR_ALL;
    AD_TAVOR_DEBUG("before VAPI_query_qp(), qp_attr_mask: %d", (int)vapi_mask);

    stat = VAPI_query_qp(opened_hca_p->hca_h, (VAPI_qp_hndl_t)opened_qp_p->qp_h, &attr, &vapi_mask, &init);
    if (stat != VAPI_OK) {
        AD_TAVOR_ERROR("MLXAD_ERR: VAPI Fail to query QP, hca_h: %d, qp_h: %ld (mlx:%d, %s)",
                       (int)opened_hca_p->hca_h, (long)(unsigned long)opened_qp_p->qp_h, stat,
                       AD_TAVOR_MLX_STR);
        ox_mlx_count_vapi_failure(qp_query_indx, stat);
        return ox_return_err;
    }

    *qp_context_p = opened_qp_p->qp_oxuser_context;

    /* Alternate path: VAPI has no MTU of its own for it, so the primary one is reported. */
    query->alternate_path.al_path_p_key_indx = attr.alt_pkey_ix;
    ox_mlx_add_vec_from_vapi(&attr.alt_av, &query->alternate_path.al_path_add_vec);
    query->alternate_path.al_path_add_vec.l_ack_timeout = attr.alt_timeout;
    query->alternate_path.al_path_add_vec.pmtu = (ox_mtu_t)attr.path_mtu;

    /* Receive CQ first, then the send CQ; the message names the receive CQ for both. */
    OX_QP_QUERY_USER_CQ(init.rq_cq_hndl, query->cq_receive_h);
    OX_QP_QUERY_USER_CQ(init.sq_cq_hndl, query->cq_send_h);

    query->destanation_qp = attr.dest_qp_num;
    query->max_scatgat_per_send_wr = init.cap.max_sg_size_sq;
    query->max_scatgat_per_receive_wr = init.cap.max_sg_size_rq;
    query->send_max_outstand_wr = init.cap.max_oust_wr_sq;
    query->receive_max_outstand_wr = init.cap.max_oust_wr_rq;
    query->min_rnr_nak_timer = (ox_rnr_nak_time_delay_t)attr.min_rnr_timer;
    query->path_migrate_state = (ox_path_migrate_state_t)attr.path_mig_state;
    query->pd_h = (ox_pd_h_t)init.pd_hndl;
    query->rdd_h = (ox_rdd_h_t)init.rdd_hndl;
    query->phy_port_num = attr.port;
    query->primary_p_key_indx = attr.pkey_ix;
    ox_mlx_add_vec_from_vapi(&attr.av, &query->primary_add_vec);
    query->primary_add_vec.pmtu = (ox_mtu_t)attr.path_mtu;
    query->primary_add_vec.l_ack_timeout = attr.timeout;
    query->primary_add_vec.retry_count = attr.retry_count;
    query->primary_add_vec.rnr_retry_count = attr.rnr_retry;
    query->q_key = attr.qkey;
    query->qp_num = attr.qp_num;
    query->send_psn = attr.sq_psn;
    query->receve_psn = attr.rq_psn;
    query->rdma_r_atom_outstand_num = attr.qp_ous_rd_atom;
    query->responder_rdma_r_atom_num = attr.ous_dst_rd_atom;

    vapi_state = ox_mlx_raw_enum(&attr.qp_state);
    if (vapi_state >= OX_QP_QUERY_STATES) {
        /* The fields above are already written. */
        AD_TAVOR_ERROR("QP mlx state: %d", (int)vapi_state);
        ox_mlx_count_vapi_failure_no_ring();
        return ox_return_err_invalid_vend_ret;
    }
    query->qp_state = qp_query_mlx_to_ox_translation[vapi_state];

    query->access_control |= ox_mlx_access_from_vapi(attr.remote_atomic_flags);

    AD_TAVOR_DEBUG("q_key: %d, qp_num: %d, qp_state: %d", (int)query->q_key, (int)query->qp_num,
                   (int)query->qp_state);
    return ox_return_ok;
}
