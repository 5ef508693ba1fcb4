// The completer: turns the acknowledgements and responses of a reliable connection into
// completions, places read data and atomic results, and handles NAKs (RNR waits, go-back-N
// retransmission, remote errors) and the retransmission timer.
#include <cstring>

#include "datapath/datapath.hpp"
#include "device/limits.hpp"

namespace marlix::softhca {

using qpsm::QpKind;
using qpsm::QpState;

namespace {

bool psn_in(uint32_t psn, const SendEntry &w) {
    return psn_diff(psn, w.first_psn) >= 0 && psn_diff(psn, w.last_psn) <= 0;
}

// The sent request a response PSN belongs to; null when none (a duplicate or a stray packet).
SendEntry *find_sent(Qp &qp, uint32_t psn, uint64_t *pos_out = nullptr) {
    for (uint64_t pos = qp.sq.head(); pos < qp.next_send; ++pos) {
        SendEntry &w = qp.sq.at(pos);
        if (w.phase == SendPhase::Sent && psn_in(psn, w)) {
            if (pos_out) *pos_out = pos;
            return &w;
        }
    }
    return nullptr;
}

// Sends everything from `pos` on again, from its first PSN.
void rewind_to(Device &dev, Qp &qp, uint64_t pos) {
    qp.rd_atom_outstanding = 0;
    for (uint64_t p = qp.sq.head(); p < qp.next_send; ++p) {
        SendEntry &w = qp.sq.at(p);
        if (p >= pos && w.phase == SendPhase::Sent) w.phase = SendPhase::Queued;
        if (p < pos && w.phase == SendPhase::Sent && is_read_or_atomic(w.desc.opcode))
            ++qp.rd_atom_outstanding;
    }
    if (pos < qp.next_send) {
        qp.next_psn = qp.sq.at(pos).first_psn;
        qp.next_send = pos;
    }
    qp.retransmit_at = 0;
    activate(dev, qp);
}

// Progress: the retry budgets start again and the timer restarts if a request is `unanswered`.
void progress(Qp &qp, uint64_t now, bool unanswered) {
    qp.retries_left = qp.attr.retry_count;
    qp.rnr_retries_left = qp.attr.rnr_retry;
    qp.retransmit_at = unanswered && qp.attr.timeout ? now + timeout_ns(qp.attr.timeout) : 0;
}
// The same, finding out whether a sent request is still unanswered.
void progress(Qp &qp, uint64_t now) {
    bool unanswered = false;
    for (uint64_t p = qp.sq.head(); p < qp.next_send && !unanswered; ++p)
        unanswered = qp.sq.at(p).phase == SendPhase::Sent;
    progress(qp, now, unanswered);
}

// Completes, in order, every sent request before `pos` that needs no response of its own (an
// ACK or a later response acknowledges them); requests awaiting a read or atomic response stop it.
// Returns whether it stopped at a sent request (which is then still unanswered); otherwise no
// sent request is left before the next to send. Built into its callers: every ACK walks here,
// with `inclusive` and the bound known there.
[[gnu::always_inline]] inline bool ack_before(Qp &qp, uint64_t pos, uint32_t psn_acked, bool inclusive) {
    for (uint64_t p = qp.sq.head(); p < qp.next_send; ++p) {
        SendEntry &w = qp.sq.at(p);
        if (w.phase != SendPhase::Sent) continue;
        if (p > pos || (p == pos && !inclusive)) return true;
        if (psn_diff(w.last_psn, psn_acked) > 0) return true;
        if (is_read_or_atomic(w.desc.opcode)) return true;
        w.phase = SendPhase::Done;
        w.status = VAPI_SUCCESS;
    }
    return false;
}

void fail(Device &dev, Qp &qp, SendEntry &w, VAPI_wc_status_t status, uint32_t syndrome,
          PendingEvents &events) {
    // Everything before it that was acknowledged by implication completes first.
    w.phase = SendPhase::Done;
    w.status = status;
    w.syndrome = syndrome;
    retire_sends(dev, qp, events);
    enter_error(dev, qp, events);
}

void check_drained(Qp &qp, PendingEvents &events) {
    if (qp.sqd_event_due && qp.state() == QpState::Sqd && qp.sq.head() == qp.next_send) {
        qp.sqd_event_due = false;
        qp.attr.sq_draining = FALSE;
        qp_event(qp, VAPI_SEND_QUEUE_DRAINED, events);
    }
}

// Writes `len` bytes from `src` (or the packet's payload) into the request's scatter list at `at`.
bool place(Device &dev, Qp &qp, const SendEntry &w, uint64_t at, const Packet &p, uint64_t len,
           const uint8_t *src = nullptr) {
    uint64_t skip = at, from = 0;
    for (uint32_t i = 0; i < w.sg_count && len > 0; ++i) {
        const VAPI_sg_lst_entry_t &e = w.sg[i];
        if (skip >= e.len) {
            skip -= e.len;
            continue;
        }
        uint64_t n = std::min<uint64_t>(e.len - skip, len);
        VAPI_ret_t rc = dev.walk(e.lkey, false, qp.init.pd_hndl, e.addr + skip, n, VAPI_EN_LOCAL_WRITE,
                                 [&](uint8_t *dst, size_t m) {
                                     if (src)
                                         std::memcpy(dst, src + from, m);
                                     else
                                         p.read_payload(from, dst, m);
                                     from += m;
                                     return true;
                                 });
        if (rc != VAPI_OK) return false;
        len -= n;
        skip = 0;
    }
    return len == 0;
}

}  // namespace

void complete(Device &dev, IB_port_t port, const Packet &p, uint64_t now, PendingEvents &events) {
    if (Port *pt = dev.port(port)) pt->count_rcv(p.wire_bytes());
    Qp *qpp = find_qp_by_num(dev, p.dest_qp, port);
    if (!qpp || qpp->destroyed || qpp->kind != QpKind::Regular || qpp->transport() != VAPI_TS_RC) return;
    Qp &qp = *qpp;
    if (qp.state() != QpState::Rts && qp.state() != QpState::Sqd) return;
    const uint8_t o = op::operation(p.opcode);
    uint64_t pos = 0;
    if (o == op::kAck) {
        const uint8_t kind = aeth::kind(p.syndrome);
        if (kind == aeth::kAck) {
            // Everything up to this PSN arrived.
            uint64_t last = qp.next_send;
            // What it leaves unanswered is what the timer now waits for.
            progress(qp, now, ack_before(qp, last, p.psn, true));
        } else if (kind == aeth::kRnrNak) {
            SendEntry *w = find_sent(qp, p.psn, &pos);
            if (!w) return;
            ack_before(qp, pos, psn_add(p.psn, kPsnMask), false);
            if (qp.attr.rnr_retry != 7) {
                // 7 retries for ever; otherwise each RNR NAK uses one.
                if (qp.rnr_retries_left == 0) {
                    fail(dev, qp, *w, VAPI_RNR_RETRY_EXC_ERR, p.syndrome, events);
                    return;
                }
                --qp.rnr_retries_left;
            }
            rewind_to(dev, qp, pos);
            qp.rnr_wait_until = now + rnr_timer_ns(p.syndrome & 31);
        } else if (p.syndrome == aeth::kNakPsnSeq) {
            // The responder missed a packet: go back to the request that holds that PSN.
            SendEntry *w = find_sent(qp, p.psn, &pos);
            if (!w) return;
            ack_before(qp, pos, psn_add(p.psn, kPsnMask), false);
            rewind_to(dev, qp, pos);
        } else {
            SendEntry *w = find_sent(qp, p.psn, &pos);
            if (!w) return;
            ack_before(qp, pos, psn_add(p.psn, kPsnMask), false);
            VAPI_wc_status_t st = p.syndrome == aeth::kNakInvalidRequest ? VAPI_REM_INV_REQ_ERR
                                  : p.syndrome == aeth::kNakRemoteAccess ? VAPI_REM_ACCESS_ERR
                                                                         : VAPI_REM_OP_ERR;
            fail(dev, qp, *w, st, p.syndrome, events);
            return;
        }
    } else if (op::is_read_response(p.opcode) || o == op::kAtomicAck) {
        SendEntry *w = find_sent(qp, p.psn, &pos);
        if (!w) return;  // a duplicate response
        ack_before(qp, pos, psn_add(w->first_psn, kPsnMask), false);
        const bool read = w->desc.opcode == VAPI_RDMA_READ;
        if (read != op::is_read_response(p.opcode)) {
            fail(dev, qp, *w, VAPI_BAD_RESP_ERR, 0, events);
            return;
        }
        if (read) {
            const uint64_t at = uint64_t(psn_diff(p.psn, w->first_psn)) * mtu_bytes(qp.attr.path_mtu);
            // Responses arrive in order; one out of order means one was lost: the timer resends.
            if (at != w->read_received) return;
            if (!place(dev, qp, *w, at, p, p.payload_len)) {
                fail(dev, qp, *w, VAPI_LOC_PROT_ERR, 0, events);
                return;
            }
            w->read_received += p.payload_len;
            if (!op::is_last(p.opcode)) return;
        } else {
            uint8_t orig[limits::kAtomicBytes];
            std::memcpy(orig, &p.atomic_orig, sizeof orig);
            if (!place(dev, qp, *w, 0, p, sizeof orig, orig)) {
                fail(dev, qp, *w, VAPI_LOC_PROT_ERR, 0, events);
                return;
            }
        }
        w->phase = SendPhase::Done;
        w->status = VAPI_SUCCESS;
        if (qp.rd_atom_outstanding) --qp.rd_atom_outstanding;
        progress(qp, now);
        activate(dev, qp);  // a fence or the read limit may have held requests back
    } else {
        return;
    }
    retire_sends(dev, qp, events);
    check_drained(qp, events);
}

size_t run_timers(Device &dev, uint64_t now, PendingEvents &events) {
    size_t fired = 0;
    for (auto &[h, obj] : dev.qps) {
        Qp &qp = *static_cast<Qp *>(obj.get());
        if (qp.rnr_wait_until && now >= qp.rnr_wait_until) {
            qp.rnr_wait_until = 0;
            activate(dev, qp);
            ++fired;
        }
        if (!qp.retransmit_at || now < qp.retransmit_at) continue;
        if (qp.state() != QpState::Rts && qp.state() != QpState::Sqd) {
            qp.retransmit_at = 0;
            continue;
        }
        ++fired;
        uint64_t pos = qp.sq.head();
        while (pos < qp.next_send && qp.sq.at(pos).phase != SendPhase::Sent) ++pos;
        if (pos == qp.next_send) {
            qp.retransmit_at = 0;
            continue;
        }
        if (qp.retries_left == 0) {
            fail(dev, qp, qp.sq.at(pos), VAPI_RETRY_EXC_ERR, 0, events);
            continue;
        }
        --qp.retries_left;
        rewind_to(dev, qp, pos);
    }
    return fired;
}

uint64_t next_timer(Device &dev) {
    uint64_t t = 0;
    for (auto &[h, obj] : dev.qps) {
        const Qp &qp = *static_cast<const Qp *>(obj.get());
        for (uint64_t v : {qp.retransmit_at, qp.rnr_wait_until})
            if (v && (t == 0 || v < t)) t = v;
    }
    return t;
}

}  // namespace marlix::softhca
