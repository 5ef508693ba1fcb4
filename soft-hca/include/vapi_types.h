/* VAPI verbs: records, handles, enumerations and status codes of the InfiniHost verbs
 * interface. Compiles as C (C11) and C++. */
#ifndef VAPI_TYPES_H
#define VAPI_TYPES_H

#include "mtl_types.h"

/* ---- Status ------------------------------------------------------------------------------------ */

typedef int32_t VAPI_ret_t;

/* Every failure has its own code; VAPI_strerror()/VAPI_strerror_sym() name them. */
#define VAPI_OK 0
#define VAPI_EGEN (-255)   /* general error */
#define VAPI_EFATAL (-254) /* fatal (catastrophic) HCA error */
#define VAPI_EAGAIN (-253) /* not enough room in the caller's buffer (size returned) */
#define VAPI_ENOMEM (-252) /* out of memory */
#define VAPI_EBUSY (-251)  /* resource still in use */
#define VAPI_ETIMEDOUT (-250)
#define VAPI_EINTR (-249)
#define VAPI_EPERM (-248)  /* permission / access denied */
#define VAPI_ENOSYS (-247) /* not supported (RD, EEC, SRQ, memory windows) */
#define VAPI_ESYSCALL (-246)
#define VAPI_EINVAL_PARAM (-245)    /* invalid parameter */
#define VAPI_EINVAL_HCA_HNDL (-244) /* invalid (or closed) HCA handle */
#define VAPI_EINVAL_HCA_ID (-243)   /* no such device name */
#define VAPI_EINVAL_PORT (-242)
#define VAPI_EINVAL_PD_HNDL (-241)
#define VAPI_EINVAL_CQ_HNDL (-240)
#define VAPI_EINVAL_QP_HNDL (-239)
#define VAPI_EINVAL_MR_HNDL (-238)
#define VAPI_EINVAL_AV_HNDL (-237) /* invalid address handle */
#define VAPI_EINVAL_FMR_HNDL (-236)
#define VAPI_EINVAL_L_KEY (-235)
#define VAPI_EINVAL_R_KEY (-234)
#define VAPI_EINVAL_QP_STATE (-233) /* operation not allowed in this QP state / illegal transition */
#define VAPI_EINVAL_ATTR (-232)     /* invalid attribute mask for the transition */
#define VAPI_E2BIG_WR_NUM (-231)    /* more work requests than the queue allows */
#define VAPI_E2BIG_SG_NUM (-230)    /* more scatter/gather entries than allowed */
#define VAPI_E2BIG_CQ_NUM (-229)    /* CQ size beyond the limit / below its fill */
#define VAPI_EINVAL_SERVICE_TYPE (-228)
#define VAPI_EINVAL_ACL (-227) /* invalid access rights */
#define VAPI_EINVAL_LEN (-226)
#define VAPI_EINVAL_VA (-225) /* invalid address (or IOVA) */
#define VAPI_EINVAL_OP (-224) /* invalid opcode for this QP */
#define VAPI_EINVAL_NOTIF_TYPE (-223)
#define VAPI_EINVAL_MTU (-222)
#define VAPI_EINVAL_SPECIAL_QP (-221) /* special QP type or port already taken */
#define VAPI_EBUSY_HCA (-220)         /* HCA already open */
#define VAPI_EOL (-219)               /* out of HCA resources (table full) */
#define VAPI_EINVAL_RDD_HNDL (-218)
#define VAPI_EINVAL_SRQ_HNDL (-217)
#define VAPI_EINVAL_COMPL_HNDL (-216) /* invalid completion handler handle */
#define VAPI_EINVAL_MCG_GID (-215)
#define VAPI_EINVAL_MCG_LID (-214)
#define VAPI_E2BIG_MCG_SIZE (-213) /* too many QPs attached to the group */
#define VAPI_CQ_EMPTY (-212)       /* poll found no completion (not a failure) */
#define VAPI_EINVAL_PKEY_IX (-211)
#define VAPI_EINVAL_GID_IX (-210)
#define VAPI_EINVAL_MIG_STATE (-209)
#define VAPI_EINVAL_SG_FMT (-208) /* gather entry outside its region */
#define VAPI_EINVAL_AH (-207)     /* address vector contents invalid */
#define VAPI_EINVAL_EEC_HNDL (-206)
#define VAPI_E2BIG_INLINE (-205) /* inline data beyond the QP's limit */
#define VAPI_EINVAL_MAD (-204)
#define VAPI_ERROR_MAX (-204) /* lowest-magnitude failure code */
#define VAPI_ERROR_MIN (-255)

