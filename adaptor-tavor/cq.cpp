/* Completion queues: create, query, resize, re-target and destroy.
 *
 * The caller's CQ handle is the address of the CQ's ox_opened_cq_t; the VAPI handle stays in the
 * record. Every record is on its HCA's opened_cq_list, and a record whose VAPI handle is at most
 * 1000 also sits in opened_cq_array at that index, so that completion events and the generator
 * find it without a walk. Create inserts into the list under ox_mlx_sl; the array stores and the
 * unlink in destroy run without it, as every other user of the array reads it unlocked. */
#include <linux/kernel.h>
#include <linux/slab.h>
#include <linux/list.h>

#include <vapi.h>
#include <evapi.h>

#include "adaptor-tavor.h"
#include "completion-events.h"
#include "tracking-lookup.h"
#include "ox-entry-points.h"

ox_return_t oxi_mlx_cq_create(ox_opened_hca_t *opened_hca_p, u32 cq_req_size,
                              ox_app_com_event_callback_t com_event_callback, void *cq_context,
                              ox_cq_h_t *cq_h, u32 *cq_act_size) {
    ox_opened_cq_t *opened_cq_p;
    VAPI_cq_hndl_t vapi_cq_h = 0;
    unsigned long flags;
    VAPI_ret_t stat;

    opened_cq_p = (ox_opened_cq_t *)kzalloc(sizeof(*opened_cq_p), GFP_ATOMIC);
    if (!opened_cq_p) {
        /* No CQ exists yet: the handle printed is whatever the caller's variable holds. */
        AD_TAVOR_ERROR("Fail to allocate memory: ox_opened_cq_t, will destroy cq_h: %ld",
                       (long)(unsigned long)*cq_h);
        ox_mlx_count_alloc_failure();
        return ox_return_err_alloc_mem;
    }
    mem_alloc_add(mem_cq_ix);

    stat = VAPI_create_cq(opened_hca_p->hca_h, (VAPI_cqe_num_t)cq_req_size, &vapi_cq_h,
                          (VAPI_cqe_num_t *)cq_act_size);
    if (stat != VAPI_OK) {
        AD_TAVOR_ERROR("MLXAD_ERR: VAPI Fail to create CQ, hca_h: %d (mlx:%d, %s)", (int)opened_hca_p->hca_h,
                       stat, AD_TAVOR_MLX_STR);
        ox_mlx_count_vapi_error();
        ox_mlx_record_vapi_err(cq_create_indx, stat);
        kfree(opened_cq_p);
        mem_alloc_del(mem_cq_ix);
        ox_mlx_count_error();
        return ox_return_err;
    }
    opened_cq_p->cq_h = (ox_cq_h_t)vapi_cq_h;
    *cq_h = (ox_cq_h_t)opened_cq_p;

    if (ox_mlx_handle_has_slot(vapi_cq_h)) {
        AD_TAVOR_DEBUG("Entering opened_cq_p into array");
        ox_mlx_set_cq_slot(opened_hca_p, vapi_cq_h, opened_cq_p);
    }
    AD_TAVOR_DEBUG("New cq_h: %ld, %p, user cq handle: %p, actual size : requested size  %d:%d",
                   (long)vapi_cq_h, (void *)vapi_cq_h, (void *)opened_cq_p, (int)*cq_act_size,
                   (int)cq_req_size);

    opened_cq_p->cq_oxuser_context = cq_context;
    opened_cq_p->app_com_callback = com_event_callback;
    AD_TAVOR_DEBUG("Opened CQ data: hca_h: %d, cq_context: %p, com_event_callback: %p",
                   (int)opened_hca_p->hca_h, cq_context, (void *)com_event_callback);

    OX_MLX_LOCK(flags);
    list_add(&opened_cq_p->list, &opened_hca_p->opened_cq_list);
    OX_MLX_UNLOCK(flags);

    g_stat.cq_num++;
    g_stat.last_cq_num++;
    AD_TAVOR_DEBUG("Add the new CQ element to the list (hca_h: %d), global statistic CQ num: %d",
                   (int)opened_hca_p->hca_h, (int)g_stat.cq_num);

    stat = EVAPI_set_comp_eventh(opened_hca_p->hca_h, vapi_cq_h, ox_mlx_cq_completion_event_handler,
                                 opened_cq_p, &opened_cq_p->comp_handler_hndl);
    if (stat != VAPI_OK) {
        /* The CQ stays created, listed and counted, and the caller already holds its handle: the
         * caller destroys it. error_num is left alone on this path. */
        AD_TAVOR_ERROR(
            "MLXAD_ERR: EVAPI Fail to register CQ event handler, hca_h: %d, user cq h: %p, mlx cq h: %ld "
            "(mlx:%d, "
            "%s)",
            (int)opened_hca_p->hca_h, (void *)opened_cq_p, (long)vapi_cq_h, stat, AD_TAVOR_MLX_STR);
        ox_mlx_count_vapi_error();
        ox_mlx_record_vapi_err(req_comp_cq_indx, stat);
        return ox_return_err;
    }
    AD_TAVOR_DEBUG("EVAPI register CQ event handler, hca_h: %d, user cq h: %p, mlx cq h: %ld",
                   (int)opened_hca_p->hca_h, (void *)opened_cq_p, (long)vapi_cq_h);
    return ox_return_ok;
}

