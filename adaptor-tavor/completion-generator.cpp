/* The completion event generator's timer routine and variables. As built, nothing clears the
 * disable flag: HCA open arms the timer, the next tick sees the flag, stops, and hands the
 * arming back (g_com_add_timer_is_on to 1) for the next open. */
#include <linux/kernel.h>
#include <linux/list.h>
#include <linux/jiffies.h>

#include "ox-timing.h"
#include "adaptor-tavor.h"
#include "completion-events.h"
#include "completion-generator.h"
#include "opened-hcas.h"

struct timer_list g_com_timer;
s32 g_com_work_mode = OX_COM_WA_WORK_MODE_ALL;
s32 g_com_num_jiff_intervals = 0;
ox_opened_cq_t **g_com_cq_array = 0;
u8 g_com_disable_timer = 1;
atomic_t g_com_add_timer_is_on = ATOMIC_INIT(0);
u32 g_com_num_of_timer_events = 0;
u32 g_com_total_num_off_cq_calls = 0;

/* A stopping tick does not re-arm; the next arming is left to whoever takes the counter to 0. */
static void ox_com_timer_stop(void) {
    atomic_inc(&g_com_add_timer_is_on);
}

static void ox_com_call_cq(ox_opened_hca_t *hca, ox_opened_cq_t *cq) {
    ox_mlx_cq_completion_event_handler(hca->hca_h, (VAPI_cq_hndl_t)(unsigned long)cq->cq_h, cq);
    g_com_total_num_off_cq_calls++;
}

void ox_com_timer_generator(unsigned long data) {
    ox_opened_hca_t *hca;
    int i;

    (void)data;
    g_com_num_of_timer_events++;

    if (list_empty(&g_opened_mlx_hcas_list)) {
        printk("ERROR - the HCA is not open\n");
        ox_com_timer_stop();
        return;
    }
    if (g_com_disable_timer) {
        AD_TAVOR_DEBUG("timer is disable - g_com_disable_timer: %d\n", (int)g_com_disable_timer);
        ox_com_timer_stop();
        return;
    }
    if (g_com_num_jiff_intervals == 0) {
        printk("ERROR - g_com_num_jiff_intervals: %d, will reset value\n", (int)g_com_num_jiff_intervals);
        g_com_num_jiff_intervals = OX_COM_DEFAULT_JIFF_INTERVALS;
        ox_com_timer_stop();
        return;
    }
    if (g_com_work_mode == OX_COM_WA_WORK_MODE_SELECTED && !g_com_cq_array) {
        printk("ERROR - g_com_work_mode == OX_COM_WA_WORK_MODE_SELECTED (%d) and g_com_cq_array == NULL\n",
               OX_COM_WA_WORK_MODE_SELECTED);
        printk("change work mode to OX_COM_WA_WORK_MODE_ALL (%d)\n", OX_COM_WA_WORK_MODE_ALL);
        g_com_work_mode = OX_COM_WA_WORK_MODE_ALL;
    }

    /* Only the first HCA on the list is served; no lock is taken. */
    hca = ox_mlx_first_opened_hca();
    if (g_com_work_mode == OX_COM_WA_WORK_MODE_ALL) {
        struct list_head *pos;

        list_for_each(pos, &hca->opened_cq_list) ox_com_call_cq(hca, list_entry(pos, ox_opened_cq_t, list));
    } else {
        for (i = 0; i < AD_TAVOR_G_COM_CQ_ARRAY_ENTRIES && g_com_cq_array[i]; i++)
            ox_com_call_cq(hca, g_com_cq_array[i]);
    }

    g_com_timer.expires = jiffies + g_com_num_jiff_intervals;
    add_timing(&g_com_timer);
}
