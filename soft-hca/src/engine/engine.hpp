// What runs the devices' work. Both engines run the same round (round.cpp); they differ only in
// who calls it and when: the threaded engine on a host thread of its own whenever there is work,
// the stepped engine only when a test or script steps it.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>

#include "device/device.hpp"
#include "marlix/softhca.hpp"

namespace marlix::softhca {

class Device;
struct Qp;

class Engine {
  public:
    virtual ~Engine() = default;
    virtual EngineKind kind() const = 0;
    // New work was posted (or a state change may have unblocked some). Cheap, lock-free when
    // the engine is already awake; never blocks.
    virtual void kick() = 0;
    // Work was posted on `dev` (on `qp`, not yet on the device's active list, or null when the
    // poster put it there): kicks the engine, or (threaded engine) runs it on the caller's
    // thread when the device's data path is free.
    virtual void doorbell(Device &dev, Qp *qp);
    // A poll (or a peek, or an arming) found nothing for it while posts wait on `dev`'s doorbell
    // list: the threaded engine carries them through on the caller's thread; the stepped engine
    // leaves them for its next step.
    virtual void carry(Device &) {}
    virtual size_t step() = 0;
    virtual size_t run_until_idle(size_t max_rounds) = 0;
};

// One round over every device: timers, requesters, the wire, responders, completers, delayed
// packets. Returns the amount of work done (0: idle). `timers_pending` (optional) says whether a
// retransmission, an RNR wait or a delayed packet is still to come. Called by one thread at a time.
size_t run_round(uint64_t now, bool *timers_pending = nullptr);

// A posting thread's pass over one device: its requesters, the wire to the responders and back
// to the completers, exactly as in a round, when no other pass is under way on the device and the
// wire holds nothing the pass could overtake. `qp` (optional) is the QP posted on; when the pass
// cannot run it is left to the engine (on the active list, or on the doorbell list when the wire
// is busy). `Engine`: the engine must run (a pass was under way, the wire is busy, or work or a
// timer is left); `Done`: nothing is left for it.
enum class PostedRun { Done, Engine };
PostedRun run_posted(Device &dev, Qp *qp, uint64_t now);

// `look_us`: how long a post left for a poller may wait before the engine runs it.
std::unique_ptr<Engine> make_threaded_engine(uint32_t look_us);
std::unique_ptr<Engine> make_stepped_engine();

// The running system's engine (started by boot(), stopped by halt()).
void engine_start(EngineKind kind, uint32_t look_us);
void engine_stop();
// Kicks the running engine, if any.
void engine_kick();
// The running engine, read by every post's doorbell without a lock: a plain global, so that
// reading it tests no guard. engine_start() and engine_stop() write it.
extern constinit std::atomic<Engine *> running_engine;
// Without an engine: leaves the QP on the device's doorbell list for whoever runs it next.
void doorbell_without_engine(Device &dev, Qp *qp);
// Rings the running engine's doorbell for work posted on `dev` (on `qp`, or null when the QP is
// already on the device's active list); no lock held. Inline: every post rings it.
inline void engine_doorbell(Device &dev, Qp *qp) {
    if (Engine *e = running_engine.load(std::memory_order_acquire)) [[likely]]
        e->doorbell(dev, qp);
    else
        doorbell_without_engine(dev, qp);
}

// A send post on `dev` is about to take its queue's lock: the pass that follows (threaded engine)
// takes the device mutex, which the last delivery into the device took, often on another core.
// Fetching it starts now, so that it overlaps the wait of the queue lock's atomic exchange for the
// caller's earlier stores (a receive just posted writes lines the peer's responder reads). The
// first send post since the device was opened also marks it as a device where sends are posted
// (for engine_expect_post()).
inline void engine_expect_pass(Device &dev) {
    __builtin_prefetch(&dev.mu, 1, 3);
    if (!dev.sends_posted.load(std::memory_order_relaxed)) [[unlikely]]
        dev.sends_posted.store(true, std::memory_order_relaxed);
}

// A poll is about to return a completion of `dev`. On a device where sends are posted, a send
// usually follows (the answer to what arrived, or the next request), and its pass takes the
// device mutex, which the delivery of that completion took, often on another core: fetching it
// starts now, while the caller looks at the completion and posts. A device that only receives
// (a stream's far end, whose mutex the sending thread's passes take) is left alone.
inline void engine_expect_post(Device &dev) {
    if (dev.sends_posted.load(std::memory_order_relaxed)) __builtin_prefetch(&dev.mu, 1, 3);
}

// Called by a poll that found its CQ empty: runs what posts left on `dev`'s doorbell list, if
// any. Inline: an empty poll pays one load when nothing waits there.
inline void engine_carry(Device &dev) {
    if (dev.doorbells.load(std::memory_order_relaxed) == nullptr) [[likely]]
        return;
    if (Engine *e = running_engine.load(std::memory_order_acquire)) e->carry(dev);
}

}  // namespace marlix::softhca
