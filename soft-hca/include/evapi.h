/* EVAPI: the InfiniHost verbs extensions. Includes the whole of VAPI. Compiles as C and C++. */
#ifndef EVAPI_H
#define EVAPI_H

#include "vapi.h"
#include "evapi_types.h"

MT_EXTERN_C_BEGIN

/* Names of the devices present. Returns VAPI_EAGAIN with *num_of_hcas_p = the number present when
 * hca_id_buf_sz (in entries) is too small; the buffer then holds the first hca_id_buf_sz names. */
VAPI_ret_t EVAPI_list_hcas(u_int32_t hca_id_buf_sz, u_int32_t *num_of_hcas_p, VAPI_hca_id_t *hca_id_buf_p);
/* Borrows the handle of a device that is open; fails with VAPI_EINVAL_HCA_ID when it is not open. */
VAPI_ret_t EVAPI_get_hca_hndl(const VAPI_hca_id_t hca_id, VAPI_hca_hndl_t *hca_hndl_p);
/* Gives back a borrowed handle; the device stays open. */
VAPI_ret_t EVAPI_release_hca_hndl(VAPI_hca_hndl_t hca_hndl);

/* Protection domain whose address handles are limited to max_num_avs. */
VAPI_ret_t EVAPI_alloc_pd(VAPI_hca_hndl_t hca_hndl, u_int32_t max_num_avs, VAPI_pd_hndl_t *pd_hndl_p);

/* Completion handler called (from interrupt context) for each completion event of the CQ. */
VAPI_ret_t EVAPI_set_comp_eventh(VAPI_hca_hndl_t hca_hndl, VAPI_cq_hndl_t cq_hndl,
                                 VAPI_completion_event_handler_t completion_handler, void *private_data,
                                 EVAPI_compl_handler_hndl_t *completion_handler_hndl_p);
VAPI_ret_t EVAPI_clear_comp_eventh(VAPI_hca_hndl_t hca_hndl,
                                   EVAPI_compl_handler_hndl_t completion_handler_hndl);
/* VAPI_OK when the CQ holds at least cqe_num completions, VAPI_CQ_EMPTY otherwise. */
VAPI_ret_t EVAPI_peek_cq(VAPI_hca_hndl_t hca_hndl, VAPI_cq_hndl_t cq_hndl, VAPI_cqe_num_t cqe_num);
/* One completion event once the CQ holds at least cqe_num completions (cqe_num >= 1). */
VAPI_ret_t EVAPI_req_ncomp_notif(VAPI_hca_hndl_t hca_hndl, VAPI_cq_hndl_t cq_hndl, VAPI_cqe_num_t cqe_num);

/* ---- Fast memory regions ---- */
VAPI_ret_t EVAPI_alloc_fmr(VAPI_hca_hndl_t hca_hndl, const EVAPI_fmr_t *fmr_props_p,
                           EVAPI_fmr_hndl_t *fmr_hndl_p);
VAPI_ret_t EVAPI_map_fmr(VAPI_hca_hndl_t hca_hndl, EVAPI_fmr_hndl_t fmr_hndl, const EVAPI_fmr_map_t *map_p,
                         VAPI_lkey_t *l_key_p, VAPI_rkey_t *r_key_p);
VAPI_ret_t EVAPI_unmap_fmr(VAPI_hca_hndl_t hca_hndl, u_int32_t num_of_fmrs_to_unmap,
                           const EVAPI_fmr_hndl_t *fmr_hndl_array);
VAPI_ret_t EVAPI_free_fmr(VAPI_hca_hndl_t hca_hndl, EVAPI_fmr_hndl_t fmr_hndl);

/* ---- Posting variants ---- */
/* The gather data is copied into the work queue entry at post time. */
VAPI_ret_t EVAPI_post_inline_sr(VAPI_hca_hndl_t hca_hndl, VAPI_qp_hndl_t qp_hndl,
                                const VAPI_sr_desc_t *sr_desc_p);
VAPI_ret_t EVAPI_post_sr_list(VAPI_hca_hndl_t hca_hndl, VAPI_qp_hndl_t qp_hndl, u_int32_t num_of_requests,
                              const VAPI_sr_desc_t *sr_desc_array);
/* Send on the GSI QP with the given P_Key table index. */
VAPI_ret_t EVAPI_post_gsi_sr(VAPI_hca_hndl_t hca_hndl, VAPI_qp_hndl_t qp_hndl,
                             const VAPI_sr_desc_t *sr_desc_p, VAPI_pkey_ix_t pkey_index);
VAPI_ret_t EVAPI_post_rr_list(VAPI_hca_hndl_t hca_hndl, VAPI_qp_hndl_t qp_hndl, u_int32_t num_of_requests,
                              const VAPI_rr_desc_t *rr_desc_array);

/* ---- Management ---- */
/* Processes one 256-byte MAD addressed to the port's agents (SMA, PMA) and writes the response. */
VAPI_ret_t EVAPI_process_local_mad(VAPI_hca_hndl_t hca_hndl, IB_port_t port_num, IB_lid_t slid,
                                   EVAPI_proc_mad_opt_t proc_mad_opts, const void *mad_in_p, void *mad_out_p);

MT_EXTERN_C_END

#endif
