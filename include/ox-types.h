/* The generic verbs interface: handles, scalar types, enumerations and the request, attribute
 * and completion records that the stack and its HCA providers exchange.
 *
 * Plain C, usable from C and C++. Every record is a `struct ox_<name>_st` with a typedef
 * `ox_<name>_t`; field order is part of the interface (providers and upper layers are built
 * separately). */
#ifndef OX_TYPES_H
#define OX_TYPES_H

#include <linux/types.h>

__BEGIN_KERNEL_DECLS

/* ---------------------------------------------------------------------------------------------
 * Status
 * ------------------------------------------------------------------------------------------- */

/* What every entry point returns. Providers choose the value themselves; a VAPI status is never
 * passed through. */
typedef enum ox_return_en {
    ox_return_ok = 0,
    ox_return_err,                        /* a vendor call failed, or a request was refused */
    ox_return_err_alloc_mem,              /* a memory allocation failed */
    ox_return_err_not_implemented,        /* the operation is not supported */
    ox_return_err_hca_name,               /* bad HCA name (too long, unknown) */
    ox_return_err_insufficient_resources, /* a table is larger than the room given */
    ox_return_err_invalid_state,          /* a QP state that may not be requested */
    ox_return_err_invalid_vend_ret,       /* the vendor returned a value that cannot be translated */
    ox_return_err_invalid_parameter,      /* an argument the provider cannot accept */
    ox_return_err_cq_empty,               /* polling found no completion (not an error) */
    ox_return_err_invalid_handle,         /* an unknown provider, device or object handle */
    ox_return_err_busy                    /* the object is in use */
} ox_return_t;

/* ---------------------------------------------------------------------------------------------
 * Handles and scalars
 * ------------------------------------------------------------------------------------------- */

/* HCA, CQ and QP handles are the provider's own tracking records, seen as opaque pointers by the
 * upper layers. Inside a provider record the same types also carry the vendor's handle value. */
typedef void *ox_hca_h_t;
typedef void *ox_cq_h_t;
typedef void *ox_qp_h_t;

typedef u32 ox_pd_h_t;      /* protection domain, the vendor's value */
typedef u64 ox_add_h_t;     /* address handle, the vendor's value */
typedef u64 ox_mem_win_h_t; /* memory window */
typedef u64 ox_mem_reg_h_t; /* memory region, the vendor's value */
typedef u64 ox_fmr_h_t;     /* fast memory region, the vendor's value */
typedef u32 ox_rdd_h_t;     /* reliable datagram domain */
typedef u32 ox_eec_h_t;     /* end-to-end context */

typedef void *ox_qp_context_t;
typedef void *ox_cq_context_t;
typedef void *ox_eec_context_t;

typedef u32 ox_qp_t; /* QP number */
typedef u32 ox_l_key_t;
typedef u32 ox_r_key_t;
typedef u32 ox_q_key_t;
typedef u16 ox_p_key_t; /* a P_Key, or an index into the P_Key table */
typedef u16 ox_lid_t;
typedef u8 ox_service_level_t;
typedef u8 ox_port_num_t;
typedef u32 ox_psn_t;                 /* packet sequence number (24 bits used) */
typedef u64 ox_iova_t;                /* I/O virtual address of a registration */
typedef u64 ox_phy_addr_t;            /* physical address or length */
typedef u64 ox_wr_id_t;               /* caller's work request identifier */
typedef u64 ox_qp_at_mask_t;          /* OX_QP_AT_* bits */
typedef u32 ox_access_con_bit_mask_t; /* ox_access_* bits */

/* The provider's opened-HCA record; its layout belongs to the provider (ox-adaptor-common.h).
 * Every entry point but HCA open takes it as its first argument. */
typedef struct ox_opened_hca_st ox_opened_hca_t;

/* ---------------------------------------------------------------------------------------------
 * Enumerations
 * ------------------------------------------------------------------------------------------- */

/* Access rights of a memory region or QP. The values are the vendor's own access bits, so a
 * mask is handed to the vendor unchanged. */
enum ox_access_con_bit_en {
    ox_access_local_write = 0x01,
    ox_access_remote_write = 0x02,
    ox_access_remote_read = 0x04,
    ox_access_remote_atomic = 0x08,
    ox_access_mem_win_bind = 0x10
};

