// Host-side control of the emulated kernel: what a machine's operator, a test or the marlix
// console does from outside kernel code (boot, load modules, read proc files, move the clock,
// read the log, inject faults). Kernel code never includes this header.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

struct module;

namespace marlix::kernel {

// ---- Boot -------------------------------------------------------------------------------------

enum class ClockMode { Virtual, Real };

struct BootOptions {
    ClockMode clock = ClockMode::Virtual;
    int default_message_loglevel = 4;  // level of printk lines without "<N>"
    int console_loglevel = 0;          // lines with level < this are mirrored to `console`
    std::function<void(std::string_view line)> console;  // mirror target (null: none)
    std::string module_path;  // where insmod looks for NAME.ko; empty: $MARLIX_MODULE_PATH or build default
};

// Starts the softirq and hardirq threads and resets every kernel service to its boot state.
// Boot of a booted kernel is an error. Halt refuses (returns false) while modules are loaded
// unless `force`, in which case they are unloaded first.
void boot(const BootOptions &options = {});
bool halt(bool force = true);
bool booted();

// ---- Clock, softirqs and interrupts -------------------------------------------------------------

ClockMode clock_mode();
unsigned long now_jiffies();
// Virtual clock: advances jiffies by n and runs every timer that falls due, in order, on the
// softirq thread; returns when they have all run. Real clock: sleeps n milliseconds.
void advance_jiffies(unsigned long n);
// Waits until the softirq thread has nothing pending (tasklets scheduled so far have run).
void softirq_sync();
// Runs fn in hardirq context on the interrupt thread. `wait`: return after it ran.
void raise_irq(std::function<void()> fn, bool wait = false);
// Waits until the interrupt thread has nothing pending.
void irq_sync();
// Runs fn on the softirq thread in softirq context (as a tasklet would) and waits.
void run_in_softirq(const std::function<void()> &fn);
// The processor the calling (process) thread reports from smp_processor_id(); 0 by default.
void set_current_cpu(int cpu);

// ---- Kernel log ----------------------------------------------------------------------------------

struct LogLine {
    int level;           // 0..7
    unsigned long stamp_jiffies;  // when the line was started
    std::string text;    // without "<N>" and without the newline
};
std::vector<LogLine> log_lines();  // complete lines (a line still being continued is not included)
std::string log_partial();         // the line being assembled, if any
void log_clear();
void set_console_loglevel(int level);
int console_loglevel();
// dmesg-style rendering: "[    1.234000] text" or raw "<6>text" or plain text.
std::string format_log_line(const LogLine &line, bool raw, bool timestamps);

// ---- Allocations and faults ------------------------------------------------------------------------

struct Allocation {
    const void *ptr;
    size_t size;
    const struct module *owner;  // null for host-internal allocations
    std::string func, file;
    int line;
};
std::vector<Allocation> live_allocations(const struct module *owner = nullptr, bool all = true);
size_t live_allocation_count();
unsigned long sleeping_in_atomic_count();  // "BUG: sleeping function called from invalid context"
void reset_sleeping_in_atomic_count();
// Spinlock misuse reported so far ("BUG: spinlock recursion", "... already unlocked", "... wrong
// owner").
unsigned long spinlock_bug_count();
void reset_spinlock_bug_count();

// Allocation fault injection. Each rule makes matching kmalloc calls return null.
struct AllocFault {
    std::optional<unsigned long> nth;  // fail the nth matching call from now (1 = next)
    std::optional<size_t> size;        // only calls of this size
    std::string site;                  // only calls from this function name (or "file:line")
    bool always = false;               // keep failing (otherwise once)
};
int add_alloc_fault(const AllocFault &fault);  // returns an id
void clear_alloc_faults();
unsigned long injected_alloc_failures();

// Proc entry creation faults: create_proc_entry/proc_mkdir of a path ending in `path_suffix`
// returns null (once, or always).
void add_proc_create_fault(const std::string &path_suffix, bool always = false);
void clear_proc_faults();

// ---- Modules --------------------------------------------------------------------------------------

struct ModuleInfo {
    std::string name;      // kernel name (dashes turned into underscores)
    std::string path;      // file it was loaded from
    unsigned int refcount;
    std::vector<std::string> users;  // modules using this one
    // modinfo tags in registration order: license, author, description, version, and one
    // "parm" entry "name:description" per described parameter.
    std::vector<std::pair<std::string, std::string>> info;
};
// insmod: `file` is a path to a .ko, or a bare name looked up as NAME.ko on the module path.
// `args` are "param=value" words. Returns 0 or a negative errno (init's own result when it failed).
int insmod(const std::string &file, const std::vector<std::string> &args = {});
int rmmod(const std::string &name);  // -ENOENT not loaded, -EBUSY in use
std::vector<ModuleInfo> modules();
std::optional<ModuleInfo> find_module(const std::string &name);
std::string module_path();
std::string resolve_module_file(const std::string &name_or_path);  // empty if not found

struct ExportedSymbol {
    std::string name;
    const void *value;
    std::string owner;  // module name, empty for the kernel itself
};
std::vector<ExportedSymbol> exported_symbols();
const void *lookup_symbol(const std::string &name);  // no reference taken; null if not exported

// ---- Files (/proc and /sys/module) -----------------------------------------------------------------

// Reads a whole file through the kernel's read path (proc_file_read for proc entries).
// Returns a negative errno on failure.
int read_file(const std::string &path, std::string &out);
// Writes `data` in one write() call. Returns bytes consumed or a negative errno.
long write_file(const std::string &path, std::string_view data);
// Lists a directory of /proc or /sys/module; each entry's name with '/' appended for directories.
int list_dir(const std::string &path, std::vector<std::string> &out);
bool file_exists(const std::string &path);

}  // namespace marlix::kernel
