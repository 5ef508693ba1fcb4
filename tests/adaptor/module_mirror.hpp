// Host-side mirrors of the module records the tests read through symbols.
#pragma once

#include <cstdint>

namespace adaptor_test {

struct TavorStats {
    uint32_t error_num, last_error_num, VAPI_error_num, last_VAPI_error_num, mem_alloc_error_num,
        last_mem_alloc_error_num;
    uint8_t opend_device_num;
    int32_t pd_num, last_pd_num, cq_num, last_cq_num, qp_num, last_qp_num, ah_num, last_ah_num, mr_num,
        last_mr_num, mg_num, last_mg_num;
    uint32_t post_s_num, last_post_s_num, inline_send_num, inline_send_num_last, post_s_list_num,
        last_post_s_list_num, post_vapi_s_num;
    int32_t acc_sg;
    uint32_t post_r_num, last_post_r_num, post_r_list_num, last_post_r_list_num, post_vapi_r_num, rx_byte,
        last_rx_byte, tx_byte, last_tx_byte, com_notify_num, last_com_notify_num, poll_num, last_poll_num,
        poll_vapi_num, poll_cq_empty_num, last_poll_cq_empty_num, ox_receive_error_status,
        ox_receive_last_error_status, ox_send_error_status, ox_send_last_error_status, com_event_num,
        last_com_event_num, async_event_num, last_async_event_num, mem_reg_miss, mem_reg_hit, total_if_number,
        total_sort_if_number, total_if_number_new, total_if_number_error, num_of_max_poll,
        last_num_of_max_poll;
    int32_t registered_async_event_cb_num, last_registered_async_event_cb_num;
};

struct VapiErr {
    uint32_t func_ix_st;
    int32_t stat_st;
};

struct AllocMem {
    char name[50];
    uint32_t struct_size;
    uint32_t alloc_num;
};

enum AllocIx {
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
    mem_last_ix
};

using record_vapi_err_fn = void (*)(uint32_t, int32_t);
using mem_alloc_fn = void (*)(int);
using version_init_fn = int (*)(char *, char *, char *);
using version_exit_fn = void (*)(char *);
using timer_fn = void (*)(unsigned long);

}  // namespace adaptor_test