typedef enum ox_qp_type_en {
    ox_qp_type_r_conn = 0,  /* reliable connected */
    ox_qp_type_u_conn = 1,  /* unreliable connected */
    ox_qp_type_r_dgram = 2, /* reliable datagram */
    ox_qp_type_u_dgram = 3, /* unreliable datagram */
    ox_qp_type_special_smi_0 = 4,
    ox_qp_type_special_gsi_1 = 5,
    ox_qp_type_special_raw_ipv6 = 6,
    ox_qp_type_special_raw_eter = 7,
    ox_qp_type_not_valid = 8 /* QPs created outside the provider and registered by handle */
} ox_qp_type_t;

/* QP states and transitions that may be requested (the *_to_rts values name a transition). */
typedef enum ox_qp_state_en {
    ox_qp_state_reset = 0,
    ox_qp_state_init = 1,
    ox_qp_state_rtr = 2,
    ox_qp_state_rts = 3,
    ox_qp_state_sqd_to_rts = 4,
    ox_qp_state_sqe_to_rts = 5,
    ox_qp_state_sqd = 6,
    ox_qp_state_sqe = 7,
    ox_qp_state_sqd_ing = 8,
    ox_qp_state_sqd_ed = 9,
    ox_qp_state_error = 10
} ox_qp_state_t;

typedef enum ox_mtu_en {
    ox_mtu_256 = 1,
    ox_mtu_512 = 2,
    ox_mtu_1024 = 3,
    ox_mtu_2048 = 4,
    ox_mtu_4096 = 5
} ox_mtu_t;

/* Minimum RNR NAK timer, IB encoding (5 bits). */
typedef enum ox_rnr_nak_time_delay_en {
    ox_rnr_nak_time_655_36_ms = 0,
    ox_rnr_nak_time_0_01_ms = 1,
    ox_rnr_nak_time_0_02_ms = 2,
    ox_rnr_nak_time_0_03_ms = 3,
    ox_rnr_nak_time_0_04_ms = 4,
    ox_rnr_nak_time_0_06_ms = 5,
    ox_rnr_nak_time_0_08_ms = 6,
    ox_rnr_nak_time_0_12_ms = 7,
    ox_rnr_nak_time_0_16_ms = 8,
    ox_rnr_nak_time_0_24_ms = 9,
    ox_rnr_nak_time_0_32_ms = 10,
    ox_rnr_nak_time_0_48_ms = 11,
    ox_rnr_nak_time_0_64_ms = 12,
    ox_rnr_nak_time_0_96_ms = 13,
    ox_rnr_nak_time_1_28_ms = 14,
    ox_rnr_nak_time_1_92_ms = 15,
    ox_rnr_nak_time_2_56_ms = 16,
    ox_rnr_nak_time_3_84_ms = 17,
    ox_rnr_nak_time_5_12_ms = 18,
    ox_rnr_nak_time_7_68_ms = 19,
    ox_rnr_nak_time_10_24_ms = 20,
    ox_rnr_nak_time_15_36_ms = 21,
    ox_rnr_nak_time_20_48_ms = 22,
    ox_rnr_nak_time_30_72_ms = 23,
    ox_rnr_nak_time_40_96_ms = 24,
    ox_rnr_nak_time_61_44_ms = 25,
    ox_rnr_nak_time_81_92_ms = 26,
    ox_rnr_nak_time_122_88_ms = 27,
    ox_rnr_nak_time_163_84_ms = 28,
    ox_rnr_nak_time_245_76_ms = 29,
    ox_rnr_nak_time_327_68_ms = 30,
    ox_rnr_nak_time_491_52_ms = 31
} ox_rnr_nak_time_delay_t;

typedef enum ox_path_migrate_state_en {
    ox_state_migrate = 0,
    ox_state_rearm = 1,
    ox_state_armed = 2
} ox_path_migrate_state_t;

/* Which work requests of a QP generate completions (IB signalling type). */
typedef enum ox_signaling_type_en {
    ox_signal_all_wr = 0, /* every work request */
    ox_signal_req_wr = 1  /* only requests that ask for it */
} ox_signaling_type_t;

typedef enum ox_port_state_en {
    ox_port_nop = 0,
    ox_port_down = 1,
    ox_port_init = 2,
    ox_port_armed = 3,
    ox_port_active = 4
} ox_port_state_t;

