// The requester: turns the send requests queued on a QP into packets, in order, within what the
// QP may have outstanding, and keeps the PSNs and timers of a reliable connection.
#include <algorithm>
#include <cstring>

#include "datapath/datapath.hpp"
#include "device/limits.hpp"

namespace marlix::softhca {

using qpsm::QpKind;
using qpsm::QpState;

namespace {

// Resolves the gather list (or the inline data) into pieces of memory in the Outbox.
// Returns the first span index, or fails with a completion status.
bool gather(Device &dev, Qp &qp, SendEntry &w, Outbox &out, uint32_t &first, VAPI_wc_status_t &status) {
    first = out.span_count;
    if (w.is_inline) {
        if (w.inline_len) out.spans[out.span_count++] = {w.inline_data, w.inline_len};
        return true;
    }
    for (uint32_t i = 0; i < w.sg_count; ++i) {
        const VAPI_sg_lst_entry_t &e = w.sg[i];
        VAPI_ret_t rc = dev.walk(e.lkey, false, qp.init.pd_hndl, e.addr, e.len, 0, [&](uint8_t *p, size_t n) {
            if (out.span_count >= Outbox::kSpans) return false;
            out.spans[out.span_count++] = {p, n};
            return true;
        });
        if (rc == VAPI_EAGAIN) {
            out.span_count = first;
            status = VAPI_SUCCESS;  // no room this round
            return false;
        }
        if (rc != VAPI_OK) {
            out.span_count = first;
            status = VAPI_LOC_PROT_ERR;  // a key, PD, bound or right that does not allow it
            return false;
        }
    }
    return true;
}

// Checks the local buffer a read or an atomic will write into when its response arrives.
VAPI_wc_status_t check_local_sink(Device &dev, Qp &qp, const SendEntry &w) {
    for (uint32_t i = 0; i < w.sg_count; ++i) {
        const VAPI_sg_lst_entry_t &e = w.sg[i];
        VAPI_ret_t rc = dev.walk(e.lkey, false, qp.init.pd_hndl, e.addr, e.len, VAPI_EN_LOCAL_WRITE,
                                 [](uint8_t *, size_t) { return true; });
        if (rc != VAPI_OK) return VAPI_LOC_PROT_ERR;
    }
    return VAPI_SUCCESS;
}

// A send request that failed before any packet left.
void fail_request(Device &dev, Qp &qp, SendEntry &w, VAPI_wc_status_t status, uint32_t syndrome,
                  PendingEvents &events) {
    const bool reliable = transport_bits(qp) == op::kRc;
    w.phase = SendPhase::Done;
    w.status = status;
    w.syndrome = syndrome;
    qp.next_send = qp.sq.tail();  // nothing behind it is sent
    retire_sends(dev, qp, events);
    // A reliable connection goes to the error state; datagram and unreliable connected QPs stop
    // their send queue only.
    if (reliable)
        enter_error(dev, qp, events);
    else
        enter_send_error(dev, qp, events);
}

// Sends what the QP has queued. Returns the number of requests handled; false in `more` when
// the QP has nothing left that it could send now.
size_t run_qp(Device &dev, Qp &qp, uint64_t now, Outbox &out, PendingEvents &events, bool &more) {
    more = false;
    const QpState state = qp.state();
    // SQD sends nothing new but still retransmits what it had sent; SQE, ERR and the states
    // before RTS send nothing.
    if (state != QpState::Rts && state != QpState::Sqd) return 0;
    if (qp.rnr_wait_until > now) return 0;
    const uint64_t limit = state == QpState::Rts ? qp.sq.tail() : std::max(qp.sent_high, qp.next_send);
    const uint8_t ts = transport_bits(qp);
    size_t handled = 0;
    while (qp.next_send < limit) {
        SendEntry &w = qp.sq.at(qp.next_send);
        const uint32_t opcode = w.desc.opcode;
        if (qp.forced_send.armed) {
            // A test chose this request's outcome.
            Qp::Forced f = qp.forced_send;
            qp.forced_send = {};
            ++qp.next_send;
            w.length = 0;
            if (f.status == VAPI_SUCCESS) {
                complete_send(dev, qp, w, VAPI_SUCCESS, f.syndrome, events);
            } else {
                --qp.next_send;
                fail_request(dev, qp, w, f.status, f.syndrome, events);
                return handled + 1;
            }
            ++handled;
            continue;
        }
        if (w.desc.fence && qp.rd_atom_outstanding > 0) return handled;
        if (is_read_or_atomic(opcode) &&
            qp.rd_atom_outstanding >= std::max<uint32_t>(1, qp.attr.ous_dst_rd_atom))
            return handled;
        if (!out.has_room(1, 1)) {
            more = true;
            return handled;
        }
        // Length and local memory.
        const uint64_t length = w.bytes;
        w.length = length;
        Outbox::Entry &e = out.entries[out.count];
        clear_entry(e);
        e.from = &dev;
        Packet &p = e.pkt;
        uint32_t first_span = out.span_count;
        if (is_read_or_atomic(opcode)) {
            VAPI_wc_status_t st = check_local_sink(dev, qp, w);
            if (st == VAPI_SUCCESS && opcode != VAPI_RDMA_READ && length < limits::kAtomicBytes)
                st = VAPI_LOC_LEN_ERR;
            if (st != VAPI_SUCCESS) {
                fail_request(dev, qp, w, st, 0, events);
                return handled + 1;
            }
            if (opcode != VAPI_RDMA_READ) w.length = limits::kAtomicBytes;
        } else {
            VAPI_wc_status_t st = VAPI_SUCCESS;
            if (!gather(dev, qp, w, out, first_span, st)) {
                if (st == VAPI_SUCCESS) {
                    more = true;
                    return handled;
                }
                fail_request(dev, qp, w, st, 0, events);
                return handled + 1;
            }
            p.spans = &out.spans[first_span];
            p.span_count = out.span_count - first_span;
            p.payload_len = uint32_t(length);
        }
        // Addressing.
        IB_port_t port = qp.attr.port;
        uint32_t mtu = mtu_bytes(qp.attr.path_mtu);
        if (ts == op::kUd) {
            VAPI_pd_hndl_t ah_pd = 0;
            const VAPI_ud_av_t *av = find_ah_av(dev, w.desc.remote_ah, &ah_pd);
            if (!av || ah_pd != qp.init.pd_hndl) {
                out.span_count = first_span;
                fail_request(dev, qp, w, VAPI_LOC_QP_OP_ERR, 0, events);
                return handled + 1;
            }
            port = qp.kind == QpKind::Regular ? av->port : qp.special_port;
            if (port == 0) port = qp.attr.port;
            mtu = mtu_bytes(limits::kMaxMtuCode);
            if (length > mtu) {
                out.span_count = first_span;
                fail_request(dev, qp, w, VAPI_LOC_LEN_ERR, 0, events);
                return handled + 1;
            }
            p.dlid = av->dlid;
            p.sl = av->sl;
            p.src_path_bits = av->src_path_bits;
            p.grh = av->grh_flag != 0;
            if (p.grh) {
                std::memcpy(p.dgid, av->dgid, sizeof p.dgid);
                if (Port *pp = dev.port(port)) pp->gid(av->sgid_index, p.sgid);
            }
            p.dest_qp = w.desc.remote_qp & kPsnMask;
            // A Q_Key with the high bit set means "use the QP's own Q_Key".
            p.qkey = (w.desc.remote_qkey & 0x80000000u) ? qp.attr.qkey : w.desc.remote_qkey;
            p.src_qp = qp.qp_num;
        } else {
            p.dlid = qp.attr.av.dlid;
            p.sl = qp.attr.av.sl;
            p.src_path_bits = qp.attr.av.src_path_bits;
            p.dest_qp = qp.attr.dest_qp_num;
            p.src_qp = qp.qp_num;
        }
        Port *src = dev.port(port);
        p.slid = src ? IB_lid_t(src->lid | (p.src_path_bits & ((1u << (src ? src->lmc : 0)) - 1))) : 0;
        const VAPI_pkey_ix_t pkey_ix = w.has_pkey_ix ? w.pkey_ix : qp.attr.pkey_ix;
        p.pkey = (src && pkey_ix < src->pkeys.size()) ? src->pkeys[pkey_ix] : 0xffff;
        p.psn = qp.next_psn;
        p.solicited = w.desc.set_se != 0;
        p.imm = w.desc.imm_data;
        e.port = port;
        e.mtu = mtu;
        e.length = length;
        // Operation.
        switch (opcode) {
            case VAPI_SEND:
            case VAPI_SEND_WITH_IMM:
                p.opcode = ts | (opcode == VAPI_SEND_WITH_IMM ? op::kSendOnlyImm : op::kSendOnly);
                e.train = ts == op::kUd ? Outbox::Train::None : Outbox::Train::Send;
                break;
            case VAPI_RDMA_WRITE:
            case VAPI_RDMA_WRITE_WITH_IMM:
                p.opcode = ts | (opcode == VAPI_RDMA_WRITE_WITH_IMM ? op::kWriteOnlyImm : op::kWriteOnly);
                e.train = Outbox::Train::Write;
                p.va = w.desc.remote_addr;
                p.rkey = w.desc.r_key;
                p.dma_len = uint32_t(length);
                break;
            case VAPI_RDMA_READ:
                p.opcode = ts | op::kReadRequest;
                p.va = w.desc.remote_addr;
                p.rkey = w.desc.r_key;
                p.dma_len = uint32_t(length);
                break;
            default:
                p.opcode = ts | (opcode == VAPI_ATOMIC_CMP_AND_SWP ? op::kCompareSwap : op::kFetchAdd);
                p.va = w.desc.remote_addr;
                p.rkey = w.desc.r_key;
                p.dma_len = limits::kAtomicBytes;
                p.swap_add = opcode == VAPI_ATOMIC_CMP_AND_SWP ? w.desc.swap : w.desc.compare_add;
                p.compare = w.desc.compare_add;
                break;
        }
        e.segments = e.train == Outbox::Train::None ? 1 : segments_for(length, mtu);
        // A packet alone (not a train, or a train of one) is its own first and last packet: the
        // entry's headers are the packet's.
        if (e.train == Outbox::Train::None || e.segments == 1) p.ack_req = true;
        // PSNs: a message takes one per packet; a read takes one per response packet.
        uint32_t psns = e.segments;
        if (opcode == VAPI_RDMA_READ) psns = segments_for(length, mtu);
        w.first_psn = qp.next_psn;
        w.last_psn = psn_add(qp.next_psn, psns - 1);
        w.read_received = 0;
        if (ts != op::kUd) qp.next_psn = psn_add(qp.next_psn, psns);
        w.phase = SendPhase::Sent;
        ++out.count;
        if (src) count_entry(*src, e, true);
        ++qp.next_send;
        qp.sent_high = std::max(qp.sent_high, qp.next_send);
        ++handled;
        if (ts == op::kRc) {
            if (is_read_or_atomic(opcode)) ++qp.rd_atom_outstanding;
            if (qp.retransmit_at == 0 && qp.attr.timeout != 0)
                qp.retransmit_at = now + timeout_ns(qp.attr.timeout);
        } else if (!qp.on_sent_list) {
            qp.on_sent_list = true;
            dev.sent_unreliable.push_back(&qp);
        }
    }
    return handled;
}

}  // namespace

namespace {

// The BTH opcode of packet `i` of a train.
uint8_t segment_opcode(const Outbox::Entry &e, uint32_t i) {
    const uint32_t n = e.segments;
    const uint8_t ts = op::transport(e.pkt.opcode);
    const bool imm = op::has_imm(e.pkt.opcode);
    const bool first = i == 0, last = i == n - 1;
    uint8_t o = 0;
    switch (e.train) {
        case Outbox::Train::Send:
            o = n == 1  ? (imm ? op::kSendOnlyImm : op::kSendOnly)
                : first ? op::kSendFirst
                : last  ? (imm ? op::kSendLastImm : op::kSendLast)
                        : op::kSendMiddle;
            break;
        case Outbox::Train::Write:
            o = n == 1  ? (imm ? op::kWriteOnlyImm : op::kWriteOnly)
                : first ? op::kWriteFirst
                : last  ? (imm ? op::kWriteLastImm : op::kWriteLast)
                        : op::kWriteMiddle;
            break;
        case Outbox::Train::ReadResponse:
            o = n == 1  ? op::kReadResponseOnly
                : first ? op::kReadResponseFirst
                : last  ? op::kReadResponseLast
                        : op::kReadResponseMiddle;
            break;
        case Outbox::Train::None:
            return e.pkt.opcode;
    }
    return uint8_t(ts | o);
}

// The payload bytes of packet `i` of a train.
uint32_t segment_length(const Outbox::Entry &e, uint32_t i) {
    const uint64_t offset = uint64_t(i) * e.mtu;
    return uint32_t(std::min<uint64_t>(e.mtu, e.length - std::min(offset, e.length)));
}

}  // namespace

Packet train_segment(const Outbox::Entry &e, uint32_t i) {
    Packet p = e.pkt;
    if (e.train == Outbox::Train::None) return p;
    const bool last = i == e.segments - 1;
    p.opcode = segment_opcode(e, i);
    p.psn = psn_add(e.pkt.psn, i);
    p.payload_offset = e.pkt.payload_offset + uint64_t(i) * e.mtu;
    p.payload_len = segment_length(e, i);
    p.ack_req = last;
    p.solicited = last && e.pkt.solicited;
    return p;
}

void count_train(Port &port, const Outbox::Entry &e, bool xmit) {
    // The headers of a train's packets follow from the first's; only opcode and length change,
    // and the middle packets are all alike. One count for the whole train.
    auto words = [&](uint32_t i) {
        return uint64_t(Packet::wire_bytes_of(segment_opcode(e, i), e.pkt.grh, segment_length(e, i)) + 3) / 4;
    };
    const uint32_t n = e.segments;
    uint64_t total = words(0) + words(n - 1);
    if (n > 2) total += words(1) * (n - 2);
    port.count_words(xmit, total, n);
}

size_t run_requesters(Device &dev, uint64_t now, Outbox &out, PendingEvents &events, RanQps *ran) {
    size_t handled = 0;
    take_doorbells(dev);
    // Walk a snapshot by index: a QP leaves the list when it has nothing more to send now.
    for (size_t i = 0; i < dev.active_qps.size();) {
        Qp &qp = *dev.active_qps[i];
        if (ran) ran->add(&qp);
        bool more = false;
        handled += run_qp(dev, qp, now, out, events, more);
        if (!more) {
            qp.on_active_list = false;
            dev.active_qps[i] = dev.active_qps.back();
            dev.active_qps.pop_back();
        } else {
            ++i;
        }
        if (!out.has_room(1, 1)) break;
    }
    return handled;
}

size_t finish_sent(Device &dev, PendingEvents &events) {
    size_t n = 0;
    for (Qp *qp : dev.sent_unreliable) {
        qp->on_sent_list = false;
        if (qp->destroyed) continue;
        for (uint64_t pos = qp->sq.head(); pos < qp->next_send; ++pos) {
            SendEntry &w = qp->sq.at(pos);
            if (w.phase != SendPhase::Sent) continue;
            w.phase = SendPhase::Done;
            w.status = VAPI_SUCCESS;
            ++n;
        }
        retire_sends(dev, *qp, events);
    }
    dev.sent_unreliable.clear();
    return n;
}

}  // namespace marlix::softhca
