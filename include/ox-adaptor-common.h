/* The HCA adaptor's tracking records: one per opened HCA, generic memory registration, CQ, QP and
 * asynchronous event registration.
 *
 * The handles the upper layers hold (ox_hca_h_t of an open, ox_cq_h_t, ox_qp_h_t) are the
 * addresses of these records.
 *
 * Lists: every record that lives on a list starts with its typed `next` and `prev` links, which
 * share their storage with a kernel list node (`list`). A list head is a plain struct list_head;
 * add and remove through the node (list_add(&cq->list, &hca->opened_cq_list)) and walk either way.
 * The last record's `next` points back at the head, not at a record: a typed walk stops when
 * `&rec->list` is the head. */
#ifndef OX_ADAPTOR_COMMON_H
#define OX_ADAPTOR_COMMON_H

#include <linux/types.h>
#include <linux/list.h>
#include <linux/spinlock.h>
#include <linux/interrupt.h>

#include <vapi.h>
#include <evapi.h>

#include "ox-types.h"
#include "ox-async-type-i.h"
#include "ox-mlx-tavor-common.h"

__BEGIN_KERNEL_DECLS

typedef struct ox_gen_mr_element_st ox_gen_mr_element_t;
typedef struct ox_opened_cq_st ox_opened_cq_t;
typedef struct ox_opened_qp_st ox_opened_qp_t;
typedef struct ox_asy_ev_element_st ox_asy_ev_element_t;
typedef struct ox_async_eve_cb_element_st ox_async_eve_cb_element_t;

/* The typed links of a record of type T, overlaid on its kernel list node `list`. */
#define OX_LIST_LINKS(T)       \
    union {                    \
        struct {               \
            T *next;           \
            T *prev;           \
        };                     \
        struct list_head list; \
    }

/* Per-HCA CQ and QP arrays, indexed by the vendor's handle value: handles 0..1000 get a slot.
 * The arrays are allocated with 1001 slots so that slot 1000 exists and reads as empty, while the
 * memory accounting keeps reporting them at their nominal size of 1000 pointers (8000 bytes). */
#define OX_OPENED_ARRAY_MAX_IX 1000
#define OX_OPENED_ARRAY_SLOTS (OX_OPENED_ARRAY_MAX_IX + 1)
#define OX_OPENED_ARRAY_ACCOUNT_SIZE 8000
#define OX_OPENED_ARRAY_ALLOC_SIZE (OX_OPENED_ARRAY_SLOTS * sizeof(void *))

/* Gather/scatter entries a QP record holds for one posted work request. */
#define OX_MLX_MAX_SG_PER_WR 8

/* A generic memory registration of an HCA (one region covering all of physical memory). */
struct ox_gen_mr_element_st {
    OX_LIST_LINKS(ox_gen_mr_element_t);
    ox_hca_h_t hca_h;
    ox_pd_h_t pd_h;
    ox_mem_reg_h_t mr_h;
    void *start_mr;
    unsigned long length;
    void *end_mr;
    ox_access_con_bit_mask_t access_con;
    ox_l_key_t l_key;
    ox_r_key_t r_key;
    ox_iova_t iova;
    unsigned long phy_length;
    unsigned long phy_offset;
};

/* Asynchronous event block of an HCA. */
typedef struct ox_async_event_st {
    struct tasklet_struct async_tasklet;
    struct list_head reg_for_async; /* ox_asy_ev_element_t, newest first */
} ox_async_event_t;

/* One opened HCA. */
struct ox_opened_hca_st {
    OX_LIST_LINKS(ox_opened_hca_t); /* on g_opened_mlx_hcas_list */
    VAPI_hca_hndl_t hca_h;
    ox_hca_h_t app_hca_h; /* the opener's context */
    struct list_head opened_cq_list;
    ox_opened_cq_t **opened_cq_array; /* OX_OPENED_ARRAY_SLOTS entries */
    struct list_head opened_qp_list;
    ox_opened_qp_t **opened_qp_array; /* OX_OPENED_ARRAY_SLOTS entries */
    ox_async_event_t events_lists;
    ox_pd_h_t generic_pd_h;
    struct list_head generic_mem_reg_list; /* ox_gen_mr_element_t */
    ox_gen_mr_element_t **gen_mem_array_p;
    s32 num_of_gen_mem_reg;
    ox_gen_mr_element_t generic_mem_reg_param;
    ox_hca_cap_query_t hca_cap_query;
    MT_bool get_hca_h_by_open; /* true: close the device; false: release a borrowed handle */
};

/* One CQ. */
struct ox_opened_cq_st {
    OX_LIST_LINKS(ox_opened_cq_t); /* on the HCA's opened_cq_list */
    ox_cq_h_t cq_h;                /* the vendor's CQ handle value */
    void *cq_oxuser_context;
    ox_app_com_event_callback_t app_com_callback;
    void *internal_p;
    EVAPI_compl_handler_hndl_t comp_handler_hndl;
};

/* One QP. The send and receive descriptors live here so that posting allocates nothing; s_sl
 * serialises their use where the posting path requires it. */
struct ox_opened_qp_st {
    OX_LIST_LINKS(ox_opened_qp_t); /* on the HCA's opened_qp_list */
    ox_qp_h_t qp_h;                /* the vendor's QP handle value, or the registrant's handle */
    ox_qp_t qp_num;
    void *qp_oxuser_context;
    ox_qp_type_t type;
    spinlock_t s_sl;
    VAPI_sr_desc_t sr_desc;
    VAPI_sg_lst_entry_t mlx_sg_array_s[OX_MLX_MAX_SG_PER_WR];
    VAPI_rr_desc_t rr_desc;
    VAPI_sg_lst_entry_t mlx_sg_array_r[OX_MLX_MAX_SG_PER_WR];
};

/* One asynchronous event callback registration. */
struct ox_asy_ev_element_st {
    OX_LIST_LINKS(ox_asy_ev_element_t); /* on events_lists.reg_for_async */
    ox_request_event_record_t req_asy_ev;
    union element_h vend_h;
    ox_app_async_event_callback_t app_cb;
};

/* Deferred delivery: the callbacks to call with one event record. */
struct ox_async_eve_cb_element_st {
    OX_LIST_LINKS(ox_async_eve_cb_element_t); /* on an anchor's cb_list */
    ox_app_async_event_callback_t app_cb;
};

typedef struct ox_async_list_anchor_st {
    struct list_head cb_list; /* ox_async_eve_cb_element_t */
    ox_event_record_t event_rec;
} ox_async_list_anchor_t;

__END_KERNEL_DECLS

#endif