/* Bits of ox_port_attrib_t.port_capability_support. */
enum ox_port_capability_en {
    ox_port_cap_sm = 1,          /* a subnet manager runs on the port */
    ox_port_cap_snmp_tunnel = 4, /* SNMP tunnelling */
    ox_port_cap_dev_mgt = 8,     /* device management */
    ox_port_cap_vendor_class = 16
};

/* Send operations (ox_wr_t.wr_type). */
typedef enum ox_wr_operation_en {
    ox_wr_send = 0,
    ox_wr_send_immed = 1,
    ox_wr_rdma_read = 2,
    ox_wr_rdma_write = 3,
    ox_wr_rdma_write_immed = 4,
    ox_wr_compare_swap = 5,
    ox_wr_fetch_add = 6,
    ox_wr_receive = 7,
    ox_wr_mem_win_bind = 8
} ox_wr_operation_t;

/* Which member of ox_wr_t.type (and of its send_qp_type) a post reads. */
typedef enum ox_wr_operation_type_en {
    ox_operation_type_send_rc = 0,
    ox_operation_type_send_uc = 1,
    ox_operation_type_send_rd = 2,
    ox_operation_type_send_ud = 3,
    ox_operation_type_send_raw = 4,
    ox_operation_type_receive = 5,
    ox_operation_type_bind = 6
} ox_wr_operation_type_t;

/* Completed operation; numbered as the HCA's completion opcodes. */
typedef enum ox_wc_operation_en {
    ox_wc_send_sq = 0,
    ox_wc_rdma_write_sq = 1,
    ox_wc_rdma_read_sq = 2,
    ox_wc_comare_swap_sq = 3,
    ox_wc_fetch_add_sq = 4,
    ox_wc_mem_win_bind_sq = 5,
    ox_wc_send_rq = 6,
    ox_wc_rdma_immidiate = 7
} ox_wc_operation_t;

/* Completion status, in the order of the IB completion errors. */
typedef enum ox_comp_status_en {
    ox_comp_status_success = 0,
    ox_comp_status_loc_len_err = 1,
    ox_comp_status_loc_qp_op_err = 2,
    ox_comp_status_loc_eec_op_err = 3,
    ox_comp_status_loc_portection_err = 4,
    ox_comp_status_wr_flush_err = 5,
    ox_comp_status_mw_bind_err = 6,
    ox_comp_status_bad_resp_err = 7,
    ox_comp_status_loc_access_err = 8,
    ox_comp_status_rem_inv_req_err = 9,
    ox_comp_status_rem_access_err = 10,
    ox_comp_status_rem_op_err = 11,
    ox_comp_status_retry_exc_err = 12,
    ox_comp_status_rnr_retry_exc_err = 13,
    ox_comp_status_loc_rdd_vio_err = 14,
    ox_comp_status_rem_inv_rd_req_err = 15,
    ox_comp_status_rem_aborted_err = 16,
    ox_comp_status_inv_eec_num_err = 17,
    ox_comp_status_inv_eec_state_err = 18,
    ox_comp_status_general_err = 19,
    ox_comp_status_timeout_err = 20,
    ox_comp_status_rnr_timeout_err = 21
} ox_comp_status_t;

/* Arming a CQ: the next solicited completion only, or the next completion of any kind. */
typedef enum ox_request_comp_notify_en {
    ox_next_solicit_event_only = 0,
    ox_next_solicit_unsolicit_event = 1
} ox_request_comp_notify_t;

/* ---------------------------------------------------------------------------------------------
 * QP attribute mask (ox_qp_at_mask_t). Bit N selects the attribute the QP-transition
 * translation table holds at index N.
 * ------------------------------------------------------------------------------------------- */
#define OX_QP_AT_BIT(n) (((ox_qp_at_mask_t)1) << (n))

