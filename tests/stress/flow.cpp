#include "flow.hpp"

#include <chrono>
#include <cstring>
#include <sstream>
#include <thread>

#include "completion_codes.hpp"
#include "datapath_fixture.hpp"
#include "payload.hpp"
#include "queues.hpp"

namespace stress {

namespace pair = marlix::ulp_pair;
using adaptor_test::DpRecords;
using Clock = std::chrono::steady_clock;

const char *transport_name(Transport t) {
    static const char *const kNames[] = {"rc", "uc", "ud"};
    return kNames[static_cast<int>(t)];
}

namespace {

// UD receive buffers start with room for the GRH; the byte count includes it.
constexpr uint32_t kGrhBytes = 40;
// Gather pieces of one send sit this far apart, so a piece read from the wrong place shows.
constexpr uint32_t kPieceGap = 64;
constexpr uint32_t kMaxPieces = 4;
// How long a batch may take before the flow is called stuck, and how long the receiver is given,
// after the last send completed, for messages a cable pull may have taken.
constexpr auto kStuck = std::chrono::seconds(60);
constexpr auto kPullGrace = std::chrono::milliseconds(200);
// RC QPs give up soon when nothing answers: 4.096 us x 2^10 (4 ms) per try, 3 retries.
constexpr uint32_t kAckTimeout = 10, kRetries = 3;

}  // namespace

struct Flow::Impl {
    pair::Side tx, rx;
    uint64_t ah = 0;
    bool have_ah = false;

    std::mt19937_64 random;
    std::vector<uint8_t> send_area, receive_area, scratch;
    uint32_t send_stride = 0, receive_stride = 0;
    std::vector<bool> posted;  // receive buffer i is posted and not yet consumed

    DpRecords wr{"ox_wr_t"}, sg{"ox_scatgat_t", kMaxPieces};
    DpRecords receive_wrs, receive_sgs;

    long long wr_send = adaptor_test::dp_const("ox_wr_send");
    uint64_t next_seq = 0;     // the next message to send
    uint64_t rc_expected = 0;  // RC: the next message the receiver must see
    uint64_t uc_last = 0;      // UC: the last message seen, plus one
    std::vector<bool> seen;    // the batch's messages that arrived

