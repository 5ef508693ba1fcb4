/* Generator and event control commands of the control file. They act on this file's own set of
 * generator variables, which nothing else reads: they never start, stop or retune the adaptor's
 * generator timer. Only no_events_active is shared with the rest of the adaptor. */
#define TAVOR_PROC_SOURCE
#include <linux/kernel.h>
#include <linux/list.h>
#include <linux/string.h>
#include <linux/jiffies.h>
#include <linux/timer.h>
#include <asm/atomic.h>

#include <vapi.h>

#include "ox-timing.h"
#include "ox-adaptor-common.h"
#include "tavor-proc.h"
#include "opened-hcas.h"

#define COM_CQ_ARRAY_ENTRIES 100

u8 no_events_active = 0;

static u8 g_com_disable_timer = 1;
static s32 g_com_work_mode = 1;
static s32 g_com_num_jiff_intervals = 0;
/* Starts at 0, so the arming step of "comstart" never arms this timer. */
static atomic_t g_com_add_timer_is_on = ATOMIC_INIT(0);
static struct timer_list g_com_timer;
/* Never allocated here: commands that need it treat null as an empty selection. */
static ox_opened_cq_t **g_com_cq_array = 0;
static u32 g_com_index_of_selected_cq = 0;
static u32 g_com_num_of_timer_events = 0;
static u32 g_com_total_num_off_cq_calls = 0;

static unsigned long arg_value(const char *text) {
    return simple_strtoul(text, 0, 0);
}

/* Steps 2 and 4 of "comstart": clear the disable flag, then arm the timer when the counter
 * allows it. */
static void com_start_timer(void) {
    if (g_com_disable_timer == 0)
        printk("ERROR - the timer was alredy running\n");
    else
        g_com_disable_timer = 0;
}

static void com_arm_timer(void) {
    if (atomic_dec_return(&g_com_add_timer_is_on) == 0) {
        add_timing(&g_com_timer);
        return;
    }
    atomic_inc(&g_com_add_timer_is_on);
}

void proc_com_stop(int argc, char **argv) {
    (void)argv;
    AD_TAVOR_DEBUG("argc: %d", argc);
    if (argc != 1) {
        printk("ERROR - to many args (args:%d)\n", argc);
        return;
    }
    printk("disable the timer - last one more completion generation !!!\n");
    g_com_disable_timer = 1;
}

void proc_com_start(int argc, char **argv) {
    AD_TAVOR_DEBUG("argc: %d", argc);
    if (argc > 2) {
        printk("ERROR - to many args (args:%d)\n", argc);
        return;
    }
    com_start_timer();
    if (argc == 2) {
        s32 new_jiff = (s32)arg_value(argv[1]);

        AD_TAVOR_DEBUG("new_jiff_timer_num: %d", new_jiff);
        if (new_jiff < 1) {
            printk("ERROR - new jiff num < 1 (%d)\n", new_jiff);
        } else {
            printk("new_jiff_timer_num: %d, old value: %d\n", new_jiff, g_com_num_jiff_intervals);
            g_com_num_jiff_intervals = new_jiff;
        }
    }
    com_arm_timer();
}

void proc_com_set_time(int argc, char **argv) {
    s32 new_jiff;

    AD_TAVOR_DEBUG("argc: %d", argc);
    if (argc != 2) {
        printk("ERROR - need new jiff num (args:%d)\n", argc);
        return;
    }
    new_jiff = (s32)arg_value(argv[1]);
    AD_TAVOR_DEBUG("new_jiff_timer_num: %d", new_jiff);
    if (new_jiff < 1) {
        printk("ERROR - new jiff num < 1 (%d)\n", new_jiff);
        return;
    }
    printk("new_jiff_timer_num: %d, old value: %d\n", new_jiff, g_com_num_jiff_intervals);
    g_com_num_jiff_intervals = new_jiff;
}

