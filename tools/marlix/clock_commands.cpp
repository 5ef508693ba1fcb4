// jiffies, sleep and clock: the kernel's clock.
//
// The virtual clock moves only when asked (`jiffies +N`, `sleep MS`), so a script gives the same
// log stamps, timer runs and retransmissions on every run. `clock run` lets it tick by itself
// instead: a host thread advances it one jiffy per millisecond of wall time (HZ is 1000), running
// the timers that fall due, until `clock stop`. The software HCA reads the same clock, so a lost
// packet's retransmission then happens without the operator moving time.
#include <charconv>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "console.hpp"
#include "marlix/kernel.hpp"

namespace marlix::console {
namespace {

// Moves the virtual clock with wall time while it runs.
class Ticker {
  public:
    ~Ticker() { stop(); }

    bool running() {
        std::lock_guard lk(mu_);
        return thread_.joinable();
    }

    void start() {
        std::lock_guard lk(mu_);
        if (thread_.joinable()) return;
        stop_ = false;
        thread_ = std::thread([this] { loop(); });
    }

    void stop() {
        std::thread t;
        {
            std::lock_guard lk(mu_);
            stop_ = true;
            t = std::move(thread_);
        }
        cv_.notify_all();
        if (t.joinable()) t.join();
    }

  private:
    void loop() {
        using clock = std::chrono::steady_clock;
        const auto start = clock::now();
        unsigned long ticked = 0;  // jiffies added since start
        std::unique_lock lk(mu_);
        while (!stop_) {
            cv_.wait_until(lk, start + std::chrono::milliseconds(ticked + 1), [this] { return stop_; });
            if (stop_) break;
            // Catch up in one step when the thread was late: timers still run in expiry order.
            const auto due = static_cast<unsigned long>(
                std::chrono::duration_cast<std::chrono::milliseconds>(clock::now() - start).count());
            if (due <= ticked) continue;
            lk.unlock();
            kernel::advance_jiffies(due - ticked);
            lk.lock();
            ticked = due;
        }
    }

    std::mutex mu_;
    std::condition_variable cv_;
    bool stop_ = false;
    std::thread thread_;
};

Ticker &ticker() {
    static Ticker t;
    return t;
}

bool parse_count(std::string_view word, unsigned long &value) {
    if (word.empty()) return false;
    auto [end, ec] = std::from_chars(word.data(), word.data() + word.size(), value);
    return ec == std::errc() && end == word.data() + word.size();
}

int cmd_jiffies(Console &c, const std::vector<std::string> &args) {
    if (args.size() == 1) {
        c.out() << kernel::now_jiffies() << "\n";
        return 0;
    }
    unsigned long n = 0;
    if (args.size() != 2 || args[1].size() < 2 || args[1][0] != '+' || !parse_count(args[1].substr(1), n))
        return c.usage();
    kernel::advance_jiffies(n);
    return 0;
}

// HZ is 1000, so a millisecond is a jiffy. On the manual virtual clock sleep advances it; when it
// ticks by itself (clock run) or on the real clock, sleep really sleeps and time moves meanwhile.
int cmd_sleep(Console &c, const std::vector<std::string> &args) {
    if (args.size() != 2) return c.usage();
    unsigned long ms = 0;
    if (!parse_count(args[1], ms)) {
        c.err() << "sleep: invalid time interval '" << args[1] << "'\n";
        return 1;
    }
    if (ticker().running())
        std::this_thread::sleep_for(std::chrono::milliseconds(ms));
    else
        kernel::advance_jiffies(ms);
    return 0;
}

// clock: "manual", "running" or "real-time"; clock run | clock stop.
int cmd_clock(Console &c, const std::vector<std::string> &args) {
    if (args.size() > 2 || (args.size() == 2 && args[1] != "run" && args[1] != "stop")) return c.usage();
    const bool real = kernel::clock_mode() == kernel::ClockMode::Real;
    if (args.size() == 1) {
        c.out() << (real ? "real-time" : ticker().running() ? "running" : "manual") << "\n";
        return 0;
    }
    if (real) {
        c.err() << "clock: the kernel runs on the real clock (--real-time)\n";
        return 1;
    }
    if (args[1] == "run")
        ticker().start();
    else
        ticker().stop();
    return 0;
}

MARLIX_CONSOLE_COMMAND(jiffies, "jiffies", "jiffies [+N]",
                       "Show the clock, or advance the virtual clock by N jiffies, running the timers due.",
                       cmd_jiffies)
MARLIX_CONSOLE_COMMAND(sleep, "sleep", "sleep MS",
                       "Let MS milliseconds pass (manual virtual clock: advance it; otherwise really sleep).",
                       cmd_sleep)
MARLIX_CONSOLE_COMMAND(clock, "clock", "clock [run|stop]",
                       "Show the clock (manual, running or real-time), or let the virtual clock tick with "
                       "wall time (run) until stopped (stop).",
                       cmd_clock)

}  // namespace

void stop_clock() {
    ticker().stop();
}

}  // namespace marlix::console