/* ---- Handles --------------------------------------------------------------------------------- */

typedef u_int32_t VAPI_hca_hndl_t;
typedef MT_ulong_ptr_t VAPI_cq_hndl_t;
typedef MT_ulong_ptr_t VAPI_qp_hndl_t;
typedef MT_ulong_ptr_t VAPI_srq_hndl_t;
typedef MT_ulong_ptr_t VAPI_pd_hndl_t;
typedef MT_ulong_ptr_t VAPI_mr_hndl_t;
typedef MT_ulong_ptr_t VAPI_mw_hndl_t;
typedef MT_ulong_ptr_t VAPI_ud_av_hndl_t;
typedef MT_ulong_ptr_t VAPI_eec_hndl_t;
typedef MT_ulong_ptr_t VAPI_rdd_hndl_t;
typedef MT_ulong_ptr_t VAPI_k_cq_hndl_t;

#define VAPI_INVAL_HNDL ((MT_ulong_ptr_t)-1)
#define VAPI_INVAL_HCA_HNDL ((VAPI_hca_hndl_t)-1)
#define VAPI_INVAL_SRQ_HNDL VAPI_INVAL_HNDL

typedef char VAPI_hca_id_t[32]; /* device name, NUL-terminated */

/* ---- Scalars ------------------------------------------------------------------------------------- */

typedef u_int32_t VAPI_lkey_t;
typedef u_int32_t VAPI_rkey_t;
typedef u_int64_t VAPI_virt_addr_t;
typedef u_int64_t VAPI_phy_addr_t;
typedef u_int64_t VAPI_size_t;
typedef u_int64_t VAPI_wr_id_t;
typedef u_int32_t VAPI_imm_data_t;
typedef u_int32_t VAPI_qkey_t;
typedef u_int32_t VAPI_psn_t;
typedef u_int32_t VAPI_cqe_num_t;
typedef u_int16_t VAPI_ethertype_t;
typedef u_int16_t VAPI_pkey_t;
typedef u_int16_t VAPI_pkey_ix_t;
typedef u_int8_t VAPI_sched_queue_t;
typedef u_int8_t VAPI_timeout_t; /* 4.096 us * 2^timeout */
typedef u_int8_t VAPI_retry_count_t;
typedef u_int32_t VAPI_qp_num_t;
typedef u_int32_t VAPI_mrw_acl_t;       /* VAPI_EN_* bits */
typedef u_int32_t VAPI_rdma_atom_acl_t; /* VAPI_EN_REM_* bits */

#define VAPI_DEFAULT_PKEY 0xFFFF

/* ---- HCA ------------------------------------------------------------------------------------------ */

typedef struct {
    u_int32_t vendor_id;      /* IEEE OUI */
    u_int32_t vendor_part_id; /* device id */
    u_int32_t hw_ver;
    u_int64_t fw_ver; /* major << 32 | minor << 16 | sub-minor */
} VAPI_hca_vendor_t;

/* VAPI_hca_cap_t.flags */
#define VAPI_RESIZE_OUS_WQE_CAP 1
#define VAPI_BAD_PKEY_COUNT_CAP 2
#define VAPI_BAD_QKEY_COUNT_CAP 4
#define VAPI_RAW_MULTI_CAP 8
#define VAPI_AUTO_PATH_MIG_CAP 16
#define VAPI_CHANGE_PHY_PORT_CAP 32
#define VAPI_UD_AV_PORT_ENFORCE_CAP 64
#define VAPI_CURR_QP_STATE_MOD_CAP 128
#define VAPI_SHUTDOWN_PORT_CAP 256
#define VAPI_INIT_TYPE_CAP 512
#define VAPI_PORT_ACTIVE_EV_CAP 1024
#define VAPI_SYS_IMG_GUID_CAP 2048
#define VAPI_RC_RNR_NAK_GEN_CAP 4096

