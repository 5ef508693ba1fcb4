// Queue pairs of the software HCA: the QP record the device keeps per VAPI QP handle, with its
// attributes, its IB state, its work queues and the state of its requester and responder.
// Posting writes work requests into the rings; the data path consumes them from the front.
#pragma once

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdint>
#include <cstring>
#include <deque>
#include <mutex>
#include <new>
#include <optional>
#include <set>
#include <vector>

#include "device/cq.hpp"
#include "device/device.hpp"
#include "device/event_gate.hpp"
#include "device/limits.hpp"
#include "device/short_lock.hpp"
#include "datapath/wq.hpp"
#include "device/qp_state_machine.hpp"

namespace marlix::softhca {

using Mgid = std::array<uint8_t, 16>;

struct Qp;

// What a QP record keeps when the device reuses it for a new QP: the locks posters take, the
// rings they post into, and its link in the device's doorbell list. A poster may still hold a
// record's lock after the QP is gone, so a record lives as long as the device is open.
struct QpQueues {
    // Posters of sends hold sq_mu, posters of receives rq_mu (see wq.hpp for what each side of a
    // ring may touch). Whoever changes the QP's state, capabilities or rings holds the device
    // mutex and both (sq_mu first).
    // Each queue's lock and ring apart from the other's: its posters and its consumer may run
    // on different threads.
    alignas(limits::kCacheLine) ShortLock sq_mu;
    // On the device's doorbell list (posts left for the engine or a poll). In the line of the
    // lock every send post takes, where a post reads it (see ring_doorbell()).
    std::atomic<bool> doorbell_rung{false};
    Qp *doorbell_next = nullptr;
    SendRing sq;  // [head, next_send) sent, [next_send, tail) queued
    alignas(limits::kCacheLine) ShortLock rq_mu;
    RecvRing rq;
};

// Everything else about a QP: a new QP starts from a fresh one.
struct QpContext {
    VAPI_qp_hndl_t hndl = 0;
    VAPI_qp_num_t qp_num = 0;
    VAPI_special_qp_t special = VAPI_REGULAR_QP;
    IB_port_t special_port = 0;  // special QPs: the port they serve
    qpsm::QpKind kind = qpsm::QpKind::Regular;
    VAPI_qp_init_attr_t init{};  // as created, with the capabilities actually granted
    VAPI_qp_attr_t attr{};       // current attributes (attr.qp_state is the IB state)
    // The CQs of init.sq_cq_hndl and init.rq_cq_hndl (a CQ is not destroyed while a QP uses it).
    CompletionQueue *send_cq = nullptr;
    CompletionQueue *recv_cq = nullptr;
    // ---- Requester -----------------------------------------------------------------------
    // (Requester and responder state in cache lines of their own: the passes that run the two
    // roles of one QP may be on different threads.)
    // Position in sq of the next request to (re)transmit.
    alignas(limits::kCacheLine) uint64_t next_send = 0;
    uint64_t sent_high = 0;            // positions below this were sent at least once
    uint32_t next_psn = 0;             // PSN of the next packet to send
    uint32_t rd_atom_outstanding = 0;  // RDMA reads and atomics sent and not yet answered
    uint8_t retries_left = 0;          // transport retries left for the oldest request
    uint8_t rnr_retries_left = 0;      // RNR retries left (7 in rnr_retry means for ever)
    uint64_t retransmit_at = 0;        // when the oldest unanswered request times out (ns; 0: none)
    uint64_t rnr_wait_until = 0;       // RNR NAK: nothing is sent before this (ns)
    bool sqd_event_due = false;        // SQD entered with notification asked; raise when drained
    bool alt_path_loaded = false;      // an alternate path was given; a migration uses it up
    // List membership, changed by this device's passes (kept with the requester's state, away from
    // what another device's pass reads when it delivers to this QP).
    bool on_active_list = false;  // queued on the device's list of QPs with requester work
    bool on_sent_list = false;    // on the device's list of UD/UC QPs with sent requests
    // Where the last request this QP delivered to another device left that device's hot lines
    // (its mutex, the receiving QP's queue positions, the next CQ slot): the next post starts
    // bringing them over before it runs its pass (see warm_peer()). Written by passes of this
    // device, read by posters without a lock; a stale address costs only a useless prefetch.
    struct PeerLines {
        // The lines a pass writes (mutex, responder state, CQ slot), then those it only reads.
        enum Line : size_t { kMutex, kResponder, kCqSlot, kRqTail, kRqFront, kCount };
        std::array<std::atomic<const void *>, kCount> line{};
        PeerLines() = default;
        // A context assigned anew (a record reused for a new QP) forgets them.
        PeerLines(const PeerLines &) {}
        PeerLines &operator=(const PeerLines &) {
            for (auto &l : line) l.store(nullptr, std::memory_order_relaxed);
            return *this;
        }
    } peer_lines;
    // ---- Responder -----------------------------------------------------------------------
    // RC/UC: the PSN the next request must carry.
    alignas(limits::kCacheLine) uint32_t expected_psn = 0;
    uint32_t msn = 0;         // messages completed as responder
    bool in_message = false;  // a multi-packet send or write is in progress
    bool recv_taken = false;  // ... and has taken the receive request at rq.head()
    uint64_t write_va = 0;    // RDMA write in progress: where the next packet goes
    uint32_t write_rkey = 0;
    uint32_t write_first_psn = 0;
    uint64_t message_bytes = 0;      // bytes of the message in progress so far
    bool message_failed = false;     // UC: the message in progress is being dropped
    bool nak_sent = false;           // RC: a sequence NAK went out; quiet until the PSN comes
    uint32_t reads_in_progress = 0;  // responder resources used in this pass (reads, atomics)
    uint64_t reads_pass = 0;
    bool comm_established = false;  // the first packet in RTR raised the event
    // The last atomic operations answered, to answer a duplicate with the same original value.
    struct AtomicReplay {
        uint32_t psn = 0;
        uint64_t orig = 0;
        bool valid = false;
    };
    std::array<AtomicReplay, 4> atomic_replay{};
    uint32_t atomic_replay_next = 0;
    // ---- Controls for tests, list membership -----------------------------------------------
    struct Forced {
        bool armed = false;
        VAPI_wc_status_t status = VAPI_SUCCESS;
        uint32_t syndrome = 0;
    };
    alignas(limits::kCacheLine) Forced forced_send;
    Forced forced_recv;
    bool destroyed = false;  // destroyed; the record waits in Device::retired, then is reused
    std::set<std::pair<Mgid, IB_lid_t>> mcast_groups;  // groups this QP is attached to
    std::optional<uint32_t> reported_state;            // what VAPI_query_qp says instead (tests)
    // What destroy closes and waits on: the QP's asynchronous events in flight.
    EventGateRef event_gate = std::make_shared<EventGate>();
};

struct Qp : Object, QpQueues, QpContext {
    VAPI_ts_type_t transport() const { return init.ts_type; }
    qpsm::QpState state() const { return static_cast<qpsm::QpState>(attr.qp_state); }
    const VAPI_qp_cap_t &cap() const { return init.cap; }
    // Still the live QP of handle `h` (read under either queue lock or the device mutex: a
    // poster's record may have been destroyed, or reused, since it looked it up).
    bool live_as(VAPI_qp_hndl_t h) const { return !destroyed && hndl == h; }
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
// The QP record of a handle from the table posters read without the device mutex (null: no QP,
// or a handle beyond the table). Check live_as() under the queue's lock before using it.
inline Qp *posting_qp(Device &dev, VAPI_qp_hndl_t qp) {
    return qp < Device::kFastQpHandles ? dev.fast_qps[qp].load(std::memory_order_acquire) : nullptr;
}
// Publishes a new QP in, and withdraws a destroyed one from, the tables that find it by handle
// (posters) and by number (packets); device mutex held.
void publish_qp(Device &dev, Qp &qp);
void withdraw_qp(Device &dev, Qp &qp);

// Both queue locks of a QP, sq_mu first, held (under the device mutex) by whoever changes its
// state, capabilities or rings: a post then sees the QP before or after the change, and its work
// is queued before or after any flush that goes with it.
class QpQueueLock {
  public:
    explicit QpQueueLock(Qp &qp) : sq_(qp.sq_mu), rq_(qp.rq_mu) {}

