// Flushing: a QP in the error state completes every queued work request with the flush status.
#include "device/qp.hpp"

namespace marlix::softhca {

namespace {

VAPI_wc_desc_t flush_entry(const Qp &qp, VAPI_wr_id_t id, VAPI_cqe_opcode_t opcode) {
    VAPI_wc_desc_t wc{};
    wc.status = VAPI_WR_FLUSH_ERR;
    wc.id = id;
    wc.local_qp_num = qp.qp_num;
    wc.opcode = opcode;
    wc.remote_node_addr.type = VAPI_RNA_UD;
    return wc;
}

}  // namespace

void flush_send_queue(Device &dev, Qp &qp, PendingEvents &events) {
    CompletionQueue *cq = find_cq(dev, qp.init.sq_cq_hndl);
    for (const SendWqe &w : qp.sq)
        if (cq)
            push_completion(*cq, flush_entry(qp, w.desc.id, send_cqe_opcode(w.desc.opcode)), false, events);
    qp.sq.clear();
}

void flush_recv_queue(Device &dev, Qp &qp, PendingEvents &events) {
    CompletionQueue *cq = find_cq(dev, qp.init.rq_cq_hndl);
    for (const RecvWqe &w : qp.rq)
        if (cq) push_completion(*cq, flush_entry(qp, w.desc.id, VAPI_CQE_RQ_SEND_DATA), false, events);
    qp.rq.clear();
}

void flush_qp(Device &dev, Qp &qp, PendingEvents &events) {
    flush_recv_queue(dev, qp, events);
    flush_send_queue(dev, qp, events);
}

}  // namespace marlix::softhca
