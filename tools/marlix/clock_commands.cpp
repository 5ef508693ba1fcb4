// jiffies and sleep: the kernel's clock.
#include <charconv>

#include "console.hpp"
#include "marlix/kernel.hpp"

namespace marlix::console {
namespace {

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

// HZ is 1000, so a millisecond is a jiffy; on the real clock advance_jiffies sleeps.
int cmd_sleep(Console &c, const std::vector<std::string> &args) {
    if (args.size() != 2) return c.usage();
    unsigned long ms = 0;
    if (!parse_count(args[1], ms)) {
        c.err() << "sleep: invalid time interval '" << args[1] << "'\n";
        return 1;
    }
    kernel::advance_jiffies(ms);
    return 0;
}

MARLIX_CONSOLE_COMMAND(jiffies, "jiffies", "jiffies [+N]",
                       "Show the clock, or advance the virtual clock by N jiffies, running the timers due.",
                       cmd_jiffies)
MARLIX_CONSOLE_COMMAND(sleep, "sleep", "sleep MS",
                       "Let MS milliseconds pass (virtual clock: advance it; --real-time: really sleep).",
                       cmd_sleep)

}  // namespace
}  // namespace marlix::console