#define OX_QP_AT_QP_NUM OX_QP_AT_BIT(0)
#define OX_QP_AT_STATE OX_QP_AT_BIT(2) /* always sent by a transition */
#define OX_QP_AT_S_MAX_OUT_WR OX_QP_AT_BIT(5)
#define OX_QP_AT_R_MAX_OUT_WR OX_QP_AT_BIT(6)
#define OX_QP_AT_S_MAX_SG OX_QP_AT_BIT(7)
#define OX_QP_AT_R_MAX_SG OX_QP_AT_BIT(8)
#define OX_QP_AT_S_PSN OX_QP_AT_BIT(9)
#define OX_QP_AT_R_PSN OX_QP_AT_BIT(10)
#define OX_QP_AT_ACCESS_CON_F OX_QP_AT_BIT(11)
#define OX_QP_AT_PHY_PORT_NUM OX_QP_AT_BIT(12)
#define OX_QP_AT_P_KEY_IX OX_QP_AT_BIT(13)
#define OX_QP_AT_Q_KEY OX_QP_AT_BIT(14)
#define OX_QP_AT_DEST_QP OX_QP_AT_BIT(16)
#define OX_QP_AT_DEST_RDMA_ATOM_OUT_NUM OX_QP_AT_BIT(17)
#define OX_QP_AT_RESP_RDMA_ATOM_OUT_NUM OX_QP_AT_BIT(18)
#define OX_QP_AT_MIN_RNR_NAK_T OX_QP_AT_BIT(19)
#define OX_QP_AT_ADD_VEC OX_QP_AT_BIT(20)
#define OX_QP_AT_PATH_MIG_STATE OX_QP_AT_BIT(21)
#define OX_QP_AT_ALT_PATH OX_QP_AT_BIT(22)
#define OX_QP_AT_L_ACK_T OX_QP_AT_BIT(24)
#define OX_QP_AT_RETRY_NUM OX_QP_AT_BIT(25)
#define OX_QP_AT_RNR_NUM OX_QP_AT_BIT(26)
#define OX_QP_AT_SQD_NOTIFY OX_QP_AT_BIT(27)
#define OX_QP_AT_OPTIONAL OX_QP_AT_BIT(28) /* the opt_* fields of RTR and RTS are present */
#define OX_QP_AT_BIT_COUNT 30              /* bits 0..29 have a translation */

/* ---------------------------------------------------------------------------------------------
 * Addresses
 * ------------------------------------------------------------------------------------------- */

/* A GID. The generic byte order is the reverse of the wire/vendor order: byte i here is byte
 * 15 - i there. The scope view reads the first 8 bytes as the interface id and the last 8 as the
 * subnet prefix. */
typedef union ox_gid_st {
    u8 gid[16];
    struct {
        u64 eui64;
        u64 subnet;
    } scope;
} ox_gid_t;

typedef struct ox_add_vec_global_d_st {
    u32 flow_lable;
    u8 hope_limit;
    u32 traffic_class;
    u32 s_gid_index;
    ox_gid_t d_gid;
} ox_add_vec_global_d_t;

/* Address vector: a path to a remote port. */
typedef struct ox_add_vec_st {
    u8 phy_port_num;
    ox_service_level_t service_level;
    unsigned char grh_flag;
    ox_lid_t dlid;
    ox_mtu_t pmtu;
    u8 max_static_rate;
    u32 l_ack_timeout;
    u32 retry_count;
    u32 rnr_retry_count;
    u32 source_path_bit;
    ox_add_vec_global_d_t global_dest;
} ox_add_vec_t;

typedef struct ox_alternate_path_st {
    u16 al_path_p_key_indx;
    u8 al_path_port_num;
    ox_add_vec_t al_path_add_vec;
} ox_alternate_path_t;

/* ---------------------------------------------------------------------------------------------
 * HCA and port attributes
 * ------------------------------------------------------------------------------------------- */

typedef struct ox_vendor_attrib_st {
    u32 vendor_id;
    u32 part_id;
    u32 hw_version;
} ox_vendor_attrib_t;

typedef struct ox_sma_address_info_st {
    ox_lid_t sm_lid;
    ox_service_level_t service_level;
} ox_sma_address_info_t;

typedef struct ox_port_attrib_st {
    ox_port_num_t port_num;
    ox_mtu_t port_mtu;
    u32 port_message_size;
    ox_port_state_t port_state;
    ox_lid_t port_base_lid;
    u8 port_lmc;
    u32 port_sgid_table_size;
    u32 port_parti_table_size;
    u32 port_max_vl_num;
    u32 port_bad_p_key_count;
    u32 port_bad_q_key_count;
    ox_sma_address_info_t port_sma_address_info;
    u32 port_capability_support; /* ox_port_cap_* bits */
} ox_port_attrib_t;

/* HCA capabilities (query) and the attributes an HCA modify reads. The capability flags hold
 * the masked bit of the vendor's flag word (non-zero when set), not 0/1. */