    Impl(uint32_t id, uint32_t batch)
        : random(0x5eed0000ull + id), receive_wrs("ox_wr_t", batch), receive_sgs("ox_scatgat_t", batch) {}
};

Flow::Flow(Rig &rig, const FlowPlan &plan)
    : rig_(rig), plan_(plan), impl_(std::make_unique<Impl>(plan.id, plan.batch)) {
    Impl &m = *impl_;
    const uint32_t extra = plan_.transport == Transport::Ud ? kGrhBytes : 0;
    m.send_stride = plan_.max_length + kMaxPieces * kPieceGap;
    m.receive_stride = plan_.max_length + extra;
    m.send_area.assign(size_t(m.send_stride) * plan_.batch, 0xee);
    m.receive_area.assign(size_t(m.receive_stride) * plan_.batch, 0);
    m.scratch.assign(plan_.max_length, 0);
    m.posted.assign(plan_.batch, false);
    m.seen.assign(plan_.batch, false);
    for (int side = 0; side < 2; ++side) {
        pair::Side &s = side == 0 ? m.tx : m.rx;
        s.funcs = rig_.funcs;
        s.hca = rig_.hca[side == 0 ? plan_.from : plan_.to];
    }
}

Flow::~Flow() = default;

std::string Flow::name() const {
    std::ostringstream out;
    out << "flow " << plan_.id << " (" << transport_name(plan_.transport) << ", InfiniHost" << plan_.from
        << " -> InfiniHost" << plan_.to << ")";
    return out.str();
}

namespace {

// RC or UC `s` to RTS towards `peer`, RC with the short retry budget above.
int connect_to(const pair::Side &s, const pair::Side &peer, bool rc) {
    int status =
        pair::Modify("init").set("p_key_indx", 0).set("phy_port_num", 1).set("access_control", 0x0e).apply(s);
    if (status != 0) return status;
    pair::Modify rtr("rtr");
    rtr.set("destanation_qp", peer.qpn)
        .set("receive_psn", pair::kPsn)
        .set("remote_add_vec.dlid", peer.lid)
        .set("remote_add_vec.phy_port_num", 1)
        .set("remote_add_vec.pmtu", 4);
    if (rc) rtr.set("responder_rdma_r_atom_num", 4);
    if ((status = rtr.apply(s)) != 0) return status;
    pair::Modify rts("rts");
    rts.set("send_psn", pair::kPsn);
    if (rc)
        rts.set("local_ack_timeout", kAckTimeout)
            .set("retry_num", kRetries)
            .set("rnr_num", 7)
            .set("dest_out_rdma_r_atom_num", 4);
    return rts.apply(s);
}

}  // namespace

bool Flow::open() {
    Impl &m = *impl_;
    Tally &t = rig_.tally;
    std::lock_guard lock(rig_.control);
    const char *type = transport_name(plan_.transport);
    const uint32_t entries = 2 * plan_.batch + 8;
    int rc;
    if ((rc = pair::prepare(m.tx)) != 0 || (rc = pair::prepare(m.rx)) != 0) {
        rig_.fail(name() + ": port and generic region query returned " + std::to_string(rc));
        return false;
    }
    if ((rc = make_queues(m.tx, type, entries, plan_.batch, t)) != 0 ||
        (rc = make_queues(m.rx, type, entries, plan_.batch, t)) != 0) {
        rig_.fail(name() + ": CQ or QP create returned " + std::to_string(rc));
        return false;
    }
    if (plan_.arm && (rc = ulp_cq_modify_attrib(rig_.funcs, m.rx.hca, m.rx.cq, &t.cq_callbacks,
                                                &count_completion_event)) != 0) {
        rig_.fail(name() + ": CQ modify returned " + std::to_string(rc));
        return false;
    }
    if (plan_.transport == Transport::Ud) {
        if ((rc = pair::connect_one(m.tx, m.rx, "ud")) != 0 ||
            (rc = pair::connect_one(m.rx, m.tx, "ud")) != 0) {
            rig_.fail(name() + ": UD QP modify returned " + std::to_string(rc));
            return false;
        }
        if ((rc = ulp_ah_create_simple(rig_.funcs, m.tx.hca, m.tx.pd, m.rx.lid, 0, &m.ah)) != 0) {
            rig_.fail(name() + ": address handle create returned " + std::to_string(rc));
            return false;
        }
        m.have_ah = true;
        t.ahs_created++;
    } else {
        const bool is_rc = plan_.transport == Transport::Rc;
        if ((rc = connect_to(m.tx, m.rx, is_rc)) != 0 || (rc = connect_to(m.rx, m.tx, is_rc)) != 0) {
            rig_.fail(name() + ": QP modify returned " + std::to_string(rc));
            return false;
        }
    }
    m.posted.assign(plan_.batch, false);
    m.rc_expected = m.uc_last = m.next_seq;
    return true;
}

void Flow::close() {
    Impl &m = *impl_;
    Tally &t = rig_.tally;
    std::lock_guard lock(rig_.control);
    for (pair::Side *s : {&m.tx, &m.rx}) {
        if (s->qp) {
            if (ulp_qp_destroy(rig_.funcs, s->hca, s->qp) != 0) rig_.fail(name() + ": QP destroy failed");
            t.qps_destroyed++;
            s->qp = nullptr;
        }
    }
    if (m.have_ah) {
        if (ulp_ah_destroy(rig_.funcs, m.tx.hca, m.ah) != 0)
            rig_.fail(name() + ": address handle destroy failed");
        t.ahs_destroyed++;
        m.have_ah = false;
    }
    // A completion event raised before the QPs went may still be on its way to the CQ's handler.
    marlix::kernel::irq_sync();
    for (pair::Side *s : {&m.tx, &m.rx}) {
        if (s->cq) {
            if (ulp_cq_destroy(rig_.funcs, s->hca, s->cq) != 0) rig_.fail(name() + ": CQ destroy failed");
            t.cqs_destroyed++;
            s->cq = nullptr;
        }
    }
}

// What one batch saw.
struct Flow::Batch {
    uint64_t first_seq = 0;
    uint32_t sends_done = 0, sends_ok = 0, received = 0;
    int first_error = -1;      // status of the first failed send
    uint32_t error_index = 0;  // its place in the batch
    bool bad_error_order = false;
};

void Flow::run_batch() {
    Impl &m = *impl_;
    const uint64_t generation_before = rig_.cable.generation.load();
    if (!post_receives()) return;
    Batch b;
    b.first_seq = m.next_seq;
    m.seen.assign(plan_.batch, false);
    if (!post_sends()) return;

    // Every send completes, successfully or not; the receiver is polled meanwhile.
    const auto start = Clock::now();
    ulp_completion c{};
    while (b.sends_done < plan_.batch && !rig_.failed()) {
        bool any = false;
        while (b.sends_done < plan_.batch && poll(m.tx, c)) {
            on_send(b, c);
            any = true;
        }
        while (b.received < plan_.batch && poll(m.rx, c)) {
            on_receive(b, c);
            any = true;
        }
        if (any) continue;
        if (Clock::now() - start > kStuck) {
            std::ostringstream why;
            why << name() << ": " << plan_.batch - b.sends_done << " of " << plan_.batch
                << " sends still incomplete after " << kStuck.count() << " s";
            return rig_.fail(why.str());
        }
        std::this_thread::sleep_for(std::chrono::microseconds(50));
    }
    if (rig_.failed()) return;

    // A batch met the cable when it was out at either end of the batch or was pulled during it.
    const uint64_t generation_after = rig_.cable.generation.load();
    const bool met_pull =
        crosses_cable() && (generation_before != generation_after || (generation_before & 1));
    // Without a break or a pull every message is due; otherwise those still missing a moment
    // after the last send completed were lost with the cable.
    const bool broke = b.first_error >= 0;
    const Clock::duration limit = !broke && !met_pull ? Clock::duration(kStuck) : Clock::duration(kPullGrace);
    const auto settle_start = Clock::now();
    while (b.received < plan_.batch && !rig_.failed()) {
        if (poll(m.rx, c)) {
            on_receive(b, c);
            continue;
        }
        if (Clock::now() - settle_start > limit) break;
        std::this_thread::sleep_for(std::chrono::microseconds(50));
    }
    if (rig_.failed()) return;
    batches_++;
    account(b, met_pull);
}

bool Flow::post_receives() {
    // Receive buffers go first: a UC or UD message without one is dropped, an RC one waits.
    Impl &m = *impl_;
    Tally &t = rig_.tally;
    std::vector<uint32_t> free_slots;
    for (uint32_t i = 0; i < plan_.batch; ++i)
        if (!m.posted[i]) free_slots.push_back(i);
    if (plan_.receive_lists && !free_slots.empty()) {
        for (size_t k = 0; k < free_slots.size(); ++k) {
            const uint32_t slot = free_slots[k];
            m.receive_sgs[k]
                .set("v_address",
                     reinterpret_cast<long long>(&m.receive_area[size_t(slot) * m.receive_stride]))
                .set("length", m.receive_stride)
                .set("l_key", m.rx.l_key);
            m.receive_wrs[k]
                .set("wr_id", slot)
                .set("completion_notification", 1)
                .set("num_of_data_segments", 1)
                .set("scatgat_list", reinterpret_cast<long long>(m.receive_sgs[k].base()));
        }
        const int rc = ulp_post_receive_list(rig_.funcs, m.rx.hca, m.rx.qp, uint32_t(free_slots.size()),
                                             m.receive_wrs.data());
        if (rc != 0) {
            rig_.fail(name() + ": receive list post returned " + std::to_string(rc));
            return false;
        }
        t.receive_list_requests += free_slots.size();
    } else {
        for (uint32_t slot : free_slots) {
            const int rc = ulp_post_receive_simple(rig_.funcs, m.rx.hca, m.rx.qp, slot,
                                                   &m.receive_area[size_t(slot) * m.receive_stride],
                                                   m.receive_stride, m.rx.l_key);
            if (rc != 0) {
                rig_.fail(name() + ": receive post returned " + std::to_string(rc));
                return false;
            }
            t.receive_posts++;
        }
    }
    for (uint32_t slot : free_slots) m.posted[slot] = true;
    if (plan_.arm) {
        const int rc = ulp_request_notification(rig_.funcs, m.rx.hca, m.rx.cq, 0);
        if (rc != 0) {
            rig_.fail(name() + ": CQ arming returned " + std::to_string(rc));
            return false;
        }
        t.arms++;
    }
    return true;
}

bool Flow::post_sends() {
    // RC and UC gather each message from up to four pieces; UD sends one piece to the address
    // handle.
    Impl &m = *impl_;
    Tally &t = rig_.tally;
    const int optype = ulp_operation_type(transport_name(plan_.transport));
    const uint32_t small = std::min<uint32_t>(plan_.max_length, 2048);
    for (uint32_t i = 0; i < plan_.batch; ++i) {
        const uint64_t seq = m.next_seq++;
        const uint32_t most = m.random() & 1 ? small : plan_.max_length;
        const uint32_t length = uint32_t(kHeaderBytes + m.random() % (most - kHeaderBytes + 1));
        uint8_t *slot = &m.send_area[size_t(i) * m.send_stride];
        int rc;
        uint32_t pieces = 1;
        if (plan_.transport == Transport::Ud) {
            fill_message(slot, plan_.id, seq, length);
            ulp_send_target target{};
            target.ah = m.ah;
            target.remote_qpn = m.rx.qpn;
            target.q_key = pair::kQkey;
            rc = ulp_post_send_simple(rig_.funcs, m.tx.hca, m.tx.qp, optype, ulp_op_send, seq, slot, length,
                                      m.tx.l_key, &target);
        } else {
            fill_message(m.scratch.data(), plan_.id, seq, length);
            pieces = 1 + uint32_t(m.random() % kMaxPieces);
            if (pieces > length) pieces = 1;
            uint32_t offset = 0, place = 0;
            for (uint32_t p = 0; p < pieces; ++p) {
                const uint32_t piece = p + 1 == pieces ? length - offset : length / pieces;
                std::memcpy(slot + place, m.scratch.data() + offset, piece);
                m.sg[p]
                    .set("v_address", reinterpret_cast<long long>(slot + place))
                    .set("length", piece)
                    .set("l_key", m.tx.l_key);
                offset += piece;
                place += piece + kPieceGap;
            }
            m.wr[0]
                .set("wr_id", (long long)seq)
                .set("completion_notification", 1)
                .set("wr_type", m.wr_send)
                .set("num_of_data_segments", pieces)
                .set("scatgat_list", reinterpret_cast<long long>(m.sg.data()));
            rc = ulp_post_send(rig_.funcs, m.tx.hca, m.tx.qp, m.wr.data(), optype);
        }
        if (rc != 0) {
            rig_.fail(name() + ": send post returned " + std::to_string(rc));
            return false;
        }
        t.send_posts++;
        t.send_segments += pieces;
        t.tx_bytes += length;
        t.messages_sent++;
    }
    return true;
}

bool Flow::poll(pair::Side &s, ulp_completion &c) {
    // Polls once, keeping the tally the module's counters are checked against.
    const CompletionCodes &codes = completion_codes();
    Tally &t = rig_.tally;
    const bool may_fail = plan_.transport == Transport::Rc && crosses_cable();
    std::unique_lock lock(rig_.error_polls, std::defer_lock);
    if (may_fail) lock.lock();
    const int rc = ulp_poll_simple(rig_.funcs, s.hca, s.cq, &c, nullptr, 0);
    if (may_fail) lock.unlock();
    t.polls++;
    if (rc == codes.cq_empty) {
        t.polls_empty++;
        return false;
    }
    if (rc != 0) {
        rig_.fail(name() + ": poll returned " + std::to_string(rc));
        return false;
    }
    if (c.operation_type == codes.send_rq || c.operation_type == codes.rdma_read_sq)
        t.rx_bytes += c.num_bytes_transfered;
    if (c.completion_status != codes.success) {
        if (c.operation_type == codes.send_rq)
            t.receive_error_completions++;
        else
            t.send_error_completions++;
    }
    return true;
}

void Flow::on_receive(Batch &b, const ulp_completion &c) {
    Impl &m = *impl_;
    const CompletionCodes &codes = completion_codes();
    std::ostringstream why;
    if (c.operation_type != codes.send_rq || c.completion_status != codes.success || c.wr_id >= plan_.batch ||
        !m.posted[c.wr_id]) {
        why << name() << ": unexpected receive completion: wr_id " << c.wr_id << ", "
            << ulp_wc_operation_name(c.operation_type) << ", " << ulp_comp_status_name(c.completion_status);
        return rig_.fail(why.str());
    }
    m.posted[c.wr_id] = false;
    const uint32_t extra = plan_.transport == Transport::Ud ? kGrhBytes : 0;
    if (c.num_bytes_transfered < extra) return rig_.fail(name() + ": datagram shorter than the GRH area");
    const uint8_t *data = &m.receive_area[size_t(c.wr_id) * m.receive_stride] + extra;
    MessageHeader h{};
    const std::string bad = check_message(data, c.num_bytes_transfered - extra, plan_.id, &h);
    if (!bad.empty()) return rig_.fail(name() + ": " + bad);
    if (h.seq < b.first_seq || h.seq >= m.next_seq) {
        why << name() << ": message " << h.seq << " arrived outside its batch [" << b.first_seq << ", "
            << m.next_seq << ")";
        return rig_.fail(why.str());
    }
    const uint64_t index = h.seq - b.first_seq;
    if (m.seen[index]) {
        why << name() << ": message " << h.seq << " arrived twice";
        return rig_.fail(why.str());
    }
    if (plan_.transport == Transport::Rc && h.seq != m.rc_expected) {
        why << name() << ": message " << h.seq << " arrived where " << m.rc_expected << " was due";
        return rig_.fail(why.str());
    }
    if (plan_.transport == Transport::Uc && h.seq < m.uc_last) {
        why << name() << ": message " << h.seq << " arrived after " << m.uc_last - 1;
        return rig_.fail(why.str());
    }
    m.seen[index] = true;
    m.rc_expected = m.uc_last = h.seq + 1;
    b.received++;
    rig_.tally.messages_checked++;
    rig_.tally.bytes_checked += h.length;
}

void Flow::on_send(Batch &b, const ulp_completion &c) {
    const CompletionCodes &codes = completion_codes();
    const uint64_t expect = b.first_seq + b.sends_done;
    if (c.wr_id != expect || c.operation_type != codes.send_sq) {
        std::ostringstream why;
        why << name() << ": send completion " << c.wr_id << " (" << ulp_wc_operation_name(c.operation_type)
            << ") where " << expect << " was due";
        return rig_.fail(why.str());
    }
    if (c.completion_status == codes.success) {
        if (b.first_error >= 0) b.bad_error_order = true;
        b.sends_ok++;
    } else if (b.first_error < 0) {
        b.first_error = c.completion_status;
        b.error_index = b.sends_done;
    } else if (c.completion_status != codes.flush) {
        b.bad_error_order = true;
    }
    b.sends_done++;
}

void Flow::account(const Batch &b, bool met_pull) {
    const CompletionCodes &codes = completion_codes();
    Tally &t = rig_.tally;
    const uint32_t missing = plan_.batch - b.received;
    std::ostringstream why;
    if (b.first_error >= 0) {
        // Only RC gives up on a send, and only when nothing answered: the cable was out.
        if (plan_.transport != Transport::Rc || !met_pull || b.first_error != codes.retry_exc ||
            b.bad_error_order) {
            why << name() << ": send " << b.first_seq + b.error_index << " completed with "
                << ulp_comp_status_name(b.first_error) << (met_pull ? "" : " without a cable pull")
                << (b.bad_error_order ? ", and not every send after it was flushed" : "");
            return rig_.fail(why.str());
        }
        // Every send that completed well arrived; what came after may have arrived too.
        if (b.received < b.sends_ok) {
            why << name() << ": " << b.sends_ok << " sends completed but only " << b.received << " arrived";
            return rig_.fail(why.str());
        }
        t.rc_breaks++;
        t.rc_unfinished += missing;
        return reconnect();
    }
    if (missing == 0) return;
    if (plan_.transport == Transport::Rc || !met_pull) {
        why << name() << ": " << missing << " of " << plan_.batch << " messages from " << b.first_seq
            << " never arrived" << (met_pull ? "" : " and the cable was in");
        return rig_.fail(why.str());
    }
    t.datagrams_lost += missing;
}

void Flow::reconnect() {
    const auto start = Clock::now();
    for (;;) {
        while (!(rig_.port_active(plan_.from) && rig_.port_active(plan_.to))) {
            if (rig_.failed()) return;
            if (Clock::now() - start > kStuck) return rig_.fail(name() + ": the port never came back");
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
        const uint64_t generation = rig_.cable.generation.load();
        // The QP's error reaches the adaptor's event handler as an interrupt that may still be
        // queued; it looks the QP up, so it runs before the QP goes.
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
        marlix::kernel::irq_sync();
        close();
        if (!open()) return;
        // Connected while the cable was in: the peer's LID is right.
        if (rig_.cable.generation.load() == generation && !(generation & 1)) return;
    }
}

}  // namespace stress
