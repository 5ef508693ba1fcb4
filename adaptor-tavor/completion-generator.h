/* The completion event generator: a kernel timer that calls the completion handler of the CQs
 * of the first opened HCA as if the HCA had reported completions. These are the adaptor's own
 * generator variables; the proc commands keep a separate set under the same names. */
#ifndef AD_TAVOR_COMPLETION_GENERATOR_H
#define AD_TAVOR_COMPLETION_GENERATOR_H

#include <linux/types.h>
#include <linux/timer.h>
#include <asm/atomic.h>

#include "ox-adaptor-common.h"

__BEGIN_KERNEL_DECLS

#define OX_COM_WA_WORK_MODE_ALL 1      /* every CQ on the HCA's list */
#define OX_COM_WA_WORK_MODE_SELECTED 2 /* only the CQs in g_com_cq_array */
#define OX_COM_DEFAULT_JIFF_INTERVALS 100

extern struct timer_list g_com_timer;
extern s32 g_com_work_mode;
extern s32 g_com_num_jiff_intervals;
extern ox_opened_cq_t **g_com_cq_array; /* AD_TAVOR_G_COM_CQ_ARRAY_ENTRIES entries, or null */
extern u8 g_com_disable_timer;
/* 1 while the timer is not armed; whoever takes it to 0 arms the timer. */
extern atomic_t g_com_add_timer_is_on;
extern u32 g_com_num_of_timer_events;
extern u32 g_com_total_num_off_cq_calls;

/* The timer routine; `data` is not used. */
void ox_com_timer_generator(unsigned long data);

__END_KERNEL_DECLS

#endif