void proc_com_show(int argc, char **argv) {
    int i;

    (void)argv;
    AD_TAVOR_DEBUG("argc: %d", argc);
    if (argc != 1) {
        printk("ERROR - to many args (args:%d)\n", argc);
        return;
    }
    printk("g_com_disable_timer: %d\n", (int)g_com_disable_timer);
    printk("g_com_work_mode: %d\n", g_com_work_mode);
    printk("g_com_num_jiff_intervals: %d (HZ: %d)\n", g_com_num_jiff_intervals, HZ);
    printk("g_com_index_of_selected_cq: %d\n", (int)g_com_index_of_selected_cq);
    printk("g_com_num_of_timer_events: %d\n", (int)g_com_num_of_timer_events);
    printk("g_com_total_num_off_cq_calls: %d\n", (int)g_com_total_num_off_cq_calls);
    printk("g_com_cq_array: %p\n", (void *)g_com_cq_array);
    if (!g_com_cq_array) return;
    for (i = 0; i < COM_CQ_ARRAY_ENTRIES; i++) {
        ox_opened_cq_t *cq = g_com_cq_array[i];

        if (!cq) {
            AD_TAVOR_DEBUG("[%d] end of the array opened_cq_p == NULL (g_com_index_of_selected_cq: %d)", i,
                           (int)g_com_index_of_selected_cq);
            break;
        }
        printk("[%d] opened_cq_p: %p, vendor_cq_h: %p\n", i, (void *)cq, (void *)(unsigned long)cq->cq_h);
    }
}

void proc_com_mode(int argc, char **argv) {
    s32 new_mode;

    AD_TAVOR_DEBUG("argc: %d", argc);
    if (argc != 2) {
        printk("ERROR - need new work mode (args:%d)\n", argc);
        return;
    }
    new_mode = (s32)arg_value(argv[1]);
    AD_TAVOR_DEBUG("new_work_mode: %d", new_mode);
    if (new_mode != 1 && new_mode != 2) {
        printk("ERROR - new work mode can be 1 or 2 (%d)\n", new_mode);
        return;
    }
    if (new_mode == g_com_work_mode) {
        printk("ERROR - new work mode == old work mode (%d:%d)\n", new_mode, g_com_work_mode);
        return;
    }
    if (new_mode == 2 && !g_com_cq_array) {
        printk("ERROR - can't modify to work mode 2 !!!, no allocated cq array\n");
        return;
    }
    g_com_work_mode = new_mode;
    printk("new work mode: %d\n", new_mode);
}

/* The first CQ record of the first opened HCA whose address or VAPI handle is v. */
static ox_opened_cq_t *find_cq(unsigned long v) {
    ox_opened_hca_t *hca = ox_mlx_first_opened_hca();
    struct list_head *pos;

    if (!hca) return 0;
    list_for_each(pos, &hca->opened_cq_list) {
        ox_opened_cq_t *cq = list_entry(pos, ox_opened_cq_t, list);

        if ((unsigned long)cq == v || (unsigned long)cq->cq_h == v) return cq;
    }
    return 0;
}

/* Entry i of the selection; a selection that was never allocated reads as empty. */
static ox_opened_cq_t *selected_cq(u32 i) {
    if (!g_com_cq_array || i >= COM_CQ_ARRAY_ENTRIES) return 0;
    return g_com_cq_array[i];
}

