// The threaded engine: one host thread runs rounds while there is work and sleeps when there is
// none, until a post (or a clock change) kicks it. While a data-path timer is armed it also wakes
// every millisecond to look at the clock. A post that finds its device's data path free does the
// work on its own thread instead (run_posted), so a steady stream of posts neither waits for nor
// wakes the engine; before sleeping the engine spins a little, so the kicks that remain rarely pay
// a futex wake.
#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "engine/engine.hpp"
#include "host_interface.hpp"

namespace marlix::softhca {

namespace {

class ThreadedEngine : public Engine {
  public:
    ThreadedEngine() : worker_([this] { loop(); }) {}
    ~ThreadedEngine() override {
        {
            std::lock_guard lk(mu_);
            stop_ = true;
        }
        cv_.notify_all();
        worker_.join();
    }
    EngineKind kind() const override { return EngineKind::Threaded; }

    void kick() override {
        // Posting threads pay one atomic exchange when the engine is awake. It must be an
        // exchange, not a look first: a kick after the engine cleared the flag for its round has
        // to see that it did, or the engine could go to sleep on work posted after its look.
        if (kicked_.exchange(true)) return;
        if (sleeping_.load()) {
            std::lock_guard lk(mu_);
            cv_.notify_one();
        }
    }

    void doorbell(Device &dev, Qp *qp) override {
        if (run_posted(dev, qp, host::now_ns()) == PostedRun::Engine) kick();
    }

    size_t step() override { return 0; }

    size_t run_until_idle(size_t) override {
        // Wait for a round that found nothing to do and began after everything posted so far.
        // Read the round count before kicking: were the kick first, the engine could clear it and
        // start its round before the count is read, so that round would not count and the engine,
        // finding no kick left, would sleep while we wait for it.
        const uint64_t after = started_.load();
        kicked_.store(true);
        std::unique_lock lk(mu_);
        cv_.notify_one();
        idle_cv_.wait(lk, [&] { return last_idle_start_ > after || stop_; });
        return 0;
    }

  private:
    void loop() {
        for (;;) {
            // An exchange, not a store: taking a kick down acquires what the kicker published
            // before it (a QP on a doorbell list), so this round sees it.
            kicked_.exchange(false, std::memory_order_acq_rel);
            const uint64_t start = started_.fetch_add(1) + 1;
            bool timers = false;
            size_t work = run_round(host::now_ns(), &timers);
            if (work > 0) continue;
            {
                // Tell run_until_idle() before spinning: it waits for this idle round, not the spin.
                std::lock_guard lk(mu_);
                last_idle_start_ = start;
                if (stop_) return;
            }
            idle_cv_.notify_all();
            if (spin_for_kick()) continue;
            std::unique_lock lk(mu_);
            if (stop_) return;
            if (kicked_.load()) continue;
            sleeping_.store(true);
            if (!kicked_.load()) {
                // While a timer is armed, look again soon: the clock moves without telling us
                // (the real clock by itself, the virtual one when the kernel's time is advanced).
                if (timers)
                    cv_.wait_for(lk, std::chrono::milliseconds(1), [&] { return stop_ || kicked_.load(); });
                else
                    cv_.wait(lk, [&] { return stop_ || kicked_.load(); });
            }
            sleeping_.store(false);
            if (stop_) return;
        }
    }

    // Waits a bounded while for a kick without sleeping; true when one came.
    bool spin_for_kick() {
        for (int i = 0; i < kSpins; ++i) {
            if (kicked_.load(std::memory_order_relaxed)) return true;
            cpu_relax();
        }
        return false;
    }
    static void cpu_relax() {
#if defined(__x86_64__) || defined(__i386__)
        __builtin_ia32_pause();
#elif defined(__aarch64__)
        asm volatile("yield");
#endif
    }
    // About 10 to 50 us of spinning, depending on the processor's pause.
    static constexpr int kSpins = 1000;

    std::mutex mu_;
    std::condition_variable cv_, idle_cv_;
    std::atomic<bool> kicked_{true};
    std::atomic<bool> sleeping_{false};
    bool stop_ = false;
    std::atomic<uint64_t> started_{0};
    uint64_t last_idle_start_ = 0;
    std::thread worker_;
};

}  // namespace

std::unique_ptr<Engine> make_threaded_engine() {
    return std::make_unique<ThreadedEngine>();
}

}  // namespace marlix::softhca
