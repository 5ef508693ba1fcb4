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

}  // namespace

// Written under the slot's mutex.
constinit std::atomic<Engine *> running_engine{nullptr};

void engine_start(EngineKind kind, uint32_t look_us) {
    EngineSlot &s = slot();
    std::lock_guard lk(s.mu);
    running_engine = nullptr;
    s.engine.reset();
    s.kind = kind;
    s.engine = kind == EngineKind::Threaded ? make_threaded_engine(look_us) : make_stepped_engine();
    running_engine = s.engine.get();
}

void engine_stop() {
    EngineSlot &s = slot();
    std::lock_guard lk(s.mu);
    running_engine = nullptr;
    s.engine.reset();
}

void engine_kick() {
    if (Engine *e = running_engine.load(std::memory_order_acquire)) e->kick();
}

void Engine::doorbell(Device &dev, Qp *qp) {
    if (qp) ring_doorbell(dev, *qp);
    kick();
}

void doorbell_without_engine(Device &dev, Qp *qp) {
    if (qp) ring_doorbell(dev, *qp);  // whoever runs the device next finds it
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
