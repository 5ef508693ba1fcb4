/* Arming a CQ for its next completion event, and the completion handler setter that the
 * provider table keeps. The handler itself is fixed when the CQ is created: every CQ's events go
 * to the adaptor's dispatcher, which calls the CQ owner's callback. */
#include <vapi.h>

#include "adaptor-tavor.h"
#include "ox-entry-points.h"
#include "translate-completion.h"

ox_return_t oxi_mlx_request_completion_notification(ox_opened_hca_t *opened_hca_p, ox_cq_h_t cq_h,
                                                    ox_request_comp_notify_t comp_notify) {
    ox_opened_cq_t *cq = (ox_opened_cq_t *)cq_h;
    /* Read raw: a caller may pass any value, also none of the enumerators. */
    const u32 request = ox_mlx_raw_enum(&comp_notify);
    VAPI_cq_notif_type_t notify;
    VAPI_ret_t stat;

    /* The operator has switched completion events off (control file, "event_ctrl"). */
    if (no_events_active) {
        AD_TAVOR_DEBUG("ADAPTOR_TAVOR_NO_CQ_EVENTS - no events");
        return ox_return_ok;
    }
    g_stat.com_notify_num++;
    g_stat.last_com_notify_num++;

    /* The table has two rows; any other request is refused rather than read past it. */
    if (request >= COM_NOTIFY_TRANSLATION_NUM) {
        AD_TAVOR_ERROR("ERROR - comp_notify: %d is not a notification type", (int)request);
        ox_mlx_count_error();
        return ox_return_err_invalid_parameter;
    }
    notify = (VAPI_cq_notif_type_t)com_notify_ox_to_mlx_translation[request];
    AD_TAVOR_DEBUG("comp notify: hca_h: %d, cq_h: %p, user cq h: %p, ox comp_notify: %d, mlx notify: %d",
                   (int)opened_hca_p->hca_h, cq->cq_h, (void *)cq, (int)request, (int)notify);

    stat = VAPI_req_comp_notif(opened_hca_p->hca_h, (VAPI_cq_hndl_t)(unsigned long)cq->cq_h, notify);
    if (stat != VAPI_OK) {
        AD_TAVOR_ERROR(
            "MLXAD_ERR: VAPI Fail to request completion notification, hca_h: %d, cq_h: %p, user cq_h: %p "
            "(mlx:%d, "
            "%s)",
            (int)opened_hca_p->hca_h, cq->cq_h, (void *)cq, stat, AD_TAVOR_MLX_STR);
        ox_mlx_count_vapi_failure(request_completion_notification_indx, stat);
        return ox_return_err;
    }
    return ox_return_ok;
}

/* Replacing the handler would cut every CQ of the HCA off from its owner's callback, so the
 * request is always refused (and counted as a refused request). */
ox_return_t oxi_mlx_set_completion_event_handler(ox_opened_hca_t * /*opened_hca_p*/,
                                                 ox_com_event_callback_t * /*com_callback*/) {
    AD_TAVOR_ERROR(
        "ERROR - application cann't change the completion event handler - will brake the adaptor !!!!!");
    ox_mlx_count_error();
    return ox_return_err;
}
