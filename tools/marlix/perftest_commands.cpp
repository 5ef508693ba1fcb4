// The traffic tools: ib_send_bw, ib_send_lat, ib_write_bw, ib_write_lat, ib_read_bw, ib_read_lat,
// ib_atomic_bw, ib_atomic_lat (perftest's flags and output), and memcpy_bw beside them.
#include "console.hpp"
#include "perftest/run.hpp"

namespace marlix::console {
namespace {

struct PerftestCommands {
    PerftestCommands() {
        for (const perftest::TestKind &t : perftest::all_tests()) {
            const perftest::TestKind *test = &t;
            std::string help = std::string(t.kind == perftest::Kind::Bandwidth ? "Bandwidth" : "Latency") +
                               " of " +
                               (t.verb == perftest::Verb::Send    ? "sends"
                                : t.verb == perftest::Verb::Write ? "RDMA writes"
                                : t.verb == perftest::Verb::Read  ? "RDMA reads"
                                                                  : "atomic operations") +
                               " between the two devices, in perftest's layout (-h for the options).";
            Registry::global().add({t.command, perftest::usage_line(t), help,
                                    [test](Console &c, const std::vector<std::string> &args) {
                                        return perftest::run_tool(*test, args, c.out(), c.err());
                                    }});
        }
        Registry::global().add({"memcpy_bw", perftest::memcpy_usage(),
                                "Bandwidth of memcpy at the tools' message sizes, on this machine.",
                                [](Console &c, const std::vector<std::string> &args) {
                                    return perftest::run_memcpy(args, c.out(), c.err());
                                }});
    }
};

const PerftestCommands registered;

}  // namespace
}  // namespace marlix::console
