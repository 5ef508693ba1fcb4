/* The upper-layer verbs shim for completion queues and queue pairs (see ulp_verbs.h for the why).
 *
 * QP attribute records (the generic ox_qp_attr_t union: create request and result, modify request
 * and result, query result) travel as opaque buffers of ulp_sizeof_qp_attr() bytes, zeroed by the
 * caller, whose fields are read and written by their C path: "create.qp_type",
 * "modify.params.rtr.remote_add_vec.dlid", "query.qp_state"; GIDs (16 bytes) through
 * ulp_qp_attr_bytes(). Every call goes through the provider's function table. */
#ifndef MARLIX_ULP_VERBS_QUEUES_H
#define MARLIX_ULP_VERBS_QUEUES_H

#include <stddef.h>
#include <stdint.h>

#include "ulp_verbs.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Completion queues -------------------------------------------------------------------------- */

/* An upper layer's completion callback: called with the CQ's context. */
typedef void (*ulp_cq_callback_t)(uint64_t context);

int ulp_cq_create(const ulp_funcs_t *funcs, void *hca, uint32_t entries, ulp_cq_callback_t callback,
                  void *context, void **cq, uint32_t *actual);
int ulp_cq_query(const ulp_funcs_t *funcs, void *hca, void *cq, uint32_t *size, void **context);
int ulp_cq_resize(const ulp_funcs_t *funcs, void *hca, void *cq, uint32_t entries, uint32_t *actual);
int ulp_cq_modify_attrib(const ulp_funcs_t *funcs, void *hca, void *cq, void *context,
                         ulp_cq_callback_t callback);
int ulp_cq_destroy(const ulp_funcs_t *funcs, void *hca, void *cq);

/* ---- QP attribute records ------------------------------------------------------------------------- */

size_t ulp_sizeof_qp_attr(void);
/* 0, or -1 for an unknown field (or a GID, which is reached through ulp_qp_attr_bytes). */
int ulp_qp_attr_set(void *attr, const char *field, uint64_t value);
int ulp_qp_attr_get(const void *attr, const char *field, uint64_t *value);
/* The 16 bytes of a GID field ("modify.params.rtr.remote_add_vec.global_dest.d_gid", ...), or null. */
uint8_t *ulp_qp_attr_bytes(void *attr, const char *field);
/* The names of the integer fields under `prefix` ("query.", "modify.params.rtr."), in record order:
 * the i-th such name, or null past the last. */
const char *ulp_qp_attr_field_name(const char *prefix, size_t i);

/* The generic mask bit (OX_QP_AT_*) that a modify field belongs to, or 0 for a field no bit
 * selects. `field` is the path under "modify.params.<state>." ("q_key", "remote_add_vec.dlid"). */
uint64_t ulp_qp_modify_field_mask(const char *state, const char *field);

/* "ox_qp_state_rts", ...; "ox_qp_state_?" outside the enumeration. */
const char *ulp_qp_state_name(int state);
/* The value of a state's short name ("reset", "init", "rtr", "rts", "sqd", "err"...), or -1. */
int ulp_qp_state_value(const char *short_name);
/* "ox_qp_type_r_conn", ...; "ox_qp_type_?" outside the enumeration. */
const char *ulp_qp_type_name(int type);
/* The value of a type's short name ("rc", "uc", "rd", "ud", "smi", "gsi", "raw_ipv6",
 * "raw_eter"), or -1. */
int ulp_qp_type_value(const char *short_name);

/* ---- Queue pairs ------------------------------------------------------------------------------------ */

int ulp_qp_create(const ulp_funcs_t *funcs, void *hca, void *attr_req, void *context, void **qp,
                  void *attr_out);
int ulp_qp_get_special(const ulp_funcs_t *funcs, void *hca, unsigned port, void *attr_req, void *context,
                       void **qp, void *attr_out);
/* `attr_out` may be null. */
int ulp_qp_modify(const ulp_funcs_t *funcs, void *hca, void *qp, void *attr_req, void *attr_out);
int ulp_qp_query(const ulp_funcs_t *funcs, void *hca, void *qp, void **context, void *attr_out);
int ulp_qp_destroy(const ulp_funcs_t *funcs, void *hca, void *qp);
int ulp_qp_context_set(const ulp_funcs_t *funcs, void *hca, void *qp, void *context);
int ulp_qp_add_h(const ulp_funcs_t *funcs, void *hca, void *qp, int qpn);
int ulp_qp_rem_h(const ulp_funcs_t *funcs, void *hca, void *qp, int qpn);
int ulp_eec_calls(const ulp_funcs_t *funcs, void *hca, int *results); /* the four EEC slots; returns 4 */

#ifdef __cplusplus
}
#endif

#endif
