// The interpreter: command registry, shell-style parsing, redirection and the run loops.
#include "console.hpp"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <iostream>
#include <sstream>

#include "marlix/kernel.hpp"

namespace marlix::console {

// ---- Registry -------------------------------------------------------------------------------------

Registry &Registry::global() {
    static Registry registry;
    return registry;
}

void Registry::add(Command command) {
    std::string name = command.name;
    commands_.insert_or_assign(std::move(name), std::move(command));
}

const Command *Registry::find(std::string_view name) const {
    auto it = commands_.find(name);
    return it == commands_.end() ? nullptr : &it->second;
}

std::vector<const Command *> Registry::all() const {
    std::vector<const Command *> out;
    for (const auto &[name, command] : commands_) out.push_back(&command);
    return out;
}

// ---- Parsing --------------------------------------------------------------------------------------

namespace {

std::string_view trim(std::string_view s) {
    size_t b = s.find_first_not_of(" \t\r\n");
    if (b == std::string_view::npos) return {};
    size_t e = s.find_last_not_of(" \t\r\n");
    return s.substr(b, e - b + 1);
}

}  // namespace

bool parse(std::string_view text, std::vector<CommandLine> &commands, std::string &error) {
    CommandLine current;
    std::string word;
    bool in_word = false;
    size_t command_start = 0;

    auto end_word = [&] {
        if (in_word) current.words.push_back(Word{word, false});
        word.clear();
        in_word = false;
    };
    auto end_command = [&](size_t end) {
        end_word();
        if (!current.words.empty()) {
            current.source = std::string(trim(text.substr(command_start, end - command_start)));
            commands.push_back(std::move(current));
        }
        current = CommandLine{};
        command_start = end + 1;
    };

    for (size_t i = 0; i < text.size(); ++i) {
        char c = text[i];
        if (c == ' ' || c == '\t' || c == '\r') {
            end_word();
        } else if (c == '\n' || c == ';') {
            end_command(i);
        } else if (c == '#' && !in_word) {
            while (i + 1 < text.size() && text[i + 1] != '\n') ++i;
        } else if (c == '\'') {
            size_t close = text.find('\'', i + 1);
            if (close == std::string_view::npos) {
                error = "unexpected end of input while looking for matching `''";
                return false;
            }
            word.append(text.substr(i + 1, close - i - 1));
            in_word = true;
            i = close;
        } else if (c == '"') {
            in_word = true;
            size_t j = i + 1;
            for (; j < text.size() && text[j] != '"'; ++j) {
                if (text[j] == '\\' && j + 1 < text.size() && std::strchr("\"\\$`\n", text[j + 1])) {
                    ++j;
                    if (text[j] != '\n') word += text[j];
                } else {
                    word += text[j];
                }
            }
            if (j >= text.size()) {
                error = "unexpected end of input while looking for matching `\"'";
                return false;
            }
            i = j;
        } else if (c == '\\') {
            if (i + 1 >= text.size()) {
                error = "unexpected end of input after `\\'";
                return false;
            }
            ++i;
            if (text[i] != '\n') {  // backslash-newline joins lines
                word += text[i];
                in_word = true;
            }
        } else if (c == '>') {
            end_word();
            bool append = i + 1 < text.size() && text[i + 1] == '>';
            if (append) ++i;
            current.words.push_back(Word{append ? ">>" : ">", true});
        } else {
            word += c;
            in_word = true;
        }
    }
    end_command(text.size());
    return true;
}

// ---- Console ----------------------------------------------------------------------------------------

Console::Console(std::ostream &out, std::ostream &err, Options options)
    : out_(&out), err_(&err), console_out_(&out), options_(options), thread_(std::this_thread::get_id()) {}

Console::~Console() = default;

int Console::usage() {
    if (current_)
        err() << "usage: " << current_->usage << "\n";
    else
        err() << "usage: marlix [-k] [-x] [--real-time] [run FILE | -c 'CMD; CMD' | shell]\n";
    return 2;
}

int Console::fail(std::string_view message) {
    err() << "marlix: " << message << "\n";
    return 1;
}

void Console::request_exit(int status) {
    exit_requested_ = true;
    exit_status_ = status;
}

void Console::kernel_console_line(std::string_view line) {
    std::string text(line);
    if (text.empty() || text.back() != '\n') text += '\n';
    if (std::this_thread::get_id() == thread_) {
        flush_kernel_console();
        *console_out_ << text << std::flush;
        return;
    }
    std::lock_guard guard(pending_mutex_);
    pending_lines_.push_back(std::move(text));
}

void Console::flush_kernel_console() {
    std::vector<std::string> lines;
    {
        std::lock_guard guard(pending_mutex_);
        lines.swap(pending_lines_);
    }
    for (const std::string &line : lines) *console_out_ << line;
    if (!lines.empty()) *console_out_ << std::flush;
}

int Console::execute(const std::vector<std::string> &args) {
    if (args.empty()) return 0;
    const Command *command = Registry::global().find(args[0]);
    if (!command) {
        err() << "marlix: " << args[0] << ": command not found\n";
        return 127;
    }
    const Command *outer = current_;
    current_ = command;
    int status = command->handler(*this, args);
    current_ = outer;
    return status;
}

namespace {

// Errors that bash reports when it opens the redirection target, before the command runs.
bool is_open_error(int error) {
    return error == ENOENT || error == EACCES || error == EPERM || error == EISDIR || error == ENOTDIR;
}

}  // namespace

int Console::run_command(const CommandLine &command) {
    std::vector<std::string> args;
    std::optional<std::string> target;
    for (size_t i = 0; i < command.words.size(); ++i) {
        const Word &w = command.words[i];
        if (!w.redirect) {
            args.push_back(w.text);
            continue;
        }
        if (i + 1 >= command.words.size() || command.words[i + 1].redirect) {
            std::string next = i + 1 < command.words.size() ? command.words[i + 1].text : "newline";
            err() << "marlix: syntax error near unexpected token `" << next << "'\n";
            return last_status_ = 2;
        }
        target = command.words[++i].text;
    }

    flush_kernel_console();
    if (options_.echo) out() << "marlix# " << command.source << "\n";

    int status;
    if (!target) {
        status = execute(args);
    } else if (!kernel::file_exists(*target)) {
        err() << "marlix: " << *target << ": " << std::strerror(ENOENT) << "\n";
        status = 1;
    } else {
        // The command's whole output goes to the file in one write, as echo does.
        std::ostringstream captured;
        std::ostream *saved = out_;
        out_ = &captured;
        status = execute(args);
        out_ = saved;
        std::string data = captured.str();
        if (!data.empty()) {
            long rc = kernel::write_file(*target, data);
            if (rc < 0) {
                int error = static_cast<int>(-rc);
                if (is_open_error(error))
                    err() << "marlix: " << *target << ": " << std::strerror(error) << "\n";
                else
                    err() << "marlix: " << (args.empty() ? "" : args[0])
                          << ": write error: " << std::strerror(error) << "\n";
                status = 1;
            }
        }
    }
    out() << std::flush;
    flush_kernel_console();
    return last_status_ = status;
}

int Console::run_text(std::string_view text) {
    int failure = 0;
    size_t pos = 0;
    // Line by line, so that a syntax error on one line does not hide the lines before it.
    while (pos < text.size() && !exit_requested_) {
        size_t nl = text.find('\n', pos);
        if (nl == std::string_view::npos) nl = text.size();
        std::string_view line = text.substr(pos, nl - pos);
        pos = nl + 1;

        std::vector<CommandLine> commands;
        std::string error;
        if (!parse(line, commands, error)) {
            if (options_.echo) out() << "marlix# " << trim(line) << "\n";
            err() << "marlix: syntax error: " << error << "\n";
            last_status_ = failure = 2;
            if (!options_.keep_going && !options_.interactive) return failure;
            continue;
        }
        for (const CommandLine &command : commands) {
            int status = run_command(command);
            if (exit_requested_) return exit_status_;
            if (status != 0) {
                failure = status;
                if (!options_.keep_going && !options_.interactive) return failure;
            }
        }
    }
    if (exit_requested_) return exit_status_;
    return options_.interactive ? last_status_ : failure;
}

int Console::run_file(const std::string &path) {
    std::ifstream in(path);
    if (!in) {
        err() << "marlix: " << path << ": " << std::strerror(errno ? errno : ENOENT) << "\n";
        return 127;
    }
    std::stringstream text;
    text << in.rdbuf();
    return run_text(text.str());
}

}  // namespace marlix::console
