// Quiescing events on destroy, as a driver synchronises with its interrupt handler before it
// frees what the handler uses.
//
// Every QP, every CQ and every opening of a device owns an EventGate. An event (a completion
// event, an asynchronous event) carries the gates of what it names, from the moment it is raised
// until its handler has returned, and passes through them on the interrupt thread just before the
// handler is called. Destroying the object closes its gate: an event that has not started yet is
// dropped when its turn comes (queued events of a destroyed object are never delivered), and the
// destroyer waits for the handlers already running to return. So once VAPI_destroy_qp,
// VAPI_destroy_cq or VAPI_close_hca has returned, no handler runs, or will run, with the handle
// of what was destroyed.
//
// Two waits would never end, and neither is made:
//   - a destroy called from inside a handler running for the same object does not wait for that
//     handler (the one it is called from): it waits only for handlers on other threads;
//   - a destroy never waits with a device mutex held (handlers call verbs, which take it): the
//     verbs close the gate under the lock and wait after releasing it.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>

namespace marlix::softhca {

class EventGate {
  public:
    // Lets one handler start; false once the gate is closed (the event is then dropped).
    bool enter();
    void leave();
    // No event starts from now on.
    void close();
    bool closed() const { return state_.load(std::memory_order_acquire) & kClosed; }
    // Waits until the handlers that entered have left, except those running on the calling
    // thread (a destroy from inside the handler). Never called with a device mutex held.
    void wait_idle() const;
    // Handlers inside the gate now (tests of the gate itself).
    uint32_t running() const { return state_.load(std::memory_order_acquire) & ~kClosed; }

  private:
    static constexpr uint32_t kClosed = 1u << 31;
    std::atomic<uint32_t> state_{0};  // kClosed | handlers running
};

using EventGateRef = std::shared_ptr<EventGate>;

// Holds up to two gates (the device's and the object's) for the length of one handler call, on
// the handler's thread. `ok()` is false when either gate is closed: the handler must not run.
// Passes nest (a handler whose verb delivers an event at once runs it inside its own pass); each
// thread keeps the chain of its passes so that wait_idle() can leave its own out.
class EventPass {
  public:
    EventPass(EventGate *first, EventGate *second = nullptr);
    ~EventPass();
    EventPass(const EventPass &) = delete;
    EventPass &operator=(const EventPass &) = delete;
    bool ok() const { return ok_; }
    // How many passes of the calling thread hold `gate`.
    static uint32_t held_here(const EventGate *gate);

  private:
    EventGate *gates_[2] = {nullptr, nullptr};
    bool ok_ = true;
    EventPass *outer_;
};

// Closes the gate and waits for its running handlers (the destroy of one object, done after the
// device mutex is released). Null gates are ignored.
void quiesce(const EventGateRef &gate);

}  // namespace marlix::softhca
