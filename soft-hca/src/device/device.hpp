// The software HCA's device model: a device, its ports, its protection domains, memory regions
// and keys, its queue records, and the registry of devices that boot() fills.
//
// Where things live
// -----------------
//   host_interface.hpp  what the device needs from its host: interrupts, physical memory, clock
//   device/             the device model: this file (device, ports, registry, Call), limits.hpp
//                       (every fixed size and bound), memory (keys and translation), cq.hpp (the
//                       completion ring and its events), qp.hpp (the QP record), the pure QP state
//                       machine, event_gate.hpp (quiescing events on destroy), path migration,
//                       fault injection and call counting, port_counters.hpp (a port's data
//                       counters in per-thread blocks)
//   verbs/              the thin extern "C" VAPI/EVAPI entry points, one file per subject
//   datapath/           work queues, packets, and the requester, responder and completer
//   engine/             what runs the data path: a threaded engine and a stepped one
//   fabric/             the switch, the cables and the subnet manager
//
// How a verb is written
// ---------------------
//     VAPI_ret_t VAPI_create_cq(VAPI_hca_hndl_t hca, ...) {
//         Call call(Verb::VAPI_create_cq, hca); // counts the call, applies injected faults,
//         if (call.failed()) return call.status(); // finds the open device and locks its mutex
//         Device &dev = call.dev();
//         ...                                   // dev.mu is held until `call` goes away
//     }
// Calls that name a device instead of a handle use Call(verb, std::string device_name, ByName{}).
// Never call a user callback (completion or async handler) while holding the device mutex: use
// call.unlock() first, or Device::raise_async_event() / dispatch_event(), which run the callback
// outside every lock.
//
// Registering objects (CQs, QPs, AHs, multicast state)
// ----------------------------------------------------
// The device keeps one table per kind: `cqs`, `qps`, `ahs` map a handle to a std::unique_ptr<Object>;
// a kind's implementation derives its record from Object and casts back with static_cast. Handles
// come from the kind's HandlePool (`cq_handles`, `qp_handles`, `ah_handles`): small integers handed
// out lowest-first and reused after release; tests may force the next value with inject_next().
// A destroyed QP's record waits in `retired` until the engine's next round on the device, then in
// `spare_qps` for the next QP created: posters hold QP records without the device mutex.
// `mcast` is a single slot for the multicast groups' state. VAPI_close_hca() destroys what is left,
// in the order qps, ahs, mcast, cqs, then FMRs, MRs and PDs, simply by destroying the records: a
// record's destructor must not touch the device.
//
// Use counts
// ----------
// Pd::users counts everything created in the PD (QPs, AHs, MRs, FMRs); VAPI_dealloc_pd refuses with
// VAPI_EBUSY while it is non-zero. A QP or AH implementation increments it on create and decrements
// it on destroy (find the PD with Device::find_pd). Pd::num_avs counts the PD's address handles and
// must stay <= Pd::max_num_avs (VAPI_EOL when full). A CQ's own record carries the count of QPs
// using it; VAPI_destroy_cq refuses with VAPI_EBUSY while it is non-zero.
//
// Memory
// ------
// translate() checks an lkey/rkey, the PD, the bounds and the access rights of a range and returns
// the host memory it covers. Virtual regions address the process's memory directly; physical
// regions and FMR maps address physical memory, which the emulated kernel maps at __va(phys).
//
// Port counters
// -------------
// Every packet is counted on the port it leaves and on the port it reaches, by whichever thread
// carries it, so the data counters (words and packets, each way) are never one set of words that
// every thread writes: each thread that counts on a port has a block of its own, one cache line
// apart from the port's state, which only it writes (a relaxed load and store, no lock), and a
// PortCounters Get adds the blocks up (port_counters.hpp). Anything else the data path counts on
// every packet must follow the same rule. The rare counters (bad P_Key, Q_Key violations, link
// downed) are plain fields under the device mutex. Opening the device starts every counter of
// its ports from zero.
//
// Locking
// -------
// Locks are taken in this order and never the other way round:
//   1. the registry's boot mutex (boot, halt, the implicit first boot);
//   2. the engine slot's mutex (engine start and stop, step, run_until_idle);
//   3. the fabric's mutex (subnet manager sweeps, cable and port changes);
//   4. one pass per device (Device::pass_running, under the device mutex): the engine's round
//      for the device, or a posting thread that finds none under way, runs the device's
//      requesters and carries their packets through the wire to the responders and back to the
//      completers, so the packets of a QP leave in order. A posting thread that finds a pass under
//      way leaves its QP on the active list for the engine; the engine's round waits for the pass
//      to end, with no lock held;
//   5. Device::mu, of one device at a time but for one case: verbs (through Call), the requester
//      and timer phase, and the responder/completer for a packet arriving at the device. A pass
//      keeps its own device's mutex while the wire carries its packets and the replies come back,
//      and may take a receiving device's mutex under it, but only if it is free at once
//      (try_lock); otherwise it lets its own go first. So no thread waits for a device mutex while
//      it holds another, and passes going opposite ways cannot deadlock;
//   6. a QP's queue locks, Qp::sq_mu then Qp::rq_mu (qp.hpp): a post on a connected QP takes the
//      one of its queue alone, writes the ring and publishes it; whoever changes the QP's state,
//      capabilities or rings takes both under the device mutex (QpQueueLock), and so does a post
//      that needs the device (datagram QPs, stopped queues); whoever takes a QP off the device's
//      doorbell list takes its sq_mu under the device mutex to let its flag down. Only leaf locks
//      are taken under them (a flush pushes completions, which takes no CQ lock). They are short
//      locks (short_lock.hpp): a waiter spins and yields, never sleeps;
//   7. a CQ's consumer lock (cq.hpp, a short lock), of one CQ at a time, which polls take alone (a
//      poll of a CQ in the lock-free table takes no other lock; one that finds it empty while
//      posts are left on the device carries them first, as a pass, holding nothing), so pollers
//      wait neither for the passes that deliver into the device nor for the completer. A CQ's
//      producer side (its ring's tail, arming and handler) has no lock of its own: it is
//      serialised by the device mutex, under which the completer, the responder and flushes push
//      and the verbs arm, resize and destroy. Resizing and destroying take the consumer lock as
//      well. A destroyed CQ is marked dead and kept until the device closes, since a poll may
//      still hold it;
//   8. leaf locks, under which nothing else is taken: the wire (link faults and delayed packets),
//      the LID table's writers, the fault table and the counts of calls tied to no device, the
//      registry's device list and event dispatcher, the threaded engine's sleep mutex, the pool
//      of CQ rings (creating, resizing and destroying a CQ), a port's data counters' mutex (a
//      thread's first count on the port, PortCounters Get and Set, the reset at open).
// Read without any lock: the device table (devices live from boot() to halt()), Device::open, the
// LID routing table, the CQ table of the empty-poll answer, the QP table of posters (its records
// live until the device closes; a poster checks under the queue lock that the record is still
// the QP it named), the doorbell list, whether faults or call counting are armed (one relaxed
// load per verb), whether the wire is busy, and a port's data counters' incarnation and the
// counting thread's own block.
// Never call a user callback (completion or async handler) with a device mutex held: collect the
// events in a PendingEvents and deliver them after unlocking.
// Destroy and close wait for the handlers still running with the object's handle (event_gate.hpp):
// they close the gate under the device mutex and wait only after releasing it.
//
#pragma once

