// engine, step, run and link: choosing and stepping the software HCA's engine, and the links'
// packet loss and delay, from the console.
#include <charconv>

#include "console.hpp"
#include "marlix/softhca.hpp"

namespace marlix::console {
namespace {

bool parse_number(const std::string &text, unsigned long &out) {
    auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), out);
    return ec == std::errc() && end == text.data() + text.size();
}

const char *engine_name(softhca::EngineKind kind) {
    return kind == softhca::EngineKind::Stepped ? "stepped" : "threaded";
}

// engine [threaded|stepped]: show the engine, or reboot the adapters with another one.
int cmd_engine(Console &c, const std::vector<std::string> &args) {
    if (args.size() == 1) {
        c.out() << engine_name(softhca::engine_kind()) << "\n";
        return 0;
    }
    if (args.size() != 2 || (args[1] != "threaded" && args[1] != "stepped")) return c.usage();
    // The engine is chosen when the adapters boot; rebooting them drops everything on them.
    for (const std::string &d : softhca::device_names()) {
        if (softhca::is_open(d)) {
            c.err() << "engine: " << d << " is open\n";
            return 1;
        }
    }
    softhca::Options options;
    options.engine = args[1] == "stepped" ? softhca::EngineKind::Stepped : softhca::EngineKind::Threaded;
    softhca::boot(options);
    return 0;
}

// step [N]: N rounds of the stepped engine; prints how much work they did.
int cmd_step(Console &c, const std::vector<std::string> &args) {
    unsigned long n = 1;
    if (args.size() > 2 || (args.size() == 2 && (!parse_number(args[1], n) || n == 0))) return c.usage();
    if (softhca::engine_kind() != softhca::EngineKind::Stepped) {
        c.err() << "step: the engine is threaded\n";
        return 1;
    }
    size_t work = 0;
    for (unsigned long i = 0; i < n; ++i) work += softhca::step();
    c.out() << "step: " << work << " done\n";
    return 0;
}

// run: until the adapters have nothing left to do now.
int cmd_run(Console &c, const std::vector<std::string> &args) {
    if (args.size() != 1) return c.usage();
    size_t rounds = softhca::run_until_idle();
    if (softhca::engine_kind() == softhca::EngineKind::Stepped) c.out() << "run: " << rounds << " rounds\n";
    return 0;
}

// link DEVICE PORT drop N | drop all | delay MS | clear
int cmd_link(Console &c, const std::vector<std::string> &args) {
    if (args.size() < 4 || args.size() > 5) return c.usage();
    unsigned long port = 0, n = 0;
    if (!parse_number(args[2], port)) return c.usage();
    softhca::LinkFaults f;
    if (args[3] == "clear" && args.size() == 4) {
        // no fault: the defaults
    } else if (args[3] == "drop" && args.size() == 5 && args[4] == "all") {
        f.drop_all = true;
    } else if (args[3] == "drop" && args.size() == 5 && parse_number(args[4], n)) {
        f.drop_next = uint32_t(n);
    } else if (args[3] == "delay" && args.size() == 5 && parse_number(args[4], n)) {
        f.delay_ms = uint32_t(n);
    } else {
        return c.usage();
    }
    if (!softhca::set_link_faults(args[1], int(port), f)) {
        c.err() << "link: no such port: " << args[1] << " " << args[2] << "\n";
        return 1;
    }
    return 0;
}

MARLIX_CONSOLE_COMMAND(engine, "engine", "engine [threaded|stepped]",
                       "Show the software HCA's engine, or reboot the adapters with another one.", cmd_engine)
MARLIX_CONSOLE_COMMAND(step, "step", "step [N]", "Run N rounds of the stepped engine (default 1).", cmd_step)
MARLIX_CONSOLE_COMMAND(run, "run", "run", "Let the adapters work until they have nothing left to do now.",
                       cmd_run)
MARLIX_CONSOLE_COMMAND(link, "link", "link DEVICE PORT drop N|drop all|delay MS|clear",
                       "Lose or delay packets on the link of a port.", cmd_link)

}  // namespace
}  // namespace marlix::console
