// The marlix program: options, modes and the interactive shell.
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <optional>
#include <string>
#include <unistd.h>

#include <readline/history.h>
#include <readline/readline.h>

#include "console.hpp"

namespace marlix::console {
namespace {

constexpr const char *kUsage =
    "usage: marlix [-k] [-x] [--real-time] [run FILE | -c 'CMD; CMD' | shell]\n"
    "  (no mode)     run the built-in default scenario, echoing each command\n"
    "  run FILE      run a script of console commands\n"
    "  -c 'CMD; CMD' run the commands given\n"
    "  shell         interactive shell with line editing and history\n"
    "  -k            keep going after a failed command\n"
    "  -x            echo each command (\"marlix# CMD\") before its output\n"
    "  --real-time   run the kernel on the real clock instead of the virtual one\n";

std::string history_file() {
    const char *home = std::getenv("HOME");
    return home ? std::string(home) + "/.marlix_history" : std::string();
}

int run_shell(Console &console) {
    bool tty = isatty(STDIN_FILENO);
    std::string history = history_file();
    if (tty && !history.empty()) read_history(history.c_str());
    while (!console.exit_requested()) {
        std::string line;
        if (tty) {
            console.flush_kernel_console();
            char *raw = readline("marlix# ");
            if (!raw) {
                console.out() << "\n";
                break;
            }
            line = raw;
            std::free(raw);
            if (line.find_first_not_of(" \t") != std::string::npos) add_history(line.c_str());
        } else if (!std::getline(std::cin, line)) {
            break;
        }
        console.run_text(line);
    }
    if (tty && !history.empty()) write_history(history.c_str());
    return console.exit_requested() ? console.exit_status() : console.last_status();
}

}  // namespace

int main(int argc, char **argv, std::ostream &out, std::ostream &err) {
    Options options;
    enum class Mode { Scenario, File, Commands, Shell } mode = Mode::Scenario;
    std::string operand;
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        if (arg == "--real-time") {
            options.real_time = true;
        } else if (arg == "-h" || arg == "--help") {
            out << kUsage;
            return 0;
        } else if (arg == "-c" || arg == "run") {
            if (i + 1 >= argc || mode != Mode::Scenario) {
                err << kUsage;
                return 2;
            }
            mode = arg == "-c" ? Mode::Commands : Mode::File;
            operand = argv[++i];
        } else if (arg == "shell" && mode == Mode::Scenario) {
            mode = Mode::Shell;
        } else if (arg.size() > 1 && arg[0] == '-' && arg[1] != '-' &&
                   arg.find_first_not_of("kx", 1) == std::string::npos) {
            if (arg.find('k') != std::string::npos) options.keep_going = true;
            if (arg.find('x') != std::string::npos) options.echo = true;
        } else {
            err << "marlix: " << arg << ": unknown option or mode\n" << kUsage;
            return 2;
        }
    }
    if (mode == Mode::Scenario) options.echo = true;
    if (mode == Mode::Shell) options.interactive = true;

    Console console(out, err, options);
    int status;
    {
        Host host(console);
        switch (mode) {
            case Mode::Scenario:
                status = console.run_text(default_scenario());
                break;
            case Mode::File:
                status = console.run_file(operand);
                break;
            case Mode::Commands:
                status = console.run_text(operand);
                break;
            case Mode::Shell:
            default:
                status = run_shell(console);
                break;
        }
    }
    console.flush_kernel_console();
    out << std::flush;
    return status;
}

}  // namespace marlix::console
