/* HCA close: the end of an HCA open, and the undoing of a partly completed one.
 *
 * Every step runs whatever the one before did; a failing step is logged and counted and the
 * teardown goes on. CQ and QP records an upper layer left behind are freed without destroying the
 * VAPI objects (closing the device is VAPI's business). Only the final close or release of the
 * VAPI handle decides the result, and the record is freed in every case. The caller must make
 * sure nothing else uses the HCA meanwhile: the lists are emptied without the lock. */
#include <linux/kernel.h>
#include <linux/module.h>
#include <linux/slab.h>
#include <linux/list.h>

#include <vapi.h>
#include <evapi.h>

#include "adaptor-tavor.h"
#include "async-events.h"
#include "ox-entry-points.h"

/* Deregisters and frees the generic registrations. The elements are not uncounted in the
 * accounting table (open counts one, so each open and close leaves mem_mr_ix one higher), and
 * num_of_gen_mem_reg, which open leaves at 0, goes down once per element. */
static void ox_mlx_destroy_gen_mem_reg(ox_opened_hca_t *opened_hca_p) {
    struct list_head *pos, *n;
    int found = 0;

    AD_TAVOR_DEBUG("look for generic mr_h in the list and deregister the mem (hca_h: %d)",
                   (int)opened_hca_p->hca_h);
    list_for_each_safe(pos, n, &opened_hca_p->generic_mem_reg_list) {
        ox_gen_mr_element_t *element = list_entry(pos, ox_gen_mr_element_t, list);

        found++;
        AD_TAVOR_DEBUG("foud %d, mem_reg_h: %d, remove from list", found, (int)element->mr_h);
        if (oxi_mlx_mem_region_destroy(opened_hca_p, element->mr_h) != ox_return_ok)
            AD_TAVOR_ERROR("Fail to deregister mr_h: %d, hca_h: %d", (int)element->mr_h,
                           (int)opened_hca_p->hca_h);
        opened_hca_p->num_of_gen_mem_reg--;
        list_del(&element->list);
        kfree(element);
    }
    AD_TAVOR_DEBUG("num of gen MR: %d (hca_h: %d)", (int)opened_hca_p->num_of_gen_mem_reg,
                   (int)opened_hca_p->hca_h);
    if (opened_hca_p->gen_mem_array_p) {
        kfree(opened_hca_p->gen_mem_array_p);
        opened_hca_p->gen_mem_array_p = 0;
        mem_alloc_del(mem_gen_mem_array_p_ix);
    }
}

ox_return_t oxi_mlx_hca_close(ox_opened_hca_t *opened_hca_p) {
    VAPI_hca_hndl_t hca_h = opened_hca_p->hca_h;
    struct list_head *pos, *n;
    unsigned long flags;
    VAPI_ret_t stat;

    module_put(THIS_MODULE);

    OX_MLX_LOCK(flags);
    list_del(&opened_hca_p->list);
    OX_MLX_UNLOCK(flags);
    AD_TAVOR_DEBUG("close hca_h: %d, will free adaptor internal data", (int)hca_h);

    stat = VAPI_set_async_event_handler(hca_h, 0, 0);
    if (stat != VAPI_OK) {
        AD_TAVOR_ERROR(
            "MLXAD_ERR: VAPI Fail to deregister async event callback for device handle: %d (mlx:%d, %s)",
            (int)hca_h, stat, AD_TAVOR_MLX_STR);
        ox_mlx_count_vapi_failure_no_ring();
    }

    ox_mlx_destroy_gen_mem_reg(opened_hca_p);

    stat = VAPI_dealloc_pd(hca_h, (VAPI_pd_hndl_t)opened_hca_p->generic_pd_h);
    if (stat != VAPI_OK) {
        AD_TAVOR_ERROR("MLXAD_ERR: VAPI Fail to de-allocate PD, The hca_h: %d (mlx:%d, %s)", (int)hca_h, stat,
                       AD_TAVOR_MLX_STR);
        ox_mlx_count_vapi_failure_no_ring();
    } else {
        g_stat.pd_num--;
        g_stat.last_pd_num--;
        AD_TAVOR_DEBUG("dealloc pd_h: %d, hca_h: %d, PD global statistic: %d",
                       (int)opened_hca_p->generic_pd_h, (int)hca_h, (int)g_stat.pd_num);
    }

    /* Records an upper layer left behind; their VAPI objects go with the device. */
    AD_TAVOR_DEBUG("Look for CQ element - need to be empty if we are dealing with good applications");
    list_for_each_safe(pos, n, &opened_hca_p->opened_cq_list) {
        ox_opened_cq_t *cq = list_entry(pos, ox_opened_cq_t, list);

        AD_TAVOR_DEBUG("hca_h: %d, free opened_cq_p for cq_h: %ld", (int)opened_hca_p->hca_h,
                       (long)(unsigned long)cq->cq_h);
        list_del(&cq->list);
        g_stat.cq_num--;
        g_stat.last_cq_num--;
        AD_TAVOR_DEBUG("opened CQ number:%d", (int)g_stat.cq_num);
        kfree(cq);
        mem_alloc_del(mem_cq_ix);
    }

    AD_TAVOR_DEBUG("Look for QP element - need to be empty if we are dealing with good applications");
    list_for_each_safe(pos, n, &opened_hca_p->opened_qp_list) {
        ox_opened_qp_t *qp = list_entry(pos, ox_opened_qp_t, list);

        AD_TAVOR_DEBUG("hca_h: %d, free opened_qp_p for qp_h: %ld", (int)opened_hca_p->hca_h,
                       (long)(unsigned long)qp->qp_h);
        list_del(&qp->list);
        g_stat.qp_num--;
        g_stat.last_qp_num--;
        AD_TAVOR_DEBUG("opened QP number:%d", (int)g_stat.qp_num);
        kfree(qp);
        mem_alloc_del(mem_qp_ix);
    }

    if (ox_mlx_destroy_async_events(opened_hca_p) != ox_return_ok)
        AD_TAVOR_ERROR("ERROR - destroy async event elements for hca_h: %d", (int)hca_h);

    AD_TAVOR_DEBUG("Free opened_qp_array: %p, opened_cq_array: %p", (void *)opened_hca_p->opened_qp_array,
                   (void *)opened_hca_p->opened_cq_array);
    kfree(opened_hca_p->opened_qp_array);
    mem_alloc_del(mem_opened_qp_array_ix);
    kfree(opened_hca_p->opened_cq_array);
    mem_alloc_del(mem_opened_cq_array_ix);

    AD_TAVOR_DEBUG("going to close hca");
    if (opened_hca_p->get_hca_h_by_open)
        stat = VAPI_close_hca(hca_h);
    else
        stat = EVAPI_release_hca_hndl(hca_h);
    if (stat != VAPI_OK) {
        AD_TAVOR_ERROR("MLXAD_ERR: VAPI Fail to close device handle: %d (mlx:%d, %s)", (int)hca_h, stat,
                       AD_TAVOR_MLX_STR);
        ox_mlx_count_vapi_failure_no_ring();
    }

    AD_TAVOR_DEBUG("Free ox_opened_hca_t for hca_h: %d (struct hca_h: %d)", (int)hca_h,
                   (int)opened_hca_p->hca_h);
    kfree(opened_hca_p);
    mem_alloc_del(mem_hca_ix);
    g_stat.opend_device_num--;
    AD_TAVOR_DEBUG("opened device number:%d", (int)g_stat.opend_device_num);

    return stat == VAPI_OK ? ox_return_ok : ox_return_err;
}