void proc_com_addcq(int argc, char **argv) {
    unsigned long v;
    u32 k = g_com_index_of_selected_cq;
    ox_opened_cq_t *cq;
    u32 i;

    AD_TAVOR_DEBUG("argc: %d", argc);
    if (argc != 2) {
        printk("ERROR - need CQ handle (user or IBM) (args:%d)\n", argc);
        return;
    }
    v = arg_value(argv[1]);
    AD_TAVOR_DEBUG("poll_cq_num: %ld", (long)v);
    if (selected_cq(k)) {
        printk("ERROR - g_com_cq_array[%d] != NULL %p\n", (int)k, (void *)selected_cq(k));
        return;
    }
    /* A selection array that does not exist (or is full) has no place for the CQ: report it
     * like a CQ that cannot be found. */
    cq = find_cq(v);
    if (!cq || !g_com_cq_array || k >= COM_CQ_ARRAY_ENTRIES) {
        printk("Didn't find cq_h: %p\n", (void *)v);
        return;
    }
    AD_TAVOR_DEBUG("Find in list cq_h: %p", (void *)cq);
    AD_TAVOR_DEBUG("vendor_cq_h: %d, user_cq_h: %p", (int)(unsigned long)cq->cq_h, (void *)cq);
    AD_TAVOR_DEBUG("will serch for the cq index in the g_com_cq_array, %p", (void *)cq);
    for (i = 0; i <= k; i++) {
        if (selected_cq(i) == cq) {
            AD_TAVOR_DEBUG("find- g_com_cq_array[%d] = %p", (int)i, (void *)cq);
            AD_TAVOR_ERROR("ERROR - need to be only one time - alredy exist in array");
            return;
        }
    }
    printk("will fill index g_com_cq_array[%d] = opened_cq_p: %p\n", (int)k, (void *)cq);
    g_com_cq_array[k] = cq;
    g_com_index_of_selected_cq++;
    AD_TAVOR_DEBUG("after +1 g_com_index_of_selected_cq: %d", (int)g_com_index_of_selected_cq);
}

void proc_com_remcq(int argc, char **argv) {
    unsigned long v;
    u32 k = g_com_index_of_selected_cq;
    ox_opened_cq_t *cq;
    u32 i;

    AD_TAVOR_DEBUG("argc: %d", argc);
    if (argc != 2) {
        printk("ERROR - need CQ handle (user or IBM) (args:%d)\n", argc);
        return;
    }
    v = arg_value(argv[1]);
    AD_TAVOR_DEBUG("poll_cq_num: %ld", (long)v);
    if (selected_cq(k)) {
        printk("ERROR - g_com_cq_array[%d] != NULL %p\n", (int)k, (void *)selected_cq(k));
        return;
    }
    cq = find_cq(v);
    if (!cq) {
        printk("ERROR - Didn't find cq_h: %p\n", (void *)v);
        return;
    }
    AD_TAVOR_DEBUG("Find in list cq_h: %p", (void *)cq);
    AD_TAVOR_DEBUG("vendor_cq_h: %d, user_cq_h: %p", (int)(unsigned long)cq->cq_h, (void *)cq);
    AD_TAVOR_DEBUG("will serch for the cq index in the g_com_cq_array, %p", (void *)cq);
    for (i = 0; i <= k; i++)
        if (selected_cq(i) == cq) break;
    if (i > k) {
        printk("ERROR - Didn't find cq in the array: %p, vendor_cq_h: %d\n", (void *)cq,
               (int)(unsigned long)cq->cq_h);
        return;
    }
    printk("find- g_com_cq_array[%d] = %p\n", (int)i, (void *)cq);
    AD_TAVOR_DEBUG("need to be only one time from now-on will move the array");
    /* Found at i <= k means the array exists and holds k > i entries: the last one fills the gap. */
    AD_TAVOR_DEBUG("moving array: g_com_cq_array[%d] = %p", (int)i, (void *)selected_cq(k - 1));
    g_com_cq_array[i] = g_com_cq_array[k - 1];
    g_com_cq_array[k - 1] = 0;
    g_com_index_of_selected_cq--;
    AD_TAVOR_DEBUG("after -1 g_com_index_of_selected_cq: %d", (int)g_com_index_of_selected_cq);
}