#include <evapi.h>

#include "device/adaptive_mutex.hpp"
#include "device/event_gate.hpp"
#include "device/limits.hpp"
#include "device/port_counters.hpp"
#include "device/verbs.hpp"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <unordered_map>
#include <string>
#include <vector>

namespace marlix::softhca {

struct Options;
class CompletionQueue;

// Base of every record a device keeps on behalf of a verb implementation.
struct Object {
    virtual ~Object() = default;
};

// Small integer handles, lowest free value first; released values are reused. Every value below
// `next_` is in use unless it is in `freed_`; every value from `next_` on is free unless a test
// injected it. So handing out the lowest free value takes one look at `freed_`, not a walk over
// the values in use (a device may hold tens of thousands of QPs).
class HandlePool {
  public:
    explicit HandlePool(uint64_t first = 1) : first_(first), next_(first) {}
    uint64_t allocate();
    void release(uint64_t handle);
    bool in_use(uint64_t handle) const { return used_.count(handle) != 0; }
    // The next allocate() returns exactly `value` (if it is free), then the pool continues lowest-first.
    void inject_next(uint64_t value) { injected_ = value; }
    size_t size() const { return used_.size(); }
    void clear() {
        used_.clear();
        freed_.clear();
        next_ = first_;
        injected_.reset();
    }