ox_return_t oxi_mlx_cq_query(ox_opened_hca_t *opened_hca_p, ox_cq_h_t cq_h, u32 *cq_size,
                             void **cq_context_p) {
    ox_opened_cq_t *opened_cq_p = (ox_opened_cq_t *)cq_h;
    VAPI_ret_t stat;

    stat = VAPI_query_cq(opened_hca_p->hca_h, (VAPI_cq_hndl_t)opened_cq_p->cq_h, (VAPI_cqe_num_t *)cq_size);
    if (stat != VAPI_OK) {
        AD_TAVOR_ERROR("MLX Fail to query CQ, hca_h: %d, cq_h: %p, user cq handle: %p (mlx:%d, %s)",
                       (int)opened_hca_p->hca_h, opened_cq_p->cq_h, (void *)opened_cq_p, stat,
                       AD_TAVOR_MLX_STR);
        ox_mlx_count_vapi_failure_no_ring();
        return ox_return_err;
    }
    AD_TAVOR_DEBUG("cq_size: %d", (int)*cq_size);
    *cq_context_p = opened_cq_p->cq_oxuser_context;
    return ox_return_ok;
}

ox_return_t oxi_mlx_cq_resize(ox_opened_hca_t *opened_hca_p, ox_cq_h_t cq_h, u32 cq_req_size,
                              u32 *cq_act_size) {
    ox_opened_cq_t *opened_cq_p = (ox_opened_cq_t *)cq_h;
    VAPI_ret_t stat;

    stat = VAPI_resize_cq(opened_hca_p->hca_h, (VAPI_cq_hndl_t)opened_cq_p->cq_h, (VAPI_cqe_num_t)cq_req_size,
                          (VAPI_cqe_num_t *)cq_act_size);
    if (stat != VAPI_OK) {
        AD_TAVOR_ERROR("MLX Fail to resize CQ, hca_h: %d, cq_h: %p, user cq h: %p(mlx:%d, %s)",
                       (int)opened_hca_p->hca_h, opened_cq_p->cq_h, (void *)opened_cq_p, stat,
                       AD_TAVOR_MLX_STR);
        ox_mlx_count_vapi_failure_no_ring();
        return ox_return_err;
    }
    AD_TAVOR_DEBUG("resize CQ for cq_h: %p, user cq h: %p, actual size:requested size  %d:%d",
                   opened_cq_p->cq_h, (void *)opened_cq_p, (int)*cq_act_size, (int)cq_req_size);
    return ox_return_ok;
}