typedef struct ox_hca_attrib_st {
    u32 max_qp_num;
    u32 max_outstand_wr_on_qp;
    u8 support_modify_outstand_wr;
    u8 bad_p_key_count_f;
    u8 bad_q_key_count_f;
    u8 support_raw_multicast;
    u8 support_path_migration;
    u8 ability_change_prim_phy_port;
    u32 max_scatgat_per_wr;
    u32 max_rd_scatgat_per_wr;
    u32 max_cq_num;
    u32 max_cq_entries;
    u32 max_mem_region_num;
    u64 max_block_size_byte;
    u32 max_pd_num;
    u32 page_size;
    ox_port_num_t port_num;
    u32 max_partition_num;
    u64 guid;
    u32 ack_delay;
    u32 max_read_atom_eec_outstanding;
    u32 max_read_atom_resources;
    u32 max_qp_depth_for_init_read_atom;
    u32 max_eec_depth_for_init_read_atom;
    u32 atom_suport;
    u32 max_eec_num;
    u32 max_rdd_num;
    u32 max_mem_win_num;
    u32 max_raw_ipv6_qp_num;
    u32 max_raw_eter_qp_num;
    u32 max_multicast_group;
    u32 max_qp_num_per_multicast_group;
    u32 max_add_handle;
    u32 max_fmr_num;
    u32 max_maps_per_fmr;
    ox_vendor_attrib_t vendor_attrib;
    /* HCA modify: the port attributes to apply, first record = port_num's port. Not written by a
     * query. */
    ox_port_attrib_t *port_attrib_list;
} ox_hca_attrib_t;

/* What a provider remembers of an HCA's capabilities after open. */
typedef struct ox_hca_cap_query_st {
    ox_port_num_t port_num; /* number of physical ports */
} ox_hca_cap_query_t;

/* ---------------------------------------------------------------------------------------------
 * Queue pair attributes: one union for create, its result, modify, its result and query
 * ------------------------------------------------------------------------------------------- */

typedef struct ox_qp_create_st {
    ox_qp_type_t qp_type;
    ox_cq_h_t cq_send_h;
    ox_cq_h_t cq_receive_h;
    u32 send_max_outstand_wr;
    u32 receive_max_outstand_wr;
    u32 max_scatgat_per_send_wr;
    u32 max_scatgat_per_receive_wr;
    ox_rdd_h_t rdd_h;
    ox_signaling_type_t signaling_type;
    ox_pd_h_t pd_h;
    ox_signaling_type_t recv_solicited_events;
} ox_qp_create_t;

typedef struct ox_qp_creat_ret_st {
    u32 qp_num;
    u32 send_max_outstand_wr;
    u32 receive_max_outstand_wr;
    u32 max_scatgat_per_send_wr;
    u32 max_scatgat_per_receive_wr;
} ox_qp_creat_ret_t;

typedef struct ox_qp_modify_init_st {
    ox_p_key_t p_key_indx;
    u8 phy_port_num;
    ox_q_key_t q_key;
    ox_access_con_bit_mask_t access_control;
} ox_qp_modify_init_t;

typedef struct ox_qp_modify_rtr_st {
    ox_add_vec_t remote_add_vec;
    ox_qp_t destanation_qp;
    ox_psn_t receive_psn;
    u32 responder_rdma_r_atom_num;
    ox_access_con_bit_mask_t opt_access_control;
    ox_alternate_path_t opt_alternate_path;
    ox_q_key_t opt_q_key;
    ox_p_key_t opt_p_key_indx;
    u32 opt_send_max_outstand_wr;
    u32 opt_receive_max_outstand_wr;
    ox_rnr_nak_time_delay_t opt_min_rnr_nak_timer;
} ox_qp_modify_rtr_t;

typedef struct ox_qp_modify_rts_st {
    u32 local_ack_timeout;
    u32 retry_num;
    u32 rnr_num;
    ox_psn_t send_psn;
    u32 dest_out_rdma_r_atom_num;
    u8 flow_control;
    ox_access_con_bit_mask_t opt_access_control;
    ox_q_key_t opt_q_key;
    ox_alternate_path_t opt_alternate_path;
    ox_path_migrate_state_t opt_path_migrate_state;
    u32 opt_send_max_outstand_wr;
    u32 opt_receive_max_outstand_wr;
    ox_rnr_nak_time_delay_t opt_min_rnr_nak_timer;
    u8 sqd_state; /* ask for an event when the send queue has drained */
} ox_qp_modify_rts_t;

