// The data path of a device as plain functions over the device model; they know no threads and
// no clock of their own (the engine passes `now`, in nanoseconds) and are called with the
// device's mutex held. One engine round on a device is:
//
//   1. run_requesters(): each QP with queued sends turns them into packets (Outbox);
//   2. the engine, with no device lock held, hands every packet to the fabric, which calls
//      respond() on the receiving device (under that device's lock); the replies (ACKs, NAKs,
//      read responses, atomic responses) go back through the fabric to complete() on the sender;
//   3. finish_sent(): UD and UC requests whose packets have all been delivered (or lost)
//      complete; run_timers() retransmits or fails what timed out.
//
// Nothing here allocates: packets and the memory pieces they point to live in the Outbox.
#pragma once

#include <array>
#include <cstdint>
#include <cstring>

#include "datapath/packet.hpp"
#include "device/qp.hpp"

namespace marlix::softhca {

// The packets one phase produces, with the pieces of memory their payloads are read from.
struct Outbox {
    static constexpr uint32_t kPackets = 512;
    static constexpr uint32_t kSpans = 1024;
    // A message of several packets leaves as a train: the entry holds the first packet's headers
    // and the fabric cuts it into `segments` packets of `mtu` bytes (PSN, opcode, payload offset,
    // and the last packet's immediate data, solicited and ack-request bits follow from the index).
    enum class Train : uint8_t { None, Send, Write, ReadResponse };
    struct Entry {
        Packet pkt;
        Device *from = nullptr;  // the device and port the packet leaves from (not on the wire)
        IB_port_t port = 0;
        Train train = Train::None;
        uint32_t mtu = 0;
        uint32_t segments = 1;
        uint64_t length = 0;  // the whole message (trains)
    };
    std::array<Entry, kPackets> entries;
    std::array<ByteSpan, kSpans> spans;
    uint32_t count = 0;
    uint32_t span_count = 0;
    bool has_room(uint32_t packets, uint32_t spans_needed) const {
        return count + packets <= kPackets && span_count + spans_needed <= kSpans;
    }
    void clear() {
        count = 0;
        span_count = 0;
    }
};

// Clears an entry to what every packet starts from. Copied from a constant rather than assigned:
// the copy becomes a dozen straight vector stores, where `e = Outbox::Entry{}` clears the entry
// word by word in a loop (or with a string store) and then stores its non-zero fields.
inline constexpr Outbox::Entry kBlankEntry{};
inline void clear_entry(Outbox::Entry &e) {
    std::memcpy(static_cast<void *>(&e), &kBlankEntry, sizeof e);
}

// The packet `index` of a train, built from the entry.
Packet train_segment(const Outbox::Entry &e, uint32_t index);
// Counts the packets of a train (more than one packet) in a port's transmit (or receive)
// counters: the middle packets are all alike, so one count covers the train whatever its length.
void count_train(Port &port, const Outbox::Entry &e, bool xmit);
// The same for any entry. Inline: most entries are a packet alone, whose headers are the entry's.
inline void count_entry(Port &port, const Outbox::Entry &e, bool xmit) {
    if (e.segments != 1)
        count_train(port, e, xmit);
    else if (xmit)
        port.count_xmit(e.pkt.wire_bytes(), 1);
    else
        port.count_rcv(e.pkt.wire_bytes(), 1);
}
// Number of packets a message of `length` bytes takes at `mtu` (at least one).
inline uint32_t segments_for(uint64_t length, uint32_t mtu) {
    // Most messages fit one packet: no division for them.
    return length <= mtu ? 1u : uint32_t((length + mtu - 1) / mtu);
}

// The QPs whose requester ran in a pass (a posting thread's pass checks their timers after it).
struct RanQps {
    static constexpr uint32_t kMax = 64;
    std::array<Qp *, kMax> qps{};
    uint32_t count = 0;
    bool overflow = false;  // more QPs ran than fit
    void add(Qp *qp) {
        if (count < kMax)
            qps[count++] = qp;
        else
            overflow = true;
    }
    void clear() {
        count = 0;
        overflow = false;
    }
};

// Turns queued send requests into packets, as far as the Outbox, the QPs' windows and the
// responder's read/atomic limit allow, each entry leaving from `dev`. Returns the number of
// requests handled. The QPs that ran are added to `ran` when given.
size_t run_requesters(Device &dev, uint64_t now, Outbox &out, PendingEvents &events, RanQps *ran = nullptr);
// Completes the UD/UC requests that run_requesters() sent. Returns how many.
size_t finish_sent(Device &dev, PendingEvents &events);
// Retransmission and RNR timers that fell due. Returns how many fired.
size_t run_timers(Device &dev, uint64_t now, PendingEvents &events);
// The earliest time a timer of the device falls due (0: none).
uint64_t next_timer(Device &dev);

// The responder: a request packet arriving on `port` for QP `pkt.dest_qp`. Replies go to `replies`.
void respond(Device &dev, IB_port_t port, const Packet &pkt, Outbox &replies, PendingEvents &events);
// A request train arriving on `port` (a healthy unicast link carries a train whole): the same
// as respond() for each of its packets, but an in-order run of middle packets of a send or an RDMA
// write is placed with one key walk and one copy.
void respond_train(Device &dev, IB_port_t port, const Outbox::Entry &e, Outbox &replies,
                   PendingEvents &events);
// A multicast packet arriving on `port`: every QP of the device attached to the group gets it
// (except the sending QP itself, for a packet that loops back to its own port).
void respond_multicast(Device &dev, IB_port_t port, const Packet &pkt, Outbox &replies,
                       PendingEvents &events);
// The completer: a response packet arriving on `port` at the requester.
void complete(Device &dev, IB_port_t port, const Packet &pkt, uint64_t now, PendingEvents &events);
// The responder's read and atomic resources are counted per pass: whoever runs one (the
// engine's round for a device, a posting thread) starts it with new_pass(), so a responder never
// counts the requests of two passes together. Each thread numbers its own passes: starting one
// writes nothing another thread reads.
void new_pass();

// Puts the QP on the device's list of QPs with requester work (posting, rewinds, timers).
void activate(Device &dev, Qp &qp);
// Takes the QP off that list (destroy).
void deactivate(Device &dev, Qp &qp);
// A post's doorbell when it does not run the data path itself: puts the QP on the device's
// lock-free doorbell list (no lock needed) unless it is there already; true when this call put
// it there. take_doorbells() (device mutex held) moves the list onto the active list;
// run_requesters() starts with it. A QP stays flagged `doorbell_rung` until it is taken, and
// the flag goes down under the QP's send queue lock: a poster that finds it up under that lock
// knows that whoever takes the QP will see what it has just queued, and rings nothing.
bool ring_doorbell(Device &dev, Qp &qp);
void take_doorbells(Device &dev);

// Moves the QP to the error state after a completion error and flushes what is queued behind.
// `async` (optional) is the local work queue error event to raise for it.
void enter_error(Device &dev, Qp &qp, PendingEvents &events);
// Send queue error (UD and UC send errors): the send queue stops and flushes; receives go on.
void enter_send_error(Device &dev, Qp &qp, PendingEvents &events);
// Raises a QP-scope asynchronous event.
void qp_event(Qp &qp, VAPI_event_record_type_t type, PendingEvents &events);

// Completion of a send request / receive request into the QP's CQs.
void complete_send(Device &dev, Qp &qp, SendEntry &w, VAPI_wc_status_t status, uint32_t syndrome,
                   PendingEvents &events);
// Retires the Done entries at the head of the send queue, in order.
void retire_sends(Device &dev, Qp &qp, PendingEvents &events);

// RDMA reads and atomics: the requests that wait for a response of their own and count against
// the outstanding read/atomic limits.
inline bool is_read_or_atomic(uint32_t opcode) {
    return opcode == VAPI_RDMA_READ || opcode == VAPI_ATOMIC_CMP_AND_SWP ||
           opcode == VAPI_ATOMIC_FETCH_AND_ADD;
}
// The transport bits of the BTH opcodes a QP sends and accepts (special QPs are datagram QPs).
inline uint8_t transport_bits(const Qp &qp) {
    if (qp.kind != qpsm::QpKind::Regular || qp.transport() == VAPI_TS_UD) return op::kUd;
    return qp.transport() == VAPI_TS_UC ? op::kUc : op::kRc;
}

// PSN arithmetic, modulo 2^24.
constexpr uint32_t kPsnMask = 0xffffff;
inline uint32_t psn_add(uint32_t psn, uint32_t n) {
    return (psn + n) & kPsnMask;
}
// Signed distance a - b in PSN space.
inline int32_t psn_diff(uint32_t a, uint32_t b) {
    return int32_t((a - b) << 8) >> 8;
}

// Bytes of a path MTU code (1: 256 ... 5: 4096).
inline uint32_t mtu_bytes(uint32_t code) {
    return code >= 1 && code <= 5 ? 128u << code : 256u;
}
// The transport timeout: 4.096 us * 2^timeout (0: wait for ever).
inline uint64_t timeout_ns(uint8_t timeout) {
    return timeout == 0 ? 0 : 4096ull << timeout;
}
// The RNR NAK timer codes in nanoseconds (0 is 655.36 ms).
uint64_t rnr_timer_ns(uint8_t code);

}  // namespace marlix::softhca
