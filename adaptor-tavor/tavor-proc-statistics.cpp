/* The statistics page: what a read of the control file returns. Every read also clears the
 * companion ("last_") counters, so each "(n)" shows the change since the previous read. */
#define TAVOR_PROC_SOURCE
#include <linux/kernel.h>
#include <linux/list.h>
#include <linux/spinlock.h>
#include <asm/page.h>

#include "ox-adaptor-common.h"
#include "tavor-proc.h"

#define STAT_PAGE_SIZE PAGE_SIZE

/* Paging state of one read: `len` bytes built in the page, the first of which is at `begin` in
 * the whole text. */
struct stat_page {
    char *page;
    int len;
    off_t begin;
    off_t off;
    int count;
};

/* Appends one piece. Returns 0 to go on, non-zero when building must stop: the requested window
 * is full, or the piece does not fit in what is left of the page (a later read, starting further
 * on, gets it). */
static int __attribute__((format(printf, 2, 3))) stat_page_add(struct stat_page *sp, const char *fmt, ...) {
    va_list args;
    int room = (int)STAT_PAGE_SIZE - sp->len;
    int n;
    off_t pos;

    va_start(args, fmt);
    n = vsnprintf(sp->page + sp->len, room, fmt, args);
    va_end(args);
    if (n >= room) {
        sp->page[sp->len] = 0;
        return 1;
    }
    sp->len += n;
    pos = sp->begin + sp->len;
    if (pos < sp->off) {
        sp->len = 0;
        sp->begin = pos;
    }
    return pos > sp->off + sp->count;
}

static void clear_companions(void) {
    g_stat.last_error_num = 0;
    g_stat.last_VAPI_error_num = 0;
    g_stat.last_mem_alloc_error_num = 0;
    g_stat.last_pd_num = 0;
    g_stat.last_cq_num = 0;
    g_stat.last_qp_num = 0;
    g_stat.last_ah_num = 0;
    g_stat.last_mr_num = 0;
    g_stat.last_mg_num = 0;
    g_stat.last_post_s_num = 0;
    g_stat.inline_send_num_last = 0;
    g_stat.last_post_s_list_num = 0;
    g_stat.last_post_r_num = 0;
    g_stat.last_post_r_list_num = 0;
    g_stat.last_rx_byte = 0;
    g_stat.last_tx_byte = 0;
    g_stat.last_poll_num = 0;
    g_stat.last_com_notify_num = 0;
    g_stat.last_poll_cq_empty_num = 0;
    g_stat.ox_receive_last_error_status = 0;
    g_stat.ox_send_last_error_status = 0;
    g_stat.last_com_event_num = 0;
    g_stat.last_async_event_num = 0;
    g_stat.last_registered_async_event_cb_num = 0;
}

static void print_counters_to_log(void) {
    const struct tavor_stats *s = &g_stat;

    printk(
        "      errors: %d (%d)\n VAPI errors: %d (%d)\n  mem errors: %d (%d)\n  opened HCA: %d\n"
        "   num of PD: %d (%d)\n   num of CQ: %d (%d)\n   num of QP: %d (%d)\n"
        "   num of AH: %d (%d), MR: %d (%d), MG: %d (%d)\n     send WR: %d (%d) [%d (%d)] {%d (%d)}\n"
        "      acc sg: %d\n  receive WR: %d (%d) [%d (%d)]\nvapi (s,r,p): %d, %d, %d\n"
        "   Byte - TX: %d (%d) RX: %d (%d)\n        poll: OK: %d (%d) empty: %d (%d)\n"
        "complete err: RX: %d (%d)    TX: %d (%d)\n comp notify: %d (%d)\n  comp event: %d (%d)\n"
        " async event: %d (%d)\nreg async cb: %d (%d)\n=======================================\n",
        (int)s->error_num, (int)s->last_error_num, (int)s->VAPI_error_num, (int)s->last_VAPI_error_num,
        (int)s->mem_alloc_error_num, (int)s->last_mem_alloc_error_num, (int)s->opend_device_num, s->pd_num,
        s->last_pd_num, s->cq_num, s->last_cq_num, s->qp_num, s->last_qp_num, s->ah_num, s->last_ah_num,
        s->mr_num, s->last_mr_num, s->mg_num, s->last_mg_num, (int)s->post_s_num, (int)s->last_post_s_num,
        (int)s->inline_send_num, (int)s->inline_send_num_last, (int)s->post_s_list_num,
        (int)s->last_post_s_list_num, atomic_read(&s->acc_sg), (int)s->post_r_num, (int)s->last_post_r_num,
        (int)s->post_r_list_num, (int)s->last_post_r_list_num, (int)s->post_vapi_s_num,
        (int)s->post_vapi_r_num, (int)s->poll_vapi_num, (int)s->tx_byte, (int)s->last_tx_byte,
        (int)s->rx_byte, (int)s->last_rx_byte, (int)s->poll_num, (int)s->last_poll_num,
        (int)s->poll_cq_empty_num, (int)s->last_poll_cq_empty_num, (int)s->ox_receive_error_status,
        (int)s->ox_receive_last_error_status, (int)s->ox_send_error_status, (int)s->ox_send_last_error_status,
        (int)s->com_notify_num, (int)s->last_com_notify_num, (int)s->com_event_num,
        (int)s->last_com_event_num, (int)s->async_event_num, (int)s->last_async_event_num,
        s->registered_async_event_cb_num, s->last_registered_async_event_cb_num);
}

