/* Completion polling: one VAPI completion, translated into the generic work completion.
 *
 * The VAPI record lives on the stack and the translation is two small tables, so a poll
 * allocates nothing and takes no lock (VAPI serialises access to its CQ). An empty CQ is not an
 * error: it answers ox_return_err_cq_empty and leaves the caller's record untouched. A completion
 * with an error status is still a successful poll. The output record is not cleared first:
 * fields the completion does not speak of keep the caller's values. */
#include <linux/string.h>

#include <vapi.h>

#include "adaptor-tavor.h"
#include "ox-entry-points.h"
#include "translate-completion.h"
#include "translate.h"

/* Completion errors logged so far (flushes are not logged); a diagnostic, not locked. */
static u32 ox_mlx_logged_completion_errors;

ox_return_t oxi_mlx_poll_for_completion(ox_opened_hca_t *opened_hca_p, ox_cq_h_t cq_h,
                                        ox_wc_t *work_completion) {
    ox_opened_cq_t *cq = (ox_opened_cq_t *)cq_h;
    VAPI_wc_desc_t wc_desc;
    VAPI_ret_t stat;
    u32 completion_status;
    u32 vapi_status, vapi_opcode;

    g_stat.poll_num++;
    g_stat.last_poll_num++;
    memset(&wc_desc, 0, sizeof(wc_desc));
    AD_TAVOR_DEBUG("polling CQ, hca_h: %d, cq_h: %p, user cq h: %p", (int)opened_hca_p->hca_h, cq->cq_h,
                   (void *)cq);

    stat = VAPI_poll_cq(opened_hca_p->hca_h, (VAPI_cq_hndl_t)(unsigned long)cq->cq_h, &wc_desc);
    if (stat == VAPI_CQ_EMPTY) {
        AD_TAVOR_DEBUG("Empty CQ: cq_h: %p, user cq h: %p", cq->cq_h, (void *)cq);
        g_stat.poll_cq_empty_num++;
        g_stat.last_poll_cq_empty_num++;
        return ox_return_err_cq_empty;
    }
    if (stat != VAPI_OK) {
        AD_TAVOR_ERROR("MLX AD_ERR: Fail to poll CQ, hca_h: %d, cq_h: %p, user cq h: %p (mlx:%d, %s)",
                       (int)opened_hca_p->hca_h, cq->cq_h, (void *)cq, stat, AD_TAVOR_MLX_STR);
        ox_mlx_count_vapi_failure(poll_for_completion_indx, stat);
        return ox_return_err;
    }

    /* Status, opcode and address type are read raw: the adapter may write any value there. */
    vapi_status = ox_mlx_raw_enum(&wc_desc.status);
    vapi_opcode = ox_mlx_raw_enum(&wc_desc.opcode);
    AD_TAVOR_DEBUG(
        "mlx parmeters (RD/UD):\n"
        "  id: %llu\n"
        "  opcode: %d\n"
        "  status: %d\n"
        "  byte_len: %u\n"
        "  imm_data_valid: %d\n"
        "  imm_data: %u\n"
        "  local_qp_num: %u\n"
        "  remote_node_addr.type: %d\n"
        "  remote_node_addr.slid: %d\n"
        "  remote_node_addr.sl: %d\n"
        "  remote_node_addr.qp_ety: %u\n"
        "  remote_node_addr.ee_dlid: %u\n"
        "  grh_flag: %d\n"
        "  pkey_ix: %d\n"
        "  vendor_err_syndrome: %u\n"
        "  free_res_count: %u",
        (unsigned long long)wc_desc.id, (int)vapi_opcode, (int)vapi_status, wc_desc.byte_len,
        (int)wc_desc.imm_data_valid, (unsigned)wc_desc.imm_data, (unsigned)wc_desc.local_qp_num,
        (int)ox_mlx_raw_enum(&wc_desc.remote_node_addr.type), (int)wc_desc.remote_node_addr.slid,
        (int)wc_desc.remote_node_addr.sl, (unsigned)wc_desc.remote_node_addr.qp_ety.qp,
        (unsigned)wc_desc.remote_node_addr.ee_dlid.loc_eecn, (int)wc_desc.grh_flag, (int)wc_desc.pkey_ix,
        (unsigned)wc_desc.vendor_err_syndrome, (unsigned)wc_desc.free_res_count);
    if (ox_mlx_raw_enum(&wc_desc.remote_node_addr.type) < (u32)VAPI_RNA_RAW_ETY)
        AD_TAVOR_DEBUG("Datagram - remote address info QP: %d", (int)wc_desc.remote_node_addr.qp_ety.qp);

    if (!ox_mlx_wc_from_vapi(&wc_desc, work_completion))
        AD_TAVOR_ERROR("ERROR - wc_desc.status: %d", (int)vapi_status);

    /* The data that came in: received sends and the answers of RDMA reads. */
    if (vapi_opcode == (u32)VAPI_CQE_RQ_SEND_DATA || vapi_opcode == (u32)VAPI_CQE_SQ_RDMA_READ) {
        g_stat.rx_byte += wc_desc.byte_len;
        g_stat.last_rx_byte += wc_desc.byte_len;
    }

    /* Read raw: the status table maps one VAPI status to 100, which is none of the generic
     * enumerators, and the caller reads it back as it stands. */
    completion_status = ox_mlx_raw_enum(&work_completion->completion_status);
    if (completion_status != (u32)ox_comp_status_success) {
        if (ox_mlx_raw_enum(&work_completion->operation_type) != (u32)ox_wc_send_rq) {
            g_stat.ox_send_error_status++;
            g_stat.ox_send_last_error_status++;
        } else {
            g_stat.ox_receive_error_status++;
            g_stat.ox_receive_last_error_status++;
        }
        if (vapi_status != (u32)VAPI_WR_FLUSH_ERR) {
            ox_mlx_logged_completion_errors++;
            AD_TAVOR_ERROR(
                "MRX: completion_status: %d (MLX: %d, syndrom: %d), total err num: %d (not print flush "
                "errors)",
                (int)completion_status, (int)vapi_status, (int)wc_desc.vendor_err_syndrome,
                (int)ox_mlx_logged_completion_errors);
        }
    }
    return ox_return_ok;
}
