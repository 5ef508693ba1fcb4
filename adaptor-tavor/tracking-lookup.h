/* adaptor-mlx: finding an HCA's CQ and QP tracking records by their VAPI handle.
 *
 * Every record is on its HCA's list (opened_cq_list, opened_qp_list). A record whose VAPI handle
 * value is at most OX_OPENED_ARRAY_MAX_IX (1000) may also sit in the HCA's pointer array at the
 * index of that value, so the hot paths (completion and asynchronous events, the generator) find
 * it without a walk. A look-up tries the array for such handles and the list for the others.
 *
 * These helpers neither log nor lock: each caller logs its own messages and holds ox_mlx_sl where
 * its own rules say (array reads and stores are unlocked everywhere; list walks are not always).
 * Which records get an array slot is the creating entry point's decision. Compiles as C and C++. */
#ifndef AD_TAVOR_TRACKING_LOOKUP_H
#define AD_TAVOR_TRACKING_LOOKUP_H

#include <linux/types.h>
#include <linux/list.h>

#include "ox-adaptor-common.h"

__BEGIN_KERNEL_DECLS

/* Whether a VAPI handle value has a slot in the per-HCA arrays (0 to 1000, 1000 included). */
static inline int ox_mlx_handle_has_slot(u64 vapi_h) {
    return vapi_h <= OX_OPENED_ARRAY_MAX_IX;
}

/* ---- CQs ---------------------------------------------------------------------------------------- */

/* The array slot of a handle that has one (may be null). */
static inline ox_opened_cq_t *ox_mlx_cq_slot(const ox_opened_hca_t *hca, u64 vapi_h) {
    return hca->opened_cq_array[vapi_h];
}

static inline void ox_mlx_set_cq_slot(ox_opened_hca_t *hca, u64 vapi_h, ox_opened_cq_t *cq) {
    hca->opened_cq_array[vapi_h] = cq;
}

/* The first record on the list whose cq_h is `vapi_h`, or null. When `last_seen` is given it
 * receives the last record examined (null for an empty list), for callers that report it. */
static inline ox_opened_cq_t *ox_mlx_cq_in_list(const ox_opened_hca_t *hca, u64 vapi_h,
                                                ox_opened_cq_t **last_seen) {
    const struct list_head *pos;
    ox_opened_cq_t *cq = 0;

    list_for_each(pos, &hca->opened_cq_list) {
        cq = list_entry(pos, ox_opened_cq_t, list);
        if ((u64)(unsigned long)cq->cq_h == vapi_h) {
            if (last_seen) *last_seen = cq;
            return cq;
        }
    }
    if (last_seen) *last_seen = cq;
    return 0;
}

/* Array for handles up to 1000, list for the others. */
static inline ox_opened_cq_t *ox_mlx_find_cq(const ox_opened_hca_t *hca, u64 vapi_h) {
    if (ox_mlx_handle_has_slot(vapi_h)) return ox_mlx_cq_slot(hca, vapi_h);
    return ox_mlx_cq_in_list(hca, vapi_h, 0);
}

/* ---- QPs ---------------------------------------------------------------------------------------- */

static inline ox_opened_qp_t *ox_mlx_qp_slot(const ox_opened_hca_t *hca, u64 vapi_h) {
    return hca->opened_qp_array[vapi_h];
}

static inline void ox_mlx_set_qp_slot(ox_opened_hca_t *hca, u64 vapi_h, ox_opened_qp_t *qp) {
    hca->opened_qp_array[vapi_h] = qp;
}

static inline ox_opened_qp_t *ox_mlx_qp_in_list(const ox_opened_hca_t *hca, u64 vapi_h,
                                                ox_opened_qp_t **last_seen) {
    const struct list_head *pos;
    ox_opened_qp_t *qp = 0;

    list_for_each(pos, &hca->opened_qp_list) {
        qp = list_entry(pos, ox_opened_qp_t, list);
        if ((u64)(unsigned long)qp->qp_h == vapi_h) {
            if (last_seen) *last_seen = qp;
            return qp;
        }
    }
    if (last_seen) *last_seen = qp;
    return 0;
}

static inline ox_opened_qp_t *ox_mlx_find_qp(const ox_opened_hca_t *hca, u64 vapi_h) {
    if (ox_mlx_handle_has_slot(vapi_h)) return ox_mlx_qp_slot(hca, vapi_h);
    return ox_mlx_qp_in_list(hca, vapi_h, 0);
}

__END_KERNEL_DECLS

#endif
