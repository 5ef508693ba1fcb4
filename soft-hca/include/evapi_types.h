/* EVAPI: the InfiniHost verbs extensions (HCA lookup, completion handlers per CQ, fast memory
 * regions, list and inline posting, local MAD processing). Compiles as C (C11) and C++. */
#ifndef EVAPI_TYPES_H
#define EVAPI_TYPES_H

#include "vapi_types.h"

typedef MT_ulong_ptr_t EVAPI_compl_handler_hndl_t;
typedef MT_ulong_ptr_t EVAPI_fmr_hndl_t;

/* A fast memory region: allocated once, then mapped and unmapped cheaply, each map with new keys. */
typedef struct {
    VAPI_pd_hndl_t pd_hndl;
    VAPI_mrw_acl_t acl;
    u_int32_t max_pages;            /* pages one map may cover */
    u_int8_t log2_page_sz;          /* at least the system page size */
    u_int32_t max_outstanding_maps; /* maps allowed before an unmap is required */
} EVAPI_fmr_t;

typedef struct {
    VAPI_virt_addr_t start; /* IOVA of the first byte */
    VAPI_size_t size;
    u_int32_t page_array_len;
    VAPI_phy_addr_t *page_array; /* physical address of each page */
} EVAPI_fmr_map_t;

/* EVAPI_process_local_mad() options */
typedef u_int32_t EVAPI_proc_mad_opt_t;
#define EVAPI_MAD_IGNORE_MKEY 1

#define EVAPI_MAD_SIZE 256

#endif
