/* Queue pairs: create, special QPs (SMI, GSI, raw), destroy and the context.
 *
 * The caller's QP handle is the address of the QP's ox_opened_qp_t. The record is not zeroed: the
 * fields below are set here, and the send and receive descriptors belong to the posting paths.
 * Every record is on its HCA's opened_qp_list (inserted under ox_mlx_sl); a QP made by create whose
 * VAPI handle is at most 1000 also sits in opened_qp_array at that index, for the asynchronous
 * event path. Special QPs get no array slot. */
#include <linux/kernel.h>
#include <linux/string.h>
#include <linux/slab.h>
#include <linux/list.h>
#include <linux/spinlock.h>

#include <vapi.h>
#include <evapi.h>

#include "adaptor-tavor.h"
#include "tracking-lookup.h"
#include "translate.h"
#include "ox-entry-points.h"

/* VAPI transport of each ordinary QP type, indexed by ox_qp_type_t. */
static const VAPI_ts_type_t qp_type_ox_to_mlx_translation[] = {
    VAPI_TS_RC, /* ox_qp_type_r_conn */
    VAPI_TS_UC, /* ox_qp_type_u_conn */
    VAPI_TS_RD, /* ox_qp_type_r_dgram */
    VAPI_TS_UD, /* ox_qp_type_u_dgram */
};

/* VAPI special-QP code of each QP type, indexed by ox_qp_type_t. */
static const VAPI_special_qp_t special_qp_ox_to_mlx_translation[] = {
    VAPI_REGULAR_QP, VAPI_REGULAR_QP, VAPI_REGULAR_QP,  VAPI_REGULAR_QP,
    VAPI_SMI_QP,     VAPI_GSI_QP,     VAPI_RAW_IPV6_QP, VAPI_RAW_ETY_QP,
};

#define OX_QP_ORDINARY_TYPES \
    (sizeof(qp_type_ox_to_mlx_translation) / sizeof(qp_type_ox_to_mlx_translation[0]))
#define OX_QP_SPECIAL_TYPES \
    (sizeof(special_qp_ox_to_mlx_translation) / sizeof(special_qp_ox_to_mlx_translation[0]))

/* The VAPI initial attributes of a QP from the generic create request (all but ts_type). */
static void ox_mlx_qp_init_attr_from_ox(const ox_qp_create_t *req, VAPI_qp_init_attr_t *init) {
    memset(init, 0, sizeof(*init));
    init->sq_cq_hndl = (VAPI_cq_hndl_t)((ox_opened_cq_t *)req->cq_send_h)->cq_h;
    init->rq_cq_hndl = (VAPI_cq_hndl_t)((ox_opened_cq_t *)req->cq_receive_h)->cq_h;
    init->cap.max_oust_wr_sq = req->send_max_outstand_wr;
    init->cap.max_oust_wr_rq = req->receive_max_outstand_wr;
    init->cap.max_sg_size_sq = req->max_scatgat_per_send_wr;
    init->cap.max_sg_size_rq = req->max_scatgat_per_receive_wr;
    init->rdd_hndl = (VAPI_rdd_hndl_t)req->rdd_h;
    init->sq_sig_type = (VAPI_sig_type_t)req->signaling_type;
    init->rq_sig_type = (VAPI_sig_type_t)req->recv_solicited_events;
    init->pd_hndl = (VAPI_pd_hndl_t)req->pd_h;
}

/* Sets up the record of a new QP and puts it on the HCA's list. */
static void ox_mlx_qp_record_init(ox_opened_qp_t *opened_qp_p, void *qp_context, ox_qp_type_t type) {
    opened_qp_p->qp_oxuser_context = qp_context;
    opened_qp_p->type = type;
    spin_lock_init(&opened_qp_p->s_sl);
}