  private:
    uint64_t first_;
    uint64_t next_;
    std::set<uint64_t> used_;
    std::set<uint64_t> freed_;  // released values below next_
    std::optional<uint64_t> injected_;
};

struct Port {
    IB_port_t num = 0;
    uint64_t guid = 0;
    // Link and subnet state (the fabric and the subnet manager drive these).
    bool cabled = false;    // a cable connects the port to the switch
    bool disabled = false;  // administratively down
    IB_port_state_t state = PORT_DOWN;
    IB_port_phys_state_t phys_state = PORT_PHYS_POLLING;
    IB_lid_t lid = 0;
    uint8_t lmc = 0;
    IB_lid_t sm_lid = 0;
    IB_sl_t sm_sl = 0;
    IB_port_cap_mask_t capability_mask = 0;
    uint32_t bad_pkey_counter = 0;
    uint32_t qkey_viol_counter = 0;
    // 0xFFFF at index 0. Fixed-size and inside the port: every packet sent and received reads it.
    std::array<VAPI_pkey_t, limits::kPkeyTableLen> pkeys{};
    uint64_t gid_prefix = 0xfe80000000000000ull;
    // The rare counters of PortCounters, under the device mutex.
    uint8_t link_downed = 0;
    uint16_t symbol_errors = 0, rcv_errors = 0, xmit_discards = 0;

    bool active() const { return state == PORT_ACTIVE; }
    // GID table entry i: the subnet prefix and the port GUID at index 0, others zero.
    void gid(unsigned index, IB_gid_t out) const;
    // Counts `packets` packets of `bytes` each in the data counters (PortXmitData and
    // PortXmitPkts, PortRcvData and PortRcvPkts): in the calling thread's own block, with no lock.
    void count_xmit(uint64_t bytes, uint32_t packets = 1) {
        data_counters.add(PortDataCounters::kXmitData, PortDataCounters::kXmitPkts, bytes, packets);
    }
    void count_rcv(uint64_t bytes, uint32_t packets = 1) {
        data_counters.add(PortDataCounters::kRcvData, PortDataCounters::kRcvPkts, bytes, packets);
    }
    // The same for packets of different sizes, `words` 4-byte words in all.
    void count_words(bool xmit, uint64_t words, uint32_t packets) {
        if (xmit)
            data_counters.add_words(PortDataCounters::kXmitData, PortDataCounters::kXmitPkts, words, packets);
        else
            data_counters.add_words(PortDataCounters::kRcvData, PortDataCounters::kRcvPkts, words, packets);
    }
    // Every counter of the port back to zero (the device is opened).
    void reset_counters();

