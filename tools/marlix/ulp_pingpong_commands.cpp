// ulp pingpong: a pair connected as `ulp connect` connects it, then COUNT messages of BYTES each
// way through the module, every byte checked. It ends with one line
//
//   pingpong TYPE: COUNT exchanges, BYTES bytes, N bytes verified, E errors
//
// and fails (exit status 1) when E is not 0. An exchange is one message from the first QP to the
// second and one back; each message is a receive posted by the receiver, a send posted by the
// sender, and both completions polled.
//
// With the word "events" at the end, a completion is waited for as an upper layer driven by
// interrupts does: poll, and when the CQ is empty arm it (a completion notification request),
// poll once more for what arrived before the arming, then wait for the CQ's completion event and
// poll again. The line then ends with ", R notifications, V completion events".
#include <ostream>
#include <vector>

#include "marlix/kernel.hpp"
#include "ulp_datapath.hpp"

namespace marlix::console {
namespace {

// Polls of one message before it counts as lost (the adapters settle before each).
inline constexpr int kPollRounds = 1000;
// Datagram receives start with the 40-byte GRH area.
inline constexpr size_t kGrhBytes = 40;

struct End {
    ulp::Object *qp = nullptr;
    ulp::Object *hca = nullptr;
    ulp::Object *cq = nullptr;
    uint32_t l_key = 0;
    uint64_t ah = 0;  // datagrams: the address handle to the other end
    std::vector<uint8_t> out, in;
};

// The most recent object of `kind` on `hca`.
ulp::Object *latest_on(ulp::Session &s, const std::string &kind, const std::string &hca) {
    ulp::Object *found = nullptr;
    for (const ulp::Object *o : s.all())
        if (o->kind == kind && o->hca == hca) found = const_cast<ulp::Object *>(o);
    return found;
}

// Completion notifications requested and completion events received in events mode.
struct EventCounts {
    bool enabled = false;
    uint64_t notifications = 0;
    uint64_t events = 0;  // counted by the CQs' callbacks
};

bool poll_for(End &end, uint64_t wr_id, ulp_completion &wc) {
    while (ulp_poll_simple(end.hca->funcs, end.hca->ptr, end.cq->ptr, &wc, nullptr, 0) == 0)
        if (wc.wr_id == wr_id) return true;
    return false;
}

// Polls `end`'s CQ until a completion of `wr_id` arrives; fills `wc`. False when none came.
bool busy_wait_for(End &end, uint64_t wr_id, ulp_completion &wc) {
    for (int round = 0; round < kPollRounds; ++round) {
        ulp::settle();
        if (poll_for(end, wr_id, wc)) return true;
    }
    return false;
}

// Arm, event, poll: the CQ is polled only when it may hold something new, that is before it is
// armed (what completed earlier raises no event) and after each of its completion events.
bool event_wait_for(End &end, uint64_t wr_id, ulp_completion &wc, EventCounts &counts) {
    bool armed = false;
    uint64_t seen = 0;
    for (int round = 0; round < kPollRounds; ++round) {
        if (!armed) {
            if (poll_for(end, wr_id, wc)) return true;
            if (ulp_request_notification(end.hca->funcs, end.hca->ptr, end.cq->ptr, 0) != 0) return false;
            ++counts.notifications;
            armed = true;
            seen = ulp::completion_events(*end.cq);
            if (poll_for(end, wr_id, wc)) return true;
            continue;
        }
        ulp::settle();
        kernel::irq_sync();
        if (ulp::completion_events(*end.cq) != seen) armed = false;
    }
    return false;
}

bool wait_for(End &end, uint64_t wr_id, ulp_completion &wc, EventCounts &counts) {
    return counts.enabled ? event_wait_for(end, wr_id, wc, counts) : busy_wait_for(end, wr_id, wc);
}

// One message from `from` to `to`; returns the bytes verified (0 on any error).
uint64_t message(End &from, End &to, const std::string &type, uint64_t bytes, uint64_t wr_id,
                 EventCounts &counts) {
    const bool datagram = type == "ud";
    const size_t room = bytes + (datagram ? kGrhBytes : 0);
    std::fill(to.in.begin(), to.in.end(), 0);
    for (size_t i = 0; i < bytes; ++i) from.out[i] = static_cast<uint8_t>(wr_id * 131 + i * 7);
    if (ulp_post_receive_simple(to.hca->funcs, to.hca->ptr, to.qp->ptr, wr_id, to.in.data(),
                                static_cast<uint32_t>(room), to.l_key) != 0)
        return 0;
    ulp_send_target target{};
    if (datagram) {
        target.ah = from.ah;
        target.remote_qpn = static_cast<uint32_t>(to.qp->values.at("qp_num"));
        target.q_key = 0x11111111;
    }
    if (ulp_post_send_simple(from.hca->funcs, from.hca->ptr, from.qp->ptr, ulp_operation_type(type.c_str()),
                             ulp_op_send, wr_id, from.out.data(), static_cast<uint32_t>(bytes), from.l_key,
                             &target) != 0)
        return 0;
    ulp_completion sent{}, received{};
    if (!wait_for(from, wr_id, sent, counts) || !wait_for(to, wr_id, received, counts)) return 0;
    if (sent.completion_status != 0 || received.completion_status != 0) return 0;
    if (received.num_bytes_transfered != room) return 0;
    const uint8_t *data = to.in.data() + (datagram ? kGrhBytes : 0);
    for (size_t i = 0; i < bytes; ++i)
        if (data[i] != from.out[i]) return 0;
    return bytes;
}

// ulp pingpong rc|uc|ud BYTES COUNT [events]
int ulp_pingpong(Console &c, ulp::Session &s, const std::vector<std::string> &args) {
    EventCounts counts;
    if (args.size() == 5 && args[4] == "events") counts.enabled = true;
    if (args.size() != 4 && !counts.enabled) return ulp::usage(c, "pingpong");
    const std::string type = args[1];
    if (type != "rc" && type != "uc" && type != "ud")
        return ulp::refused(c, "pingpong: not a QP type: " + type);
    uint64_t bytes = 0, count = 0;
    if (!ulp::parse_number(args[2], bytes) || !ulp::parse_number(args[3], count) || bytes == 0 ||
        bytes > (1u << 24))
        return ulp::usage(c, "pingpong");
    const ulp::Subcommand *connect = ulp::find_subcommand("connect");
    if (!connect) return ulp::refused(c, "pingpong: ulp connect is not available");
    if (int rc = connect->handler(c, s, {"connect", type}); rc != 0) return rc;

    std::vector<ulp::Object *> qps;
    for (const ulp::Object *o : s.all())
        if (o->kind == "qp") qps.push_back(const_cast<ulp::Object *>(o));
    End ends[2];
    for (int i = 0; i < 2; ++i) {
        End &e = ends[i];
        e.qp = qps[qps.size() - 2 + i];
        e.hca = s.hca_of(*e.qp);
        e.cq = latest_on(s, "cq", e.hca->name);
        e.l_key = ulp::keys_for(s, *e.qp).l_key;
        e.out.assign(bytes, 0);
        e.in.assign(bytes + kGrhBytes, 0);
    }
    if (type == "ud") {
        for (int i = 0; i < 2; ++i) {
            End &e = ends[i];
            // In the QPs' PD: the HCA's generic one, where ulp connect makes them.
            uint32_t pd_h = 0;
            const uint64_t dlid = ulp::port_lid(*ends[1 - i].hca, ulp::kPortOfConnections);
            int status = ulp_get_gen_pd_h(e.hca->funcs, e.hca->ptr, &pd_h);
            if (status == 0)
                status = ulp_ah_create_simple(e.hca->funcs, e.hca->ptr, pd_h, static_cast<uint16_t>(dlid), 0,
                                              &e.ah);
            if (status != 0) return ulp::failed(c, "pingpong: ah create on " + e.hca->name, status);
        }
    }

    // The completion events both CQs received during the exchanges.
    const uint64_t events_before = ulp::completion_events(*ends[0].cq) + ulp::completion_events(*ends[1].cq);
    uint64_t verified = 0, errors = 0, wr_id = 1;
    for (uint64_t n = 0; n < count; ++n) {
        for (int dir = 0; dir < 2; ++dir) {
            const uint64_t got = message(ends[dir], ends[1 - dir], type, bytes, wr_id++, counts);
            verified += got;
            if (got != bytes) ++errors;
        }
    }
    if (type == "ud")
        for (End &e : ends) ulp_ah_destroy(e.hca->funcs, e.hca->ptr, e.ah);
    kernel::irq_sync();
    counts.events = ulp::completion_events(*ends[0].cq) + ulp::completion_events(*ends[1].cq) - events_before;

    c.out() << "pingpong " << type << ": " << count << " exchanges, " << bytes << " bytes, " << verified
            << " bytes verified, " << errors << " errors";
    if (counts.enabled)
        c.out() << ", " << counts.notifications << " notifications, " << counts.events
                << " completion events";
    c.out() << "\n";
    return errors ? 1 : 0;
}

}  // namespace

MARLIX_ULP_SUBCOMMAND(
    pingpong, "pingpong", "ulp pingpong rc|uc|ud BYTES COUNT [events]",
    "Connect a pair as ulp connect does and exchange COUNT messages of BYTES each way through "
    "the module, checking every byte; with events, wait for completion events instead of "
    "busy polling.",
    ulp_pingpong)

}  // namespace marlix::console
