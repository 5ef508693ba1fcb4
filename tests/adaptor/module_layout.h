/* The module's records as its own headers define them, for the tests.
 *
 * The module's headers sit on the emulated kernel's C headers, which do not share a translation
 * unit with the C++ library. So module-layout.c includes them, in C, and this header hands the
 * tests what the C compiler measured: field offsets, sizes and signedness by name, the module's
 * constants by name, and calls into module routines typed by the module's own declarations.
 * No record is copied by hand. */
#ifndef ADAPTOR_TEST_MODULE_LAYOUT_H
#define ADAPTOR_TEST_MODULE_LAYOUT_H

#include <stddef.h>

#include "layout-table.h"

#ifdef __cplusplus
extern "C" {
#endif

/* The module's layout table (layout-table.h). Records known: "tavor_stats", "vapi_err_st",
 * "alloc_mem_t", "ox_opened_hca_t", "ox_gen_mr_element_t", "ox_asy_ev_element_t",
 * "ox_opened_cq_t", "ox_opened_qp_t", fields by their C name (nested ones with a dot; "acc_sg"
 * reads the atomic counter). Constants: accounting indexes mem_*_ix and mem_last_ix, function
 * indexes *_indx, return codes ox_return_*, LAST_VAPI_ERR_NUM, OX_OPENED_ARRAY_SLOTS, ... */
const struct layout_table *adp_layout(void);

/* The label of accounting row `index` of a table of alloc_mem_t. */
const char *adp_alloc_row_name(const void *table, int index);

/* Lists (struct list_head): the first node after `head` (null when empty), the number of nodes,
 * and re-initialising a head to empty without reading what it pointed at. Records are linked
 * through their first member, so a node's address is its record's. */
void *adp_list_first(const void *head);
int adp_list_count(const void *head);
void adp_list_reset(void *head);

/* Module routines, called with the types the module declares. */
void adp_call_record_vapi_err(const void *fn, unsigned func_ix, int stat);
void adp_call_mem_alloc(const void *fn, int index); /* mem_alloc_add or mem_alloc_del */
int adp_call_version_init(const void *fn, char *name, char *version, char *tag);
void adp_call_version_exit(const void *fn, char *name);
void adp_call_timer(const void *fn, unsigned long data);
unsigned long long adp_call_fold_node_guid(const void *fn, const unsigned char node_guid[8]);
int adp_call_status_to_ox(const void *fn, int vapi_status);

/* CQ dispatch: ox_mlx_get_user_cq_h (returns its ox_return_t) and the completion event handler. */
int adp_call_get_user_cq_h(const void *fn, void *hca, unsigned long vapi_handle, void **user_cq);
void adp_call_completion_handler(const void *fn, unsigned hca_hndl, unsigned long cq_hndl,
                                 void *private_data);

/* Tracking records an upper layer left on an HCA, linked the way CQ and QP creation link them:
 * at the head of the HCA's list and, for a VAPI handle up to 1000, in its array slot. Allocated
 * with the kernel's kmalloc so that the module can free them. Returns the record. */
void *adp_link_cq_record(void *hca, unsigned long vapi_handle);
void *adp_link_qp_record(void *hca, unsigned long vapi_handle);
/* A kernel allocation of `size` bytes (kmalloc), for records the module frees. */
void *adp_kmalloc(size_t size);
/* An asynchronous callback registration linked at the head of the HCA's list. */
void *adp_link_async_registration(void *hca);
/* An anchor of the tasklet's deferred delivery: the event record and one element per callback. */
void *adp_make_async_anchor(unsigned event_type, void *hca_app_h, const void *const *callbacks, int n);
void adp_call_async_tasklet(const void *fn, unsigned long data);
/* The VAPI asynchronous event handler called with a record of `type` whose modifier holds `modifier`. */
void adp_call_async_handler(const void *fn, unsigned hca_hndl, unsigned type, unsigned long modifier,
                            void *private_data);

/* The module's look-ups by VAPI handle (tracking-lookup.h), run on an HCA record: the record
 * found for `vapi_handle` (array for handles up to 1000, list above), or null. `last_seen`, when
 * given, receives the last record a list walk examined. */
void *adp_find_cq(void *hca, unsigned long long vapi_handle);
void *adp_find_qp(void *hca, unsigned long long vapi_handle);
void *adp_cq_in_list(void *hca, unsigned long long vapi_handle, void **last_seen);
void *adp_qp_in_list(void *hca, unsigned long long vapi_handle, void **last_seen);
int adp_handle_has_slot(unsigned long long vapi_handle);
/* The gather-address rule (gather-address.h) on an HCA record. */
unsigned long long adp_gather_address(void *hca, unsigned long v_addr);

/* Calls the seven memory slots that answer "not supported" (re-register, physical re-register,
 * shared register, window allocate, query, bind, deallocate) through `funcs` with junk arguments
 * and stores each result; returns the number of calls. */
int adp_call_unsupported_memory(const void *funcs, void *hca, int *results);

/* A function table (ox_hca_func_t) whose slots hold the module's exported symbols, found with
 * `lookup` ("oxi_mlx_<slot name>"); slots without a symbol stay null. Lives until the next call. */
const void *adp_table_of_exported_symbols(const void *(*lookup)(const char *name));

#ifdef __cplusplus
}
#endif

#endif
