/* VAPI verbs of the InfiniHost adapter. Every call returns VAPI_OK or a negative VAPI_ret_t;
 * VAPI_strerror() / VAPI_strerror_sym() name a status. Compiles as C (C11) and C++. */
#ifndef VAPI_H
#define VAPI_H

#include "vapi_types.h"

MT_EXTERN_C_BEGIN

/* ---- Status names ---- */
const char *VAPI_strerror(VAPI_ret_t ret);     /* "Invalid HCA handle", ... */
const char *VAPI_strerror_sym(VAPI_ret_t ret); /* "VAPI_EINVAL_HCA_HNDL", ... */

/* ---- HCA ---- */
/* Fails with VAPI_EBUSY_HCA when the device is open already (EVAPI_get_hca_hndl() borrows it then). */
VAPI_ret_t VAPI_open_hca(const VAPI_hca_id_t hca_id, VAPI_hca_hndl_t *hca_hndl_p);
/* Closes the device and releases every resource still allocated on it. */
VAPI_ret_t VAPI_close_hca(VAPI_hca_hndl_t hca_hndl);
VAPI_ret_t VAPI_query_hca_cap(VAPI_hca_hndl_t hca_hndl, VAPI_hca_vendor_t *hca_vendor_p,
                              VAPI_hca_cap_t *hca_cap_p);
VAPI_ret_t VAPI_query_hca_port_prop(VAPI_hca_hndl_t hca_hndl, IB_port_t port_num,
                                    VAPI_hca_port_t *hca_port_p);
/* Both table reads return VAPI_EAGAIN with *tbl_len_out = the entries needed when tbl_len_in is too small. */
VAPI_ret_t VAPI_query_hca_gid_tbl(VAPI_hca_hndl_t hca_hndl, IB_port_t port_num, u_int16_t tbl_len_in,
                                  u_int16_t *tbl_len_out, IB_gid_t *gid_tbl_p);
VAPI_ret_t VAPI_query_hca_pkey_tbl(VAPI_hca_hndl_t hca_hndl, IB_port_t port_num, u_int16_t tbl_len_in,
                                   u_int16_t *tbl_len_out, VAPI_pkey_t *pkey_tbl_p);
VAPI_ret_t VAPI_modify_hca_attr(VAPI_hca_hndl_t hca_hndl, IB_port_t port_num,
                                const VAPI_hca_attr_t *hca_attr_p,
                                const VAPI_hca_attr_mask_t *hca_attr_mask_p);

/* ---- Protection domains ---- */
VAPI_ret_t VAPI_alloc_pd(VAPI_hca_hndl_t hca_hndl, VAPI_pd_hndl_t *pd_hndl_p);
/* Refused with VAPI_EBUSY while a QP, AH, MR or FMR still uses the PD. */
VAPI_ret_t VAPI_dealloc_pd(VAPI_hca_hndl_t hca_hndl, VAPI_pd_hndl_t pd_hndl);

/* ---- Memory regions ---- */
VAPI_ret_t VAPI_register_mr(VAPI_hca_hndl_t hca_hndl, const VAPI_mrw_t *req_mrw_p, VAPI_mr_hndl_t *mr_hndl_p,
                            VAPI_mrw_t *rep_mrw_p);
VAPI_ret_t VAPI_query_mr(VAPI_hca_hndl_t hca_hndl, VAPI_mr_hndl_t mr_hndl, VAPI_mrw_t *rep_mrw_p,
                         VAPI_virt_addr_t *remote_start_p, VAPI_size_t *remote_size_p);
VAPI_ret_t VAPI_deregister_mr(VAPI_hca_hndl_t hca_hndl, VAPI_mr_hndl_t mr_hndl);

/* ---- Completion queues ---- */
VAPI_ret_t VAPI_create_cq(VAPI_hca_hndl_t hca_hndl, VAPI_cqe_num_t cqe_num, VAPI_cq_hndl_t *cq_hndl_p,
                          VAPI_cqe_num_t *num_of_entries_p);
VAPI_ret_t VAPI_query_cq(VAPI_hca_hndl_t hca_hndl, VAPI_cq_hndl_t cq_hndl, VAPI_cqe_num_t *num_of_entries_p);
VAPI_ret_t VAPI_resize_cq(VAPI_hca_hndl_t hca_hndl, VAPI_cq_hndl_t cq_hndl, VAPI_cqe_num_t cqe_num,
                          VAPI_cqe_num_t *num_of_entries_p);
