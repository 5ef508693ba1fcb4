// Devices of the software HCA: identity and capabilities, handle pools, key table, the registry
// that boot() fills, and the Call that starts every verb.
#include "device/device.hpp"

#include <array>
#include <atomic>
#include <cstring>

#include "device/limits.hpp"
#include "datapath/datapath.hpp"
#include "device/qp.hpp"
#include "engine/engine.hpp"
#include "fabric/fabric.hpp"
#include "fabric/wire.hpp"
#include "host_interface.hpp"
#include "marlix/kernel.hpp"
#include "marlix/softhca.hpp"

namespace marlix::softhca {

using registry::kMaxDevices;

constinit std::array<std::atomic<Device *>, kMaxDevices> registry::table{};

namespace {

struct System {
    std::mutex boot_mu;  // serialises boot, halt and the first verb's implicit boot
    std::mutex mu;
    bool booted = false;
    Options options;
    std::vector<std::unique_ptr<Device>> devices;
    std::function<void(std::function<void()>)> dispatcher;
};

System &sys() {
    static System s;
    return s;
}

// Read by every verb without a lock (with registry::table). Kept outside System,
// constant-initialised, so that reading them tests no guard of a function's static.
std::atomic<bool> system_up{false};
std::atomic<size_t> devices_published{0};

void put_guid(IB_guid_t out, uint64_t guid) {
    for (int i = 0; i < 8; ++i) out[i] = uint8_t(guid >> (56 - 8 * i));
}

}  // namespace

// ---- HandlePool -----------------------------------------------------------------------------------

uint64_t HandlePool::allocate() {
    if (injected_) {
        const uint64_t v = *injected_;
        injected_.reset();
        if (used_.insert(v).second) {
            freed_.erase(v);
            return v;
        }
    }
    uint64_t v;
    if (!freed_.empty()) {
        v = *freed_.begin();
        freed_.erase(freed_.begin());
    } else {
        while (used_.count(next_)) ++next_;  // values injected ahead
        v = next_++;
    }
    used_.insert(v);
    return v;
}

void HandlePool::release(uint64_t handle) {
    if (used_.erase(handle) && handle >= first_ && handle < next_) freed_.insert(handle);
}

// ---- Port ------------------------------------------------------------------------------------------

void Port::gid(unsigned index, IB_gid_t out) const {
    std::memset(out, 0, sizeof(IB_gid_t));
    if (index != 0) return;
    for (int i = 0; i < 8; ++i) out[i] = uint8_t(gid_prefix >> (56 - 8 * i));
    for (int i = 0; i < 8; ++i) out[8 + i] = uint8_t(guid >> (56 - 8 * i));
}

void Port::reset_counters() {
    data_counters.reset();
    link_downed = 0;
    symbol_errors = rcv_errors = xmit_discards = 0;
    bad_pkey_counter = qkey_viol_counter = 0;
}

// ---- Device ----------------------------------------------------------------------------------------

Device::Device(int idx, int nports)
    : index(idx), name("InfiniHost" + std::to_string(idx)), hndl(VAPI_hca_hndl_t(idx)) {
    node_guid = limits::kNodeGuidBase + uint64_t(idx) * 0x1000;

    vendor.vendor_id = limits::kVendorId;
    vendor.vendor_part_id = limits::kVendorPartId;
    vendor.hw_ver = limits::kHwVersion;
    vendor.fw_ver = (uint64_t(3) << 32) | (uint64_t(5) << 16);

    cap.max_num_qp = limits::kMaxQps;
    cap.max_qp_ous_wr = limits::kMaxWrPerQueue;
    cap.flags = VAPI_BAD_PKEY_COUNT_CAP | VAPI_BAD_QKEY_COUNT_CAP | VAPI_AUTO_PATH_MIG_CAP |
                VAPI_CHANGE_PHY_PORT_CAP | VAPI_UD_AV_PORT_ENFORCE_CAP | VAPI_CURR_QP_STATE_MOD_CAP |
                VAPI_SHUTDOWN_PORT_CAP | VAPI_PORT_ACTIVE_EV_CAP | VAPI_SYS_IMG_GUID_CAP |
                VAPI_RC_RNR_NAK_GEN_CAP;
    cap.max_num_sg_ent = limits::kMaxSgEntries;
    cap.max_num_sg_ent_rd = limits::kMaxSgEntriesRd;
    cap.max_num_cq = limits::kMaxCqs;
    cap.max_num_ent_cq = limits::kMaxCqEntries;
    cap.max_num_mr = limits::kMaxMrs;
    cap.max_mr_size = ~0ull;
    cap.max_pd_num = limits::kMaxPds;
    cap.page_size_cap = 4096;
    cap.phys_port_num = IB_port_t(nports);
    cap.max_pkeys = limits::kPkeyTableLen;
    put_guid(cap.node_guid, node_guid);
    put_guid(cap.sys_image_guid, node_guid);
    cap.local_ca_ack_delay = 15;
    cap.max_qp_ous_rd_atom = limits::kMaxQpOusRdAtom;
    cap.max_ee_ous_rd_atom = 0;
    cap.max_res_rd_atom = 255;
    cap.max_qp_init_rd_atom = limits::kMaxQpInitRdAtom;
    cap.max_ee_init_rd_atom = 0;
    cap.atomic_cap = VAPI_ATOMIC_CAP_HCA;
    cap.max_ee_num = 0;  // reliable datagram is not supported
    cap.max_rdd_num = 0;
    cap.max_mw_num = 0;
    cap.max_raw_ipv6_qp = 1;
    cap.max_raw_ethy_qp = 1;
    cap.max_mcast_grp_num = limits::kMaxMcastGroups;
    cap.max_mcast_qp_attach_num = limits::kMaxQpsPerMcastGroup;
    cap.max_total_mcast_qp_attach_num = limits::kMaxMcastGroups * limits::kMaxQpsPerMcastGroup;
    cap.max_ah_num = limits::kMaxAhs;
    cap.max_num_fmr = limits::kMaxFmrs;
    cap.max_num_map_per_fmr = 32767;
    cap.max_num_srq = 0;
    cap.max_wqe_per_srq = 0;
    cap.max_srq_sentries = 0;
    cap.srq_resize_supported = FALSE;

    ports = std::vector<Port>(size_t(nports));  // ports are not movable: their counters stay put
    port_count = ports.size();
    for (int i = 0; i < nports; ++i) {
        Port &p = ports[size_t(i)];
        p.num = IB_port_t(i + 1);
        p.guid = node_guid + uint64_t(i + 1);
        p.capability_mask = limits::kDefaultPortCapMask;
        p.pkeys.fill(0);
        p.pkeys[0] = VAPI_DEFAULT_PKEY;
    }
}

Device::~Device() {
    release_all();
}

Pd *Device::find_pd(VAPI_pd_hndl_t pd) {
    auto it = pds.find(pd);
    return it == pds.end() ? nullptr : it->second.get();
}

uint32_t Device::allocate_key_index() {
    if (!free_key_indexes_.empty()) {
        uint32_t i = *free_key_indexes_.begin();
        free_key_indexes_.erase(free_key_indexes_.begin());
        return i;
    }
    return next_key_index_++;
}

void Device::release_key_index(uint32_t i) {
    free_key_indexes_.insert(i);
}

void Device::set_keys(Region &region, uint32_t index, uint8_t gen) {
    // The table index in the high bits, a generation in the low byte: a stale key of a reused
    // entry (or of an earlier FMR map) does not resolve.
    region.lkey = (index << 8) | gen;
    region.rkey = region.lkey;
}

void Device::add_keys(const Region &region) {
    for (auto [table, key] : {std::pair{&lkeys_, region.lkey}, std::pair{&rkeys_, region.rkey}}) {
        size_t i = key >> 8;
        if (table->size() <= i) table->resize(i + 1, nullptr);
        (*table)[i] = &region;
    }
}

void Device::remove_keys(const Region &region) {
    for (auto [table, key] : {std::pair{&lkeys_, region.lkey}, std::pair{&rkeys_, region.rkey}}) {
        size_t i = key >> 8;
        if (i < table->size() && (*table)[i] == &region) (*table)[i] = nullptr;
    }
}

uint8_t *phys_ptr(uint64_t phys) {
    return static_cast<uint8_t *>(host::phys_to_host(phys));
}

VAPI_ret_t Device::translate(uint32_t key, bool remote, VAPI_pd_hndl_t pd, VAPI_virt_addr_t addr,
                             uint64_t len, VAPI_mrw_acl_t need, std::vector<HostSpan> &out) const {
    out.clear();
    return walk(key, remote, pd, addr, len, need, [&](uint8_t *p, size_t n) {
        out.push_back({p, n});
        return true;
    });
}

void Device::release_all() {
    for (auto &c : fast_cqs) c.store(nullptr, std::memory_order_release);
    for (auto &q : fast_qps) q.store(nullptr, std::memory_order_release);
    doorbells.store(nullptr, std::memory_order_release);
    active_qps.clear();
    sent_unreliable.clear();
    qp_by_number.clear();
    qp_by_fast_number.fill(nullptr);
    retired.clear();
    spare_qps.clear();
    retired_cqs.clear();
    failed = false;
    qps.clear();
    ahs.clear();
    mcast.reset();
    cqs.clear();
    fmrs.clear();
    mrs.clear();
    pds.clear();
    lkeys_.clear();
    rkeys_.clear();
    free_key_indexes_.clear();
    next_key_index_ = 1;
    for (HandlePool *p :
         {&cq_handles, &qp_handles, &qp_numbers, &ah_handles, &pd_handles, &mr_handles, &fmr_handles})
        p->clear();
    async_handler = nullptr;
    async_private = nullptr;
}

namespace {

// The gate of the QP or CQ an event's modifier names on the device now; null when the event
// names no such object or the handle is not in use (an event about an unknown handle is still
// delivered: the handler decides what it means).
EventGateRef gate_named_by(Device &dev, const VAPI_event_record_t &record) {
    switch (raw_value(record.type)) {
        case VAPI_QP_PATH_MIGRATED:
        case VAPI_QP_COMM_ESTABLISHED:
        case VAPI_SEND_QUEUE_DRAINED:
        case VAPI_RECEIVE_QUEUE_DRAINED:
        case VAPI_LOCAL_WQ_INV_REQUEST_ERROR:
        case VAPI_LOCAL_WQ_ACCESS_VIOL_ERROR:
        case VAPI_LOCAL_WQ_CATASTROPHIC_ERROR:
        case VAPI_PATH_MIG_REQ_ERROR:
        case VAPI_PATH_MIG_ARMED:
            if (Qp *qp = find_qp(dev, record.modifier.qp_hndl)) return qp->event_gate;
            return nullptr;
        case VAPI_CQ_ERROR:
            if (CompletionQueue *cq = find_cq(dev, record.modifier.cq_hndl)) return cq->event_gate;
            return nullptr;
        default:
            return nullptr;
    }
}

}  // namespace

std::vector<EventGateRef> Device::event_gates() {
    std::vector<EventGateRef> out;
    if (event_gate) out.push_back(event_gate);
    for (auto &[h, obj] : qps) out.push_back(static_cast<Qp *>(obj.get())->event_gate);
    for (auto &[h, obj] : cqs) out.push_back(static_cast<CompletionQueue *>(obj.get())->event_gate);
    return out;
}

void Device::raise_async_event(const VAPI_event_record_t &record, EventGateRef object) {
    VAPI_async_event_handler_t handler;
    void *priv;
    EventGateRef device_gate;
    {
        std::lock_guard lk(mu);
        if (!open || !async_handler) return;
        handler = async_handler;
        priv = async_private;
        device_gate = event_gate;
        if (!object) object = gate_named_by(*this, record);
    }
    VAPI_hca_hndl_t h = hndl;
    dispatch_event([handler, priv, h, record, device_gate, object]() {
        // Nothing runs for a device closed, or an object destroyed, since the event was raised.
        EventPass pass(device_gate.get(), object.get());
        if (!pass.ok()) return;
        VAPI_event_record_t copy = record;  // the handler may scribble on its record
        handler(h, &copy, priv);
    });
}

// ---- Registry ------------------------------------------------------------------------------------------

static void publish(System &s) {
    devices_published.store(0, std::memory_order_release);
    for (size_t i = 0; i < kMaxDevices; ++i)
        registry::table[i].store(i < s.devices.size() ? s.devices[i].get() : nullptr,
                                 std::memory_order_release);
    devices_published.store(std::min(s.devices.size(), kMaxDevices), std::memory_order_release);
}

static void boot_locked(const Options &options) {
    System &s = sys();
    engine_stop();  // a reboot: the old engine must not run over the devices being replaced
    {
        std::lock_guard lk(s.mu);
        system_up = false;
        s.devices.clear();
        s.options = options;
        for (int i = 0; i < options.device_count; ++i)
            s.devices.push_back(std::make_unique<Device>(i, options.ports));
        publish(s);
        s.booted = true;
        system_up = true;
    }
    wire_reset();
    fabric_boot(options);
    engine_start(options.engine, options.engine_look_us);
}

void boot(const Options &options) {
    std::lock_guard b(sys().boot_mu);
    boot_locked(options);
}

void halt() {
    System &s = sys();
    std::lock_guard b(s.boot_mu);
    engine_stop();
    wire_reset();
    fabric_halt();
    std::lock_guard lk(s.mu);
    system_up = false;
    s.devices.clear();
    publish(s);
    s.booted = false;
}

bool booted() {
    return system_up.load(std::memory_order_acquire);
}

// A verb used before anyone booted the system finds the default system rather than nothing.
void ensure_booted() {
    if (booted()) return;
    std::lock_guard b(sys().boot_mu);
    if (!booted()) boot_locked(Options{});
}

size_t device_count() {
    ensure_booted();
    return devices_published.load(std::memory_order_acquire);
}

std::vector<Device *> devices() {
    std::vector<Device *> out;
    for (size_t i = 0, n = device_count(); i < n; ++i) out.push_back(device_at(i));
    return out;
}

std::vector<std::string> device_names() {
    std::vector<std::string> out;
    for (Device *d : devices()) out.push_back(d->name);
    return out;
}

// Every verb starts with device_by_handle(): a booted system's table answers at once; a handle it
// does not hold (or the first call of a process) goes the long way, which boots the default
// system first.
Device *registry::device_by_handle_slow(VAPI_hca_hndl_t hca) {
    return hca < device_count() ? device_at(size_t(hca)) : nullptr;
}

Device *device_by_name(const std::string &name) {
    for (size_t i = 0, n = device_count(); i < n; ++i)
        if (Device *d = device_at(i); d && d->name == name) return d;
    return nullptr;
}

void set_event_dispatcher(std::function<void(std::function<void()>)> dispatcher) {
    std::lock_guard lk(sys().mu);
    sys().dispatcher = std::move(dispatcher);
}

void dispatch_event(std::function<void()> fn) {
    std::function<void(std::function<void()>)> d;
    {
        std::lock_guard lk(sys().mu);
        d = sys().dispatcher;
    }
    if (d)
        d(std::move(fn));
    else
        host::raise_interrupt(std::move(fn));
}

// ---- Call ----------------------------------------------------------------------------------------------

const std::string &unknown_device_name() {
    static const std::string unknown("?");
    return unknown;
}

Call::Call(Verb verb, VAPI_hca_hndl_t hca) {
    dev_ = device_by_handle(hca);
    status_ = check_faults(verb, dev_);
    if (status_ != VAPI_OK) return;
    if (!dev_) {
        status_ = VAPI_EINVAL_HCA_HNDL;
        return;
    }
    lock_ = std::unique_lock<AdaptiveMutex>(dev_->mu);
    if (!dev_->open) {
        lock_.unlock();
        status_ = VAPI_EINVAL_HCA_HNDL;
    }
}

Call::Call(Device *dev, Checked) : dev_(dev) {
    if (!dev_) {
        status_ = VAPI_EINVAL_HCA_HNDL;
        return;
    }
    lock_ = std::unique_lock<AdaptiveMutex>(dev_->mu);
    if (!dev_->open) {
        lock_.unlock();
        status_ = VAPI_EINVAL_HCA_HNDL;
    }
}

Call::Call(Verb verb, const std::string &device_name, ByName) {
    dev_ = device_by_name(device_name);
    status_ = check_faults(verb, nullptr, device_name);
}

// ---- Inspection -------------------------------------------------------------------------------------

namespace {
template <class F>
auto with_device(const std::string &name, F f) -> decltype(f(std::declval<Device &>())) {
    Device *d = device_by_name(name);
    if (!d) return {};
    std::lock_guard lk(d->mu);
    return f(*d);
}
}  // namespace

bool is_open(const std::string &device) {
    return with_device(device, [](Device &d) { return d.open.load(); });
}
size_t pd_count(const std::string &device) {
    return with_device(device, [](Device &d) { return d.pds.size(); });
}
size_t mr_count(const std::string &device) {
    return with_device(device, [](Device &d) { return d.mrs.size(); });
}
size_t fmr_count(const std::string &device) {
    return with_device(device, [](Device &d) { return d.fmrs.size(); });
}
size_t cq_count(const std::string &device) {
    return with_device(device, [](Device &d) { return d.cqs.size(); });
}
size_t qp_count(const std::string &device) {
    return with_device(device, [](Device &d) { return d.qps.size(); });
}
size_t ah_count(const std::string &device) {
    return with_device(device, [](Device &d) { return d.ahs.size(); });
}
size_t resource_count(const std::string &device) {
    return with_device(device, [](Device &d) {
        return d.pds.size() + d.mrs.size() + d.fmrs.size() + d.cqs.size() + d.qps.size() + d.ahs.size();
    });
}
bool has_async_handler(const std::string &device) {
    return with_device(device, [](Device &d) { return d.async_handler != nullptr; });
}

bool set_next_cq_handle(const std::string &device, uint64_t value) {
    Device *d = device_by_name(device);
    if (!d) return false;
    std::lock_guard lk(d->mu);
    d->cq_handles.inject_next(value);
    return true;
}

bool set_next_qp_handle(const std::string &device, uint64_t value) {
    Device *d = device_by_name(device);
    if (!d) return false;
    std::lock_guard lk(d->mu);
    d->qp_handles.inject_next(value);
    return true;
}

bool raise_async_event(const std::string &device, uint32_t type, uint64_t modifier, uint32_t syndrome) {
    VAPI_event_record_t rec{};
    static_assert(sizeof(rec.type) == sizeof type && sizeof(rec.syndrome) == sizeof syndrome);
    static_assert(sizeof(rec.modifier) == sizeof modifier);
    std::memcpy(&rec.type, &type, sizeof type);
    std::memcpy(&rec.syndrome, &syndrome, sizeof syndrome);
    std::memcpy(&rec.modifier, &modifier, sizeof modifier);
    return raise_async_event(device, rec);
}

bool set_reported_qp_state(const std::string &device, VAPI_qp_hndl_t qp, std::optional<uint32_t> raw_state) {
    Device *d = device_by_name(device);
    if (!d) return false;
    std::lock_guard lk(d->mu);
    Qp *q = find_qp(*d, qp);
    if (!q) return false;
    q->reported_state = raw_state;
    return true;
}

bool complete_next_with_status(const std::string &device, VAPI_qp_hndl_t qp, WorkQueue queue,
                               VAPI_wc_status_t status, uint32_t syndrome) {
    Device *d = device_by_name(device);
    if (!d) return false;
    {
        std::lock_guard lk(d->mu);
        Qp *q = find_qp(*d, qp);
        if (!q) return false;
        Qp::Forced &f = queue == WorkQueue::Send ? q->forced_send : q->forced_recv;
        f.armed = true;
        f.status = status;
        f.syndrome = syndrome;
        if (queue == WorkQueue::Send) activate(*d, *q);
    }
    engine_kick();
    return true;
}

bool push_completion(const std::string &device, VAPI_cq_hndl_t cq, const VAPI_wc_desc_t &wc, bool solicited) {
    Device *d = device_by_name(device);
    if (!d) return false;
    PendingEvents events;
    {
        std::lock_guard lk(d->mu);
        CompletionQueue *q = find_cq(*d, cq);
        if (!q) return false;
        push_completion(*q, wc, solicited, events);
    }
    events.deliver(*d);
    return true;
}

bool inject_catastrophic_error(const std::string &device) {
    Device *d = device_by_name(device);
    if (!d) return false;
    PendingEvents events;
    {
        std::lock_guard lk(d->mu);
        if (!d->open) return false;
        // Every QP stops where it is; what was queued is flushed with errors.
        for (auto &[h, obj] : d->qps) enter_error(*d, *static_cast<Qp *>(obj.get()), events);
        d->failed = true;
        VAPI_event_record_t rec{};
        rec.type = VAPI_LOCAL_CATASTROPHIC_ERROR;
        events.async.push_back(rec);
    }
    // Raised as the device goes quiet: delivered even though the device no longer works.
    for (size_t i = 0; i < events.completions.size(); ++i) {
        CompletionEvent ev = events.completions[i];
        dispatch_event([ev] { ev.fire(); });
    }
    for (size_t i = 0; i < events.async.size(); ++i)
        d->raise_async_event(events.async[i].record, events.async[i].gate);
    return true;
}

bool raise_async_event(const std::string &device, const VAPI_event_record_t &record) {
    Device *d = device_by_name(device);
    if (!d) return false;
    d->raise_async_event(record);
    return true;
}

}  // namespace marlix::softhca
