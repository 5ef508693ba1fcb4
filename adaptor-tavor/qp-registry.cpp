/* QPs created outside this adaptor, made known on an HCA's QP list by their owner's handle and QP
 * number. Their records are neither accounted nor un-accounted in the memory table (the two calls
 * are symmetric), get no array slot, and carry ox_qp_type_not_valid. */
#include <linux/kernel.h>
#include <linux/slab.h>
#include <linux/list.h>
#include <linux/spinlock.h>

#include "adaptor-tavor.h"
#include "ox-entry-points.h"

ox_return_t oxi_mlx_qp_add_h(ox_opened_hca_t *opened_hca_p, ox_qp_h_t qp_h, int qpn) {
    ox_opened_qp_t *opened_qp_p;
    unsigned long flags;

    opened_qp_p = (ox_opened_qp_t *)kmalloc(sizeof(*opened_qp_p), GFP_ATOMIC);
    if (!opened_qp_p) {
        AD_TAVOR_ERROR("Fail to allocate memory: ox_opened_qp_t");
        ox_mlx_count_alloc_failure();
        return ox_return_err_alloc_mem;
    }
    opened_qp_p->qp_h = qp_h;
    opened_qp_p->qp_num = (ox_qp_t)qpn;
    opened_qp_p->qp_oxuser_context = 0;
    opened_qp_p->type = ox_qp_type_not_valid;
    spin_lock_init(&opened_qp_p->s_sl);
    AD_TAVOR_DEBUG("New user qp h: %p, qp num: %d", qp_h, qpn);

    OX_MLX_LOCK(flags);
    list_add(&opened_qp_p->list, &opened_hca_p->opened_qp_list);
    OX_MLX_UNLOCK(flags);
    g_stat.qp_num++;
    g_stat.last_qp_num++;
    return ox_return_ok;
}

/* 0 when a record matched both the handle and the QP number and was removed, the plain number 1
 * when none did (callers test for 0). */
ox_return_t oxi_mlx_qp_rem_h(ox_opened_hca_t *opened_hca_p, ox_qp_h_t qp_h, int qpn) {
    struct list_head *pos;
    unsigned long flags;
    int removed = 0;

    AD_TAVOR_DEBUG("Destroy qp_h: %ld, hca_h: %d, will free adaptor data", (long)(unsigned long)qp_h,
                   (int)opened_hca_p->hca_h);
    AD_TAVOR_DEBUG("Find hca_h, Look for QP element in the list");
    OX_MLX_LOCK(flags);
    list_for_each(pos, &opened_hca_p->opened_qp_list) {
        ox_opened_qp_t *opened_qp_p = list_entry(pos, ox_opened_qp_t, list);

        if (opened_qp_p->qp_h == qp_h && opened_qp_p->qp_num == (ox_qp_t)qpn) {
            g_stat.qp_num--;
            g_stat.last_qp_num--;
            AD_TAVOR_DEBUG("Free opened_qp_p for qp_h: %p, qp_num: %u", qp_h, (unsigned)opened_qp_p->qp_num);
            list_del(&opened_qp_p->list);
            kfree(opened_qp_p);
            removed = 1;
            break;
        }
    }
    OX_MLX_UNLOCK(flags);
    return removed ? ox_return_ok : (ox_return_t)1;
}
