/* Asynchronous events of the generic verbs interface: the event kinds, the record handed to an
 * upper layer's callback, and the request an upper layer registers with. */
#ifndef OX_ASYNC_TYPE_I_H
#define OX_ASYNC_TYPE_I_H

#include "ox-types.h"

__BEGIN_KERNEL_DECLS

/* Kind of an asynchronous event, one bit each. */
typedef enum ox_async_record_en {
    ox_async_r_path_migrated_ev = 1,
    ox_async_r_com_est_ev = 2,
    ox_async_r_send_q_drained_ev = 4,
    ox_async_r_l_wq_err = 8,
    ox_async_r_path_migrated_err = 16,
    ox_async_r_eec_path_migrated_ev = 32,
    ox_async_r_eec_com_est_ev = 64,
    ox_async_r_l_eec_err = 128,
    ox_async_r_cq_err = 256,
    ox_async_r_l_err = 512,
    ox_async_r_port = 1024,
    ox_async_r_port_link = 2048,
    ox_async_r_port_mtu = 4096,
    ox_async_r_port_lid = 8192,
    ox_async_r_port_pkey_in = 16384,
    ox_async_r_port_pkey_out = 32768,
    ox_async_r_port_link_up = 65536,
    ox_async_r_port_link_down = 131072,
    ox_async_r_port_sm_change = 262144,
    ox_async_r_gid_in = 524288,
    ox_async_r_gid_out = 1048576,
    ox_async_r_mc_group_create = 2097152,
    ox_async_r_mc_group_delete = 4194304
} ox_async_record_t;

/* What a registration asks for. The first five are the "all" kinds (mask 0x1f). */
typedef enum ox_request_async_record_en {
    ox_async_even_all_qp = 1,
    ox_async_even_all_cq = 2,
    ox_async_even_all_eec = 4,
    ox_async_even_all_hca = 8,
    ox_async_even_all = 16,
    ox_async_even_qp = 32,
    ox_async_even_cq = 64,
    ox_async_even_eec = 128,
    ox_async_even_hca = 256,
    ox_async_even_port = 512
} ox_request_async_record_t;

#define OX_ASYNC_EVEN_ALL_KINDS 0x1f

/* The record an upper layer's asynchronous callback receives, by value. */
typedef struct ox_event_record_st {
    ox_async_record_t event_type;
    ox_hca_h_t hca_app_h; /* the HCA as the upper layer knows it (its open context) */
    union type_ev_re_un {
        struct qp_st {
            ox_qp_h_t qp_h;
            ox_qp_t qp_num;
            ox_qp_context_t context;
        } qp;
        struct cq_st {
            ox_cq_h_t cq_h;
            ox_cq_context_t context;
        } cq;
        struct eec_st {
            ox_eec_h_t eec_h;
            ox_eec_context_t context;
        } eec;
        ox_gid_t gid;
        u64 data;
    } type;
    u8 port_num;
} ox_event_record_t;

/* A registration request, passed by value: the kind wanted and, for the specific kinds, the
 * object it is about. */
typedef struct ox_request_event_record_st {
    ox_request_async_record_t req_event_type;
    union type_h_un {
        ox_hca_h_t hca_h;
        ox_qp_h_t qp_h;
        ox_cq_h_t cq_h;
        ox_eec_h_t eec_h;
    } type;
} ox_request_event_record_t;

/* An upper layer's asynchronous event callback. Called in interrupt or tasklet context; must
 * not sleep. */
typedef void (*ox_app_async_event_callback_t)(ox_event_record_t event_record);

__END_KERNEL_DECLS

#endif