static void ox_mlx_qp_list_insert(ox_opened_hca_t *opened_hca_p, ox_opened_qp_t *opened_qp_p) {
    unsigned long flags;

    OX_MLX_LOCK(flags);
    list_add(&opened_qp_p->list, &opened_hca_p->opened_qp_list);
    OX_MLX_UNLOCK(flags);
    g_stat.qp_num++;
    g_stat.last_qp_num++;
}

/* The signalling types pass through unchanged; both are traced from the calling entry point. */
#define OX_MLX_QP_LOG_SIG_TYPES(init)                                   \
    do {                                                                \
        AD_TAVOR_DEBUG("mlx sq_sig_type: %d", (int)(init).sq_sig_type); \
        AD_TAVOR_DEBUG("mlx rq_sig_type: %d", (int)(init).rq_sig_type); \
    } while (0)

/* A type the translation tables do not hold is refused before anything is allocated: the tables
 * have no entry for it. */
#define OX_MLX_QP_REFUSE_TYPE(type)                                 \
    do {                                                            \
        AD_TAVOR_ERROR("ERROR not valid qp type: %d", (int)(type)); \
        ox_mlx_count_error();                                       \
        return ox_return_err_invalid_parameter;                     \
    } while (0)

ox_return_t oxi_mlx_qp_create(ox_opened_hca_t *opened_hca_p, ox_qp_attr_t *qp_attr_req, void *qp_context,
                              ox_qp_h_t *qp_h, ox_qp_attr_t *qp_attr) {
    /* Scratch records of the call: creation is not re-entrant, callers serialise it. */
    static VAPI_qp_init_attr_t qp_init_attr;
    static VAPI_qp_prop_t qp_prop;
    /* Read before the result is written: request and result may be the same union. */
    const u32 type = ox_mlx_raw_enum(&qp_attr_req->create.qp_type);
    ox_opened_qp_t *opened_qp_p;
    VAPI_qp_hndl_t vapi_qp_h = 0;
    VAPI_ret_t stat;

    if (type >= OX_QP_ORDINARY_TYPES) OX_MLX_QP_REFUSE_TYPE(type);

    opened_qp_p = (ox_opened_qp_t *)kmalloc(sizeof(*opened_qp_p), GFP_ATOMIC);
    if (!opened_qp_p) {
        AD_TAVOR_ERROR("Fail to allocate memory: ox_opened_qp_t");
        ox_mlx_count_alloc_failure();
        return ox_return_err_alloc_mem;
    }
    mem_alloc_add(mem_qp_ix);

    ox_mlx_qp_init_attr_from_ox(&qp_attr_req->create, &qp_init_attr);
    OX_MLX_QP_LOG_SIG_TYPES(qp_init_attr);
    qp_init_attr.ts_type = qp_type_ox_to_mlx_translation[type];
    memset(&qp_prop, 0, sizeof(qp_prop));
    AD_TAVOR_DEBUG("vend param: send size: %d, receive size: %d, ts type: %d (%d)",
                   (int)qp_init_attr.cap.max_oust_wr_sq, (int)qp_init_attr.cap.max_oust_wr_rq,
                   (int)qp_init_attr.ts_type, (int)type);

    stat = VAPI_create_qp(opened_hca_p->hca_h, &qp_init_attr, &vapi_qp_h, &qp_prop);
    if (stat != VAPI_OK) {
        AD_TAVOR_ERROR("AD_ERR: VAPI Fail to create QP, hca_h: %d (mlx:%d, %s)", (int)opened_hca_p->hca_h,
                       stat, AD_TAVOR_MLX_STR);
        ox_mlx_count_vapi_error();
        ox_mlx_record_vapi_err(qp_create_indx, stat);
        kfree(opened_qp_p);
        mem_alloc_del(mem_qp_ix);
        ox_mlx_count_error();
        return ox_return_err;
    }
    opened_qp_p->qp_h = (ox_qp_h_t)vapi_qp_h;

    qp_attr->create_return.qp_num = qp_prop.qp_num;
    qp_attr->create_return.send_max_outstand_wr = qp_prop.cap.max_oust_wr_sq;
    qp_attr->create_return.receive_max_outstand_wr = qp_prop.cap.max_oust_wr_rq;
    qp_attr->create_return.max_scatgat_per_send_wr = qp_prop.cap.max_sg_size_sq;
    qp_attr->create_return.max_scatgat_per_receive_wr = qp_prop.cap.max_sg_size_rq;

    *qp_h = (ox_qp_h_t)opened_qp_p;
    opened_qp_p->qp_num = qp_prop.qp_num;
    ox_mlx_qp_record_init(opened_qp_p, qp_context, (ox_qp_type_t)type);

    if (ox_mlx_handle_has_slot(vapi_qp_h)) {
        AD_TAVOR_DEBUG("Entering opened_qp_p into array");
        ox_mlx_set_qp_slot(opened_hca_p, vapi_qp_h, opened_qp_p);
    }
    AD_TAVOR_DEBUG("New qp_h: %p, user qp h: %p, qp num: %d", (void *)vapi_qp_h, (void *)opened_qp_p,
                   (int)opened_qp_p->qp_num);

    ox_mlx_qp_list_insert(opened_hca_p, opened_qp_p);
    return ox_return_ok;
}

