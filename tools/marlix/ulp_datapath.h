/* The upper-layer verbs shim, data path: posting, polling, arming, address handles, multicast,
 * FMRs, device memory and local MADs, all through a provider's function table (see ulp_verbs.h
 * for why this is C and speaks plain types).
 *
 * Two levels:
 *  - the raw calls take the generic records as opaque buffers (ox_wr_t, ox_wc_t, ox_add_vec_t,
 *    ox_fmr_t, ox_fmr_map_t, and VAPI descriptors for the VAPI forms) of ulp_sizeof_*() bytes,
 *    for callers that fill every field themselves;
 *  - the simple calls build a one-entry request from plain values, as an upper-layer protocol
 *    does, and describe a completion in one line with the generic field names. */
#ifndef MARLIX_ULP_DATAPATH_H
#define MARLIX_ULP_DATAPATH_H

#include <stddef.h>
#include <stdint.h>

#include "ulp_verbs.h"

#ifdef __cplusplus
extern "C" {
#endif

size_t ulp_sizeof_wr(void);
size_t ulp_sizeof_scatgat(void);
size_t ulp_sizeof_wc(void);
size_t ulp_sizeof_add_vec(void);
size_t ulp_sizeof_fmr(void);
size_t ulp_sizeof_fmr_map(void);

/* ---- Raw calls: generic records as opaque buffers ------------------------------------------- */

int ulp_post_send(const ulp_funcs_t *funcs, void *hca, void *qp, void *wr, int operation_type);
int ulp_post_send_vapi(const ulp_funcs_t *funcs, void *hca, void *qp, void *vapi_sr_desc);
int ulp_post_send_nop(const ulp_funcs_t *funcs, void *hca, void *qp, void *wr, int operation_type);
int ulp_instant_send(const ulp_funcs_t *funcs, void *hca, void *qp, void *packet, uint32_t length);
int ulp_post_gsi_send_on_pkey(const ulp_funcs_t *funcs, void *hca, void *qp, void *wr, int operation_type,
                              int pkey_index);
int ulp_inline_post_send(const ulp_funcs_t *funcs, void *hca, void *qp, void *wr, int operation_type);
/* `wrs` is an array of `count` ox_wr_t. */
int ulp_post_send_list(const ulp_funcs_t *funcs, void *hca, void *qp, uint32_t count, void *wrs,
                       int operation_type);
int ulp_post_receive(const ulp_funcs_t *funcs, void *hca, void *qp, void *wr);
int ulp_post_receive_list(const ulp_funcs_t *funcs, void *hca, void *qp, uint32_t count, void *wrs);
int ulp_post_receive_vapi(const ulp_funcs_t *funcs, void *hca, void *qp, void *vapi_rr_desc);
int ulp_post_receive_list_vapi(const ulp_funcs_t *funcs, void *hca, void *qp, uint32_t count,
                               void *vapi_rr_descs);

int ulp_poll(const ulp_funcs_t *funcs, void *hca, void *cq, void *wc);
int ulp_poll_vapi(const ulp_funcs_t *funcs, void *hca, void *cq, void *vapi_wc_desc);
/* `solicited_only`: 1 arms for the next solicited completion, 0 for the next of any kind; other
 * values are passed as they are. */
int ulp_request_notification(const ulp_funcs_t *funcs, void *hca, void *cq, int solicited_only_or_raw);
int ulp_peek_cq(const ulp_funcs_t *funcs, void *hca, int arg);
int ulp_set_completion_event_handler(const ulp_funcs_t *funcs, void *hca, void *handler);

int ulp_ah_create(const ulp_funcs_t *funcs, void *hca, uint32_t pd, void *add_vec, uint64_t *ah);
int ulp_ah_modify(const ulp_funcs_t *funcs, void *hca, uint64_t ah, void *add_vec);
int ulp_ah_query(const ulp_funcs_t *funcs, void *hca, uint64_t ah, void *add_vec, uint32_t *pd);
int ulp_ah_destroy(const ulp_funcs_t *funcs, void *hca, uint64_t ah);

/* `gid`: 16 bytes in the generic order. */
int ulp_mcast_attach(const ulp_funcs_t *funcs, void *hca, uint16_t dlid, const uint8_t *gid, void *qp);
int ulp_mcast_detach(const ulp_funcs_t *funcs, void *hca, uint16_t dlid, const uint8_t *gid, uint32_t port,
                     void *qp);

int ulp_fmr_alloc(const ulp_funcs_t *funcs, void *hca, void *fmr, uint64_t *fmr_h);
int ulp_fmr_map(const ulp_funcs_t *funcs, void *hca, uint64_t fmr_h, void *map, uint32_t *l_key,
                uint32_t *r_key);
int ulp_fmr_unmap(const ulp_funcs_t *funcs, void *hca, uint32_t count, uint64_t *fmr_hs);
int ulp_fmr_free(const ulp_funcs_t *funcs, void *hca, uint64_t fmr_h);

int ulp_alloc_dev_mem(const ulp_funcs_t *funcs, void *hca, int arg);
int ulp_free_dev_mem(const ulp_funcs_t *funcs, void *hca, int arg);
int ulp_process_local_mad(const ulp_funcs_t *funcs, void *hca, unsigned port, uint16_t slid,
                          const void *mad_in, void *mad_out);

/* ---- Simple calls ------------------------------------------------------------------------------ */

/* Operations of a simple send. */
enum ulp_send_op {
    ulp_op_send,
    ulp_op_send_imm,
    ulp_op_write,
    ulp_op_write_imm,
    ulp_op_read,
    ulp_op_cas,
    ulp_op_faa
};

/* Where a simple send goes: a connected QP's remote buffer (RC, UC), or a datagram destination. */
struct ulp_send_target {
    uint64_t remote_addr; /* RDMA and atomics */
    uint32_t r_key;
    uint64_t ah;         /* UD */
    uint32_t remote_qpn; /* UD */
    uint32_t q_key;      /* UD */
};

/* Transport of a simple send: "rc", "uc", "ud" as ox_wr_operation_type_t. */
int ulp_operation_type(const char *transport);

/* A send request in plain values: one gather entry (none when `length` is 0) and the forms an
 * upper layer chooses per request. Zeroed, it is a signalled request posted the ordinary way. */
struct ulp_send_request {
    enum ulp_send_op op;
    uint64_t wr_id;
    void *addr; /* a kernel virtual address: the module turns it into one of its region */
    uint32_t length;
    uint32_t l_key;
    int unsignalled;      /* no completion unless the QP signals every request */
    int inline_data;      /* through the inline entry point: the data is copied at post time */
    uint64_t compare_add; /* atomics: the compare (CAS) or add (FAA) operand */
    uint64_t swap;        /* atomics: the swap operand (CAS) */
    struct ulp_send_target target;
};

/* Builds the generic request (on the stack: nothing is allocated) and posts it. */
int ulp_post_send_request(const ulp_funcs_t *funcs, void *hca, void *qp, int operation_type,
                          const struct ulp_send_request *request);

/* One signalled request with one gather entry (or none when `length` is 0). */
int ulp_post_send_simple(const ulp_funcs_t *funcs, void *hca, void *qp, int operation_type,
                         enum ulp_send_op op, uint64_t wr_id, void *addr, uint32_t length, uint32_t l_key,
                         const struct ulp_send_target *target);
int ulp_post_receive_simple(const ulp_funcs_t *funcs, void *hca, void *qp, uint64_t wr_id, void *addr,
                            uint32_t length, uint32_t l_key);

/* A completion in plain values. */
struct ulp_completion {
    uint64_t wr_id;
    int operation_type;
    unsigned long num_bytes_transfered;
    int immidiate_data_indicator;
    uint32_t immidiate_data;
    int completion_status;
    uint32_t source_qp;
    uint16_t slid;
};
/* The poll's status for an empty CQ (ox_return_err_cq_empty). */
extern const int ulp_cq_empty;

/* Polls once; on ox_return_ok fills `out` (may be null) and, when `line` is given, describes the
 * completion with the generic field names. */
int ulp_poll_simple(const ulp_funcs_t *funcs, void *hca, void *cq, struct ulp_completion *out, char *line,
                    size_t len);

/* Names of the generic enumerators. */
const char *ulp_wc_operation_name(int operation_type);
const char *ulp_comp_status_name(int completion_status);

/* A UD address vector: port 1, the DLID and SL given, no GRH. */
int ulp_ah_create_simple(const ulp_funcs_t *funcs, void *hca, uint32_t pd, uint16_t dlid, uint8_t sl,
                         uint64_t *ah);

#ifdef __cplusplus
}
#endif

#endif
