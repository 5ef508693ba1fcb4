// The marlix console: a small shell that drives an emulated host (kernel, stack, software HCA).
//
// Commands live in a registry. Each command group is one source file named *_commands.cpp in
// tools/marlix/ that registers its commands at load time:
//
//     static int cmd_hello(marlix::console::Console &c, const std::vector<std::string> &args) {
//         if (args.size() != 1) return c.usage();
//         c.out() << "hello\n";
//         return 0;
//     }
//     MARLIX_CONSOLE_COMMAND(hello, "hello", "hello", "Say hello.", cmd_hello)
//
// A handler gets the console and the argument words (args[0] is the command name), writes its
// output to c.out() and its error lines to c.err(), and returns an exit status: 0 success,
// 1 failure, 2 bad usage (c.usage() prints "usage: ..." and returns 2).
#pragma once

#include <functional>
#include <iosfwd>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace marlix::console {

class Console;

using Handler = std::function<int(Console &console, const std::vector<std::string> &args)>;

struct Command {
    std::string name;   // the word that runs it
    std::string usage;  // "insmod NAME [param=value ...]"
    std::string help;   // one line
    Handler handler;
};

class Registry {
  public:
    static Registry &global();
    // A second command with the same name replaces the first.
    void add(Command command);
    const Command *find(std::string_view name) const;
    std::vector<const Command *> all() const;  // sorted by name

  private:
    std::map<std::string, Command, std::less<>> commands_;
};

struct CommandRegistrar {
    explicit CommandRegistrar(Command command) { Registry::global().add(std::move(command)); }
};

#define MARLIX_CONSOLE_COMMAND(id, name, usage, help, handler)                    \
    static const ::marlix::console::CommandRegistrar marlix_console_command_##id{ \
        {name, usage, help, handler}};

// ---- Parsing -------------------------------------------------------------------------------------

struct Word {
    std::string text;
    bool redirect = false;  // an unquoted '>' (or '>>') operator; text is then ">" or ">>"
};

struct CommandLine {
    std::string source;  // the command as written, trimmed (what -x echoes)
    std::vector<Word> words;
};

// Splits text into commands at unquoted ';' and newlines and each command into words as a
// shell does: blanks separate words, '...' is literal, "..." allows \" \\ \$ \` escapes, a
// backslash outside quotes takes the next character literally, an unquoted word starting with
// '#' comments out the rest of the line. Returns false with a message in `error` on an
// unterminated quote or a trailing backslash.
bool parse(std::string_view text, std::vector<CommandLine> &commands, std::string &error);

// ---- The interpreter ---------------------------------------------------------------------------

struct Options {
    bool keep_going = false;   // -k: go on after a failed command
    bool echo = false;         // -x: print "marlix# CMD" before each command's output
    bool real_time = false;    // --real-time: the kernel runs on the real clock
    bool interactive = false;  // shell: errors never stop the session
};

class Console {
  public:
    Console(std::ostream &out, std::ostream &err, Options options = {});
    ~Console();
    Console(const Console &) = delete;
    Console &operator=(const Console &) = delete;

    std::ostream &out() { return *out_; }
    std::ostream &err() { return *err_; }
    const Options &options() const { return options_; }

    // Runs commands separated by ';' or newlines. Stops at the first failing command unless
    // keep_going or interactive. Returns the status of the failing command (0 if none failed;
    // with keep_going, the status of the last one that failed).
    int run_text(std::string_view text);
    // Runs a script file (one or more commands per line).
    int run_file(const std::string &path);
    // Runs one parsed command (redirection included) and returns its status.
    int run_command(const CommandLine &command);
    // Runs a command given as words (no redirection).
    int execute(const std::vector<std::string> &args);

    // The command being run, for handlers that report their own usage.
    const Command *current_command() const { return current_; }
    // Prints "usage: <usage of the current command>" to err() and returns 2.
    int usage();
    // Prints "marlix: <message>" to err() and returns 1.
    int fail(std::string_view message);

    // Set by `exit`.
    bool exit_requested() const { return exit_requested_; }
    int exit_status() const { return exit_status_; }
    void request_exit(int status);
    int last_status() const { return last_status_; }

    // Kernel console lines (dmesg -n) arrive here; lines printed on another thread are held
    // until the console is between commands, so output is never interleaved mid-line.
    void kernel_console_line(std::string_view line);
    void flush_kernel_console();

  private:
    std::ostream *out_;
    std::ostream *err_;
    std::ostream *console_out_;  // kernel console lines bypass redirection
    Options options_;
    const Command *current_ = nullptr;
    bool exit_requested_ = false;
    int exit_status_ = 0;
    int last_status_ = 0;
    std::thread::id thread_;
    std::mutex pending_mutex_;
    std::vector<std::string> pending_lines_;
};

// ---- The emulated host ------------------------------------------------------------------------

// Boots the kernel (its console mirror feeding `console`), the stack and the software HCA;
// halts them all, unloading any module left loaded, when destroyed. One at a time.
class Host {
  public:
    explicit Host(Console &console);
    ~Host();
    Host(const Host &) = delete;
    Host &operator=(const Host &) = delete;
};

// Stops the virtual clock ticking with wall time (`clock run`); the host does so before it halts,
// so the clock is manual again on every boot.
void stop_clock();

// The built-in default scenario (tools/marlix/scenarios/default.marlix).
std::string_view default_scenario();

// The whole program: argument parsing and the modes. Used by main() and by tests.
int main(int argc, char **argv, std::ostream &out, std::ostream &err);

}  // namespace marlix::console
