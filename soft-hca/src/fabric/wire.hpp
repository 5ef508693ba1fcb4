// The wire: carries packets from a port to the port (or, for a multicast LID, the ports) its
// destination LID names, through the switch, applying the links' loss and delay. Delivery runs
// the receiving device's responder or completer under that device's lock; the only other lock
// held meanwhile is a pass's own device's (HeldDevice), and only while the receiver's was free.
#pragma once

#include <mutex>

#include "datapath/datapath.hpp"
#include "device/adaptive_mutex.hpp"

namespace marlix::softhca {

// A pass's hold of its own device's mutex, kept while the wire carries the pass's packets out and
// the replies back, so that the replies and the end of the pass need no second lock. Delivery to
// another device takes that device's mutex only when it is free at once (try_lock): no thread
// waits for a device mutex while it holds another, so passes going opposite ways cannot deadlock.
// When it is not free, when the events of a second other device would have to wait, or when a
// packet takes the slow road (a faulty link, multicast), the hold is let go first and the rest
// goes as without one. Events raised meanwhile wait here until the holder has let go.
struct HeldDevice {
    Device *dev = nullptr;
    std::unique_lock<AdaptiveMutex> *lock = nullptr;
    PendingEvents *own = nullptr;  // events raised at `dev`
    Device *other = nullptr;       // the other device whose events wait in `others`
    PendingEvents *others = nullptr;

    bool holds() const { return lock && lock->owns_lock(); }
    void release() {
        if (holds()) lock->unlock();
    }
    // Raises what waits at the other device (the holder has let go; it raises `own` itself).
    void deliver_others();
};
// Sends `n` entries in order. While the links are healthy, consecutive entries between the same
// two ports reach the receiving device under one hold of its lock (a train whole).
void transmit_all(const Outbox::Entry *entries, uint32_t n, uint64_t now, Outbox &replies,
                  HeldDevice *held = nullptr);
// Starts bringing over the lines at the peer device that the QP's next request will need there
// (noted by its last delivery): called before a posting thread's pass takes its own device's
// mutex, so that they travel while it does, not one after another during the pass. Lock-free.
void warm_peer(const Qp &qp);
// Delivers the delayed packets that are due. Returns how many.
size_t deliver_delayed(uint64_t now, Outbox &replies);
// True when a link loses or delays packets or a delayed packet waits: then only the engine
// carries packets, in its rounds. Lock-free.
bool wire_busy();
// When the next delayed packet is due (0: none waiting).
uint64_t next_delayed();
// Forgets every link fault and delayed packet (boot, halt).
void wire_reset();

}  // namespace marlix::softhca
