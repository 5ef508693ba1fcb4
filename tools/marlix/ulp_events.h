/* The upper-layer verbs shim, asynchronous events: registering an upper layer's callback with a
 * provider and receiving the events it delivers, in plain C types (see ulp_verbs.h).
 *
 * A provider calls back one function per registration, with the generic event record by value and
 * nothing else. The shim offers ULP_ASYNC_SINKS such functions, one per slot: a caller registers
 * slot n on an HCA and learns from the slot which of its registrations an event reached. Each
 * delivered record is converted into a ulp_async_event and handed to the one receiver set with
 * ulp_async_set_receiver, in the provider's (interrupt) context. */
#ifndef MARLIX_ULP_EVENTS_H
#define MARLIX_ULP_EVENTS_H

#include <stddef.h>
#include <stdint.h>

#include "ulp_verbs.h"

#ifdef __cplusplus
extern "C" {
#endif

#define ULP_ASYNC_SINKS 8

/* One delivered event, as the generic record carries it. `object` is the QP or CQ handle of QP and
 * CQ events (null otherwise), `qp_num` the QP's number, `context` the object's context. */
typedef struct ulp_async_event {
    unsigned slot;
    uint32_t event_type;
    void *hca_app_h;
    void *object;
    uint32_t qp_num;
    void *context;
    uint8_t port_num;
} ulp_async_event;

typedef void (*ulp_async_receiver)(const ulp_async_event *event);

/* The function events of every slot go to (null: dropped). */
void ulp_async_set_receiver(ulp_async_receiver receiver);

/* The callback of slot `slot` as a provider sees it, for comparing with what a provider stored. */
const void *ulp_async_sink(unsigned slot);

/* Registers slot `slot` on the HCA for `req_event_type` (an ox_request_async_record_t value);
 * `object` is the QP or CQ handle of the specific kinds, or null. */
int ulp_async_register(const ulp_funcs_t *funcs, void *hca, unsigned slot, uint32_t req_event_type,
                       void *object);
/* Removes every registration of slot `slot` on the HCA. */
int ulp_async_unregister(const ulp_funcs_t *funcs, void *hca, unsigned slot);

/* "ox_async_r_port", ...; "ox_async_r_?" for a value that names no kind. */
const char *ulp_async_event_name(uint32_t event_type);
/* Whether a kind is about a QP, a CQ, or an HCA or port (the modifier the record carries). */
int ulp_async_event_is_qp(uint32_t event_type);
int ulp_async_event_is_cq(uint32_t event_type);

/* Request kinds by value ("ox_async_even_all", ...); -1 when unknown. */
long ulp_async_request_value(const char *name);

#ifdef __cplusplus
}
#endif

#endif
