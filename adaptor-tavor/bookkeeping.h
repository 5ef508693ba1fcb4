/* adaptor-mlx: the records every entry point reports through.
 *
 * - the statistics record g_stat,
 * - the ring of the last 20 failed VAPI calls with their function indexes,
 * - the status translation table,
 * - the memory accounting table,
 * - the three failure-accounting patterns, as inline helpers.
 *
 * None of them is locked: they are diagnostics, and a count lost to concurrent failures is
 * accepted. Compiles as C and as C++. */
#ifndef AD_TAVOR_BOOKKEEPING_H
#define AD_TAVOR_BOOKKEEPING_H

#include <linux/types.h>
#include <asm/atomic.h>

#include <vapi.h>

#include "ox-types.h"

__BEGIN_KERNEL_DECLS

/* Every "last_" field is the companion of the one before it: changed together with it, cleared
 * by each read of the statistics page. */
struct tavor_stats {
    u32 error_num;
    u32 last_error_num;
    u32 VAPI_error_num;
    u32 last_VAPI_error_num;
    u32 mem_alloc_error_num;
    u32 last_mem_alloc_error_num;
    u8 opend_device_num;
    s32 pd_num;
    s32 last_pd_num;
    s32 cq_num;
    s32 last_cq_num;
    s32 qp_num;
    s32 last_qp_num;
    s32 ah_num;
    s32 last_ah_num;
    s32 mr_num;
    s32 last_mr_num;
    s32 mg_num;
    s32 last_mg_num;
    u32 post_s_num;
    u32 last_post_s_num;
    u32 inline_send_num;
    u32 inline_send_num_last;
    u32 post_s_list_num;
    u32 last_post_s_list_num;
    u32 post_vapi_s_num;
    atomic_t acc_sg;
    u32 post_r_num;
    u32 last_post_r_num;
    u32 post_r_list_num;
    u32 last_post_r_list_num;
    u32 post_vapi_r_num;
    u32 rx_byte;
    u32 last_rx_byte;
    u32 tx_byte;
    u32 last_tx_byte;
    u32 com_notify_num;
    u32 last_com_notify_num;
    u32 poll_num;
    u32 last_poll_num;
    u32 poll_vapi_num;
    u32 poll_cq_empty_num;
    u32 last_poll_cq_empty_num;
    u32 ox_receive_error_status;
    u32 ox_receive_last_error_status;
    u32 ox_send_error_status;
    u32 ox_send_last_error_status;
    u32 com_event_num;
    u32 last_com_event_num;
    u32 async_event_num;
    u32 last_async_event_num;
    u32 mem_reg_miss;
    u32 mem_reg_hit;
    u32 total_if_number;
    u32 total_sort_if_number;
    u32 total_if_number_new;
    u32 total_if_number_error;
    u32 num_of_max_poll;
    u32 last_num_of_max_poll;
    s32 registered_async_event_cb_num;
    s32 last_registered_async_event_cb_num;
};

extern struct tavor_stats g_stat;

/* ---- Ring of the last failed VAPI calls ---------------------------------------------------------- */

#define LAST_VAPI_ERR_NUM 20

struct vapi_err_st {
    u32 func_ix_st; /* tavor_func_indx_t; 0 marks an empty slot */
    VAPI_ret_t stat_st;
};

extern struct vapi_err_st g_last_vapi_err_array[LAST_VAPI_ERR_NUM];
extern u32 current_avail_ix; /* next slot to write */

/* Which call failed. 1..42 follow the slots of the function table; from 43 on the numbering is the
 * adaptor's own. The receive-list calls (61) have no name of their own in the "show_err" dump. */
typedef enum {
    hca_query_indx = 1,
    port_query_indx = 2,
    get_port_gid_tbl_indx = 3,
    get_port_partition_tbl_indx = 4,
    hca_modify_indx = 5,
    hca_close_indx = 6,
    pd_allocate_indx = 7,
    pd_deallocate_indx = 8,
    rdd_allocate_indx = 9,
    rdd_deallocate_indx = 10,
    address_hndl_create_indx = 11,
    address_hndl_modify_indx = 12,
    address_hndl_query_indx = 13,
    address_hndl_destroy_indx = 14,
    cq_create_indx = 15,
    cq_query_indx = 16,
    cq_resize_indx = 17,
    cq_destroy_indx = 18,
    cq_modify_attrib_indx = 19,
    qp_create_indx = 20,
    qp_modify_indx = 21,
    qp_query_indx = 22,
    qp_destroy_indx = 23,
    qp_get_special_indx = 24,
    qp_context_set_indx = 25,
    eec_create_indx = 26,
    eec_modify_indx = 27,
    eec_query_indx = 28,
    eec_destroy_indx = 29,
    mem_region_register_indx = 30,
    phy_mem_region_register_indx = 31,
    mem_region_query_indx = 32,
    mem_region_destroy_indx = 33,
    mem_region_re_register_indx = 34,
    phy_mem_region_re_register_indx = 35,
    shared_mem_region_register_indx = 36,
    mem_win_allocate_indx = 37,
    mem_win_query_indx = 38,
    mem_win_bind_indx = 39,
    mem_win_deallocate_indx = 40,
    qp_attach_to_multicast_indx = 41,
    qp_detach_from_multicast_indx = 42,
    post_send_indx = 43,
    post_receive_indx = 44,
    poll_for_completion_indx = 45,
    request_completion_notification_indx = 46,
    set_completion_event_handler_indx = 47,
    set_async_event_cb_indx = 48,
    dell_async_event_cb_indx = 49,
    instant_send_indx = 50,
    get_gen_pd_h_indx = 51,
    get_gen_mr_attri_indx = 52,
    req_comp_cq_indx = 53,
    del_comp_cq_indx = 54,
    tavor_alloc_fmr_indx = 55,
    tavor_map_fmr_indx = 56,
    tavor_unmap_fmr_indx = 57,
    tavor_free_fmr_indx = 58,
    tavor_inline_post_send_indx = 59,
    tavor_post_send_list_indx = 60,
    tavor_post_receive_list_indx = 61, /* unnamed in the dump */
    tavor_peek_cq_indx = 62,
    tavor_alloc_dev_mem_indx = 63,
    tavor_free_dev_mem_indx = 64
} tavor_func_indx_t;