/* Refused with VAPI_EBUSY while a QP still uses the CQ. */
VAPI_ret_t VAPI_destroy_cq(VAPI_hca_hndl_t hca_hndl, VAPI_cq_hndl_t cq_hndl);

/* ---- Queue pairs ---- */
VAPI_ret_t VAPI_create_qp(VAPI_hca_hndl_t hca_hndl, const VAPI_qp_init_attr_t *qp_init_attr_p,
                          VAPI_qp_hndl_t *qp_hndl_p, VAPI_qp_prop_t *qp_prop_p);
VAPI_ret_t VAPI_get_special_qp(VAPI_hca_hndl_t hca_hndl, IB_port_t port, VAPI_special_qp_t qp,
                               const VAPI_qp_init_attr_t *qp_init_attr_p, VAPI_qp_hndl_t *qp_hndl_p,
                               VAPI_qp_cap_t *qp_cap_p);
VAPI_ret_t VAPI_modify_qp(VAPI_hca_hndl_t hca_hndl, VAPI_qp_hndl_t qp_hndl, const VAPI_qp_attr_t *qp_attr_p,
                          const VAPI_qp_attr_mask_t *qp_attr_mask_p, VAPI_qp_cap_t *qp_cap_p);
VAPI_ret_t VAPI_query_qp(VAPI_hca_hndl_t hca_hndl, VAPI_qp_hndl_t qp_hndl, VAPI_qp_attr_t *qp_attr_p,
                         VAPI_qp_attr_mask_t *qp_attr_mask_p, VAPI_qp_init_attr_t *qp_init_attr_p);
VAPI_ret_t VAPI_destroy_qp(VAPI_hca_hndl_t hca_hndl, VAPI_qp_hndl_t qp_hndl);

/* ---- Address handles ---- */
VAPI_ret_t VAPI_create_addr_hndl(VAPI_hca_hndl_t hca_hndl, VAPI_pd_hndl_t pd_hndl, const VAPI_ud_av_t *av_p,
                                 VAPI_ud_av_hndl_t *av_hndl_p);
VAPI_ret_t VAPI_modify_addr_hndl(VAPI_hca_hndl_t hca_hndl, VAPI_ud_av_hndl_t av_hndl,
                                 const VAPI_ud_av_t *av_p);
VAPI_ret_t VAPI_query_addr_hndl(VAPI_hca_hndl_t hca_hndl, VAPI_ud_av_hndl_t av_hndl, VAPI_ud_av_t *av_p);
VAPI_ret_t VAPI_destroy_addr_hndl(VAPI_hca_hndl_t hca_hndl, VAPI_ud_av_hndl_t av_hndl);

/* ---- Multicast ---- */
VAPI_ret_t VAPI_attach_to_multicast(VAPI_hca_hndl_t hca_hndl, IB_gid_t mcg_dgid, VAPI_qp_hndl_t qp_hndl,
                                    IB_lid_t mcg_lid);
VAPI_ret_t VAPI_detach_from_multicast(VAPI_hca_hndl_t hca_hndl, IB_gid_t mcg_dgid, VAPI_qp_hndl_t qp_hndl,
                                      IB_lid_t mcg_lid);

/* ---- Data path ---- */
VAPI_ret_t VAPI_post_sr(VAPI_hca_hndl_t hca_hndl, VAPI_qp_hndl_t qp_hndl, const VAPI_sr_desc_t *sr_desc_p);
VAPI_ret_t VAPI_post_rr(VAPI_hca_hndl_t hca_hndl, VAPI_qp_hndl_t qp_hndl, const VAPI_rr_desc_t *rr_desc_p);
/* VAPI_CQ_EMPTY when no completion is queued. */
VAPI_ret_t VAPI_poll_cq(VAPI_hca_hndl_t hca_hndl, VAPI_cq_hndl_t cq_hndl, VAPI_wc_desc_t *comp_desc_p);
VAPI_ret_t VAPI_req_comp_notif(VAPI_hca_hndl_t hca_hndl, VAPI_cq_hndl_t cq_hndl,
                               VAPI_cq_notif_type_t notif_type);

/* ---- Asynchronous events ---- */
/* One handler per device; a null handler detaches. */
VAPI_ret_t VAPI_set_async_event_handler(VAPI_hca_hndl_t hca_hndl, VAPI_async_event_handler_t handler,
                                        void *private_data);

MT_EXTERN_C_END

#endif