    // The data counters, counted on every packet by whichever thread carries it: in per-thread
    // blocks, each a cache line of its own, apart from the port's state (port_counters.hpp).
    alignas(limits::kCacheLine) PortDataCounters data_counters;
};

struct Pd : Object {
    uint32_t max_num_avs = 0;
    uint32_t num_avs = 0;  // address handles in this PD
    uint32_t users = 0;    // QPs, AHs, MRs and FMRs in this PD
};

// One contiguous piece of host memory a range of a region maps to.
// The host memory a physical address names.
uint8_t *phys_ptr(uint64_t phys);

struct HostSpan {
    uint8_t *ptr;
    size_t len;
};

// A memory region, or the current map of a fast memory region: what an lkey/rkey names.
struct Region {
    VAPI_mrw_type_t type = VAPI_MR;
    VAPI_pd_hndl_t pd = 0;
    VAPI_mrw_acl_t acl = 0;
    VAPI_virt_addr_t start = 0;  // first IOVA (virtual address for VAPI_MR)
    VAPI_size_t size = 0;
    VAPI_lkey_t lkey = 0;
    VAPI_rkey_t rkey = 0;
    bool physical = false;
    std::vector<VAPI_phy_buf_t> bufs;  // physical: the buffers the IOVA range runs through
    VAPI_phy_addr_t offset = 0;        // physical: where in bufs the IOVA start lies
};

struct Mr : Object {
    Region region;
};

struct Fmr : Object {
    EVAPI_fmr_t props{};
    bool mapped = false;
    uint32_t maps_since_unmap = 0;
    uint32_t key_index = 0;  // the fixed part of its keys
    uint8_t key_gen = 0;     // changes on every map
    Region region;           // valid while mapped
};

class Device {
  public:
    Device(int index, int ports);
    ~Device();

    // The device mutex in a cache line of its own: passes on other threads take it while posters
    // read the device's tables.
    alignas(limits::kCacheLine) AdaptiveMutex mu;
    // A pass is under way (under `mu`, in its line: whoever writes one holds the other): its
    // requesters ran and the wire is carrying their packets, perhaps with `mu` let go meanwhile.
    // Only one pass runs per device, so the packets of one QP leave in order: a posting thread
    // that finds one running leaves its QP to the engine, and the engine's round waits for it.
    bool pass_running = false;
    // Set when the device fails (injected local catastrophic error): no more work is done. Under
    // `mu` and in its line, since every delivery to the device reads it.
    bool failed = false;

    // Identity and capabilities (fixed at boot).
    const int index;
    const std::string name;      // "InfiniHost<index>"
    const VAPI_hca_hndl_t hndl;  // the handle VAPI_open_hca returns
    uint64_t node_guid = 0;
    VAPI_hca_vendor_t vendor{};
    VAPI_hca_cap_t cap{};
    std::vector<Port> ports;  // ports[0] is port 1
    size_t port_count = 0;    // ports.size(), kept: port() asks on every packet, and size() divides

    // Open state.
    std::atomic<bool> open{false};  // read without the lock by the poll fast path
    // A send was posted since the device was opened (set by the first; beside `open`, which
    // every poll reads anyway): polls here then expect a post to follow (engine_expect_post()).
    std::atomic<bool> sends_posted{false};
    int borrowed = 0;  // EVAPI_get_hca_hndl handles not yet released

    // Asynchronous event handler (VAPI_set_async_event_handler).
    VAPI_async_event_handler_t async_handler = nullptr;
    void *async_private = nullptr;
    // The events of this opening of the device: new at open, closed and waited on at close.
    EventGateRef event_gate;

    // Protection domains, memory regions, fast memory regions.
    HandlePool pd_handles{1}, mr_handles{1}, fmr_handles{1};
    std::map<VAPI_pd_hndl_t, std::unique_ptr<Pd>> pds;
    std::map<VAPI_mr_hndl_t, std::unique_ptr<Mr>> mrs;
    std::map<EVAPI_fmr_hndl_t, std::unique_ptr<Fmr>> fmrs;

    // Objects of the queue, address-handle and multicast verbs (see the top of this file).
    HandlePool cq_handles{1}, qp_handles{1}, ah_handles{1};
    HandlePool qp_numbers{limits::kFirstQpNum};  // of regular and raw QPs
    std::map<VAPI_cq_hndl_t, std::unique_ptr<Object>> cqs;
    std::map<VAPI_qp_hndl_t, std::unique_ptr<Object>> qps;
    std::map<VAPI_ud_av_hndl_t, std::unique_ptr<Object>> ahs;
    std::unique_ptr<Object> mcast;

