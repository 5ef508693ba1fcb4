// The running system's engine, and the engine controls of marlix/softhca.hpp.
#include "engine/engine.hpp"

#include "datapath/datapath.hpp"

#include <atomic>
#include <mutex>

#include "device/device.hpp"
#include "marlix/kernel.hpp"

namespace marlix::softhca {

namespace {

struct EngineSlot {
    std::mutex mu;  // start, stop and the controls below; never taken on the data path
    std::unique_ptr<Engine> engine;
    EngineKind kind = EngineKind::Threaded;
};

EngineSlot &slot() {
    static EngineSlot s;
    return s;
}

// The slot's engine while it runs, read by every post's doorbell: a plain global, so that reading
// it tests no guard of a function's static. Written under the slot's mutex.
constinit std::atomic<Engine *> current{nullptr};

}  // namespace

void engine_start(EngineKind kind) {
    EngineSlot &s = slot();
    std::lock_guard lk(s.mu);
    current = nullptr;
    s.engine.reset();
    s.kind = kind;
    s.engine = kind == EngineKind::Threaded ? make_threaded_engine() : make_stepped_engine();
    current = s.engine.get();
}

void engine_stop() {
    EngineSlot &s = slot();
    std::lock_guard lk(s.mu);
    current = nullptr;
    s.engine.reset();
}

void engine_kick() {
    if (Engine *e = current.load(std::memory_order_acquire)) e->kick();
}

void Engine::doorbell(Device &dev, Qp *qp) {
    if (qp) ring_doorbell(dev, *qp);
    kick();
}

void engine_doorbell(Device &dev, Qp *qp) {
    if (Engine *e = current.load(std::memory_order_acquire))
        e->doorbell(dev, qp);
    else if (qp)
        ring_doorbell(dev, *qp);  // whoever runs the device next finds it
}

EngineKind engine_kind() {
    ensure_booted();
    std::lock_guard lk(slot().mu);
    return slot().kind;
}

size_t step() {
    ensure_booted();
    std::lock_guard lk(slot().mu);
    return slot().engine ? slot().engine->step() : 0;
}

size_t run_until_idle(size_t max_rounds) {
    ensure_booted();
    std::lock_guard lk(slot().mu);
    return slot().engine ? slot().engine->run_until_idle(max_rounds) : 0;
}

void advance_clock(unsigned long ms) {
    ensure_booted();
    run_until_idle();
    for (unsigned long i = 0; i < ms; ++i) {
        kernel::advance_jiffies(1);
        run_until_idle();
    }
}

}  // namespace marlix::softhca