ox_return_t oxi_mlx_qp_get_special(ox_opened_hca_t *opened_hca_p, u32 port_num, ox_qp_attr_t *qp_attr_req,
                                   void *qp_context, ox_qp_h_t *qp_h, ox_qp_attr_t *qp_attr) {
    static VAPI_qp_init_attr_t qp_init_attr;
    static VAPI_qp_cap_t qp_cap;
    const u32 type = ox_mlx_raw_enum(&qp_attr_req->create.qp_type);
    VAPI_special_qp_t special;
    ox_opened_qp_t *opened_qp_p;
    VAPI_qp_hndl_t vapi_qp_h = 0;
    VAPI_ret_t stat;

    if (type >= OX_QP_SPECIAL_TYPES) OX_MLX_QP_REFUSE_TYPE(type);
    special = special_qp_ox_to_mlx_translation[type];

    opened_qp_p = (ox_opened_qp_t *)kmalloc(sizeof(*opened_qp_p), GFP_ATOMIC);
    if (!opened_qp_p) {
        AD_TAVOR_ERROR("Fail to allocate memory: ox_opened_qp_t");
        ox_mlx_count_alloc_failure();
        return ox_return_err_alloc_mem;
    }
    mem_alloc_add(mem_qp_ix);

    ox_mlx_qp_init_attr_from_ox(&qp_attr_req->create, &qp_init_attr);
    OX_MLX_QP_LOG_SIG_TYPES(qp_init_attr);
    qp_init_attr.ts_type = VAPI_TS_UD;
    memset(&qp_cap, 0, sizeof(qp_cap));
    AD_TAVOR_DEBUG("vend param: send size: %d, receive size: %d, ts type: %d (%d)",
                   (int)qp_init_attr.cap.max_oust_wr_sq, (int)qp_init_attr.cap.max_oust_wr_rq,
                   (int)qp_init_attr.ts_type, (int)type);

    AD_TAVOR_DEBUG("before VAPI_get_special_qp()");
    stat = VAPI_get_special_qp(opened_hca_p->hca_h, (IB_port_t)port_num, special, &qp_init_attr, &vapi_qp_h,
                               &qp_cap);
    if (stat != VAPI_OK) {
        AD_TAVOR_ERROR("MLXAD_ERR: VAPI Fail to create special QP, hca_h: %d (mlx:%d, %s)",
                       (int)opened_hca_p->hca_h, stat, AD_TAVOR_MLX_STR);
        ox_mlx_count_vapi_error();
        ox_mlx_record_vapi_err(qp_get_special_indx, stat);
        kfree(opened_qp_p);
        mem_alloc_del(mem_qp_ix);
        ox_mlx_count_error();
        return ox_return_err;
    }
    opened_qp_p->qp_h = (ox_qp_h_t)vapi_qp_h;
    /* Printed from the caller's variable, before the handle is written into it. */
    AD_TAVOR_DEBUG("New special qp_h: %ld, hca_h: %d", (long)(unsigned long)*qp_h, (int)opened_hca_p->hca_h);

    qp_attr->create_return.send_max_outstand_wr = qp_cap.max_oust_wr_sq;
    qp_attr->create_return.receive_max_outstand_wr = qp_cap.max_oust_wr_rq;
    qp_attr->create_return.max_scatgat_per_send_wr = qp_cap.max_sg_size_sq;
    qp_attr->create_return.max_scatgat_per_receive_wr = qp_cap.max_sg_size_rq;
    if (special == VAPI_SMI_QP || special == VAPI_GSI_QP) {
        /* The VAPI special-QP code (1 or 2) stands for the QP number. */
        qp_attr->create_return.qp_num = (u32)special;
        opened_qp_p->qp_num = (ox_qp_t)special;
    } else {
        AD_TAVOR_DEBUG("New special QP but it is not smi or gsi - do not know the QP num");
    }

    *qp_h = (ox_qp_h_t)opened_qp_p;
    ox_mlx_qp_record_init(opened_qp_p, qp_context, (ox_qp_type_t)type);
    AD_TAVOR_DEBUG("New special qp_h: %p, user qp h: %p, qp num: %d", (void *)vapi_qp_h, (void *)opened_qp_p,
                   (int)opened_qp_p->qp_num);

    ox_mlx_qp_list_insert(opened_hca_p, opened_qp_p);
    return ox_return_ok;
}

