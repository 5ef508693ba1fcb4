// help and exit.
#include <charconv>
#include <cstdio>

#include "console.hpp"

namespace marlix::console {
namespace {

void print_entry(Console &c, const Command &command) {
    // Long usages get their help on the next line, so the help column stays aligned.
    constexpr int kWidth = 44;
    char line[1024];
    if (command.usage.size() > kWidth)
        std::snprintf(line, sizeof line, "  %s\n  %-*s %s\n", command.usage.c_str(), kWidth, "",
                      command.help.c_str());
    else
        std::snprintf(line, sizeof line, "  %-*s %s\n", kWidth, command.usage.c_str(), command.help.c_str());
    c.out() << line;
}

int cmd_help(Console &c, const std::vector<std::string> &args) {
    if (args.size() > 2) return c.usage();
    if (args.size() == 2) {
        const Command *command = Registry::global().find(args[1]);
        if (!command) {
            c.err() << "marlix: help: no help topics match `" << args[1] << "'\n";
            return 1;
        }
        print_entry(c, *command);
        return 0;
    }
    c.out() << "Commands:\n";
    for (const Command *command : Registry::global().all()) print_entry(c, *command);
    c.out() << "Words split on blanks; '...' and \"...\" quote, \\ escapes, ';' separates commands, "
               "'#' starts a comment.\n";
    return 0;
}

int cmd_exit(Console &c, const std::vector<std::string> &args) {
    if (args.size() > 2) {
        c.err() << "marlix: exit: too many arguments\n";
        return 1;
    }
    int status = c.last_status();
    if (args.size() == 2) {
        const std::string &w = args[1];
        auto [end, ec] = std::from_chars(w.data(), w.data() + w.size(), status);
        if (w.empty() || ec != std::errc() || end != w.data() + w.size()) {
            c.err() << "marlix: exit: " << w << ": numeric argument required\n";
            status = 2;
        }
    }
    c.request_exit(status & 0xff);
    return status & 0xff;
}

MARLIX_CONSOLE_COMMAND(help, "help", "help [COMMAND]", "List the commands with their usage.", cmd_help)
MARLIX_CONSOLE_COMMAND(exit, "exit", "exit [N]",
                       "Leave the console with status N (default: the last status).", cmd_exit)

}  // namespace
}  // namespace marlix::console