typedef enum {
    VAPI_ATOMIC_CAP_NONE = 0,
    VAPI_ATOMIC_CAP_HCA = 1, /* atomic between QPs of this HCA */
    VAPI_ATOMIC_CAP_GLOB = 2 /* atomic with every other agent */
} VAPI_atomic_cap_t;

typedef struct {
    u_int32_t max_num_qp;
    u_int32_t max_qp_ous_wr;
    u_int32_t flags; /* VAPI_*_CAP bits */
    u_int32_t max_num_sg_ent;
    u_int32_t max_num_sg_ent_rd;
    u_int32_t max_num_cq;
    u_int32_t max_num_ent_cq;
    u_int32_t max_num_mr;
    u_int64_t max_mr_size;
    u_int32_t max_pd_num;
    u_int32_t page_size_cap;
    IB_port_t phys_port_num;
    u_int16_t max_pkeys;
    IB_guid_t node_guid;
    IB_guid_t sys_image_guid;
    VAPI_timeout_t local_ca_ack_delay;
    u_int8_t max_qp_ous_rd_atom;
    u_int8_t max_ee_ous_rd_atom;
    u_int8_t max_res_rd_atom;
    u_int8_t max_qp_init_rd_atom;
    u_int8_t max_ee_init_rd_atom;
    VAPI_atomic_cap_t atomic_cap;
    u_int32_t max_ee_num;
    u_int32_t max_rdd_num;
    u_int32_t max_mw_num;
    u_int32_t max_raw_ipv6_qp;
    u_int32_t max_raw_ethy_qp;
    u_int32_t max_mcast_grp_num;
    u_int32_t max_mcast_qp_attach_num;
    u_int32_t max_total_mcast_qp_attach_num;
    u_int32_t max_ah_num;
    u_int32_t max_num_fmr;
    u_int32_t max_num_map_per_fmr;
    u_int32_t max_num_srq;
    u_int32_t max_wqe_per_srq;
    u_int32_t max_srq_sentries;
    MT_bool srq_resize_supported;
} VAPI_hca_cap_t;

typedef struct {
    IB_mtu_t max_mtu;
    u_int32_t max_msg_sz;
    IB_lid_t lid;
    u_int8_t lmc;
    IB_port_state_t state;
    IB_port_cap_mask_t capability_mask;
    u_int8_t max_vl_num;
    u_int32_t bad_pkey_counter;
    u_int32_t qkey_viol_counter;
    IB_lid_t sm_lid;
    IB_sl_t sm_sl;
    u_int16_t pkey_tbl_len;
    u_int16_t gid_tbl_len;
    VAPI_timeout_t subnet_timeout;
    u_int8_t initTypeReply;
} VAPI_hca_port_t;

/* VAPI_modify_hca_attr(): which fields of VAPI_hca_attr_t to apply. */
typedef u_int32_t VAPI_hca_attr_mask_t;
#define HCA_ATTR_IS_SM 1
#define HCA_ATTR_IS_SNMP_TUN_SUP 2
#define HCA_ATTR_IS_DEV_MGT_SUP 4
#define HCA_ATTR_IS_VENDOR_CLS_SUP 8
#define HCA_ATTR_RESET_QKEY_COUNTER 16
#define HCA_ATTR_MAX 32

#define HCA_ATTR_MASK_CLR_ALL(mask) ((mask) = 0)
#define HCA_ATTR_MASK_SET_ALL(mask) ((mask) = (HCA_ATTR_MAX - 1))
#define HCA_ATTR_MASK_SET(mask, attr) ((mask) |= (attr))
#define HCA_ATTR_MASK_CLR(mask, attr) ((mask) &= (~(attr)))
#define HCA_ATTR_IS_FLAGS_SET(mask)                                                   \
    (((mask) & (HCA_ATTR_IS_SM | HCA_ATTR_IS_SNMP_TUN_SUP | HCA_ATTR_IS_DEV_MGT_SUP | \
                HCA_ATTR_IS_VENDOR_CLS_SUP)) != 0)
