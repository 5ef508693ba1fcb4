// Queue pairs of the software HCA: the QP record the device keeps per VAPI QP handle, with its
// attributes, its IB state and the work requests queued on it. Posting queues work requests here;
// the data path consumes them from the front of `sq` and `rq`.
#pragma once

#include <array>
#include <cstdint>
#include <cstring>
#include <deque>
#include <optional>
#include <set>
#include <vector>

#include "device/cq.hpp"
#include "device/device.hpp"
#include "device/qp_state_machine.hpp"

namespace marlix::softhca {

// A send work request as posted: the descriptor with a private copy of its gather list (the
// descriptor's sg_lst_p is cleared; use `sg`), and for inline sends the data itself.
struct SendWqe {
    VAPI_sr_desc_t desc{};
    std::vector<VAPI_sg_lst_entry_t> sg;
    bool is_inline = false;
    std::vector<uint8_t> inline_data;
    std::optional<VAPI_pkey_ix_t> pkey_ix;  // GSI sends on an explicit P_Key index
};

struct RecvWqe {
    VAPI_rr_desc_t desc{};
    std::vector<VAPI_sg_lst_entry_t> sg;
};

using Mgid = std::array<uint8_t, 16>;

struct Qp : Object {
    VAPI_qp_hndl_t hndl = 0;
    VAPI_qp_num_t qp_num = 0;
    VAPI_special_qp_t special = VAPI_REGULAR_QP;
    IB_port_t special_port = 0;  // special QPs: the port they serve
    qpsm::QpKind kind = qpsm::QpKind::Regular;
    VAPI_qp_init_attr_t init{};  // as created, with the capabilities actually granted
    VAPI_qp_attr_t attr{};       // current attributes (attr.qp_state is the IB state)
    std::deque<SendWqe> sq;
    std::deque<RecvWqe> rq;
    std::set<std::pair<Mgid, IB_lid_t>> mcast_groups;  // groups this QP is attached to
    std::optional<uint32_t> reported_state;             // what VAPI_query_qp says instead (tests)

    VAPI_ts_type_t transport() const { return init.ts_type; }
    qpsm::QpState state() const { return static_cast<qpsm::QpState>(attr.qp_state); }
    const VAPI_qp_cap_t &cap() const { return init.cap; }
};

// The value a caller stored in an enumeration field, read without assuming it is one of the
// enumerators: C callers may put anything there, and it is checked before use.
template <class E>
uint32_t raw_value(const E &e) {
    static_assert(sizeof(E) == sizeof(uint32_t));
    uint32_t v;
    std::memcpy(&v, &e, sizeof v);
    return v;
}

// Looks up a QP / CQ record of the device (null when the handle is unknown).
Qp *find_qp(Device &dev, VAPI_qp_hndl_t qp);
CompletionQueue *find_cq(Device &dev, VAPI_cq_hndl_t cq);
// The QP a packet arriving on `port` for QP number `qp_num` is meant for: QP0 and QP1 are the
// special QPs of that port, other numbers name the same QP on every port. Null when none.
Qp *find_qp_by_num(Device &dev, VAPI_qp_num_t qp_num, IB_port_t port);

// Completions and CQ errors to deliver once the device lock is released.
struct PendingEvents {
    std::vector<CompletionEvent> completions;
    std::vector<VAPI_event_record_t> async;
    bool empty() const { return completions.empty() && async.empty(); }
    // Delivers everything through the event dispatcher; the caller holds no device lock.
    void deliver(Device &dev);
};

// Pushes a completion into a CQ, collecting the event it raises and a CQ error on overrun.
void push_completion(CompletionQueue &cq, const VAPI_wc_desc_t &wc, bool solicited, PendingEvents &events);

// Completes every queued work request of the QP with a flush error (entering ERR, or posting in
// it), receive queue and send queue alike.
void flush_qp(Device &dev, Qp &qp, PendingEvents &events);
void flush_send_queue(Device &dev, Qp &qp, PendingEvents &events);
void flush_recv_queue(Device &dev, Qp &qp, PendingEvents &events);

// Removes a QP from every multicast group it is attached to (QP destroy).
void detach_qp_from_all_groups(Device &dev, Qp &qp);
// The QPs attached to a multicast group (empty when the group does not exist), in handle order.
std::vector<VAPI_qp_hndl_t> mcast_group_members(Device &dev, const IB_gid_t mgid);

// The address vector of an address handle and the PD it belongs to; null when unknown.
const VAPI_ud_av_t *find_ah_av(Device &dev, VAPI_ud_av_hndl_t ah, VAPI_pd_hndl_t *pd = nullptr);

// The CQE opcode a send work request completes with.
VAPI_cqe_opcode_t send_cqe_opcode(VAPI_wr_opcode_t opcode);

}  // namespace marlix::softhca