static int add_counters_to_page(struct stat_page *sp) {
    const struct tavor_stats *s = &g_stat;

    return stat_page_add(
        sp,
        "     errors: %d (%d)\nVAPI errors: %d (%d)\n mem errors: %d (%d)\n  num of CQ: %d (%d)\n"
        "  num of QP: %d (%d)\n  num of AH: %d (%d), MR: %d (%d), MG: %d (%d)\n"
        "    send WR: %d (%d) [%d (%d)] {%d (%d)}\n     acc sg: %d\n receive WR: %d (%d) [%d (%d)]\n"
        "vapi (s,r,p): %d, %d, %d\n  Byte - TX: %d (%d) RX: %d (%d)\n       poll: OK: %d (%d) empty: %d "
        "(%d)\n"
        "   comp err: RX: %d (%d)    TX: %d (%d)\ncomp notify: %d (%d)\n comp event: %d (%d)\n"
        "async event: %d (%d)\n=======================================\n",
        (int)s->error_num, (int)s->last_error_num, (int)s->VAPI_error_num, (int)s->last_VAPI_error_num,
        (int)s->mem_alloc_error_num, (int)s->last_mem_alloc_error_num, s->cq_num, s->last_cq_num, s->qp_num,
        s->last_qp_num, s->ah_num, s->last_ah_num, s->mr_num, s->last_mr_num, s->mg_num, s->last_mg_num,
        (int)s->post_s_num, (int)s->last_post_s_num, (int)s->inline_send_num, (int)s->inline_send_num_last,
        (int)s->post_s_list_num, (int)s->last_post_s_list_num, atomic_read(&s->acc_sg), (int)s->post_r_num,
        (int)s->last_post_r_num, (int)s->post_r_list_num, (int)s->last_post_r_list_num,
        (int)s->post_vapi_s_num, (int)s->post_vapi_r_num, (int)s->poll_vapi_num, (int)s->tx_byte,
        (int)s->last_tx_byte, (int)s->rx_byte, (int)s->last_rx_byte, (int)s->poll_num, (int)s->last_poll_num,
        (int)s->poll_cq_empty_num, (int)s->last_poll_cq_empty_num, (int)s->ox_receive_error_status,
        (int)s->ox_receive_last_error_status, (int)s->ox_send_error_status, (int)s->ox_send_last_error_status,
        (int)s->com_notify_num, (int)s->last_com_notify_num, (int)s->com_event_num,
        (int)s->last_com_event_num, (int)s->async_event_num, (int)s->last_async_event_num);
}

int print_mlx_adaptor_statistic(char *page, char **start, off_t off, int count, int *eof, void *data) {
    struct stat_page sp = {page, 0, 0, off, count};
    unsigned long flags;
    struct list_head *pos;
    int hca_num = 0;
    int len;

    (void)data;
    printk("Mellanox adaptor:\n");
    if (stat_page_add(&sp, "Mellanox adaptor:\n")) goto done;

    OX_MLX_LOCK(flags);
    list_for_each(pos, &g_opened_mlx_hcas_list) {
        ox_opened_hca_t *hca = list_entry(pos, ox_opened_hca_t, list);
        struct list_head *p;
        int stop;

        hca_num++;
        printk("- %d) MLX handle: %d, adapt: %p, app hca_h: %p:\n", hca_num, (int)hca->hca_h, (void *)hca,
               (void *)hca->app_hca_h);
        stop = stat_page_add(&sp, "- %d) MLX handle: %d, adapt: %p, app hca_h: %p:\n", hca_num,
                             (int)hca->hca_h, (void *)hca, (void *)hca->app_hca_h);
        /* The CQ and QP lists are walked to their ends; nothing of them is shown. */
        list_for_each(p, &hca->opened_cq_list) {}
        list_for_each(p, &hca->opened_qp_list) {}
        if (stop) {
            OX_MLX_UNLOCK(flags);
            printk("reach pos>offset+length in the lock - doing unlock\n");
            goto done;
        }
    }
    OX_MLX_UNLOCK(flags);

    print_counters_to_log();
    if (add_counters_to_page(&sp)) goto done;
    *eof = 1;

done:
    clear_companions();
    if (sp.off >= sp.begin + sp.len) return 0;
    *start = page + (sp.off - sp.begin);
    len = (int)(sp.begin + sp.len - sp.off);
    return len < count ? len : count;
}