/* Options of the SQE->RTS and SQD->RTS transitions (refused by the current provider). */
typedef struct ox_qp_modify_sqe_to_rts_st {
    ox_access_con_bit_mask_t opt_access_control;
    ox_q_key_t opt_q_key;
    ox_rnr_nak_time_delay_t opt_min_rnr_nak_timer;
} ox_qp_modify_sqe_to_rts_t;

typedef struct ox_qp_modify_sqd_to_rts_st {
    ox_access_con_bit_mask_t opt_access_control;
    ox_q_key_t opt_q_key;
    ox_p_key_t opt_p_key_indx;
    ox_alternate_path_t opt_alternate_path;
    ox_path_migrate_state_t opt_path_migrate_state;
    u32 opt_send_max_outstand_wr;
    u32 opt_receive_max_outstand_wr;
    ox_rnr_nak_time_delay_t opt_min_rnr_nak_timer;
} ox_qp_modify_sqd_to_rts_t;

typedef struct ox_qp_modify_st {
    ox_qp_state_t qp_modify_into_state;
    ox_qp_at_mask_t ox_qp_attr_mask;
    ox_qp_type_t qp_type;
    union operation { /* chosen by qp_modify_into_state */
        ox_qp_modify_init_t init;
        ox_qp_modify_rtr_t rtr;
        ox_qp_modify_rts_t rts;
        ox_qp_modify_sqe_to_rts_t sqe_to_rts;
        ox_qp_modify_sqd_to_rts_t sqd_to_rts;
    } params;
} ox_qp_modify_t;

typedef struct ox_qp_modify_ret_st {
    u32 send_max_outstand_wr;
    u32 receive_max_outstand_wr;
} ox_qp_modify_ret_t;

typedef struct ox_qp_query_st {
    ox_qp_at_mask_t ox_qp_attr_mask;
    ox_qp_t qp_num;
    ox_qp_type_t qp_type;
    ox_qp_state_t qp_state;
    ox_cq_h_t cq_send_h;
    ox_cq_h_t cq_receive_h;
    u32 send_max_outstand_wr;
    u32 receive_max_outstand_wr;
    u32 max_scatgat_per_send_wr;
    u32 max_scatgat_per_receive_wr;
    ox_psn_t send_psn;
    ox_psn_t receve_psn;
    ox_access_con_bit_mask_t access_control;
    u8 phy_port_num;
    ox_p_key_t primary_p_key_indx;
    ox_q_key_t q_key;
    ox_rdd_h_t rdd_h;
    ox_qp_t destanation_qp;
    u32 rdma_r_atom_outstand_num;
    u32 responder_rdma_r_atom_num;
    ox_rnr_nak_time_delay_t min_rnr_nak_timer;
    ox_add_vec_t primary_add_vec;
    ox_path_migrate_state_t path_migrate_state;
    ox_alternate_path_t alternate_path;
    u32 max_send_inline_data;
    ox_pd_h_t pd_h;
    ox_signaling_type_t recv_solicited_events;
    ox_signaling_type_t send_signaled_comp;
    u8 flow_control;
} ox_qp_query_t;

typedef union ox_qp_attr_st {
    ox_qp_create_t create;
    ox_qp_creat_ret_t create_return;
    ox_qp_modify_t modify;
    ox_qp_modify_ret_t modify_return;
    ox_qp_query_t query;
} ox_qp_attr_t;

/* ---------------------------------------------------------------------------------------------
 * Work requests
 * ------------------------------------------------------------------------------------------- */

/* One gather/scatter entry: a kernel virtual address in the provider's generic registration. */
typedef struct ox_scatgat_st {
    unsigned long v_address;
    u32 length;
    ox_l_key_t l_key;
} ox_scatgat_t;

typedef struct ox_atomic_operands_st {
    unsigned long atom_first_operand;
    unsigned long atom_second_operand;
    unsigned long atom_return_operand;
} ox_atomic_operands_t;

typedef struct ox_rc_type_st {
    unsigned char fance_indicator;
    unsigned long r_addr;
    ox_r_key_t r_r_key;
    unsigned char atomic;
    ox_atomic_operands_t atomic_operands;
} ox_rc_type_t;

typedef struct ox_uc_type_st {
    unsigned long r_addr;
    ox_r_key_t r_r_key;
    unsigned char atomic;
    ox_atomic_operands_t atomic_operands;
} ox_uc_type_t;

typedef struct ox_rd_type_st {
    unsigned char fance_indicator;
    unsigned long r_addr;
    ox_r_key_t r_r_key;
    ox_qp_t r_qp_num;
    ox_q_key_t r_q_key;
    u32 eec_number;
} ox_rd_type_t;

