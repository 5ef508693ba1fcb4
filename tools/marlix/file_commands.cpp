// cat, echo and ls over the emulated /proc and /sys/module, with coreutils' and bash's messages.
#include <algorithm>
#include <cerrno>
#include <cstring>

#include "console.hpp"
#include "marlix/kernel.hpp"

namespace marlix::console {
namespace {

int cmd_cat(Console &c, const std::vector<std::string> &args) {
    if (args.size() < 2) return c.usage();
    int status = 0;
    for (size_t i = 1; i < args.size(); ++i) {
        std::string data;
        int rc = kernel::read_file(args[i], data);
        if (rc < 0) {
            c.err() << "cat: " << args[i] << ": " << std::strerror(-rc) << "\n";
            status = 1;
            continue;
        }
        c.out() << data;
    }
    return status;
}

// Builtin echo: "-n" leaves out the newline; the words are joined by one blank. With "> PATH" the
// console sends the whole text to the file in one write.
int cmd_echo(Console &c, const std::vector<std::string> &args) {
    size_t first = 1;
    bool newline = true;
    if (args.size() > 1 && args[1] == "-n") {
        newline = false;
        first = 2;
    }
    std::string text;
    for (size_t i = first; i < args.size(); ++i) {
        if (i > first) text += ' ';
        text += args[i];
    }
    if (newline) text += '\n';
    c.out() << text;
    return 0;
}

int list_one(Console &c, const std::string &path, bool header) {
    std::vector<std::string> entries;
    int rc = kernel::list_dir(path, entries);
    if (rc == -ENOTDIR) {
        c.out() << path << "\n";
        return 0;
    }
    if (rc < 0) {
        if (rc == -ENOENT && kernel::file_exists(path)) {
            c.out() << path << "\n";
            return 0;
        }
        c.err() << "ls: cannot access '" << path << "': " << std::strerror(-rc) << "\n";
        return 2;
    }
    for (std::string &e : entries)
        if (!e.empty() && e.back() == '/') e.pop_back();
    std::sort(entries.begin(), entries.end());
    if (header) c.out() << path << ":\n";
    for (const std::string &e : entries) c.out() << e << "\n";
    return 0;
}

int cmd_ls(Console &c, const std::vector<std::string> &args) {
    if (args.size() < 2) return c.usage();
    int status = 0;
    bool headers = args.size() > 2;
    for (size_t i = 1; i < args.size(); ++i) {
        if (headers && i > 1) c.out() << "\n";
        status = std::max(status, list_one(c, args[i], headers));
    }
    return status;
}

MARLIX_CONSOLE_COMMAND(cat, "cat", "cat PATH...", "Print files of /proc or /sys/module.", cmd_cat)
MARLIX_CONSOLE_COMMAND(echo, "echo", "echo [-n] TEXT [> PATH]",
                       "Print TEXT, or write it (with a newline unless -n) to a file in one write.", cmd_echo)
MARLIX_CONSOLE_COMMAND(ls, "ls", "ls PATH...", "List a directory of /proc or /sys/module.", cmd_ls)

}  // namespace
}  // namespace marlix::console
