// The kernel log. printk formats into a 1024-byte buffer (longer messages are cut there) and
// appends the text to the log line by line: a "<N>" at the start of a line gives that line its
// level, a line without one gets the default level, text without a newline stays open for the
// next printk to continue.
#include "internal.hpp"
#include <linux/jiffies.h>
#include <linux/kernel.h>

#include <deque>
#include <dlfcn.h>

namespace marlix::kernel {
namespace {

constexpr size_t kMaxLines = 65536;

struct Log {
    std::mutex m;
    std::deque<LogLine> lines;
    bool open = false;  // a line is being assembled
    LogLine partial{};
    int default_level = 4;
    int console_level = 0;
    std::function<void(std::string_view)> console;
};

Log &log() {
    static Log *l = new Log;
    return *l;
}

}  // namespace

namespace detail {

void log_reset(const BootOptions &options) {
    Log &l = log();
    std::lock_guard<std::mutex> g(l.m);
    l.lines.clear();
    l.open = false;
    l.partial = LogLine{};
    l.default_level = options.default_message_loglevel;
    l.console_level = options.console_loglevel;
    l.console = options.console;
}

const char *source_relative(const char *file) {
    if (!file) return "<unknown>";
#ifdef MARLIX_SOURCE_DIR
    static const std::string root = std::string(MARLIX_SOURCE_DIR) + "/";
    if (std::strncmp(file, root.c_str(), root.size()) == 0) return file + root.size();
#endif
    // A compiler cache may hand the compiler paths relative to the build directory, which lies
    // inside the tree ("../../host/..."); without its leading "../" the rest is tree-relative.
    while (std::strncmp(file, "../", 3) == 0 || std::strncmp(file, "./", 2) == 0)
        file += file[0] == '.' && file[1] == '/' ? 2 : 3;
    return file;
}

}  // namespace detail

std::vector<LogLine> log_lines() {
    Log &l = log();
    std::lock_guard<std::mutex> g(l.m);
    return {l.lines.begin(), l.lines.end()};
}

std::string log_partial() {
    Log &l = log();
    std::lock_guard<std::mutex> g(l.m);
    return l.open ? l.partial.text : std::string();
}

void log_clear() {
    Log &l = log();
    std::lock_guard<std::mutex> g(l.m);
    l.lines.clear();
}

void set_console_loglevel(int level) {
    Log &l = log();
    std::lock_guard<std::mutex> g(l.m);
    l.console_level = level;
}

int console_loglevel() {
    Log &l = log();
    std::lock_guard<std::mutex> g(l.m);
    return l.console_level;
}

std::string format_log_line(const LogLine &line, bool raw, bool timestamps) {
    std::string out;
    if (raw) {
        out += '<';
        out += static_cast<char>('0' + line.level);
        out += '>';
    }
    if (timestamps) {
        char stamp[48];
        marlix_k_snprintf(stamp, sizeof stamp, "[%5lu.%06lu] ", line.stamp_jiffies / HZ,
                          (line.stamp_jiffies % HZ) * (1000000 / HZ));
        out += stamp;
    }
    out += line.text;
    return out;
}

}  // namespace marlix::kernel

using namespace marlix::kernel;

extern "C" {

int vprintk(const char *fmt, va_list args) {
    char printk_buf[1024];
    int printed_len = marlix_k_vscnprintf(printk_buf, sizeof printk_buf, fmt, args);

    Log &l = log();
    std::vector<std::string> to_console;
    std::function<void(std::string_view)> console;
    {
        std::lock_guard<std::mutex> g(l.m);
        for (const char *p = printk_buf; *p; ++p) {
            if (!l.open) {
                l.open = true;
                l.partial.text.clear();
                l.partial.stamp_jiffies = jiffies;
                l.partial.level = l.default_level;
                if (p[0] == '<' && p[1] >= '0' && p[1] <= '7' && p[2] == '>') {
                    l.partial.level = p[1] - '0';
                    p += 3;
                    if (!*p) break;
                }
            }
            if (*p == '\n') {
                if (l.partial.level < l.console_level && l.console) to_console.push_back(l.partial.text);
                l.lines.push_back(std::move(l.partial));
                l.partial = LogLine{};
                l.open = false;
                if (l.lines.size() > kMaxLines) l.lines.pop_front();
            } else {
                l.partial.text += *p;
            }
        }
        if (!to_console.empty()) console = l.console;
    }
    // The console is called without the log lock so that it may itself log.
    for (const auto &line : to_console) console(line);
    return printed_len;
}

int printk(const char *fmt, ...) {
    va_list args;
    va_start(args, fmt);
    int r = vprintk(fmt, args);
    va_end(args);
    return r;
}

void dump_stack(void) {
    printk("Call Trace:\n");
    void *ret = __builtin_return_address(0);
    Dl_info info{};
    if (ret && dladdr(ret, &info) && info.dli_sname)
        printk(" [<%p>] %s\n", ret, info.dli_sname);
    else
        printk(" [<%p>] <emulated>\n", ret);
}

}  // extern "C"
