// dmesg, with util-linux's options and messages.
#include <array>
#include <charconv>

#include "console.hpp"
#include "marlix/kernel.hpp"

namespace marlix::console {
namespace {

// -n takes a console level (1..8: lines below it reach the console) or a priority name, which
// lets that priority through, as util-linux does.
bool parse_console_level(const std::string &word, int &level, bool &is_name) {
    static constexpr std::array<const char *, 8> names = {"emerg", "alert",  "crit", "err",
                                                          "warn",  "notice", "info", "debug"};
    for (size_t i = 0; i < names.size(); ++i) {
        if (word == names[i]) {
            level = static_cast<int>(i) + 1;
            is_name = true;
            return true;
        }
    }
    is_name = false;
    auto [end, ec] = std::from_chars(word.data(), word.data() + word.size(), level);
    return ec == std::errc() && end == word.data() + word.size();
}

int cmd_dmesg(Console &c, const std::vector<std::string> &args) {
    bool read_clear = false, clear = false, raw = false, timestamps = true;
    std::optional<std::string> level_word;
    for (size_t i = 1; i < args.size(); ++i) {
        const std::string &a = args[i];
        if (a.size() < 2 || a[0] != '-') return c.usage();
        for (size_t j = 1; j < a.size(); ++j) {
            switch (a[j]) {
                case 'c':
                    read_clear = true;
                    break;
                case 'C':
                    clear = true;
                    break;
                case 'r':
                    raw = true;
                    break;
                case 't':
                    timestamps = false;
                    break;
                case 'n':
                    if (j + 1 < a.size()) {
                        level_word = a.substr(j + 1);
                    } else if (i + 1 < args.size()) {
                        level_word = args[++i];
                    } else {
                        return c.usage();
                    }
                    j = a.size();
                    break;
                default:
                    return c.usage();
            }
        }
    }

    if (level_word) {
        int level = 0;
        bool is_name = false;
        if (!parse_console_level(*level_word, level, is_name)) {
            c.err() << "dmesg: unknown level '" << *level_word << "'\n";
            return 1;
        }
        if (level < 1 || level > 8) {
            c.err() << "dmesg: klogctl failed: Invalid argument\n";
            return 1;
        }
        kernel::set_console_loglevel(level);
        return 0;
    }
    if (clear) {
        kernel::log_clear();
        return 0;
    }
    for (const kernel::LogLine &line : kernel::log_lines())
        c.out() << kernel::format_log_line(line, raw, timestamps) << "\n";
    if (read_clear) kernel::log_clear();
    return 0;
}

MARLIX_CONSOLE_COMMAND(dmesg, "dmesg", "dmesg [-c] [-C] [-r] [-t] [-n LEVEL]",
                       "Print the kernel log (-c then clear it, -C clear only, -r raw levels, -t no "
                       "timestamps, -n set the console level).",
                       cmd_dmesg)

}  // namespace
}  // namespace marlix::console