typedef struct ox_ud_type_st {
    ox_add_h_t r_add_h;
    ox_add_vec_t *p_add_vec;
    ox_qp_t r_qp_num;
    ox_q_key_t r_q_key;
} ox_ud_type_t;

typedef struct ox_send_wr_st {
    unsigned char immidiate_data_indicator;
    u32 immidiate_data;
    unsigned char solicited_event;
    union qp_type { /* chosen by the post's ox_wr_operation_type_t */
        ox_rc_type_t rc_type;
        ox_uc_type_t uc_type;
        ox_rd_type_t rd_type;
        ox_ud_type_t ud_type;
    } send_qp_type;
} ox_send_wr_t;

typedef struct ox_send_raw_st {
    u32 etertype;
    u8 static_rate;
    ox_qp_t r_qp_num;
    ox_lid_t dlid;
    u32 source_path_bit;
    ox_service_level_t service_level;
} ox_send_raw_t;

typedef struct ox_receive_wr_st {
    u32 not_used;
} ox_receive_wr_t;

typedef struct ox_bind_wr_st {
    ox_mem_win_h_t mem_win_h;
    ox_r_key_t current_r_key;
    ox_r_key_t new_r_key;
    ox_mem_reg_h_t mem_region;
    ox_scatgat_t address;
    ox_access_con_bit_mask_t opt_access_control;
} ox_bind_wr_t;

typedef struct ox_wr_st {
    ox_wr_id_t wr_id;
    unsigned char completion_notification; /* 0 unsignalled, otherwise signalled */
    ox_scatgat_t *scatgat_list;
    u32 num_of_data_segments;
    void *user_define_p;
    ox_wr_operation_t wr_type;
    union operation_type {
        ox_send_wr_t send;
        ox_send_raw_t send_raw;
        ox_receive_wr_t receive;
        ox_bind_wr_t bind;
    } type;
} ox_wr_t;

/* ---------------------------------------------------------------------------------------------
 * Work completions
 * ------------------------------------------------------------------------------------------- */

typedef struct ox_datag_addr_info_st {
    ox_lid_t slid;
    ox_service_level_t sl;
    ox_qp_t source_qp;
    u16 etertype;
    u32 eec_number;
    u32 dlid_path_bits;
    ox_qp_type_t remote_qp_type;
} ox_datag_addr_info_t;

typedef struct ox_wc_st {
    ox_wr_id_t wr_id;
    ox_wc_operation_t operation_type;
    unsigned long num_bytes_transfered;
    unsigned char immidiate_data_indicator;
    u32 immidiate_data;
    ox_datag_addr_info_t addres_info;
    unsigned char grh_indicator;
    u32 p_key_index;
    ox_comp_status_t completion_status;
    u32 freed_resource;
} ox_wc_t;

/* ---------------------------------------------------------------------------------------------
 * Memory: physical buffer lists and fast memory regions
 * ------------------------------------------------------------------------------------------- */

/* One physical buffer; laid out as the vendor's physical buffer entry (start, then size) so a
 * list is handed over without copying. */
typedef struct ox_phy_buf_st {
    ox_phy_addr_t start;
    ox_phy_addr_t size;
} ox_phy_buf_t;

typedef struct ox_phy_list_st {
    u8 number_of_buff;
    ox_phy_buf_t *phy_list;
} ox_phy_list_t;

typedef struct ox_fmr_st {
    ox_pd_h_t pd_hndl;
    ox_access_con_bit_mask_t acl;
    u32 max_pages;
    u8 log2_page_sz;
    u32 max_outstanding_maps;
} ox_fmr_t;

typedef struct ox_fmr_map_st {
    void *start;
    u32 size;
    u32 page_array_len;
    unsigned long *page_array;
} ox_fmr_map_t;

/* ---------------------------------------------------------------------------------------------
 * Completion callbacks
 * ------------------------------------------------------------------------------------------- */

/* Called in interrupt context when a completion event fires on a CQ; the argument is the CQ
 * context given at CQ create. Must not sleep. */
typedef void (*ox_app_com_event_callback_t)(u64 cq_context);

/* An HCA-wide completion handler (providers may refuse to install one). */
typedef void (*ox_com_event_callback_t)(u64 cq_context);

__END_KERNEL_DECLS

#endif