  private:
    std::lock_guard<ShortLock> sq_, rq_;
};
CompletionQueue *find_cq(Device &dev, VAPI_cq_hndl_t cq);
// The QP a packet arriving on `port` for QP number `qp_num` is meant for: QP0 and QP1 are the
// special QPs of that port, other numbers name the same QP on every port. Null when none.
// Every packet asks: the numbers QPs are handed out from are one look-up, inline.
Qp *find_qp_by_num_hashed(Device &dev, VAPI_qp_num_t qp_num, IB_port_t port);
inline Qp *find_qp_by_num(Device &dev, VAPI_qp_num_t qp_num, IB_port_t port) {
    if (qp_num >= limits::kFirstQpNum && qp_num - limits::kFirstQpNum < Device::kFastQpNumbers)
        return dev.qp_by_fast_number[qp_num - limits::kFirstQpNum];
    return find_qp_by_num_hashed(dev, qp_num, port);
}
// The key of Device::qp_by_number for a QP number arriving on a port.
uint32_t qp_number_key(VAPI_qp_num_t qp_num, IB_port_t port);

// A few values kept inline, more spilling to the heap: event lists are short (one completion
// event per armed CQ), so collecting them costs no allocation. The inline slots are constructed
// only when used: every pass makes a few of these, and most stay empty.
template <class T, size_t N>
class SmallList {
  public:
    // User-provided, so that even a value-initialised list leaves its inline slots unwritten.
    SmallList() {}
    SmallList(const SmallList &other) {
        for (size_t i = 0; i < other.size(); ++i) push_back(other[i]);
    }
    SmallList &operator=(const SmallList &) = delete;
    ~SmallList() {
        if (n_) clear();
    }
    void push_back(const T &v) {
        if (n_ < N)
            new (slot(n_)) T(v);
        else
            more_.push_back(v);
        ++n_;
    }
    size_t size() const { return n_; }
    bool empty() const { return n_ == 0; }
    const T &operator[](size_t i) const { return i < N ? *slot(i) : more_[i - N]; }
    void clear() {
        if (n_ == 0) return;
        for (size_t i = 0; i < std::min(n_, N); ++i) slot(i)->~T();
        if (n_ > N) more_.clear();
        n_ = 0;
    }