#define HCA_ATTR_IS_SET(mask, attr) (((mask) & (attr)) != 0)

typedef struct {
    MT_bool reset_qkey_counter; /* zero the port's Q_Key violation counter */
    MT_bool is_sm;              /* the port's capability mask bits */
    MT_bool is_snmp_tun_sup;
    MT_bool is_dev_mgt_sup;
    MT_bool is_vendor_cls_sup;
} VAPI_hca_attr_t;

/* ---- Memory regions ------------------------------------------------------------------------------ */

typedef enum {
    VAPI_MR = 0,   /* virtual memory region */
    VAPI_MW = 1,   /* memory window */
    VAPI_MPR = 2,  /* physical memory region */
    VAPI_MSHAR = 3 /* shared memory region */
} VAPI_mrw_type_t;

/* VAPI_mrw_acl_t bits */
#define VAPI_EN_LOCAL_WRITE 1
#define VAPI_EN_REMOTE_WRITE 2
#define VAPI_EN_REMOTE_READ 4
#define VAPI_EN_REMOTE_ATOM 8
#define VAPI_EN_MEMREG_BIND 16

typedef struct {
    VAPI_phy_addr_t start;
    VAPI_size_t size;
} VAPI_phy_buf_t;

typedef struct {
    VAPI_mrw_type_t type;
    VAPI_lkey_t l_key;      /* reply */
    VAPI_rkey_t r_key;      /* reply */
    VAPI_virt_addr_t start; /* VAPI_MR: virtual start; VAPI_MPR: requested / assigned IOVA */
    VAPI_size_t size;
    VAPI_pd_hndl_t pd_hndl;
    VAPI_mrw_acl_t acl;
    MT_size_t pbuf_list_len; /* VAPI_MPR: number of entries of pbuf_list_p */
    VAPI_phy_buf_t *pbuf_list_p;
    VAPI_phy_addr_t iova_offset; /* VAPI_MPR: offset of the IOVA start in the first buffer */
} VAPI_mrw_t;

/* ---- Completion queues ----------------------------------------------------------------------- */

typedef enum {
    VAPI_NOTIF_NONE = 0,
    VAPI_SOLIC_COMP = 1, /* next solicited completion */
    VAPI_NEXT_COMP = 2   /* next completion of any kind */
} VAPI_cq_notif_type_t;

typedef void (*VAPI_completion_event_handler_t)(VAPI_hca_hndl_t hca_hndl, VAPI_cq_hndl_t cq_hndl,
                                                void *private_data);

/* ---- Queue pairs --------------------------------------------------------------------------------- */

typedef enum {
    VAPI_RESET = 0,
    VAPI_INIT = 1,
    VAPI_RTR = 2,
    VAPI_RTS = 3,
    VAPI_SQD = 4,
    VAPI_SQE = 5,
    VAPI_ERR = 6
} VAPI_qp_state_t;

typedef IB_ts_t VAPI_ts_type_t;
#define VAPI_TS_RC IB_TS_RC
#define VAPI_TS_RD IB_TS_RD
#define VAPI_TS_UC IB_TS_UC
#define VAPI_TS_UD IB_TS_UD
#define VAPI_TS_RAW IB_TS_RAW

typedef enum {
    VAPI_REGULAR_QP = 0,
    VAPI_SMI_QP = 1,
    VAPI_GSI_QP = 2,
    VAPI_RAW_IPV6_QP = 3,
    VAPI_RAW_ETY_QP = 4
} VAPI_special_qp_t;

typedef enum {
    VAPI_SIGNAL_ALL_WR = 0, /* every work request completes with a CQE */
    VAPI_SIGNAL_REQ_WR = 1  /* only those posted with VAPI_SIGNALED */
} VAPI_sig_type_t;