    // Data path (guarded by mu): the QPs whose requester has something to do, the UD/UC QPs
    // whose sent requests complete once their packets are delivered, and destroyed QPs kept until
    // the engine's next round on this device (a packet of the round before may still point into
    // their rings).
    std::unordered_map<uint32_t, struct Qp *> qp_by_number;  // packets name QPs by number
    // The same for the first regular QP numbers, which is where they are handed out from: a
    // packet finds its QP without hashing.
    static constexpr size_t kFastQpNumbers = 4096;
    std::array<struct Qp *, kFastQpNumbers> qp_by_fast_number{};
    std::vector<struct Qp *> active_qps;
    std::vector<struct Qp *> sent_unreliable;
    std::vector<std::unique_ptr<Object>> retired;
    // Records of destroyed QPs, past the round that retired them, for the next QPs created: a
    // QP record lives until the device closes, since a poster may still hold it (qp.hpp).
    std::vector<std::unique_ptr<Object>> spare_qps;
    // QPs by handle, read without the device mutex by posters (handles beyond the table take the
    // locked path).
    static constexpr size_t kFastQpHandles = 4096;
    std::array<std::atomic<struct Qp *>, kFastQpHandles> fast_qps{};
    // QPs whose posts found the data path busy: a lock-free list that whoever runs the data path
    // next takes over (under the device mutex) onto active_qps.
    alignas(limits::kCacheLine) std::atomic<struct Qp *> doorbells{nullptr};
    // Destroyed CQs, emptied, kept until the device closes: a poll looks a CQ up without any
    // device lock and may still hold it.
    std::vector<std::unique_ptr<Object>> retired_cqs;
    // CQs by handle, read without the lock by VAPI_poll_cq to answer "empty" at once; handles
    // beyond the table take the locked path.
    static constexpr size_t kFastCqHandles = 4096;
    std::array<std::atomic<CompletionQueue *>, kFastCqHandles> fast_cqs{};
    // Calls of each verb addressed to this device (fault injection counts them).
    std::array<std::atomic<uint64_t>, kVerbCount> call_counts{};

    Port *port(IB_port_t num) { return num - 1u < port_count ? &ports[num - 1u] : nullptr; }
    Pd *find_pd(VAPI_pd_hndl_t pd);

    // Key management: every region and FMR map gets an lkey/rkey pair from the key table.
    uint32_t allocate_key_index();
    void release_key_index(uint32_t index);
    void set_keys(Region &region, uint32_t index, uint8_t gen);
    void add_keys(const Region &region);  // makes the region's keys resolvable
    void remove_keys(const Region &region);

    // Checks a range against a key (remote: rkey, otherwise lkey), its PD (0: any PD) and the access
    // rights `need` (VAPI_EN_* bits; a local read needs none) and returns the host memory it covers.
    // Statuses: VAPI_EINVAL_L_KEY / VAPI_EINVAL_R_KEY (unknown key), VAPI_EINVAL_PD_HNDL (other PD),
    // VAPI_EINVAL_LEN (range outside the region), VAPI_EPERM (missing right).
    VAPI_ret_t translate(uint32_t key, bool remote, VAPI_pd_hndl_t pd, VAPI_virt_addr_t addr, uint64_t len,
                         VAPI_mrw_acl_t need, std::vector<HostSpan> &out) const;
    // The same, handing each piece of host memory to `emit(uint8_t *ptr, size_t len)`, which
    // returns false to stop (the result is then VAPI_EAGAIN). Allocates nothing.
    template <class Emit>
    VAPI_ret_t walk(uint32_t key, bool remote, VAPI_pd_hndl_t pd, VAPI_virt_addr_t addr, uint64_t len,
                    VAPI_mrw_acl_t need, Emit &&emit) const;
    // Every walk starts here: inline.
    const Region *find_lkey(VAPI_lkey_t lkey) const {
        const size_t i = lkey >> 8;
        const Region *r = i < lkeys_.size() ? lkeys_[i] : nullptr;
        return r && r->lkey == lkey ? r : nullptr;
    }
    const Region *find_rkey(VAPI_rkey_t rkey) const {
        const size_t i = rkey >> 8;
        const Region *r = i < rkeys_.size() ? rkeys_[i] : nullptr;
        return r && r->rkey == rkey ? r : nullptr;
    }