#define TAVOR_LAST_FUNC_INDX 64

/* ---- Status translation table (filled at load, consulted by nobody) ----------------------------- */

#define MLX_STATUS_TRANSLATION_NUM 256
extern ox_return_t g_status_mlx_to_ox_translation[MLX_STATUS_TRANSLATION_NUM];

/* ---- Memory accounting --------------------------------------------------------------------------- */

typedef struct alloc_mem_st {
    char name[50];   /* fixed label, padded to 19 characters */
    u32 struct_size; /* bytes of one tracked object */
    u32 alloc_num;   /* objects currently allocated */
} alloc_mem_t;

typedef enum {
    mem_hca_ix = 0,
    mem_mr_ix,
    mem_cq_ix,
    mem_tasklet_ix,
    mem_qp_ix,
    mem_async_ix,
    mem_gen_mem_array_p_ix,
    mem_opened_cq_array_ix,
    mem_opened_qp_array_ix,
    mem_g_com_cq_array_ix,
    mem_last_ix /* 10: the row count */
} alloc_mem_indx_t;

/* Sizes the accounting table records for the per-HCA pointer arrays and the generator's array. */
#define AD_TAVOR_OPENED_ARRAY_ACCOUNTED_SIZE 8000
#define AD_TAVOR_G_COM_CQ_ARRAY_SIZE 800
#define AD_TAVOR_G_COM_CQ_ARRAY_ENTRIES 100

/* The proc interface keeps its own copy of the table under the same names; its files define
 * TAVOR_PROC_SOURCE and so do not see the adaptor's live table. */
#ifndef TAVOR_PROC_SOURCE
extern alloc_mem_t g_alloc_mem_array[mem_last_ix];
extern u32 mem_statistic_err; /* releases of a kind whose count was already 0 */
#endif

/* Counts one more object of kind `index` (no bounds check, no lock). */
void mem_alloc_add(alloc_mem_indx_t index);
/* Counts one object of kind `index` less; a count already at 0 stays 0 and is reported. */
void mem_alloc_del(alloc_mem_indx_t index);

/* Load-time fill: zero g_stat, the struct_size column and zero counts of the accounting table,
 * and the translation table. */
void ox_mlx_bookkeeping_init(void);

/* ---- Failure accounting ---------------------------------------------------------------------------
 * Every entry point logs its own message at ERROR and then applies one of these:
 *  - a failed VAPI/EVAPI call: ox_mlx_count_vapi_failure(ix, stat) (counters + ring), or
 *    ox_mlx_count_vapi_failure_no_ring() where the call keeps no ring entry;
 *  - a failed allocation: ox_mlx_count_alloc_failure();
 *  - any other refusal: ox_mlx_count_error(). */

/* Writes (func_ix, stat) at current_avail_ix and advances it modulo 20. */
void ox_mlx_record_vapi_err(u32 func_ix, VAPI_ret_t stat);

static inline void ox_mlx_count_error(void) {
    g_stat.error_num++;
    g_stat.last_error_num++;
}

static inline void ox_mlx_count_vapi_error(void) {
    g_stat.VAPI_error_num++;
    g_stat.last_VAPI_error_num++;
}

static inline void ox_mlx_count_vapi_failure_no_ring(void) {
    ox_mlx_count_error();
    ox_mlx_count_vapi_error();
}

static inline void ox_mlx_count_vapi_failure(u32 func_ix, VAPI_ret_t stat) {
    ox_mlx_count_vapi_failure_no_ring();
    ox_mlx_record_vapi_err(func_ix, stat);
}

static inline void ox_mlx_count_alloc_failure(void) {
    g_stat.mem_alloc_error_num++;
    g_stat.last_mem_alloc_error_num++;
    ox_mlx_count_error();
}

__END_KERNEL_DECLS

#endif