ox_return_t oxi_mlx_qp_destroy(ox_opened_hca_t *opened_hca_p, ox_qp_h_t qp_h) {
    ox_opened_qp_t *opened_qp_p = (ox_opened_qp_t *)qp_h;
    VAPI_qp_hndl_t vapi_qp_h = (VAPI_qp_hndl_t)opened_qp_p->qp_h;
    VAPI_ret_t stat;

    AD_TAVOR_DEBUG("Going to destroy qp_h: %ld hca_h:%d", (long)vapi_qp_h, (int)opened_hca_p->hca_h);
    stat = VAPI_destroy_qp(opened_hca_p->hca_h, vapi_qp_h);
    if (stat != VAPI_OK) {
        AD_TAVOR_ERROR("MLXAD_ERR: VAPI Fail to destroy QP, hca_h: %d, qp_h: %ld (mlx:%d, %s)",
                       (int)opened_hca_p->hca_h, (long)vapi_qp_h, stat, AD_TAVOR_MLX_STR);
        ox_mlx_count_vapi_failure(qp_destroy_indx, stat);
        return ox_return_err;
    }
    AD_TAVOR_DEBUG("Destroy qp_h: %ld, hca_h: %d, will free adaptor data", (long)vapi_qp_h,
                   (int)opened_hca_p->hca_h);
    if (ox_mlx_handle_has_slot(vapi_qp_h)) {
        AD_TAVOR_DEBUG("in the array array, %ld", (long)vapi_qp_h);
        ox_mlx_set_qp_slot(opened_hca_p, vapi_qp_h, 0);
    }
    /* Insertions take ox_mlx_sl; this unlink does not. */
    list_del(&opened_qp_p->list);
    g_stat.qp_num--;
    g_stat.last_qp_num--;
    AD_TAVOR_DEBUG("Free opened_qp_p for qp_h: %p, hca_h: %d, g_stat.qp_num: %d", (void *)vapi_qp_h,
                   (int)opened_hca_p->hca_h, (int)g_stat.qp_num);
    kfree(opened_qp_p);
    mem_alloc_del(mem_qp_ix);
    return ox_return_ok;
}

ox_return_t oxi_mlx_qp_context_set(ox_opened_hca_t * /*opened_hca_p*/, ox_qp_h_t qp_h, void *qp_context) {
    ((ox_opened_qp_t *)qp_h)->qp_oxuser_context = qp_context;
    return ox_return_ok;
}
