/* Statistics, the ring of last VAPI errors, the status translation table and the memory
 * accounting table. None of them is locked: they are diagnostics, and a lost count under
 * concurrent failures is accepted. */
#include <linux/module.h>
#include <linux/string.h>
#include <linux/interrupt.h>

#include "adaptor-tavor.h"
#include "ox-adaptor-common.h"

struct tavor_stats g_stat;

struct vapi_err_st g_last_vapi_err_array[LAST_VAPI_ERR_NUM];
u32 current_avail_ix = 0;

ox_return_t g_status_mlx_to_ox_translation[MLX_STATUS_TRANSLATION_NUM];

alloc_mem_t g_alloc_mem_array[mem_last_ix] = {
    {"ox_opened_hca_t    ", 0, 0}, {"ox_gen_mr_element_t", 0, 0}, {"ox_opened_cq_t     ", 0, 0},
    {"tasklet_struct     ", 0, 0}, {"ox_opened_qp_t     ", 0, 0}, {"ox_asy_ev_element_t", 0, 0},
    {"mem_gen_mem_array_p", 0, 0}, {"mem_opened_cq_array", 0, 0}, {"mem_opened_qp_array", 0, 0},
    {"mem_g_com_cq_array ", 0, 0},
};
u32 mem_statistic_err = 0;

EXPORT_SYMBOL(g_stat);
EXPORT_SYMBOL(g_last_vapi_err_array);
EXPORT_SYMBOL(current_avail_ix);

void ox_mlx_record_vapi_err(u32 func_ix, VAPI_ret_t stat) {
    u32 i = current_avail_ix;

    g_last_vapi_err_array[i].func_ix_st = func_ix;
    g_last_vapi_err_array[i].stat_st = stat;
    current_avail_ix = (i + 1) % LAST_VAPI_ERR_NUM;
}

void mem_alloc_add(alloc_mem_indx_t index) {
    g_alloc_mem_array[index].alloc_num++;
}

void mem_alloc_del(alloc_mem_indx_t index) {
    if (g_alloc_mem_array[index].alloc_num != 0) {
        g_alloc_mem_array[index].alloc_num--;
        return;
    }
    mem_statistic_err++;
    AD_TAVOR_ERROR("g_alloc_mem_array[%d].alloc_num == 0, mem_statistic_err: %d", (int)index,
                   (int)mem_statistic_err);
}

void ox_mlx_bookkeeping_init(void) {
    int i;

    memset(&g_stat, 0, sizeof(g_stat));

    g_alloc_mem_array[mem_hca_ix].struct_size = sizeof(ox_opened_hca_t);
    g_alloc_mem_array[mem_mr_ix].struct_size = sizeof(ox_gen_mr_element_t);
    g_alloc_mem_array[mem_cq_ix].struct_size = sizeof(ox_opened_cq_t);
    g_alloc_mem_array[mem_tasklet_ix].struct_size = sizeof(struct tasklet_struct);
    g_alloc_mem_array[mem_qp_ix].struct_size = sizeof(ox_opened_qp_t);
    g_alloc_mem_array[mem_async_ix].struct_size = sizeof(ox_asy_ev_element_t);
    /* mem_gen_mem_array_p_ix keeps its size: nothing allocates that array. */
    g_alloc_mem_array[mem_opened_cq_array_ix].struct_size = AD_TAVOR_OPENED_ARRAY_ACCOUNTED_SIZE;
    g_alloc_mem_array[mem_opened_qp_array_ix].struct_size = AD_TAVOR_OPENED_ARRAY_ACCOUNTED_SIZE;
    g_alloc_mem_array[mem_g_com_cq_array_ix].struct_size = AD_TAVOR_G_COM_CQ_ARRAY_SIZE;
    for (i = 0; i < mem_last_ix; i++) g_alloc_mem_array[i].alloc_num = 0;

    g_status_mlx_to_ox_translation[0] = ox_return_ok;
    for (i = 1; i < MLX_STATUS_TRANSLATION_NUM; i++) g_status_mlx_to_ox_translation[i] = ox_return_err;
}
