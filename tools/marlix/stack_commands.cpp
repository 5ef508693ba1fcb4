// rep and logger: the stack's configuration repository and trace level.
#include <cerrno>
#include <charconv>
#include <cstring>

#include "console.hpp"
#include "marlix/stack.hpp"

namespace marlix::console {
namespace {

// Decimal (optionally negative) or 0x-prefixed hexadecimal; anything else is not a number.
bool parse_long(const std::string &word, long &value) {
    const char *begin = word.data();
    const char *end = begin + word.size();
    bool negative = begin < end && *begin == '-';
    const char *digits = negative ? begin + 1 : begin;
    int base = 10;
    if (end - digits > 2 && digits[0] == '0' && (digits[1] == 'x' || digits[1] == 'X')) {
        base = 16;
        digits += 2;
    }
    if (digits == end || *digits == '-' || *digits == '+') return false;
    unsigned long magnitude = 0;
    auto [p, ec] = std::from_chars(digits, end, magnitude, base);
    if (ec != std::errc() || p != end) return false;
    if (negative) {
        if (magnitude > static_cast<unsigned long>(LONG_MAX) + 1) return false;
        value = static_cast<long>(0UL - magnitude);
    } else {
        if (magnitude > static_cast<unsigned long>(LONG_MAX)) return false;
        value = static_cast<long>(magnitude);
    }
    return true;
}

int cmd_rep(Console &c, const std::vector<std::string> &args) {
    if (args.size() == 4 && args[1] == "get") {
        stack::Value value;
        int rc = stack::get_value(args[2], args[3], value);
        if (rc == -ENOENT) {
            if (!stack::key_exists(args[2]))
                c.err() << "rep: " << args[2] << ": no such key\n";
            else
                c.err() << "rep: " << args[2] << ": no value named " << args[3] << "\n";
            return 1;
        }
        if (rc < 0) {
            c.err() << "rep: " << args[2] << " " << args[3] << ": " << std::strerror(-rc) << "\n";
            return 1;
        }
        if (value.is_long)
            c.out() << value.number << "\n";
        else
            c.out() << value.text << "\n";
        return 0;
    }
    if (args.size() == 5 && args[1] == "set") {
        long number = 0;
        int rc = parse_long(args[4], number) ? stack::set_long(args[2], args[3], number)
                                             : stack::set_string(args[2], args[3], args[4]);
        if (rc < 0) {
            c.err() << "rep: " << args[2] << " " << args[3] << ": " << std::strerror(-rc) << "\n";
            return 1;
        }
        return 0;
    }
    return c.usage();
}

int cmd_logger(Console &c, const std::vector<std::string> &args) {
    if (args.size() < 2 || args.size() > 3 || args[1] != "level") return c.usage();
    if (args.size() == 2) {
        c.out() << stack::logger_level() << "\n";
        return 0;
    }
    long level = 0;
    if (!parse_long(args[2], level) || level < INT_MIN || level > INT_MAX) return c.usage();
    stack::set_logger_level(static_cast<int>(level));
    return 0;
}

MARLIX_CONSOLE_COMMAND(rep, "rep", "rep get KEY NAME | rep set KEY NAME VALUE",
                       "Read or set a repository value (a number sets a long, anything else a string).",
                       cmd_rep)
MARLIX_CONSOLE_COMMAND(logger, "logger", "logger level [N]",
                       "Show or set the stack-wide trace level (0 PANIC .. 5 FUNC).", cmd_logger)

}  // namespace
}  // namespace marlix::console