/* VAPI_rdma_atom_acl_t bits (remote_atomic_flags) */
#define VAPI_EN_REM_WRITE 1
#define VAPI_EN_REM_READ 2
#define VAPI_EN_REM_ATOMIC_OP 4

typedef enum { VAPI_MIGRATED = 0, VAPI_REARM = 1, VAPI_ARMED = 2 } VAPI_mig_state_t;

typedef struct {
    u_int32_t max_oust_wr_sq;
    u_int32_t max_oust_wr_rq;
    u_int32_t max_sg_size_sq;
    u_int32_t max_sg_size_rq;
    u_int32_t max_inline_data_sq;
} VAPI_qp_cap_t;

typedef struct {
    VAPI_cq_hndl_t sq_cq_hndl;
    VAPI_cq_hndl_t rq_cq_hndl;
    VAPI_qp_cap_t cap;
    VAPI_rdd_hndl_t rdd_hndl;
    VAPI_sig_type_t sq_sig_type;
    VAPI_sig_type_t rq_sig_type;
    VAPI_pd_hndl_t pd_hndl;
    VAPI_ts_type_t ts_type;
} VAPI_qp_init_attr_t;

typedef struct {
    VAPI_qp_num_t qp_num;
    VAPI_qp_cap_t cap;
} VAPI_qp_prop_t;

/* Address vector of a UD address handle or of a connected QP's path. */
typedef struct {
    IB_gid_t dgid;
    IB_sl_t sl;
    IB_lid_t dlid;
    u_int8_t src_path_bits;
    IB_static_rate_t static_rate;
    MT_bool grh_flag;
    u_int8_t traffic_class;
    u_int8_t hop_limit;
    u_int32_t flow_label;
    u_int8_t sgid_index;
    IB_port_t port;
} VAPI_ud_av_t;

typedef struct {
    VAPI_qp_state_t qp_state;
    MT_bool en_sqd_asyn_notif;
    MT_bool sq_draining;
    u_int8_t qp_ous_rd_atom;  /* RDMA read / atomic as responder */
    u_int8_t ous_dst_rd_atom; /* RDMA read / atomic as initiator */
    IB_rnr_nak_timer_code_t min_rnr_timer;
    VAPI_qkey_t qkey;
    VAPI_psn_t sq_psn;
    VAPI_psn_t rq_psn;
    VAPI_qp_num_t dest_qp_num;
    VAPI_rdma_atom_acl_t remote_atomic_flags;
    VAPI_ud_av_t av;
    IB_mtu_t path_mtu;
    VAPI_timeout_t timeout;
    VAPI_retry_count_t retry_count;
    VAPI_retry_count_t rnr_retry;
    IB_port_t port;
    VAPI_pkey_ix_t pkey_ix;
    VAPI_ud_av_t alt_av;
    VAPI_timeout_t alt_timeout;
    IB_port_t alt_port;
    VAPI_pkey_ix_t alt_pkey_ix;
    VAPI_mig_state_t path_mig_state;
    VAPI_qp_cap_t cap;
    VAPI_qp_num_t qp_num; /* query only */
} VAPI_qp_attr_t;

