// The command line of the traffic tools: perftest's flags and their defaults, and the checks that
// refuse impossible combinations before anything is opened.
#pragma once

#include <cstdint>
#include <iosfwd>
#include <string>
#include <vector>

#include "perftest/transport.hpp"

namespace marlix::perftest {

enum class Verb { Send, Write, Read, Atomic };
enum class Kind { Bandwidth, Latency };
enum class AtomicType { FetchAdd, CompareSwap };

struct TestKind {
    const char *command;  // "ib_write_bw"
    Verb verb;
    Kind kind;
};

// The eight tools, in the order help lists them.
const std::vector<TestKind> &all_tests();
const TestKind *find_test(const std::string &command);

constexpr uint64_t kMaxAllSize = 8u << 20;  // -a: 2 B .. 8 MiB
constexpr uint64_t kMaxSize = 1u << 30;
constexpr uint32_t kMaxDepth = 16384;  // the device's work requests per queue
constexpr int kMaxQps = 256;

struct Options {
    std::string device;  // -d; empty: the first device
    int port = 1;        // -i
    uint64_t size = 0;   // -s
    bool size_set = false;
    uint64_t iters = 0;  // -n (per QP)
    bool iters_set = false;
    bool all_sizes = false;                         // -a
    unsigned duration = 0;                          // -D seconds; 0: iteration mode
    Connection connection = Connection::RC;         // -c
    int qps = 1;                                    // -q
    uint32_t tx_depth = 0;                          // -t
    uint32_t rx_depth = 512;                        // -r
    int inline_size = -1;                           // -I; -1: the tool's default
    bool inline_set = false;                        // -I was given
    bool events = false;                            // -e
    uint8_t qp_timeout = 14;                        // -u
    int mtu = 0;                                    // -m; 0: the port's
    uint32_t cq_mod = 100;                          // -Q
    AtomicType atomic_type = AtomicType::FetchAdd;  // -A
    bool report_gbits = false;                      // --report_gbits
    bool cpu_freq_warning_off = false;              // -F (accepted; there is no frequency to check)
    bool help = false;                              // -h
    std::string out_json;                           // --out_json FILE
    std::string out_csv;                            // --out_csv FILE
    bool direct = false;                            // --direct: VAPI without the module
    bool verify = false;                            // --verify: report the data check
    bool progress = false;                          // --progress: a line per second with -D
};

// Parses args (args[0] is the command). Errors go to `err` in getopt's and perftest's words;
// returns 0, or the status to exit with (2 for a malformed command line, 1 for a combination
// the test cannot run).
int parse_options(const TestKind &test, const std::vector<std::string> &args, Options &options,
                  std::ostream &err);

// The help text (-h).
std::string usage_text(const TestKind &test);
// One line for the console's help.
std::string usage_line(const TestKind &test);

// The message sizes a run covers.
std::vector<uint64_t> sizes_of(const TestKind &test, const Options &options, uint32_t mtu_bytes);

const char *connection_name(Connection c);

}  // namespace marlix::perftest