  private:
    T *slot(size_t i) { return std::launder(reinterpret_cast<T *>(storage_ + i * sizeof(T))); }
    const T *slot(size_t i) const {
        return std::launder(reinterpret_cast<const T *>(storage_ + i * sizeof(T)));
    }
    alignas(T) unsigned char storage_[N * sizeof(T)];
    size_t n_ = 0;
    std::vector<T> more_;
};

// An asynchronous event and the gate of the QP or CQ it names, taken when it was raised under
// the device lock (null: the modifier names no object, or it is looked up as the event goes out).
struct AsyncEvent {
    VAPI_event_record_t record{};
    EventGateRef gate;
    AsyncEvent() = default;
    AsyncEvent(const VAPI_event_record_t &r, EventGateRef g = {}) : record(r), gate(std::move(g)) {}
};

// Completions and asynchronous events to deliver once the device lock is released.
struct PendingEvents {
    SmallList<CompletionEvent, 8> completions;
    SmallList<AsyncEvent, 4> async;
    bool empty() const { return completions.empty() && async.empty(); }
    // Raises everything as the adapter's interrupt; the caller holds no device lock. Most lists
    // are empty: that costs two compares.
    void deliver(Device &dev) {
        if (!empty()) deliver_all(dev);
    }
    void clear() {
        completions.clear();
        async.clear();
    }

  private:
    void deliver_all(Device &dev);
};

// Pushes a completion into a CQ, collecting the event it raises and a CQ error on overrun.
// Most completions go to a CQ that nobody armed and that has room: they raise nothing, and
// take the short way, inline.
void push_completion_raising(CompletionQueue &cq, const VAPI_wc_desc_t &wc, bool solicited,
                             PendingEvents &events);
inline void push_completion(CompletionQueue &cq, const VAPI_wc_desc_t &wc, bool solicited,
                            PendingEvents &events) {
    if (cq.push_unarmed(wc)) [[likely]]
        return;
    push_completion_raising(cq, wc, solicited, events);
}

// Completes every queued work request of the QP with a flush error (entering ERR, or posting in
// it), receive queue and send queue alike.
void flush_qp(Device &dev, Qp &qp, PendingEvents &events);
void flush_send_queue(Device &dev, Qp &qp, PendingEvents &events);
void flush_recv_queue(Device &dev, Qp &qp, PendingEvents &events);

// Removes a QP from every multicast group it is attached to (QP destroy).
void detach_qp_from_all_groups(Device &dev, Qp &qp);
// The QPs attached to a multicast group (empty when the group does not exist), in handle order.
std::vector<VAPI_qp_hndl_t> mcast_group_members(Device &dev, const IB_gid_t mgid);
// The members of the groups with LID `mlid` (handles), into `out` (cleared first); no allocation
// once `out` has grown to the group's size.
void mcast_members_by_lid(Device &dev, IB_lid_t mlid, std::vector<VAPI_qp_hndl_t> &out);

// The address vector of an address handle and the PD it belongs to; null when unknown.
const VAPI_ud_av_t *find_ah_av(Device &dev, VAPI_ud_av_hndl_t ah, VAPI_pd_hndl_t *pd = nullptr);

// The CQE opcode a send work request completes with. Inline: every send completion asks.
inline VAPI_cqe_opcode_t send_cqe_opcode(VAPI_wr_opcode_t opcode) {
    switch (opcode) {
        case VAPI_RDMA_WRITE:
        case VAPI_RDMA_WRITE_WITH_IMM:
            return VAPI_CQE_SQ_RDMA_WRITE;
        case VAPI_SEND:
        case VAPI_SEND_WITH_IMM:
            return VAPI_CQE_SQ_SEND_DATA;
        case VAPI_RDMA_READ:
            return VAPI_CQE_SQ_RDMA_READ;
        case VAPI_ATOMIC_CMP_AND_SWP:
            return VAPI_CQE_SQ_COMP_SWAP;
        case VAPI_ATOMIC_FETCH_AND_ADD:
            return VAPI_CQE_SQ_FETCH_ADD;
        default:
            return VAPI_CQE_INVAL_OPCODE;
    }
}

}  // namespace marlix::softhca
