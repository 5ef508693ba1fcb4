// The responder: executes a request packet at its target QP. Sends land in the receive request
// at the head of the receive queue, RDMA writes and reads go through the target's remote keys,
// atomics operate on 8 aligned bytes. A reliable connection answers with ACKs, NAKs, read
// responses and atomic acknowledgements, and checks PSNs; an unreliable one drops what it cannot
// take.
#include <atomic>
#include <cstring>

#include "datapath/datapath.hpp"
#include "device/limits.hpp"

namespace marlix::softhca {

using qpsm::QpState;

namespace {

bool receives(QpState s) {
    return s == QpState::Rtr || s == QpState::Rts || s == QpState::Sqd || s == QpState::Sqe;
}

// Copies `len` bytes of the packet's payload (from `from`) into the receive request's scatter list
// at byte `at`. Fails with a local length error when it does not fit and a local protection error
// when a key does not allow it.
VAPI_wc_status_t scatter(Device &dev, const Qp &qp, const RecvEntry &r, uint64_t at, const Packet &p,
                         uint64_t from, uint64_t len, const uint8_t *raw = nullptr) {
    uint64_t skip = at;
    for (uint32_t i = 0; i < r.sg_count && len > 0; ++i) {
        const VAPI_sg_lst_entry_t &e = r.sge(i);
        if (skip >= e.len) {
            skip -= e.len;
            continue;
        }
        uint64_t n = std::min<uint64_t>(e.len - skip, len);
        VAPI_ret_t rc = dev.walk(e.lkey, false, qp.init.pd_hndl, e.addr + skip, n, VAPI_EN_LOCAL_WRITE,
                                 [&](uint8_t *dst, size_t m) {
                                     if (raw) {
                                         std::memcpy(dst, raw + from, m);
                                     } else {
                                         p.read_payload(from, dst, m);
                                     }
                                     from += m;
                                     return true;
                                 });
        if (rc != VAPI_OK) return VAPI_LOC_PROT_ERR;
        len -= n;
        skip = 0;
    }
    return len == 0 ? VAPI_SUCCESS : VAPI_LOC_LEN_ERR;
}

// The packet's whole payload at byte `at` of the receive request, as scatter(). Inline for the
// common case, a request of one buffer that holds it: one key walk and one copy, without the
// list's loop and call. Anything else goes through scatter(). Its walk repeats scatter()'s on
// purpose: a walk with one lambda shared by both is compiled out of line, which costs the common
// receive some 50 instructions.
[[gnu::always_inline]] inline VAPI_wc_status_t scatter_payload(Device &dev, const Qp &qp, const RecvEntry &r,
                                                               uint64_t at, const Packet &p) {
    const uint64_t len = p.payload_len;
    const VAPI_sg_lst_entry_t &e = r.first;
    if (r.sg_count != 1 || len == 0 || at >= e.len || len > e.len - at)
        return scatter(dev, qp, r, at, p, 0, len);
    uint64_t from = 0;
    const VAPI_ret_t rc = dev.walk(e.lkey, false, qp.init.pd_hndl, e.addr + at, len, VAPI_EN_LOCAL_WRITE,
                                   [&](uint8_t *dst, size_t m) {
                                       p.read_payload(from, dst, m);
                                       from += m;
                                       return true;
                                   });
    return rc == VAPI_OK ? VAPI_SUCCESS : VAPI_LOC_PROT_ERR;
}

uint64_t capacity(const RecvEntry &r) {
    uint64_t n = 0;
    for (uint32_t i = 0; i < r.sg_count; ++i) n += r.sge(i).len;
    return n;
}

VAPI_wc_desc_t recv_wc(const Qp &qp, const RecvEntry &r, VAPI_wc_status_t status) {
    VAPI_wc_desc_t wc{};
    wc.status = status;
    wc.id = r.desc.id;
    wc.local_qp_num = qp.qp_num;
    wc.opcode = VAPI_CQE_RQ_SEND_DATA;
    wc.pkey_ix = qp.attr.pkey_ix;
    wc.remote_node_addr.type = VAPI_RNA_UD;
    return wc;
}

// The completion of a message received whole on a connected QP: a send, or the immediate data of
// an RDMA write. `p` is its last packet.
VAPI_wc_desc_t message_wc(const Qp &qp, const RecvEntry &r, const Packet &p, uint64_t bytes) {
    VAPI_wc_desc_t wc = recv_wc(qp, r, VAPI_SUCCESS);
    wc.opcode = op::is_send(p.opcode) ? VAPI_CQE_RQ_SEND_DATA : VAPI_CQE_RQ_RDMA_WITH_IMM;
    wc.byte_len = uint32_t(bytes);
    wc.imm_data_valid = op::has_imm(p.opcode);
    wc.imm_data = p.imm;
    wc.remote_node_addr.slid = p.slid;
    wc.remote_node_addr.sl = p.sl;
    wc.remote_node_addr.qp_ety.qp = qp.attr.dest_qp_num;
    return wc;
}

// Takes the head receive request and completes it with `wc` (which gets the free count).
void complete_recv(Qp &qp, VAPI_wc_desc_t &wc, bool solicited, PendingEvents &events) {
    const bool signalled = qp.init.rq_sig_type == VAPI_SIGNAL_ALL_WR || wc.status != VAPI_SUCCESS ||
                           qp.rq.front().desc.comp_type == VAPI_SIGNALED;
    qp.rq.pop();
    wc.free_res_count = qp.rq.free_slots();
    // The next receive's line, which the poster wrote, on its way before the next message.
    qp.rq.prefetch_front();
    if (CompletionQueue *cq = qp.recv_cq; cq && signalled) push_completion(*cq, wc, solicited, events);
}

// Replies of a reliable connection go back to where the request came from.
Outbox::Entry *reply(Device &dev, Qp &qp, IB_port_t port, const Packet &req, Outbox &out, uint8_t opcode,
                     bool count = true) {
    if (!out.has_room(1, 1)) return nullptr;  // lost; the requester will retransmit
    Outbox::Entry &e = out.entries[out.count++];
    clear_entry(e);
    e.from = &dev;
    e.port = port;
    Packet &p = e.pkt;
    p.opcode = op::kRc | opcode;
    p.dlid = req.slid;
    p.slid = req.dlid;
    p.sl = req.sl;
    p.pkey = req.pkey;
    p.dest_qp = qp.attr.dest_qp_num;
    p.src_qp = qp.qp_num;
    p.psn = req.psn;
    p.msn = qp.msn;
    if (count)
        if (Port *pt = dev.port(port)) pt->count_xmit(p.wire_bytes());
    return &e;
}

// A new ACK, which most requests draw: reply() is built into it.
[[gnu::flatten, gnu::noinline]] void new_ack(Device &dev, Qp &qp, IB_port_t port, const Packet &req,
                                             Outbox &out, uint32_t psn) {
    if (Outbox::Entry *e = reply(dev, qp, port, req, out, op::kAck)) {
        e->pkt.psn = psn;
        e->pkt.syndrome = aeth::kAck;
    }
}

[[gnu::always_inline]] inline void ack(Device &dev, Qp &qp, IB_port_t port, const Packet &req, Outbox &out,
                                       uint32_t psn) {
    // Coalescing: when the last reply waiting to go is this QP's own ACK, this one takes its
    // place (an ACK acknowledges every PSN up to its own), so a burst of requests delivered in
    // one go draws one ACK.
    if (out.count > 0) {
        Outbox::Entry &last = out.entries[out.count - 1];
        Packet &p = last.pkt;
        if (last.from == &dev && last.port == port && op::operation(p.opcode) == op::kAck &&
            p.syndrome == aeth::kAck && p.src_qp == qp.qp_num && p.dest_qp == qp.attr.dest_qp_num &&
            p.dlid == req.slid && p.slid == req.dlid && psn_diff(psn, p.psn) > 0) {
            p.psn = psn;
            p.msn = qp.msn;
            return;
        }
    }
    new_ack(dev, qp, port, req, out, psn);
}

void nak(Device &dev, Qp &qp, IB_port_t port, const Packet &req, Outbox &out, uint8_t syndrome) {
    if (Outbox::Entry *e = reply(dev, qp, port, req, out, op::kAck)) e->pkt.syndrome = syndrome;
}

// A request the responder refuses: NAK (reliable), the QP to the error state, the local work
// queue error event.
void refuse(Device &dev, Qp &qp, IB_port_t port, const Packet &req, Outbox &out, uint8_t syndrome,
            VAPI_event_record_type_t event, PendingEvents &events) {
    if (transport_bits(qp) == op::kRc) nak(dev, qp, port, req, out, syndrome);
    qp_event(qp, event, events);
    enter_error(dev, qp, events);
}

// The 40-byte global route header a UD receive buffer starts with.
void build_grh(const Packet &p, uint8_t grh[limits::kGrhBytes]) {
    std::memset(grh, 0, limits::kGrhBytes);
    grh[0] = 0x60;  // IP version 6
    const uint16_t paylen = uint16_t(p.wire_bytes() - 8 - 40 - 2);
    grh[4] = uint8_t(paylen >> 8);
    grh[5] = uint8_t(paylen);
    grh[6] = 0x1b;  // next header: IBA transport
    grh[7] = 64;    // hop limit
    std::memcpy(grh + 8, p.sgid, 16);
    std::memcpy(grh + 24, p.dgid, 16);
}

void respond_ud(Device &dev, IB_port_t port, Qp &qp, const Packet &p, PendingEvents &events) {
    Port *pt = dev.port(port);
    if (p.qkey != qp.attr.qkey) {
        if (pt && pt->qkey_viol_counter != 0xffffffffu) ++pt->qkey_viol_counter;
        return;
    }
    if (pt && qp.attr.pkey_ix < pt->pkeys.size() &&
        (pt->pkeys[qp.attr.pkey_ix] & 0x7fff) != (p.pkey & 0x7fff)) {
        if (pt->bad_pkey_counter != 0xffffffffu) ++pt->bad_pkey_counter;
        return;
    }
    if (!qp.rq.has_front()) return;  // datagrams without a receive request are dropped
    const RecvEntry &r = qp.rq.front();
    VAPI_wc_desc_t wc = recv_wc(qp, r, VAPI_SUCCESS);
    if (qp.forced_recv.armed) {
        wc.status = qp.forced_recv.status;
        wc.vendor_err_syndrome = qp.forced_recv.syndrome;
        qp.forced_recv = {};
        complete_recv(qp, wc, p.solicited, events);
        if (wc.status != VAPI_SUCCESS) enter_error(dev, qp, events);
        return;
    }
    VAPI_wc_status_t st = VAPI_SUCCESS;
    if (capacity(r) < limits::kGrhBytes + p.payload_len) {
        st = VAPI_LOC_LEN_ERR;
    } else {
        if (p.grh) {
            uint8_t grh[limits::kGrhBytes];
            build_grh(p, grh);
            st = scatter(dev, qp, r, 0, p, 0, limits::kGrhBytes, grh);
        }
        if (st == VAPI_SUCCESS) st = scatter(dev, qp, r, limits::kGrhBytes, p, 0, p.payload_len);
    }
    wc.status = st;
    if (st == VAPI_SUCCESS) {
        wc.byte_len = limits::kGrhBytes + p.payload_len;
        wc.imm_data_valid = op::has_imm(p.opcode);
        wc.imm_data = p.imm;
        wc.remote_node_addr.slid = p.slid;
        wc.remote_node_addr.sl = p.sl;
        wc.remote_node_addr.qp_ety.qp = p.src_qp;
        wc.remote_node_addr.ee_dlid.dst_path_bits = pt ? uint8_t(p.dlid & ((1u << pt->lmc) - 1)) : 0;
        wc.grh_flag = p.grh;
    }
    complete_recv(qp, wc, p.solicited, events);
    // A receive that cannot be placed is a local error of the receive queue.
    if (st != VAPI_SUCCESS) enter_error(dev, qp, events);
}

// Sends (and the receive side of RDMA write with immediate) of a connected QP.
void receive_message_data(Device &dev, IB_port_t port, Qp &qp, bool rc, const Packet &p, Outbox &out,
                          PendingEvents &events, bool &stop) {
    const uint8_t opcode = p.opcode;  // read once: the stores to the QP below might alias it
    stop = false;
    if (op::is_first(opcode)) {
        if (!qp.rq.has_front()) {
            if (rc) {
                // Receiver not ready: the requester waits at least our minimum RNR timer.
                if (Outbox::Entry *e = reply(dev, qp, port, p, out, op::kAck))
                    e->pkt.syndrome = uint8_t(aeth::kRnrNak | (qp.attr.min_rnr_timer & 31));
            } else {
                qp.message_failed = true;
                qp.expected_psn = psn_add(p.psn, 1);
            }
            stop = true;
            return;
        }
        qp.in_message = true;
        qp.recv_taken = true;
        qp.message_bytes = 0;
        qp.message_failed = false;
    } else if (!qp.in_message || !qp.rq.has_front()) {
        // (A first packet has just found a receive; only the data path takes them.)
        stop = true;
        return;
    }
    const RecvEntry &r = qp.rq.front();
    if (qp.forced_recv.armed && op::is_last(opcode)) {
        VAPI_wc_desc_t wc = recv_wc(qp, r, qp.forced_recv.status);
        wc.vendor_err_syndrome = qp.forced_recv.syndrome;
        wc.byte_len = uint32_t(qp.message_bytes + p.payload_len);
        qp.forced_recv = {};
        qp.in_message = false;
        complete_recv(qp, wc, p.solicited, events);
        if (wc.status != VAPI_SUCCESS) {
            if (rc) nak(dev, qp, port, p, out, aeth::kNakRemoteOp);
            enter_error(dev, qp, events);
            stop = true;
        }
        return;
    }
    VAPI_wc_status_t st = VAPI_SUCCESS;
    if (op::is_send(opcode)) st = scatter_payload(dev, qp, r, qp.message_bytes, p);
    if (st != VAPI_SUCCESS) {
        VAPI_wc_desc_t wc = recv_wc(qp, r, st);
        qp.in_message = false;
        complete_recv(qp, wc, false, events);
        if (st == VAPI_LOC_LEN_ERR) {
            // The message is longer than the receive request: an invalid request.
            refuse(dev, qp, port, p, out, aeth::kNakInvalidRequest, VAPI_LOCAL_WQ_INV_REQUEST_ERROR, events);
        } else {
            // Our own receive buffer is not writable: the operation fails here.
            refuse(dev, qp, port, p, out, aeth::kNakRemoteOp, VAPI_LOCAL_WQ_CATASTROPHIC_ERROR, events);
        }
        stop = true;
        return;
    }
    if (op::is_send(opcode)) qp.message_bytes += p.payload_len;
    if (op::is_last(opcode)) {
        qp.in_message = false;
        qp.recv_taken = false;
        VAPI_wc_desc_t wc = message_wc(qp, r, p, qp.message_bytes);
        complete_recv(qp, wc, p.solicited, events);
    }
}

// The pass running on this thread: its number in the high bits, the thread's in the low ones.
std::atomic<uint64_t> pass_threads{0};
[[gnu::tls_model("initial-exec")]] thread_local uint64_t pass_key = 0;

// Counts a read or atomic against the responder's limit; false when over it.
bool take_responder_resource(Qp &qp) {
    if (qp.reads_pass != pass_key) {
        qp.reads_pass = pass_key;
        qp.reads_in_progress = 0;
    }
    if (qp.reads_in_progress >= qp.attr.qp_ous_rd_atom) return false;
    ++qp.reads_in_progress;
    return true;
}

void respond_read(Device &dev, IB_port_t port, Qp &qp, const Packet &p, Outbox &out, PendingEvents &events,
                  bool duplicate) {
    if (!(qp.attr.remote_atomic_flags & VAPI_EN_REM_READ)) {
        refuse(dev, qp, port, p, out, aeth::kNakRemoteAccess, VAPI_LOCAL_WQ_ACCESS_VIOL_ERROR, events);
        return;
    }
    if (!duplicate && !take_responder_resource(qp)) {
        refuse(dev, qp, port, p, out, aeth::kNakInvalidRequest, VAPI_LOCAL_WQ_INV_REQUEST_ERROR, events);
        return;
    }
    const uint32_t mtu = mtu_bytes(qp.attr.path_mtu);
    const uint32_t segments = segments_for(p.dma_len, mtu);
    if (!out.has_room(1, 1)) return;  // no room this round: the requester will retransmit
    const uint32_t first_span = out.span_count;
    VAPI_ret_t rc = dev.walk(p.rkey, true, qp.init.pd_hndl, p.va, p.dma_len, VAPI_EN_REMOTE_READ,
                             [&](uint8_t *ptr, size_t n) {
                                 if (out.span_count >= Outbox::kSpans) return false;
                                 out.spans[out.span_count++] = {ptr, n};
                                 return true;
                             });
    if (rc == VAPI_EAGAIN) {
        out.span_count = first_span;
        return;
    }
    if (rc != VAPI_OK) {
        out.span_count = first_span;
        refuse(dev, qp, port, p, out, aeth::kNakRemoteAccess, VAPI_LOCAL_WQ_ACCESS_VIOL_ERROR, events);
        return;
    }
    Outbox::Entry *e = reply(dev, qp, port, p, out, op::kReadResponseOnly, false);
    e->train = Outbox::Train::ReadResponse;
    e->mtu = mtu;
    e->segments = segments;
    e->length = p.dma_len;
    e->pkt.spans = &out.spans[first_span];
    e->pkt.span_count = out.span_count - first_span;
    e->pkt.payload_len = p.dma_len;
    e->pkt.syndrome = aeth::kAck;
    if (Port *pt = dev.port(port)) count_entry(*pt, *e, true);
    if (!duplicate) qp.expected_psn = psn_add(p.psn, segments);
}

void respond_atomic(Device &dev, IB_port_t port, Qp &qp, const Packet &p, Outbox &out, PendingEvents &events,
                    bool duplicate) {
    if (duplicate) {
        // Answer again with the value the operation found the first time.
        for (const Qp::AtomicReplay &r : qp.atomic_replay)
            if (r.valid && r.psn == p.psn)
                if (Outbox::Entry *e = reply(dev, qp, port, p, out, op::kAtomicAck))
                    e->pkt.atomic_orig = r.orig;
        return;
    }
    if (!(qp.attr.remote_atomic_flags & VAPI_EN_REM_ATOMIC_OP)) {
        refuse(dev, qp, port, p, out, aeth::kNakRemoteAccess, VAPI_LOCAL_WQ_ACCESS_VIOL_ERROR, events);
        return;
    }
    if (p.va % limits::kAtomicBytes != 0 || !take_responder_resource(qp)) {
        refuse(dev, qp, port, p, out, aeth::kNakInvalidRequest, VAPI_LOCAL_WQ_INV_REQUEST_ERROR, events);
        return;
    }
    uint8_t *target = nullptr;
    VAPI_ret_t rc = dev.walk(p.rkey, true, qp.init.pd_hndl, p.va, limits::kAtomicBytes, VAPI_EN_REMOTE_ATOM,
                             [&](uint8_t *ptr, size_t n) {
                                 if (n != limits::kAtomicBytes) return false;
                                 target = ptr;
                                 return true;
                             });
    if (rc != VAPI_OK || !target) {
        refuse(dev, qp, port, p, out, aeth::kNakRemoteAccess, VAPI_LOCAL_WQ_ACCESS_VIOL_ERROR, events);
        return;
    }
    // Atomic against every other access through this adapter, whichever device it comes from.
    std::atomic_ref<uint64_t> word(*reinterpret_cast<uint64_t *>(target));
    uint64_t orig;
    if (op::operation(p.opcode) == op::kCompareSwap) {
        orig = p.compare;
        word.compare_exchange_strong(orig, p.swap_add);
    } else {
        orig = word.fetch_add(p.swap_add);
    }
    qp.atomic_replay[qp.atomic_replay_next++ % qp.atomic_replay.size()] = {p.psn, orig, true};
    if (Outbox::Entry *e = reply(dev, qp, port, p, out, op::kAtomicAck)) e->pkt.atomic_orig = orig;
    qp.expected_psn = psn_add(p.psn, 1);
}

// `rc`: the QP is a reliable connection (otherwise unreliable).
void respond_connected(Device &dev, IB_port_t port, Qp &qp, bool rc, const Packet &p, Outbox &out,
                       PendingEvents &events) {
    const uint8_t opcode = p.opcode;  // read once: the stores to the QP below might alias it
    const uint8_t o = op::operation(opcode);
    const int32_t d = psn_diff(p.psn, qp.expected_psn);
    if (rc) {
        if (d < 0) {
            // A duplicate: the requester retransmitted what we already executed.
            if (o == op::kReadRequest)
                respond_read(dev, port, qp, p, out, events, true);
            else if (op::is_atomic(opcode))
                respond_atomic(dev, port, qp, p, out, events, true);
            else if (p.ack_req)
                ack(dev, qp, port, p, out, psn_add(qp.expected_psn, kPsnMask));  // expected - 1
            return;
        }
        if (d > 0) {
            // A packet went missing: ask once for a retransmission from the expected PSN.
            if (!qp.nak_sent) {
                qp.nak_sent = true;
                if (Outbox::Entry *e = reply(dev, qp, port, p, out, op::kAck)) {
                    e->pkt.psn = qp.expected_psn;
                    e->pkt.syndrome = aeth::kNakPsnSeq;
                }
            }
            return;
        }
        qp.nak_sent = false;
    } else if (d != 0) {
        // Unreliable: a gap loses the message in progress; a new message starts afresh.
        qp.in_message = false;
        if (!op::is_first(opcode)) {
            qp.message_failed = true;
            qp.expected_psn = psn_add(p.psn, 1);
            return;
        }
        qp.expected_psn = p.psn;
    }
    if (!rc && qp.message_failed && !op::is_first(opcode)) {
        qp.expected_psn = psn_add(p.psn, 1);
        return;
    }
    if (o == op::kReadRequest) {
        respond_read(dev, port, qp, p, out, events, false);
        return;
    }
    if (op::is_atomic(opcode)) {
        respond_atomic(dev, port, qp, p, out, events, false);
        return;
    }
    if (op::is_write(opcode)) {
        if (op::is_first(opcode)) {
            if (!(qp.attr.remote_atomic_flags & VAPI_EN_REM_WRITE)) {
                if (rc)
                    refuse(dev, qp, port, p, out, aeth::kNakRemoteAccess, VAPI_LOCAL_WQ_ACCESS_VIOL_ERROR,
                           events);
                else
                    qp.message_failed = true, qp.expected_psn = psn_add(p.psn, 1);
                return;
            }
            // A reliable write of one packet is checked by the walk that places it, below.
            const bool checked_below = rc && op::is_last(opcode) && p.payload_len == p.dma_len;
            VAPI_ret_t rc_key = checked_below
                                    ? VAPI_OK
                                    : dev.walk(p.rkey, true, qp.init.pd_hndl, p.va, p.dma_len,
                                               VAPI_EN_REMOTE_WRITE, [](uint8_t *, size_t) { return true; });
            if (rc_key != VAPI_OK) {
                if (rc)
                    refuse(dev, qp, port, p, out, aeth::kNakRemoteAccess, VAPI_LOCAL_WQ_ACCESS_VIOL_ERROR,
                           events);
                else
                    qp.message_failed = true, qp.expected_psn = psn_add(p.psn, 1);
                return;
            }
            qp.write_va = p.va;
            qp.write_rkey = p.rkey;
            qp.write_first_psn = p.psn;
            qp.message_bytes = 0;
            qp.message_failed = false;
        }
        // Data straight from the sender's buffer into the target region; where it goes follows
        // from its PSN, so a retransmitted packet lands where it did the first time.
        const uint64_t offset = uint64_t(psn_diff(p.psn, qp.write_first_psn)) * mtu_bytes(qp.attr.path_mtu);
        uint64_t from = 0;
        VAPI_ret_t wr = dev.walk(qp.write_rkey, true, qp.init.pd_hndl, qp.write_va + offset, p.payload_len,
                                 VAPI_EN_REMOTE_WRITE, [&](uint8_t *dst, size_t n) {
                                     p.read_payload(from, dst, n);
                                     from += n;
                                     return true;
                                 });
        if (wr != VAPI_OK) {
            if (rc)
                refuse(dev, qp, port, p, out, aeth::kNakRemoteAccess, VAPI_LOCAL_WQ_ACCESS_VIOL_ERROR,
                       events);
            return;
        }
        qp.message_bytes = offset + p.payload_len;
        if (op::has_imm(opcode)) {
            // The immediate data needs a receive request: without one, RNR (the data stays written;
            // the retransmission writes it again).
            if (!qp.rq.has_front()) {
                if (rc) {
                    if (Outbox::Entry *e = reply(dev, qp, port, p, out, op::kAck))
                        e->pkt.syndrome = uint8_t(aeth::kRnrNak | (qp.attr.min_rnr_timer & 31));
                } else {
                    qp.expected_psn = psn_add(p.psn, 1);
                }
                return;
            }
            VAPI_wc_desc_t wc = message_wc(qp, qp.rq.front(), p, qp.message_bytes);
            if (qp.forced_recv.armed) {
                wc.status = qp.forced_recv.status;
                wc.vendor_err_syndrome = qp.forced_recv.syndrome;
                qp.forced_recv = {};
            }
            complete_recv(qp, wc, p.solicited, events);
            if (wc.status != VAPI_SUCCESS) {
                if (rc) nak(dev, qp, port, p, out, aeth::kNakRemoteOp);
                enter_error(dev, qp, events);
                return;
            }
        }
    } else {
        bool stop = false;
        receive_message_data(dev, port, qp, rc, p, out, events, stop);
        if (stop) return;
    }
    qp.expected_psn = psn_add(p.psn, 1);
    if (op::is_last(opcode)) ++qp.msn;
    if (rc && p.ack_req) ack(dev, qp, port, p, out, p.psn);
}

}  // namespace

void new_pass() {
    // The thread's number, taken at its first pass (0: none yet); constant-initialised, so that
    // reading it needs no guard.
    [[gnu::tls_model("initial-exec")]] static thread_local uint64_t thread = 0;
    if (thread == 0) [[unlikely]]
        thread = pass_threads.fetch_add(1, std::memory_order_relaxed) + 1;
    pass_key = ((pass_key >> 24) + 1) << 24 | (thread & 0xffffff);
}

void respond(Device &dev, IB_port_t port, const Packet &p, Outbox &out, PendingEvents &events) {
    Port *pt = dev.port(port);
    if (pt) pt->count_rcv(p.wire_bytes());
    Qp *qp = find_qp_by_num(dev, p.dest_qp, port);
    if (!qp || qp->destroyed || !receives(qp->state())) return;
    const uint8_t ts = transport_bits(*qp);
    if (ts != op::transport(p.opcode)) return;
    if (qp->state() == QpState::Rtr && !qp->comm_established) {
        // The first packet of the connection while we are not yet sending ourselves.
        qp->comm_established = true;
        qp_event(*qp, VAPI_QP_COMM_ESTABLISHED, events);
    }
    if (ts == op::kUd) {
        respond_ud(dev, port, *qp, p, events);
        return;
    }
    respond_connected(dev, port, *qp, ts == op::kRc, p, out, events);
}

namespace {

// The middle packets of a train (all but its first and last) in one go, when they continue, in
// order, a send or RDMA write that the first packet started: one key walk and one copy instead of
// one per packet. False, with nothing changed but bytes that the packets themselves would write,
// when that does not hold; the caller then delivers them one by one.
bool place_middle_packets(Device &dev, IB_port_t port, const Outbox::Entry &e) {
    const uint32_t n = e.segments - 2;
    const Packet mid = train_segment(e, 1);  // the headers of every middle packet
    Qp *qp = find_qp_by_num(dev, mid.dest_qp, port);
    if (!qp || qp->destroyed || !receives(qp->state())) return false;
    const uint8_t ts = transport_bits(*qp);
    if (ts == op::kUd || ts != op::transport(mid.opcode) || mid.psn != qp->expected_psn) return false;
    if (ts == op::kUc && qp->message_failed) return false;
    // A write places each packet by its PSN at our path MTU: one copy only when the MTUs agree.
    if (op::is_write(mid.opcode) && mtu_bytes(qp->attr.path_mtu) != e.mtu) return false;
    const uint64_t len = uint64_t(n) * e.mtu;
    if (op::is_write(mid.opcode)) {
        if (qp->write_first_psn != e.pkt.psn) return false;
        const uint64_t offset = e.mtu;  // the first packet's bytes
        uint64_t from = 0;
        VAPI_ret_t rc = dev.walk(qp->write_rkey, true, qp->init.pd_hndl, qp->write_va + offset, len,
                                 VAPI_EN_REMOTE_WRITE, [&](uint8_t *dst, size_t m) {
                                     mid.read_payload(from, dst, m);
                                     from += m;
                                     return true;
                                 });
        if (rc != VAPI_OK) return false;
        qp->message_bytes = offset + len;
    } else {
        if (!qp->in_message || !qp->rq.has_front()) return false;
        if (scatter(dev, *qp, qp->rq.front(), qp->message_bytes, mid, 0, len) != VAPI_SUCCESS) return false;
        qp->message_bytes += len;
    }
    if (Port *pt = dev.port(port)) pt->count_rcv(mid.wire_bytes(), n);
    qp->nak_sent = false;
    qp->expected_psn = psn_add(mid.psn, n);
    return true;
}

// A whole RC send or RDMA write train that arrives in order at a QP ready for it: placed as one
// message, with one key walk and one copy, and answered with one ACK, exactly as its packets one
// by one would be. False, with nothing changed but bytes that the packets themselves would write,
// when anything asks for the packet-by-packet path: a packet out of order, the connection's first
// packet, a test's forced outcome, a receive that is missing or does not take the message, a key
// that does not allow the write, MTUs that differ.
bool respond_whole_train(Device &dev, IB_port_t port, const Outbox::Entry &e, Outbox &out,
                         PendingEvents &events) {
    const Packet &p = e.pkt;
    Qp *qpp = find_qp_by_num(dev, p.dest_qp, port);
    if (!qpp || qpp->destroyed || !receives(qpp->state())) return false;
    Qp &qp = *qpp;
    if (transport_bits(qp) != op::kRc || op::transport(p.opcode) != op::kRc) return false;
    if (p.psn != qp.expected_psn || qp.in_message || qp.forced_recv.armed) return false;
    if (qp.state() == QpState::Rtr && !qp.comm_established) return false;
    const bool imm = op::has_imm(p.opcode);
    const bool send = e.train == Outbox::Train::Send;
    if ((send || imm) && !qp.rq.has_front()) return false;
    if (send) {
        if (scatter(dev, qp, qp.rq.front(), 0, p, 0, e.length) != VAPI_SUCCESS) return false;
    } else {
        if (!(qp.attr.remote_atomic_flags & VAPI_EN_REM_WRITE) || mtu_bytes(qp.attr.path_mtu) != e.mtu)
            return false;
        uint64_t from = 0;
        VAPI_ret_t rc = dev.walk(p.rkey, true, qp.init.pd_hndl, p.va, e.length, VAPI_EN_REMOTE_WRITE,
                                 [&](uint8_t *dst, size_t m) {
                                     p.read_payload(from, dst, m);
                                     from += m;
                                     return true;
                                 });
        if (rc != VAPI_OK) return false;
        qp.write_va = p.va;
        qp.write_rkey = p.rkey;
        qp.write_first_psn = p.psn;
    }
    if (Port *pt = dev.port(port)) count_entry(*pt, e, false);
    const uint32_t last_psn = psn_add(p.psn, e.segments - 1);
    qp.nak_sent = false;
    qp.message_failed = false;
    qp.message_bytes = e.length;
    if (send || imm) {
        // The completion takes the last packet's immediate data and solicited bit.
        const Packet last = train_segment(e, e.segments - 1);
        VAPI_wc_desc_t wc = message_wc(qp, qp.rq.front(), last, e.length);
        complete_recv(qp, wc, last.solicited, events);
    }
    qp.expected_psn = psn_add(last_psn, 1);
    ++qp.msn;
    // The ACK answers the last packet; its addressing is the first's (every packet's).
    ack(dev, qp, port, p, out, last_psn);
    return true;
}

// A train of several packets.
[[gnu::noinline]] void respond_packets(Device &dev, IB_port_t port, const Outbox::Entry &e, Outbox &replies,
                                       PendingEvents &events) {
    const uint32_t n = e.segments;
    if (respond_whole_train(dev, port, e, replies, events)) return;
    respond(dev, port, train_segment(e, 0), replies, events);
    if (n > 2 && !place_middle_packets(dev, port, e))
        for (uint32_t i = 1; i + 1 < n; ++i) respond(dev, port, train_segment(e, i), replies, events);
    respond(dev, port, train_segment(e, n - 1), replies, events);
}

}  // namespace

void respond_train(Device &dev, IB_port_t port, const Outbox::Entry &e, Outbox &replies,
                   PendingEvents &events) {
    if (e.segments == 1) return respond(dev, port, e.pkt, replies, events);  // a train of one is its packet
    respond_packets(dev, port, e, replies, events);
}

void respond_multicast(Device &dev, IB_port_t port, const Packet &p, Outbox &out, PendingEvents &events) {
    (void)out;
    Port *pt = dev.port(port);
    if (pt) pt->count_rcv(p.wire_bytes());
    static thread_local std::vector<VAPI_qp_hndl_t> members;
    mcast_members_by_lid(dev, p.dlid, members);
    for (VAPI_qp_hndl_t h : members) {
        Qp *qp = find_qp(dev, h);
        if (!qp || qp->destroyed || !receives(qp->state())) continue;
        if (qp->qp_num == p.src_qp && pt && (p.slid & ~((1u << pt->lmc) - 1)) == pt->lid) continue;
        Packet copy = p;
        copy.dest_qp = qp->qp_num;
        respond_ud(dev, port, *qp, copy, events);
    }
}

}  // namespace marlix::softhca