/* VAPI_qp_attr_mask_t bits: which fields of VAPI_qp_attr_t a modify applies / a query filled. */
typedef u_int32_t VAPI_qp_attr_mask_t;
#define QP_ATTR_QP_STATE 0x1
#define QP_ATTR_EN_SQD_ASYN_NOTIF 0x2
#define QP_ATTR_QP_NUM 0x4
#define QP_ATTR_REMOTE_ATOMIC_FLAGS 0x8
#define QP_ATTR_PKEY_IX 0x10
#define QP_ATTR_PORT 0x20
#define QP_ATTR_QKEY 0x40
#define QP_ATTR_AV 0x80
#define QP_ATTR_PATH_MTU 0x100
#define QP_ATTR_TIMEOUT 0x200
#define QP_ATTR_RETRY_COUNT 0x400
#define QP_ATTR_RNR_RETRY 0x800
#define QP_ATTR_RQ_PSN 0x1000
#define QP_ATTR_QP_OUS_RD_ATOM 0x2000
#define QP_ATTR_ALT_PATH 0x4000 /* alt_av, alt_timeout, alt_port, alt_pkey_ix */
#define QP_ATTR_RSRV_1 0x8000
#define QP_ATTR_RSRV_2 0x10000
#define QP_ATTR_RSRV_3 0x20000
#define QP_ATTR_RSRV_4 0x40000
#define QP_ATTR_RSRV_5 0x80000
#define QP_ATTR_RSRV_6 0x100000
#define QP_ATTR_MIN_RNR_TIMER 0x200000
#define QP_ATTR_SQ_PSN 0x400000
#define QP_ATTR_OUS_DST_RD_ATOM 0x800000
#define QP_ATTR_PATH_MIG_STATE 0x1000000
#define QP_ATTR_CAP 0x2000000
#define QP_ATTR_DEST_QP_NUM 0x4000000
#define QP_ATTR_ALL 0x7ffffff

#define QP_ATTR_MASK_CLR_ALL(mask) ((mask) = 0)
#define QP_ATTR_MASK_SET_ALL(mask) ((mask) = QP_ATTR_ALL)
#define QP_ATTR_MASK_SET(mask, attr) ((mask) |= (attr))
#define QP_ATTR_MASK_CLR(mask, attr) ((mask) &= (~(attr)))
#define QP_ATTR_IS_SET(mask, attr) (((mask) & (attr)) != 0)

/* ---- Work requests -------------------------------------------------------------------------------- */

typedef enum {
    VAPI_RDMA_WRITE = 0,
    VAPI_RDMA_WRITE_WITH_IMM = 1,
    VAPI_SEND = 2,
    VAPI_SEND_WITH_IMM = 3,
    VAPI_RDMA_READ = 4,
    VAPI_ATOMIC_CMP_AND_SWP = 5,
    VAPI_ATOMIC_FETCH_AND_ADD = 6,
    VAPI_RECEIVE = 7
} VAPI_wr_opcode_t;

typedef enum { VAPI_SIGNALED = 0, VAPI_UNSIGNALED = 1 } VAPI_comp_type_t;

typedef struct {
    VAPI_virt_addr_t addr;
    u_int32_t len;
    VAPI_lkey_t lkey;
} VAPI_sg_lst_entry_t;

typedef struct {
    VAPI_wr_id_t id;
    VAPI_wr_opcode_t opcode;
    VAPI_comp_type_t comp_type;
    VAPI_sg_lst_entry_t *sg_lst_p;
    u_int32_t sg_lst_len;
    VAPI_imm_data_t imm_data;
    MT_bool fence;
    VAPI_ud_av_hndl_t remote_ah;  /* UD */
    VAPI_qp_num_t remote_qp;      /* UD, RD */
    VAPI_qkey_t remote_qkey;      /* UD, RD */
    VAPI_ethertype_t ethertype;   /* raw Ethertype */
    IB_eecn_t eecn;               /* RD */
    MT_bool set_se;               /* solicited event */
    VAPI_virt_addr_t remote_addr; /* RDMA, atomic */
    VAPI_rkey_t r_key;            /* RDMA, atomic */
    u_int64_t compare_add;        /* atomic: compare value or addend */
    u_int64_t swap;               /* atomic compare-and-swap: new value */
} VAPI_sr_desc_t;

typedef struct {
    VAPI_wr_id_t id;
    VAPI_wr_opcode_t opcode; /* VAPI_RECEIVE */
    VAPI_comp_type_t comp_type;
    VAPI_sg_lst_entry_t *sg_lst_p;
    u_int32_t sg_lst_len;
} VAPI_rr_desc_t;

/* ---- Completions ----------------------------------------------------------------------------------- */

