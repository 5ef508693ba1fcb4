// The threaded engine: one host thread runs rounds while there is work and sleeps when there is
// none, until a post (or a clock change) kicks it. While a data-path timer is armed it also wakes
// every millisecond to look at the clock. A post that finds its device's data path free does the
// work on its own thread instead (run_posted), so a steady stream of posts neither waits for nor
// wakes the engine; before sleeping the engine spins a little, so the kicks that remain rarely pay
// a futex wake.
//
// A post whose send CQ already holds completions that nobody asked an event for only queues:
// its poster (or whoever consumes that CQ) will poll, and the poll that finds the CQ empty
// carries every post left on the device through in one pass, as a list would have been. So a
// window of single posts shares one pass, one hold of each device and one acknowledgement. The
// engine guarantees progress to a consumer that stops polling: while posts are being left it
// looks every look_ and runs what nobody carried; when none have been left for a whole look_ it
// sleeps, and the next post left wakes it (once, not per post).
#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <utility>

#include "datapath/datapath.hpp"
#include "device/cq.hpp"
#include "device/lock_word.hpp"
#include "device/qp.hpp"
#include "engine/engine.hpp"
#include "host_interface.hpp"

namespace marlix::softhca {

namespace {

class ThreadedEngine : public Engine {
  public:
    explicit ThreadedEngine(std::chrono::microseconds look) : look_(look), worker_([this] { loop(); }) {}
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
        if (qp && qp->send_cq && qp->send_cq->awaits_poll()) {
            if (ring_doorbell(dev, *qp)) look_soon();
            return;
        }
        if (run_posted(dev, qp, host::now_ns()) == PostedRun::Engine) kick();
    }

    void carry(Device &dev) override {
        if (run_posted(dev, nullptr, host::now_ns()) == PostedRun::Engine) kick();
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
        bool left_lately = false;  // posts were left since the engine last slept
        bool busy = false;         // the rounds since the engine last slept did work
        for (;;) {
            // An exchange, not a store: taking a kick down acquires what the kicker published
            // before it (a QP on a doorbell list), so this round sees it.
            kicked_.exchange(false, std::memory_order_acq_rel);
            // Posts left before this exchange are on their doorbell lists for this round (see
            // look_soon()).
            left_lately |= left_.exchange(false, std::memory_order_seq_cst);
            const uint64_t start = started_.fetch_add(1) + 1;
            bool timers = false;
            size_t work = run_round(host::now_ns(), &timers);
            if (work > 0) {
                busy = true;
                continue;
            }
            {
                // Tell run_until_idle() before spinning: it waits for this idle round, not the spin.
                std::lock_guard lk(mu_);
                last_idle_start_ = start;
                if (stop_) return;
            }
            idle_cv_.notify_all();
            // Spin only after work: a round that woke only to look (a timer, posts left for
            // pollers) would otherwise spin after every look.
            const bool was_busy = std::exchange(busy, false);
            if (was_busy && spin_for_kick()) continue;
            std::unique_lock lk(mu_);
            if (stop_) return;
            if (kicked_.load()) continue;
            sleeping_.store(true);
            auto kicked = [&] { return stop_ || kicked_.load(); };
            if (!kicked_.load()) {
                // While a timer is armed, look again soon: the clock moves without telling us
                // (the real clock by itself, the virtual one when the kernel's time is advanced).
                // While posts are being left for pollers, look again after look_: a consumer that
                // polls has carried them by then.
                const bool left = std::exchange(left_lately, false) || left_.load(std::memory_order_seq_cst);
                if (left || timers) {
                    cv_.wait_for(lk, left ? look_ : std::chrono::microseconds(1000), kicked);
                } else {
                    deaf_.store(true, std::memory_order_seq_cst);
                    cv_.wait(lk, [&] { return kicked() || left_.load(std::memory_order_seq_cst); });
                    deaf_.store(false, std::memory_order_relaxed);
                    // Woken by a post left for a poller: give the poller its time first.
                    if (!kicked()) cv_.wait_for(lk, look_, kicked);
                }
            }
            sleeping_.store(false);
            if (stop_) return;
        }
    }

    // A post was left on a doorbell list (the push, sequentially consistent, before this): makes
    // sure the engine looks within look_. The engine clears left_ before each round and then
    // reads the doorbell lists; this reads left_ after the push, so either the round sees the
    // post or this sees the flag down and raises it. A wake-up is paid only when the engine sleeps
    // with no deadline, that is after a whole look_ with no post left. (An engine already asleep
    // for a timer's millisecond looks when that ends.)
    void look_soon() {
        if (left_.load(std::memory_order_seq_cst)) return;
        left_.store(true, std::memory_order_seq_cst);
        if (deaf_.load(std::memory_order_seq_cst)) {
            std::lock_guard lk(mu_);
            cv_.notify_one();
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
    // About 10 to 50 us of spinning, depending on the processor's pause.
    static constexpr int kSpins = 1000;

    // How long a post left for a poller may wait before the engine runs it.
    const std::chrono::microseconds look_;
    std::mutex mu_;
    std::condition_variable cv_, idle_cv_;
    std::atomic<bool> kicked_{true};
    std::atomic<bool> sleeping_{false};
    std::atomic<bool> left_{false};  // posts left on doorbell lists since the last round began
    std::atomic<bool> deaf_{false};  // asleep with no deadline: a post left must wake it
    bool stop_ = false;
    std::atomic<uint64_t> started_{0};
    uint64_t last_idle_start_ = 0;
    std::thread worker_;
};

}  // namespace

std::unique_ptr<Engine> make_threaded_engine(uint32_t look_us) {
    return std::make_unique<ThreadedEngine>(std::chrono::microseconds(look_us));
}

}  // namespace marlix::softhca
