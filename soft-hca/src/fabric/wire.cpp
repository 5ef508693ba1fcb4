#include "fabric/wire.hpp"

#include <atomic>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <mutex>

#include "device/limits.hpp"
#include "marlix/softhca.hpp"

namespace marlix::softhca {

namespace {

struct LinkState {
    LinkFaults faults;
    uint64_t dropped = 0;
};

// A packet waiting on a delayed link, with its own copy of the payload: the sender's memory may
// change or go away before it arrives. Records move inside the queue, so the packet's view is
// pointed at the copy (bind()) only once the record has been taken out to be delivered.
struct Delayed {
    uint64_t due = 0;
    Packet pkt;
    std::unique_ptr<uint8_t[]> bytes;
    ByteSpan span;
    Delayed(uint64_t when, const Packet &p) : due(when), pkt(p) {
        if (p.payload_len) {
            bytes = std::make_unique<uint8_t[]>(p.payload_len);
            p.read_payload(0, bytes.get(), p.payload_len);
        }
        span = {bytes.get(), p.payload_len};
        pkt.payload_offset = 0;
        pkt.spans = nullptr;
        pkt.span_count = 0;
    }
    void bind() {
        pkt.spans = pkt.payload_len ? &span : nullptr;
        pkt.span_count = pkt.payload_len ? 1 : 0;
    }
};

struct Wire {
    std::mutex mu;  // a leaf lock: taken with no device lock, or under one for nothing else
    std::map<std::pair<int, int>, LinkState> links;  // (device index, port)
    std::deque<Delayed> delayed;                     // in order of arrival (equal delays keep order)
};

// Read for every packet with no lock: plain globals, so that reading them checks no static's guard.
constinit std::atomic<bool> any_fault{false};    // fast path: no lock when no link is faulty
constinit std::atomic<size_t> delayed_count{0};  // packets waiting on a delayed link

Wire &wire() {
    static Wire w;
    return w;
}

enum class Fate { Pass, Drop, Delay };

// What the link of (dev, port) does to the next packet; `delay` is added to its travel time.
Fate link_fate(int dev_index, int port, uint64_t &delay_ns) {
    if (!any_fault.load(std::memory_order_acquire)) return Fate::Pass;
    Wire &w = wire();
    std::lock_guard lk(w.mu);
    auto it = w.links.find({dev_index, port});
    if (it == w.links.end()) return Fate::Pass;
    LinkState &l = it->second;
    if (l.faults.drop_next > 0) {
        --l.faults.drop_next;
        ++l.dropped;
        return Fate::Drop;
    }
    if (l.faults.drop_all) {
        ++l.dropped;
        return Fate::Drop;
    }
    if (l.faults.delay_ms) {
        delay_ns += uint64_t(l.faults.delay_ms) * 1000000ull;
        return Fate::Delay;
    }
    return Fate::Pass;
}

void arrive(const Packet &p, uint64_t now, Outbox &replies, bool delayed_already);

void hold(const Packet &p, uint64_t due) {
    Wire &w = wire();
    Delayed d(due, p);
    std::lock_guard lk(w.mu);
    w.delayed.push_back(std::move(d));
    delayed_count.fetch_add(1);
}

void send_packet(Device *from, IB_port_t port, const Packet &p, uint64_t now, Outbox &replies) {
    // A port sends only while it is up: its LID is then in the subnet's table.
    IB_port_t lid_port = 0;
    if (!from || device_by_lid(p.slid, &lid_port) != from || lid_port != port) return;
    uint64_t delay = 0;
    Fate fate = link_fate(from->index, port, delay);
    if (fate == Fate::Drop) return;
    if (fate == Fate::Delay) {
        hold(p, now + delay);
        return;
    }
    arrive(p, now, replies, false);
}

void deliver_to(Device &dev, IB_port_t port, const Packet &p, uint64_t now, Outbox &replies, bool multicast,
                bool delayed_already) {
    // The receiving port's link: a packet is delayed once on its way, at most.
    uint64_t delay = 0;
    Fate fate = link_fate(dev.index, port, delay);
    if (fate == Fate::Drop) return;
    if (fate == Fate::Delay && !delayed_already) {
        hold(p, now + delay);
        return;
    }
    PendingEvents events;
    {
        std::lock_guard lk(dev.mu);
        if (!dev.open || dev.failed) return;
        if (multicast)
            respond_multicast(dev, port, p, replies, events);
        else if (op::is_response(p.opcode))
            complete(dev, port, p, now, events);
        else
            respond(dev, port, p, replies, events);
    }
    events.deliver(dev);
}

void arrive(const Packet &p, uint64_t now, Outbox &replies, bool delayed_already) {
    if (p.dlid >= limits::kFirstMulticastLid && p.dlid != 0xffff) {
        // The switch forwards a multicast packet to every active port; each device hands it to
        // the QPs attached to the group.
        for (Device *d : devices()) {
            for (IB_port_t port = 1; port <= d->ports.size(); ++port) {
                IB_port_t lp = 0;
                bool up = false;
                {
                    std::lock_guard lk(d->mu);
                    const Port *pt = d->port(port);
                    up = pt && pt->active();
                    lp = port;
                }
                if (up) deliver_to(*d, lp, p, now, replies, true, delayed_already);
            }
        }
        return;
    }
    IB_port_t port = 0;
    Device *dest = device_by_lid(p.dlid, &port);
    if (!dest) return;  // nobody has that LID: the switch drops it
    deliver_to(*dest, port, p, now, replies, false, delayed_already);
}

}  // namespace

namespace {

// Where an entry goes when the links are healthy and its destination is one port: the receiving
// device and port. False for multicast, a faulty wire, a sender whose port is down (the packet
// is lost) or a LID nobody has.
bool direct_route(const Outbox::Entry &e, Device *&dest, IB_port_t &port) {
    if (e.pkt.dlid >= limits::kFirstMulticastLid && e.pkt.dlid != 0xffff) return false;
    if (any_fault.load(std::memory_order_acquire)) return false;
    IB_port_t lid_port = 0;
    if (!e.from || device_by_lid(e.pkt.slid, &lid_port) != e.from || lid_port != e.port) return false;
    dest = device_by_lid(e.pkt.dlid, &port);
    return dest != nullptr;
}

// The events of a delivery to `dest` made under `held`'s hold (its own device's, or `dest`'s mutex
// taken at once), or null when the hold has to go first.
PendingEvents *events_under_hold(HeldDevice &held, Device &dest) {
    if (!held.holds()) return nullptr;
    if (&dest == held.dev) return held.own;
    if ((held.other == nullptr || held.other == &dest) && dest.mu.try_lock()) {
        held.other = &dest;
        return held.others;
    }
    held.release();
    return nullptr;
}

// The responders and completers of `dest` for `n` entries arriving on `port`; the caller holds
// `dest`'s mutex.
[[gnu::always_inline]] inline void deliver_entries(Device &dest, IB_port_t port, const Outbox::Entry *entries,
                                                   uint32_t n, uint64_t now, Outbox &replies,
                                                   PendingEvents &events) {
    if (!dest.open || dest.failed) return;
    for (uint32_t k = 0; k < n; ++k) {
        const Outbox::Entry &e = entries[k];
        if (op::is_response(e.pkt.opcode)) {
            if (e.train == Outbox::Train::None || e.segments == 1)
                complete(dest, port, e.pkt, now, events);
            else
                for (uint32_t i = 0; i < e.segments; ++i)
                    complete(dest, port, train_segment(e, i), now, events);
        } else if (e.train == Outbox::Train::None) {
            respond(dest, port, e.pkt, replies, events);
        } else {
            respond_train(dest, port, e, replies, events);
        }
    }
}

// The same with no hold: under `dest`'s mutex taken here, the events raised once it is let go.
// Kept out of line: its event list would otherwise be built on every delivery, held or not.
[[gnu::noinline]] void deliver_unheld(Device &dest, IB_port_t port, const Outbox::Entry *entries, uint32_t n,
                                      uint64_t now, Outbox &replies) {
    PendingEvents events;
    {
        std::lock_guard lk(dest.mu);
        deliver_entries(dest, port, entries, n, now, replies, events);
    }
    events.deliver(dest);
}

// After a run of requests from `from` to another device, `dest` (both mutexes held): notes in the
// sending QP the lines its next request will need at `dest`. Between two threads that each post
// on one device and poll the other's answers, those lines were last written by the other thread,
// and a pass that found them one after another would wait for each in turn.
void note_peer_lines(Device &from, Device &dest, IB_port_t port, const Outbox::Entry &e) {
    const Packet &p = e.pkt;
    if (op::is_response(p.opcode) || op::transport(p.opcode) == op::kUd) return;
    Qp *sender = find_qp_by_num(from, p.src_qp, e.port);
    Qp *receiver = find_qp_by_num(dest, p.dest_qp, port);
    if (!sender || !receiver) return;
    // Sends and writes with immediate data take a receive request and complete into the CQ.
    const bool takes_receive = op::is_send(p.opcode) || op::has_imm(p.opcode);
    const bool rq = takes_receive && receiver->rq.depth() > 0;
    using L = Qp::PeerLines;
    auto &line = sender->peer_lines.line;
    constexpr auto relaxed = std::memory_order_relaxed;
    line[L::kMutex].store(&dest.mu, relaxed);
    line[L::kResponder].store(&receiver->expected_psn, relaxed);
    line[L::kCqSlot].store(takes_receive && receiver->recv_cq ? receiver->recv_cq->next_slot() : nullptr,
                           relaxed);
    // The poster's position only when the responder must read it for the next message (it read
    // it last when the receives it knew of ran out).
    line[L::kRqTail].store(rq && receiver->rq.front_needs_look() ? receiver->rq.tail_line() : nullptr,
                           relaxed);
    line[L::kRqFront].store(rq ? &receiver->rq.at(receiver->rq.head()) : nullptr, relaxed);
}

// Hands `n` entries bound for the same port to the receiving device under one hold of its lock.
void deliver_run(Device &dest, IB_port_t port, const Outbox::Entry *entries, uint32_t n, uint64_t now,
                 Outbox &replies, HeldDevice *held) {
    PendingEvents *under_hold = held ? events_under_hold(*held, dest) : nullptr;
    if (!under_hold) {
        deliver_unheld(dest, port, entries, n, now, replies);
        return;
    }
    if (&dest == held->dev) {
        deliver_entries(dest, port, entries, n, now, replies, *under_hold);
        return;
    }
    // Another device's mutex, taken at once by events_under_hold().
    std::lock_guard lk(dest.mu, std::adopt_lock);
    deliver_entries(dest, port, entries, n, now, replies, *under_hold);
    note_peer_lines(*held->dev, dest, port, entries[n - 1]);
}

}  // namespace

void HeldDevice::deliver_others() {
    if (other && others) others->deliver(*other);
}

void warm_peer(const Qp &qp) {
    using L = Qp::PeerLines;
    const auto &line = qp.peer_lines.line;
    constexpr auto relaxed = std::memory_order_relaxed;
    const void *mu = line[L::kMutex].load(relaxed);
    if (!mu) return;  // no request delivered to another device yet
    __builtin_prefetch(mu, 1, 3);
    __builtin_prefetch(line[L::kResponder].load(relaxed), 1, 3);
    if (const void *slot = line[L::kCqSlot].load(relaxed)) __builtin_prefetch(slot, 1, 3);
    if (const void *tail = line[L::kRqTail].load(relaxed)) __builtin_prefetch(tail, 0, 3);
    if (const void *front = line[L::kRqFront].load(relaxed)) __builtin_prefetch(front, 0, 3);
}

void transmit_all(const Outbox::Entry *entries, uint32_t n, uint64_t now, Outbox &replies, HeldDevice *held) {
    for (uint32_t i = 0; i < n;) {
        const Outbox::Entry &e = entries[i];
        Device *dest = nullptr;
        IB_port_t port = 0;
        if (!direct_route(e, dest, port)) {
            // The slow road takes device mutexes without asking first: no hold may be kept on it.
            if (held) held->release();
            // Packet by packet, each through the links' loss and delay (a sender whose port is
            // down, or a LID nobody has, loses them here).
            for (uint32_t k = 0; k < e.segments; ++k)
                send_packet(e.from, e.port, e.train == Outbox::Train::None ? e.pkt : train_segment(e, k), now,
                            replies);
            ++i;
            continue;
        }
        // The entries after it that leave from the same port for the same port go in the same hold.
        uint32_t j = i + 1;
        for (; j < n; ++j) {
            const Outbox::Entry &next = entries[j];
            if (next.from != e.from || next.port != e.port || next.pkt.slid != e.pkt.slid ||
                next.pkt.dlid != e.pkt.dlid)
                break;
        }
        deliver_run(*dest, port, entries + i, j - i, now, replies, held);
        i = j;
    }
}

size_t deliver_delayed(uint64_t now, Outbox &replies) {
    if (delayed_count.load() == 0) return 0;
    Wire &w = wire();
    size_t n = 0;
    for (;;) {
        std::optional<Delayed> d;
        {
            std::lock_guard lk(w.mu);
            auto it = w.delayed.begin();
            while (it != w.delayed.end() && it->due > now) ++it;
            if (it == w.delayed.end()) break;
            d.emplace(std::move(*it));
            w.delayed.erase(it);
            delayed_count.fetch_sub(1);
        }
        d->bind();
        arrive(d->pkt, now, replies, true);
        ++n;
    }
    return n;
}

bool wire_busy() {
    return any_fault.load(std::memory_order_acquire) || delayed_count.load(std::memory_order_acquire) != 0;
}

uint64_t next_delayed() {
    if (delayed_count.load() == 0) return 0;
    Wire &w = wire();
    std::lock_guard lk(w.mu);
    uint64_t t = 0;
    for (const Delayed &d : w.delayed)
        if (t == 0 || d.due < t) t = d.due;
    return t;
}

void wire_reset() {
    Wire &w = wire();
    std::lock_guard lk(w.mu);
    w.links.clear();
    w.delayed.clear();
    delayed_count = 0;
    any_fault = false;
}

bool set_link_faults(const std::string &device, int port, const LinkFaults &faults) {
    Device *d = device_by_name(device);
    if (!d || port < 1 || port > int(d->ports.size())) return false;
    Wire &w = wire();
    std::lock_guard lk(w.mu);
    w.links[{d->index, port}].faults = faults;
    bool any = false;
    for (auto &[k, l] : w.links) any = any || l.faults.drop_next || l.faults.drop_all || l.faults.delay_ms;
    any_fault = any;
    return true;
}

uint64_t link_dropped_packets(const std::string &device, int port) {
    Device *d = device_by_name(device);
    if (!d) return 0;
    Wire &w = wire();
    std::lock_guard lk(w.mu);
    auto it = w.links.find({d->index, port});
    return it == w.links.end() ? 0 : it->second.dropped;
}

}  // namespace marlix::softhca
