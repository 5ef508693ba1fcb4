// Event gates: counting handlers in flight per object and waiting for them on destroy.
#include "device/event_gate.hpp"

namespace marlix::softhca {

namespace {
// The innermost pass of this thread; each pass links to the one it runs inside.
thread_local EventPass *t_innermost = nullptr;
}  // namespace

bool EventGate::enter() {
    uint32_t s = state_.load(std::memory_order_acquire);
    do {
        if (s & kClosed) return false;
    } while (!state_.compare_exchange_weak(s, s + 1, std::memory_order_acq_rel, std::memory_order_acquire));
    return true;
}

void EventGate::leave() {
    uint32_t s = state_.fetch_sub(1, std::memory_order_acq_rel) - 1;
    // Only a destroyer waits, and only after closing: an open gate needs no wake-up.
    if (s & kClosed) state_.notify_all();
}

void EventGate::close() {
    state_.fetch_or(kClosed, std::memory_order_acq_rel);
}

void EventGate::wait_idle() const {
    const uint32_t own = EventPass::held_here(this);
    for (;;) {
        uint32_t s = state_.load(std::memory_order_acquire);
        if ((s & ~kClosed) <= own) return;
        state_.wait(s, std::memory_order_acquire);
    }
}

EventPass::EventPass(EventGate *first, EventGate *second) : outer_(t_innermost) {
    for (EventGate *g : {first, second}) {
        if (!g) continue;
        if (!g->enter()) {
            ok_ = false;
            break;
        }
        gates_[gates_[0] ? 1 : 0] = g;
    }
    t_innermost = this;
}

EventPass::~EventPass() {
    t_innermost = outer_;
    for (EventGate *g : gates_)
        if (g) g->leave();
}

uint32_t EventPass::held_here(const EventGate *gate) {
    uint32_t n = 0;
    for (const EventPass *p = t_innermost; p; p = p->outer_)
        for (const EventGate *g : p->gates_) n += g == gate;
    return n;
}

void quiesce(const EventGateRef &gate) {
    if (!gate) return;
    gate->close();
    gate->wait_idle();
}

}  // namespace marlix::softhca
