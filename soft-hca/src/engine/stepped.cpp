// The stepped engine: the devices work only inside step() and run_until_idle(), on the caller's
// thread, so the same test sees the same packets, completions and events on every run.
#include "engine/engine.hpp"
#include "host_interface.hpp"

namespace marlix::softhca {

namespace {

class SteppedEngine : public Engine {
  public:
    EngineKind kind() const override { return EngineKind::Stepped; }
    void kick() override {}
    size_t step() override { return run_round(host::now_ns()); }
    size_t run_until_idle(size_t max_rounds) override {
        size_t rounds = 0;
        while (rounds < max_rounds && step() > 0) ++rounds;
        return rounds;
    }
};

}  // namespace

std::unique_ptr<Engine> make_stepped_engine() {
    return std::make_unique<SteppedEngine>();
}

}  // namespace marlix::softhca