typedef enum {
    VAPI_CQE_SQ_SEND_DATA = 0,
    VAPI_CQE_SQ_RDMA_WRITE = 1,
    VAPI_CQE_SQ_RDMA_READ = 2,
    VAPI_CQE_SQ_COMP_SWAP = 3,
    VAPI_CQE_SQ_FETCH_ADD = 4,
    VAPI_CQE_SQ_BIND_MRW = 5,
    VAPI_CQE_RQ_SEND_DATA = 6,
    VAPI_CQE_RQ_RDMA_WITH_IMM = 7,
    VAPI_CQE_INVAL_OPCODE = (int)0xFFFFFFFF
} VAPI_cqe_opcode_t;

typedef enum {
    VAPI_SUCCESS = 0,
    VAPI_LOC_LEN_ERR = 1,
    VAPI_LOC_QP_OP_ERR = 2,
    VAPI_LOC_EE_OP_ERR = 3,
    VAPI_LOC_PROT_ERR = 4,
    VAPI_WR_FLUSH_ERR = 5,
    VAPI_MW_BIND_ERR = 6,
    VAPI_BAD_RESP_ERR = 7,
    VAPI_LOC_ACCS_ERR = 8,
    VAPI_REM_INV_REQ_ERR = 9,
    VAPI_REM_ACCESS_ERR = 10,
    VAPI_REM_OP_ERR = 11,
    VAPI_RETRY_EXC_ERR = 12,
    VAPI_RNR_RETRY_EXC_ERR = 13,
    VAPI_LOC_RDD_VIOL_ERR = 14,
    VAPI_REM_INV_RD_REQ_ERR = 15,
    VAPI_REM_ABORT_ERR = 16,
    VAPI_INV_EECN_ERR = 17,
    VAPI_INV_EEC_STATE_ERR = 18,
    VAPI_COMP_FATAL_ERR = 19,
    VAPI_COMP_GENERAL_ERR = 20,
    VAPI_COMP_LOCAL_ABORT_ERR = 21
} VAPI_wc_status_t;

typedef enum {
    VAPI_RNA_RD = 0,
    VAPI_RNA_UD = 1,
    VAPI_RNA_RAW_ETY = 2,
    VAPI_RNA_RAW_IPV6 = 3
} VAPI_remote_node_addr_type_t;

typedef struct {
    VAPI_remote_node_addr_type_t type;
    IB_lid_t slid;
    IB_sl_t sl;
    union {
        VAPI_qp_num_t qp;     /* RD, UD: source QP */
        VAPI_ethertype_t ety; /* raw Ethertype */
    } qp_ety;
    union {
        IB_eecn_t loc_eecn;     /* RD */
        u_int8_t dst_path_bits; /* UD, raw */
    } ee_dlid;
} VAPI_remote_node_addr_t;

typedef struct {
    VAPI_wc_status_t status;
    VAPI_wr_id_t id;
    IB_wqpn_t local_qp_num;
    VAPI_cqe_opcode_t opcode;
    u_int32_t byte_len;
    MT_bool imm_data_valid;
    VAPI_imm_data_t imm_data;
    VAPI_remote_node_addr_t remote_node_addr;
    MT_bool grh_flag;
    VAPI_pkey_ix_t pkey_ix;
    u_int32_t vendor_err_syndrome;
    u_int32_t free_res_count;
} VAPI_wc_desc_t;

/* ---- Asynchronous events ------------------------------------------------------------------------- */

typedef enum {
    VAPI_QP_PATH_MIGRATED = 0,
    VAPI_EEC_PATH_MIGRATED = 1,
    VAPI_QP_COMM_ESTABLISHED = 2,
    VAPI_EEC_COMM_ESTABLISHED = 3,
    VAPI_SEND_QUEUE_DRAINED = 4,
    VAPI_RECEIVE_QUEUE_DRAINED = 5,
    VAPI_SRQ_LIMIT_REACHED = 6,
    VAPI_SRQ_CATASTROPHIC_ERROR = 7,
    VAPI_CQ_ERROR = 8,
    VAPI_LOCAL_WQ_INV_REQUEST_ERROR = 9,
    VAPI_LOCAL_WQ_ACCESS_VIOL_ERROR = 10,
    VAPI_LOCAL_WQ_CATASTROPHIC_ERROR = 11,
    VAPI_PATH_MIG_REQ_ERROR = 12,
    VAPI_LOCAL_EEC_CATASTROPHIC_ERROR = 13,
    VAPI_LOCAL_CATASTROPHIC_ERROR = 14,
    VAPI_PORT_ERROR = 15,
    VAPI_PORT_ACTIVE = 16,
    VAPI_CQ_COMP = 17,
    VAPI_GPIO = 18,
    VAPI_ECC_DETECT = 19,
    VAPI_PATH_MIG_ARMED = 20,
    VAPI_CLIENT_REREGISTER = 21
} VAPI_event_record_type_t;