    // Releases every resource (close).
    void release_all();
    // The event gates close must shut: the device's and those of its live QPs and CQs.
    std::vector<EventGateRef> event_gates();

    // Delivers an asynchronous event to the device's handler, outside the device mutex (which the
    // caller must not hold), through dispatch_event(). Nothing happens without a handler. `object`
    // is the gate of the QP or CQ the event names; without one, a QP or CQ event finds the gate
    // of the object its modifier names now (if any). The handler runs only while both the
    // device's gate and the object's are open (see device/event_gate.hpp).
    void raise_async_event(const VAPI_event_record_t &record, EventGateRef object = {});

  private:
    uint32_t next_key_index_ = 1;
    std::set<uint32_t> free_key_indexes_;
    // Indexed by the key's table index (key >> 8); the whole key must match.
    std::vector<const Region *> lkeys_, rkeys_;
};

// Looking up a key and walking a range is on the data path: O(1) look-up, no allocation.
template <class Emit>
VAPI_ret_t Device::walk(uint32_t key, bool remote, VAPI_pd_hndl_t pd, VAPI_virt_addr_t addr, uint64_t len,
                        VAPI_mrw_acl_t need, Emit &&emit) const {
    const Region *r = remote ? find_rkey(key) : find_lkey(key);
    if (!r) return remote ? VAPI_EINVAL_R_KEY : VAPI_EINVAL_L_KEY;
    if (pd != 0 && r->pd != pd) return VAPI_EINVAL_PD_HNDL;
    if ((r->acl & need) != need) return VAPI_EPERM;
    if (addr < r->start || len > r->size || addr - r->start > r->size - len) return VAPI_EINVAL_LEN;
    if (len == 0) return VAPI_OK;
    if (!r->physical)
        return emit(reinterpret_cast<uint8_t *>(uintptr_t(addr)), size_t(len)) ? VAPI_OK : VAPI_EAGAIN;
    // Walk the buffers: the region's IOVA start lies `offset` bytes into the first buffer.
    uint64_t skip = (addr - r->start) + r->offset;
    for (const VAPI_phy_buf_t &b : r->bufs) {
        if (len == 0) break;
        if (skip >= b.size) {
            skip -= b.size;
            continue;
        }
        uint64_t n = std::min<uint64_t>(b.size - skip, len);
        if (!emit(phys_ptr(b.start + skip), size_t(n))) return VAPI_EAGAIN;
        len -= n;
        skip = 0;
    }
    return len == 0 ? VAPI_OK : VAPI_EINVAL_LEN;
}

// The devices of the running system; created by boot(), destroyed by halt(). A verb called before
// boot() boots the default system first.
std::vector<Device *> devices();
// The devices by index (their handle): written by boot() and halt(), read without a lock, since
// devices live from boot() to halt() and are not replaced in between. Inline: every verb and
// every packet looks a device up.
namespace registry {
constexpr size_t kMaxDevices = 64;
extern std::array<std::atomic<Device *>, kMaxDevices> table;
// A handle the table does not answer: boots the default system first if nothing is booted.
Device *device_by_handle_slow(VAPI_hca_hndl_t hca);
}  // namespace registry
// The device with handle `hca` (its index).
inline Device *device_by_handle(VAPI_hca_hndl_t hca) {
    if (hca < registry::kMaxDevices)
        if (Device *d = registry::table[hca].load(std::memory_order_acquire)) [[likely]]
            return d;
    return registry::device_by_handle_slow(hca);
}
// Calls fn(Device &) for every device, without copying the list.
size_t device_count();
inline Device *device_at(size_t index) {
    return index < registry::kMaxDevices ? registry::table[index].load(std::memory_order_acquire) : nullptr;
}
Device *device_by_name(const std::string &name);
// The device and port a LID is assigned to (active ports only); null if none. Inline: every
// packet finds both its ends by LID.
namespace registry {
// (device index + 1) << 8 | port for every LID; 0 for a LID nobody has. The subnet manager's
// sweeps and halt write it (fabric.cpp); the data path reads it without a lock.
extern std::array<std::atomic<uint32_t>, 0x10000> lid_route;
}  // namespace registry
inline Device *device_by_lid(IB_lid_t lid, IB_port_t *port_out) {
    const uint32_t where = registry::lid_route[lid].load(std::memory_order_acquire);
    if (where == 0) return nullptr;
    if (port_out) *port_out = IB_port_t(where & 0xff);
    return device_at((where >> 8) - 1);
}
void ensure_booted();

// Runs a callback the way the hardware's interrupt would: through the installed dispatcher if
// there is one, otherwise as a hardirq of the emulated kernel (queued on its interrupt thread when
// the kernel is booted, run at once in hardirq context when it is not). Never called with a
// device mutex held.
void dispatch_event(std::function<void()> fn);
void set_event_dispatcher(std::function<void(std::function<void()>)> dispatcher);

// Every verb starts with a Call: count the call, check injected faults, find and lock the device.
struct ByName {};
class Call {
  public:
    Call(Verb verb, VAPI_hca_hndl_t hca);
    // A call addressed to a device by name; the device need not be open (dev() may be null if the
    // name is unknown) and is not locked.
    Call(Verb verb, const std::string &device_name, ByName);
    // A call whose counting and fault check already happened (check_faults()).
    struct Checked {};
    Call(Device *dev, Checked);
    bool failed() const { return status_ != VAPI_OK; }
    VAPI_ret_t status() const { return status_; }
    Device &dev() { return *dev_; }
    Device *dev_ptr() { return dev_; }
    void unlock() {
        if (lock_.owns_lock()) lock_.unlock();
    }
    void relock() {
        if (!lock_.owns_lock()) lock_.lock();
    }

