// Completions of send and receive requests, in order; the error and send-queue-error states and
// the flush that goes with them; the list of QPs with requester work.
#include <algorithm>

#include "datapath/datapath.hpp"

namespace marlix::softhca {

using qpsm::QpState;

namespace {

bool signalled(const Qp &qp, const SendEntry &w) {
    return w.desc.comp_type == VAPI_SIGNALED || qp.init.sq_sig_type == VAPI_SIGNAL_ALL_WR;
}

// Hands the request at `head`, the front of the send queue, back to the posters.
void retire_front(Qp &qp, uint64_t head) {
    qp.sq.pop();
    if (qp.next_send <= head) qp.next_send = head + 1;
}

// The completion of a send request, all but its free count (which follows its retirement).
void fill_send_wc(const Qp &qp, const SendEntry &w, VAPI_wc_desc_t &wc) {
    wc.status = w.status;
    wc.id = w.desc.id;
    wc.local_qp_num = qp.qp_num;
    wc.opcode = send_cqe_opcode(w.desc.opcode);
    wc.byte_len = w.status == VAPI_SUCCESS ? uint32_t(w.length) : 0;
    wc.vendor_err_syndrome = w.syndrome;
    wc.pkey_ix = w.has_pkey_ix ? w.pkey_ix : qp.attr.pkey_ix;
    wc.remote_node_addr.type = VAPI_RNA_UD;
}

}  // namespace

uint64_t rnr_timer_ns(uint8_t code) {
    // The RNR NAK timer field: 0 is 655.36 ms, 1..31 run from 0.01 ms to 491.52 ms.
    static constexpr uint32_t kMicros100[32] = {
        65536, 1,   2,   3,   4,    6,    8,    12,   16,   24,   32,   48,    64,    96,    128,   192,
        256,   384, 512, 768, 1024, 1536, 2048, 3072, 4096, 6144, 8192, 12288, 16384, 24576, 32768, 49152};
    return uint64_t(kMicros100[code & 31]) * 10000ull;  // units of 10 us
}

void activate(Device &dev, Qp &qp) {
    if (qp.on_active_list) return;
    qp.on_active_list = true;
    dev.active_qps.push_back(&qp);
}

bool ring_doorbell(Device &dev, Qp &qp) {
    if (qp.doorbell_rung.exchange(true, std::memory_order_acq_rel)) return false;
    Qp *head = dev.doorbells.load(std::memory_order_relaxed);
    do {
        qp.doorbell_next = head;
    } while (!dev.doorbells.compare_exchange_weak(head, &qp, std::memory_order_seq_cst,
                                                  std::memory_order_relaxed));
    return true;
}

void take_doorbells(Device &dev) {
    // Sequentially consistent: the threaded engine clears its "posts were left" flag and then
    // looks here, while a poster pushes here and then looks at that flag; one of them sees the
    // other's write.
    if (!dev.doorbells.load(std::memory_order_seq_cst)) return;
    Qp *qp = dev.doorbells.exchange(nullptr, std::memory_order_acquire);
    while (qp) {
        // Read the link before the flag goes down: a post may put the QP back on the list at once.
        Qp *next = qp->doorbell_next;
        {
            // Under the send queue lock: a poster that still sees the flag up has queued before
            // this, and the requester that runs next finds its request.
            std::lock_guard queue(qp->sq_mu);
            qp->doorbell_rung.store(false, std::memory_order_release);
        }
        // A record destroyed (or reused) since its post rang: activating it is harmless.
        if (!qp->destroyed) activate(dev, *qp);
        qp = next;
    }
}

void deactivate(Device &dev, Qp &qp) {
    if (!qp.on_active_list) return;
    qp.on_active_list = false;
    std::erase(dev.active_qps, &qp);
}

void qp_event(Qp &qp, VAPI_event_record_type_t type, PendingEvents &events) {
    VAPI_event_record_t rec{};
    rec.type = type;
    rec.modifier.qp_hndl = qp.hndl;
    events.async.push_back({rec, qp.event_gate});
}

void complete_send(Device &dev, Qp &qp, SendEntry &w, VAPI_wc_status_t status, uint32_t syndrome,
                   PendingEvents &events) {
    w.phase = SendPhase::Done;
    w.status = status;
    w.syndrome = syndrome;
    retire_sends(dev, qp, events);
}

void retire_sends(Device &, Qp &qp, PendingEvents &events) {
    // Only the data path marks requests done, and it runs here: what posters add meanwhile is
    // not done, so the tail as it is now bounds the run.
    const uint64_t tail = qp.sq.tail();
    uint64_t head = qp.sq.head();
    for (; head != tail && qp.sq.at(head).phase == SendPhase::Done; ++head) {
        const SendEntry &w = qp.sq.at(head);
        // Successful unsignalled requests leave no completion; errors and flushes always do.
        CompletionQueue *cq = qp.send_cq;
        if (!cq || (w.status == VAPI_SUCCESS && !signalled(qp, w))) {
            retire_front(qp, head);
            continue;
        }
        // Read the request before it is retired: its slot is then the posters'. Its completion
        // goes out after, so that a poller who sees it finds the slot free.
        VAPI_wc_desc_t wc{};
        fill_send_wc(qp, w, wc);
        retire_front(qp, head);
        wc.free_res_count = qp.sq.free_slots();
        push_completion(*cq, wc, false, events);
    }
    // Nothing unanswered any more: no retransmission is due.
    if (head == qp.next_send) qp.retransmit_at = 0;
}

void flush_send_queue(Device &dev, Qp &qp, PendingEvents &events) {
    while (!qp.sq.empty()) {
        SendEntry &w = qp.sq.front();
        if (w.phase != SendPhase::Done) {
            w.phase = SendPhase::Done;
            w.status = VAPI_WR_FLUSH_ERR;
            w.syndrome = 0;
        }
        retire_sends(dev, qp, events);
    }
    qp.next_send = qp.sent_high = qp.sq.head();
    qp.rd_atom_outstanding = 0;
    qp.retransmit_at = 0;
    qp.rnr_wait_until = 0;
}

void flush_recv_queue(Device &, Qp &qp, PendingEvents &events) {
    CompletionQueue *cq = qp.recv_cq;
    while (!qp.rq.empty()) {
        RecvEntry w = qp.rq.front();
        qp.rq.pop();
        if (!cq) continue;
        VAPI_wc_desc_t wc{};
        wc.status = VAPI_WR_FLUSH_ERR;
        wc.id = w.desc.id;
        wc.local_qp_num = qp.qp_num;
        wc.opcode = VAPI_CQE_RQ_SEND_DATA;
        wc.free_res_count = qp.rq.free_slots();
        wc.remote_node_addr.type = VAPI_RNA_UD;
        push_completion(*cq, wc, false, events);
    }
    qp.in_message = false;
    qp.recv_taken = false;
}

void flush_qp(Device &dev, Qp &qp, PendingEvents &events) {
    flush_recv_queue(dev, qp, events);
    flush_send_queue(dev, qp, events);
}

void enter_error(Device &dev, Qp &qp, PendingEvents &events) {
    QpQueueLock queues(qp);
    qp.attr.qp_state = VAPI_ERR;
    flush_qp(dev, qp, events);
}

void enter_send_error(Device &dev, Qp &qp, PendingEvents &events) {
    QpQueueLock queues(qp);
    qp.attr.qp_state = VAPI_SQE;
    flush_send_queue(dev, qp, events);
}

}  // namespace marlix::softhca