typedef enum {
    VAPI_EV_SYNDROME_NONE = 0,
    VAPI_CATAS_ERR_FW_INTERNAL = 1,
    VAPI_CATAS_ERR_EQ_OVERFLOW = 2,
    VAPI_CATAS_ERR_MISBEHAVED_UAR_PAGE = 3,
    VAPI_CATAS_ERR_UPLINK_BUS_ERR = 4,
    VAPI_CATAS_ERR_HCA_DDR_DATA_ERR = 5,
    VAPI_CATAS_ERR_INTERNAL_PARITY_ERR = 6,
    VAPI_CATAS_ERR_MASTER_ABORT = 7,
    VAPI_CATAS_ERR_GO_BIT = 8,
    VAPI_CATAS_ERR_CMD_TIMEOUT = 9,
    VAPI_CATAS_ERR_FATAL_CR = 10,
    VAPI_CATAS_ERR_FATAL_TOKEN = 11,
    VAPI_CATAS_ERR_GENERAL = 12,
    VAPI_CQ_ERR_OVERRUN = 13,
    VAPI_CQ_ERR_ACCESS_VIOL = 14,
    VAPI_CATAS_ERR_FATAL_EXTERNAL = 15
} VAPI_event_syndrome_t;

typedef struct {
    VAPI_event_record_type_t type;
    VAPI_event_syndrome_t syndrome;
    union {
        VAPI_qp_hndl_t qp_hndl;
        VAPI_srq_hndl_t srq_hndl;
        VAPI_eec_hndl_t eec_hndl;
        VAPI_cq_hndl_t cq_hndl;
        IB_port_t port_num;
    } modifier;
} VAPI_event_record_t;

typedef void (*VAPI_async_event_handler_t)(VAPI_hca_hndl_t hca_hndl, VAPI_event_record_t *event_record_p,
                                           void *private_data);

/* ---- Layouts the adaptor relies on --------------------------------------------------------------- */

MT_STATIC_ASSERT(sizeof(VAPI_hca_id_t) == 32, "device names are 32 bytes");
MT_STATIC_ASSERT(sizeof(VAPI_sg_lst_entry_t) == 16, "gather entry: addr, len, lkey");
MT_STATIC_ASSERT(sizeof(VAPI_sr_desc_t) == 104, "send descriptor size");
MT_STATIC_ASSERT(sizeof(VAPI_sr_desc_t) + 8 * sizeof(VAPI_sg_lst_entry_t) == 232,
                 "send descriptor plus eight gather entries");
MT_STATIC_ASSERT(sizeof(VAPI_rr_desc_t) == 32, "receive descriptor size");
MT_STATIC_ASSERT(sizeof(VAPI_phy_buf_t) == 16, "physical buffer: start then size");
MT_STATIC_ASSERT(offsetof(VAPI_phy_buf_t, start) == 0 && offsetof(VAPI_phy_buf_t, size) == 8,
                 "physical buffer: start then size");
MT_STATIC_ASSERT(sizeof(VAPI_hca_hndl_t) == 4, "HCA handle is 32-bit");
MT_STATIC_ASSERT(sizeof(VAPI_cq_hndl_t) == 8 && sizeof(VAPI_qp_hndl_t) == 8 && sizeof(VAPI_pd_hndl_t) == 8 &&
                     sizeof(VAPI_mr_hndl_t) == 8 && sizeof(VAPI_ud_av_hndl_t) == 8,
                 "resource handles are 64-bit");

#endif