  private:
    VAPI_ret_t status_ = VAPI_OK;
    Device *dev_ = nullptr;
    std::unique_lock<AdaptiveMutex> lock_;
};

// Fault injection and call counting. Counts the call (per device, atomically; calls not tied to a
// device in a small table) and returns the injected status. `dev` may be null; `device_name` names
// the device the call addresses. Counting starts with the first reset_call_counts(); until then,
// and while no fault is armed, a call costs one relaxed load and nothing else.
namespace call_watch {
constexpr uint32_t kCounting = 1;  // reset_call_counts() was called: calls are counted
constexpr uint32_t kFaults = 2;    // at least one fault rule is armed
extern std::atomic<uint32_t> state;
}  // namespace call_watch
VAPI_ret_t check_faults_watched(Verb verb, Device *dev, const std::string &device_name);
inline VAPI_ret_t check_faults(Verb verb, Device *dev, const std::string &device_name) {
    if (call_watch::state.load(std::memory_order_relaxed) == 0) return VAPI_OK;
    return check_faults_watched(verb, dev, device_name);
}
// The name fault rules use for a handle that names no device.
const std::string &unknown_device_name();
// The same for a call addressed to a device by handle (`dev` null: the handle names none).
inline VAPI_ret_t check_faults(Verb verb, Device *dev) {
    if (call_watch::state.load(std::memory_order_relaxed) == 0) return VAPI_OK;
    return check_faults_watched(verb, dev, dev ? dev->name : unknown_device_name());
}

}  // namespace marlix::softhca
