/* The traffic tools' own calls into a provider's function table: what the upper-layer shim's
 * one-entry helpers leave out (unsignalled and inline requests, atomic operands) and a poll that
 * returns only what the tools read, all without allocating. C, for the same reason as the shim
 * (ulp_verbs.h): the generic verbs headers sit on the emulated kernel's C headers. */
#ifndef MARLIX_PERFTEST_OX_VERBS_H
#define MARLIX_PERFTEST_OX_VERBS_H

#include <stdint.h>

#include "ulp_verbs.h"

#ifdef __cplusplus
extern "C" {
#endif

enum pt_ox_op { pt_ox_send, pt_ox_write, pt_ox_read, pt_ox_cas, pt_ox_faa };
enum pt_ox_transport { pt_ox_rc, pt_ox_uc, pt_ox_ud };

struct pt_ox_request {
    uint64_t wr_id;
    enum pt_ox_op op;
    enum pt_ox_transport transport;
    int signaled;
    int inline_data;
    uint64_t addr; /* a kernel virtual address: the module turns it into one of its region */
    uint32_t length;
    uint32_t l_key;
    uint64_t remote_addr;
    uint32_t r_key;
    uint64_t compare_add;
    uint64_t swap;
    uint64_t ah; /* UD */
    uint32_t remote_qpn;
    uint32_t q_key;
};

int pt_ox_post_send(const ulp_funcs_t *funcs, void *hca, void *qp, const struct pt_ox_request *request);
int pt_ox_post_receive(const ulp_funcs_t *funcs, void *hca, void *qp, uint64_t wr_id, uint64_t addr,
                       uint32_t length, uint32_t l_key);
/* 1: a completion (its id, generic status and byte count stored); 0: the CQ is empty; otherwise
 * the entry point's ox_return_t, negated. */
int pt_ox_poll(const ulp_funcs_t *funcs, void *hca, void *cq, uint64_t *wr_id, int *status,
               uint32_t *byte_len);
/* Arms the CQ for its next completion of any kind. */
int pt_ox_arm(const ulp_funcs_t *funcs, void *hca, void *cq);

#ifdef __cplusplus
}
#endif

#endif
