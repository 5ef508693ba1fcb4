/* The completion translation tables. */
#include "adaptor-tavor.h"
#include "translate-completion.h"

const signed char wc_status_mlx_to_ox_translation[WC_STATUS_TRANSLATION_NUM] = {
    ox_comp_status_success,            /* VAPI_SUCCESS */
    ox_comp_status_loc_len_err,        /* VAPI_LOC_LEN_ERR */
    ox_comp_status_loc_qp_op_err,      /* VAPI_LOC_QP_OP_ERR */
    ox_comp_status_loc_eec_op_err,     /* VAPI_LOC_EE_OP_ERR */
    ox_comp_status_loc_portection_err, /* VAPI_LOC_PROT_ERR */
    ox_comp_status_wr_flush_err,       /* VAPI_WR_FLUSH_ERR */
    ox_comp_status_mw_bind_err,        /* VAPI_MW_BIND_ERR */
    ox_comp_status_bad_resp_err,       /* VAPI_BAD_RESP_ERR */
    ox_comp_status_loc_access_err,     /* VAPI_LOC_ACCS_ERR */
    ox_comp_status_rem_inv_req_err,    /* VAPI_REM_INV_REQ_ERR */
    ox_comp_status_rem_access_err,     /* VAPI_REM_ACCESS_ERR */
    ox_comp_status_rem_op_err,         /* VAPI_REM_OP_ERR */
    ox_comp_status_retry_exc_err,      /* VAPI_RETRY_EXC_ERR */
    ox_comp_status_rnr_retry_exc_err,  /* VAPI_RNR_RETRY_EXC_ERR */
    ox_comp_status_loc_rdd_vio_err,    /* VAPI_LOC_RDD_VIOL_ERR */
    ox_comp_status_rem_inv_rd_req_err, /* VAPI_REM_INV_RD_REQ_ERR */
    ox_comp_status_rem_aborted_err,    /* VAPI_REM_ABORT_ERR */
    ox_comp_status_inv_eec_num_err,    /* VAPI_INV_EECN_ERR */
    ox_comp_status_inv_eec_state_err,  /* VAPI_INV_EEC_STATE_ERR */
    ox_comp_status_general_err,        /* VAPI_COMP_FATAL_ERR */
    ox_comp_status_general_err,        /* VAPI_COMP_GENERAL_ERR */
    100,                               /* VAPI_COMP_LOCAL_ABORT_ERR: no enumerator */
};

const signed char r_qp_type_mlx_to_ox_translation[R_QP_TYPE_TRANSLATION_NUM] = {
    ox_qp_type_r_dgram,          /* VAPI_RNA_RD */
    ox_qp_type_u_dgram,          /* VAPI_RNA_UD */
    ox_qp_type_special_raw_eter, /* VAPI_RNA_RAW_ETY */
    ox_qp_type_special_raw_ipv6, /* VAPI_RNA_RAW_IPV6 */
};

const signed char com_notify_ox_to_mlx_translation[COM_NOTIFY_TRANSLATION_NUM] = {
    VAPI_SOLIC_COMP, /* ox_next_solicit_event_only */
    VAPI_NEXT_COMP,  /* ox_next_solicit_unsolicit_event */
};