void proc_event_generation_ctrl(int argc, char **argv) {
    unsigned long option;

    AD_TAVOR_DEBUG("argc: %d", argc);
    if (argc != 2) {
        AD_TAVOR_ERROR("ERROR - need 1 arg () (args:%d)", argc);
        return;
    }
    option = arg_value(argv[1]);
    AD_TAVOR_DEBUG("option: %d", (int)option);
    switch (option) {
        case 1:
            no_events_active = 1;
            printk("no_events_active = true\n");
            break;
        case 0:
            no_events_active = 0;
            printk("no_events_active = false - events generation\n");
            break;
        case 11:
            no_events_active = 1;
            printk("no_events_active = true\n");
            AD_TAVOR_DEBUG("doing comstart");
            com_start_timer();
            com_arm_timer();
            break;
        case 10:
            no_events_active = 0;
            printk("no_events_active = false\n");
            AD_TAVOR_DEBUG("disable the timer - last one more completion generation !!!\n");
            g_com_disable_timer = 1;
            break;
        default:
            break;
    }
}

void proc_event_ctrl_show(int argc, char **argv) {
    (void)argv;
    AD_TAVOR_DEBUG("argc: %d", argc);
    if (argc != 1) {
        printk("ERROR - to many args (args:%d)\n", argc);
        return;
    }
    if (no_events_active)
        printk("Working without events - no interrupts\n");
    else
        printk("Working with events - interrupts\n");
    if (g_com_disable_timer)
        printk("Working in a events mode\n");
    else
        printk("Working in a polling mode\n");
    printk("no_events_active: %d\n", (int)no_events_active);
    printk("g_com_disable_timer: %d\n", (int)g_com_disable_timer);
}

static void report_poll(ox_opened_hca_t *hca, ox_opened_cq_t *cq, int n) {
    VAPI_wc_desc_t wc;
    VAPI_ret_t stat;

    memset(&wc, 0, sizeof(wc));
    stat = VAPI_poll_cq(hca->hca_h, (VAPI_cq_hndl_t)(unsigned long)cq->cq_h, &wc);
    if (stat == VAPI_OK)
        printk("CQ is not empty !!!! cq_index: %d, user: 0x%p, mlx: 0x%p (mlx - wrid: %d, stat: %d)\n", n,
               (void *)cq, (void *)(unsigned long)cq->cq_h, (int)(u32)wc.id, (int)wc.status);
    else if (stat == VAPI_CQ_EMPTY)
        printk("Empty CQ: cq_index: %d, user: 0x%p, mlx: 0x%p\n", n, (void *)cq,
               (void *)(unsigned long)cq->cq_h);
    else
        printk("ERROR polling CQ: cq_index: %d, user: 0x%p, mlx: 0x%p\n", n, (void *)cq,
               (void *)(unsigned long)cq->cq_h);
}

void proc_poll_cq_test(int argc, char **argv) {
    ox_opened_hca_t *hca;
    ox_opened_cq_t *target = 0;
    struct list_head *pos;
    unsigned long v;
    int n = 0;

    AD_TAVOR_DEBUG("argc: %d", argc);
    if (argc != 2) {
        printk("ERROR - need [CQ handle (user or MLX or index 1,2,3...) if 0 will poll all CQ] (args:%d)\n",
               argc);
        return;
    }
    v = arg_value(argv[1]);
    printk("poll_cq_num: %ld\n", (long)v);

    hca = ox_mlx_first_opened_hca();
    if (hca) {
        list_for_each(pos, &hca->opened_cq_list) {
            ox_opened_cq_t *cq = list_entry(pos, ox_opened_cq_t, list);

            n++;
            if (v == 0) {
                report_poll(hca, cq, n);
                continue;
            }
            if ((unsigned long)cq == v || (unsigned long)cq->cq_h == v || (unsigned long)n == v) {
                printk("find CQ: cq_index: %d, user: 0x%p, mlx: 0x%p\n", n, (void *)cq,
                       (void *)(unsigned long)cq->cq_h);
                target = cq;
                break;
            }
        }
    }
    if (v == 0) return;
    if (!target) {
        printk("ERROR - Didn't find cq_h: 0x%p\n", (void *)v);
        return;
    }
    report_poll(hca, target, n);
}