/* A null argument keeps the field as it is, so neither can be cleared. */
ox_return_t oxi_mlx_cq_modify_attrib(ox_opened_hca_t * /*opened_hca_p*/, ox_cq_h_t cq_h, void *cq_context,
                                     ox_app_com_event_callback_t com_event_callback) {
    ox_opened_cq_t *opened_cq_p = (ox_opened_cq_t *)cq_h;

    if (cq_context) opened_cq_p->cq_oxuser_context = cq_context;
    if (com_event_callback) opened_cq_p->app_com_callback = com_event_callback;
    return ox_return_ok;
}

ox_return_t oxi_mlx_cq_destroy(ox_opened_hca_t *opened_hca_p, ox_cq_h_t cq_h) {
    ox_opened_cq_t *opened_cq_p = (ox_opened_cq_t *)cq_h;
    VAPI_cq_hndl_t vapi_cq_h = (VAPI_cq_hndl_t)opened_cq_p->cq_h;
    VAPI_ret_t stat;

    /* A handler that cannot be cleared may still fire on a freed record; the CQ goes anyway. */
    stat = EVAPI_clear_comp_eventh(opened_hca_p->hca_h, opened_cq_p->comp_handler_hndl);
    if (stat != VAPI_OK) {
        AD_TAVOR_ERROR(
            "MLXAD_ERR: ERROR - EVAPI Fail to clear CQ event handler, hca_h: %d, user cq h: %p, mlx cq h: "
            "%ld "
            "(mlx:%d, %s)",
            (int)opened_hca_p->hca_h, (void *)opened_cq_p, (long)vapi_cq_h, stat, AD_TAVOR_MLX_STR);
        AD_TAVOR_ERROR("MLXAD_ERR: ERROR completion handler will oops !!! (free the opened cq struct)");
        ox_mlx_count_vapi_failure(del_comp_cq_indx, stat);
    } else {
        AD_TAVOR_DEBUG("EVAPI clear CQ event handler, hca_h: %d, user cq h: %p, mlx cq h: %ld",
                       (int)opened_hca_p->hca_h, (void *)opened_cq_p, (long)vapi_cq_h);
    }

    stat = VAPI_destroy_cq(opened_hca_p->hca_h, vapi_cq_h);
    if (stat != VAPI_OK) {
        /* The record stays listed and counted (its handler is already cleared). */
        AD_TAVOR_ERROR("MLX Fail to destroy CQ, hca_h: %d, cq_h: %p, user cq h: %p (mlx:%d, %s)",
                       (int)opened_hca_p->hca_h, (void *)vapi_cq_h, (void *)opened_cq_p, stat,
                       AD_TAVOR_MLX_STR);
        ox_mlx_count_vapi_failure(cq_destroy_indx, stat);
        return ox_return_err;
    }
    AD_TAVOR_DEBUG("Destroy cq_h: %p, user cq h: %p, hca_h: %d", (void *)vapi_cq_h, (void *)opened_cq_p,
                   (int)opened_hca_p->hca_h);
    if (ox_mlx_handle_has_slot(vapi_cq_h)) {
        AD_TAVOR_DEBUG("Remove cq from the opened_cq_array");
        ox_mlx_set_cq_slot(opened_hca_p, vapi_cq_h, 0);
    }

    /* Create inserts under ox_mlx_sl; this unlink does not take it. */
    list_del(&opened_cq_p->list);

    AD_TAVOR_DEBUG("hca_h: %d, free opened_cq_p for cq_h: %p", (int)opened_hca_p->hca_h, (void *)vapi_cq_h);
    g_stat.cq_num--;
    g_stat.last_cq_num--;
    AD_TAVOR_DEBUG("CQ global statistic: %d", (int)g_stat.cq_num);
    kfree(opened_cq_p);
    mem_alloc_del(mem_cq_ix);
    return ox_return_ok;
}
