// Flags as perftest reads them (getopt_long): short options may be clustered (-aF) and take their
// value attached (-s64) or as the next word; long options take --name=value or --name value.
#include "perftest/options.hpp"

#include <charconv>
#include <ostream>

namespace marlix::perftest {

const std::vector<TestKind> &all_tests() {
    static const std::vector<TestKind> tests = {
        {"ib_send_bw", Verb::Send, Kind::Bandwidth},     {"ib_send_lat", Verb::Send, Kind::Latency},
        {"ib_write_bw", Verb::Write, Kind::Bandwidth},   {"ib_write_lat", Verb::Write, Kind::Latency},
        {"ib_read_bw", Verb::Read, Kind::Bandwidth},     {"ib_read_lat", Verb::Read, Kind::Latency},
        {"ib_atomic_bw", Verb::Atomic, Kind::Bandwidth}, {"ib_atomic_lat", Verb::Atomic, Kind::Latency},
    };
    return tests;
}

const TestKind *find_test(const std::string &command) {
    for (const TestKind &t : all_tests())
        if (command == t.command) return &t;
    return nullptr;
}

const char *connection_name(Connection c) {
    switch (c) {
        case Connection::RC:
            return "RC";
        case Connection::UC:
            return "UC";
        case Connection::UD:
            return "UD";
    }
    return "?";
}

namespace {

struct OptionSpec {
    char short_name;  // 0: long only
    const char *long_name;
    bool takes_value;
};

constexpr OptionSpec kSpecs[] = {
    {'d', "ib-dev", true},      {'i', "ib-port", true},     {'s', "size", true},
    {'n', "iters", true},       {'a', "all", false},        {'D', "duration", true},
    {'c', "connection", true},  {'q', "qp", true},          {'t', "tx-depth", true},
    {'r', "rx-depth", true},    {'I', "inline_size", true}, {'e', "events", false},
    {'u', "qp_timeout", true},  {'m', "mtu", true},         {'Q', "cq-mod", true},
    {'A', "atomic_type", true}, {'F', "CPU-freq", false},   {'h', "help", false},
    {0, "report_gbits", false}, {0, "out_json", true},      {0, "out_csv", true},
    {0, "direct", false},       {0, "verify", false},       {0, "progress", false},
};

const OptionSpec *find_short(char c) {
    for (const OptionSpec &s : kSpecs)
        if (s.short_name == c) return &s;
    return nullptr;
}

const OptionSpec *find_long(std::string_view name) {
    for (const OptionSpec &s : kSpecs)
        if (name == s.long_name) return &s;
    return nullptr;
}

template <class T>
bool number(const std::string &text, T &value) {
    auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    return ec == std::errc() && end == text.data() + text.size() && !text.empty();
}

// Sizes may carry a K or M suffix, as perftest accepts ("-s 64K").
bool size_value(std::string text, uint64_t &value) {
    uint64_t scale = 1;
    if (!text.empty() && (text.back() == 'K' || text.back() == 'k'))
        scale = 1024, text.pop_back();
    else if (!text.empty() && (text.back() == 'M' || text.back() == 'm'))
        scale = 1024 * 1024, text.pop_back();
    if (!number(text, value)) return false;
    if (value > UINT64_MAX / scale) return false;
    value *= scale;
    return true;
}

class Parser {
  public:
    Parser(const TestKind &test, Options &o, std::ostream &err) : test_(test), o_(o), err_(err) {}

    // 0 or the exit status of the first bad value.
    int apply(const OptionSpec &spec, const std::string &value) {
        const std::string &name = spec.long_name;
        auto bad = [&](const std::string &what) {
            err_ << " " << what << "\n";
            return 2;
        };
        if (name == "ib-dev") {
            o_.device = value;
        } else if (name == "ib-port") {
            if (!number(value, o_.port) || o_.port < 1 || o_.port > 255)
                return bad("Invalid port number: " + value);
        } else if (name == "size") {
            if (!size_value(value, o_.size) || o_.size < 1)
                return bad("Invalid message size: " + value + " (a number of bytes, at least 1)");
            o_.size_set = true;
        } else if (name == "iters") {
            if (!number(value, o_.iters) || o_.iters < 1)
                return bad("Invalid number of iterations: " + value + " (at least 1)");
            o_.iters_set = true;
        } else if (name == "all") {
            o_.all_sizes = true;
        } else if (name == "duration") {
            if (!number(value, o_.duration) || o_.duration < 1)
                return bad("Invalid duration: " + value + " (seconds, at least 1)");
        } else if (name == "connection") {
            if (value == "RC")
                o_.connection = Connection::RC;
            else if (value == "UC")
                o_.connection = Connection::UC;
            else if (value == "UD")
                o_.connection = Connection::UD;
            else
                return bad("Invalid connection type: " + value + " (RC, UC or UD)");
        } else if (name == "qp") {
            if (!number(value, o_.qps) || o_.qps < 1 || o_.qps > kMaxQps)
                return bad("Invalid number of QPs: " + value + " (1 to " + std::to_string(kMaxQps) + ")");
        } else if (name == "tx-depth") {
            if (!number(value, o_.tx_depth) || o_.tx_depth < 1 || o_.tx_depth > kMaxDepth)
                return bad("Invalid TX depth: " + value + " (1 to " + std::to_string(kMaxDepth) + ")");
        } else if (name == "rx-depth") {
            if (!number(value, o_.rx_depth) || o_.rx_depth < 1 || o_.rx_depth > kMaxDepth)
                return bad("Invalid RX depth: " + value + " (1 to " + std::to_string(kMaxDepth) + ")");
        } else if (name == "inline_size") {
            if (!number(value, o_.inline_size) || o_.inline_size < 0)
                return bad("Invalid inline size: " + value);
            o_.inline_set = true;
        } else if (name == "events") {
            o_.events = true;
        } else if (name == "qp_timeout") {
            unsigned t = 0;
            if (!number(value, t) || t > 31) return bad("Invalid QP timeout: " + value + " (0 to 31)");
            o_.qp_timeout = uint8_t(t);
        } else if (name == "mtu") {
            int m = 0;
            if (!number(value, m)) m = -1;
            switch (m) {
                case 256:
                    o_.mtu = 1;
                    break;
                case 512:
                    o_.mtu = 2;
                    break;
                case 1024:
                    o_.mtu = 3;
                    break;
                case 2048:
                    o_.mtu = 4;
                    break;
                case 4096:
                    o_.mtu = 5;
                    break;
                default:
                    return bad("Invalid MTU: " + value + " (256, 512, 1024, 2048 or 4096)");
            }
        } else if (name == "cq-mod") {
            if (!number(value, o_.cq_mod) || o_.cq_mod < 1 || o_.cq_mod > 1024)
                return bad("Invalid CQ moderation: " + value + " (1 to 1024)");
        } else if (name == "atomic_type") {
            if (value == "FETCH_AND_ADD")
                o_.atomic_type = AtomicType::FetchAdd;
            else if (value == "CMP_AND_SWAP")
                o_.atomic_type = AtomicType::CompareSwap;
            else
                return bad("Invalid atomic type: " + value + " (CMP_AND_SWAP or FETCH_AND_ADD)");
        } else if (name == "CPU-freq") {
            o_.cpu_freq_warning_off = true;
        } else if (name == "help") {
            o_.help = true;
        } else if (name == "report_gbits") {
            o_.report_gbits = true;
        } else if (name == "out_json") {
            o_.out_json = value;
        } else if (name == "out_csv") {
            o_.out_csv = value;
        } else if (name == "direct") {
            o_.direct = true;
        } else if (name == "verify") {
            o_.verify = true;
        } else if (name == "progress") {
            o_.progress = true;
        }
        return 0;
    }

    int parse(const std::vector<std::string> &args) {
        const std::string cmd = test_.command;
        for (size_t i = 1; i < args.size(); ++i) {
            const std::string &a = args[i];
            if (a.size() > 2 && a.compare(0, 2, "--") == 0) {
                std::string name = a.substr(2), value;
                size_t eq = name.find('=');
                bool has_value = eq != std::string::npos;
                if (has_value) value = name.substr(eq + 1), name.resize(eq);
                const OptionSpec *spec = find_long(name);
                if (!spec) {
                    err_ << cmd << ": unrecognized option '" << a << "'\n";
                    return 2;
                }
                if (spec->takes_value && !has_value) {
                    if (i + 1 >= args.size()) {
                        err_ << cmd << ": option '--" << name << "' requires an argument\n";
                        return 2;
                    }
                    value = args[++i];
                } else if (!spec->takes_value && has_value) {
                    err_ << cmd << ": option '--" << name << "' doesn't allow an argument\n";
                    return 2;
                }
                if (int st = apply(*spec, value)) return st;
            } else if (a.size() > 1 && a[0] == '-' && a != "--") {
                for (size_t k = 1; k < a.size(); ++k) {
                    const OptionSpec *spec = find_short(a[k]);
                    if (!spec) {
                        err_ << cmd << ": invalid option -- '" << a[k] << "'\n";
                        return 2;
                    }
                    if (!spec->takes_value) {
                        if (int st = apply(*spec, "")) return st;
                        continue;
                    }
                    std::string value;
                    if (k + 1 < a.size()) {
                        value = a.substr(k + 1);
                    } else if (i + 1 < args.size()) {
                        value = args[++i];
                    } else {
                        err_ << cmd << ": option requires an argument -- '" << a[k] << "'\n";
                        return 2;
                    }
                    if (int st = apply(*spec, value)) return st;
                    break;
                }
            } else {
                // perftest's last operand is the server's name; here both sides are in this host.
                err_ << cmd << ": unexpected argument '" << a
                     << "': the server and the client both run in this host (-d names the client's device)\n";
                return 2;
            }
        }
        return 0;
    }

  private:
    const TestKind &test_;
    Options &o_;
    std::ostream &err_;
};

}  // namespace

int parse_options(const TestKind &test, const std::vector<std::string> &args, Options &o, std::ostream &err) {
    Parser parser(test, o, err);
    if (int st = parser.parse(args)) return st;
    if (o.help) return 0;

    const bool lat = test.kind == Kind::Latency;
    auto refuse = [&](const std::string &message) {
        err << " " << message << "\n";
        return 1;
    };
    // Defaults of the tool.
    if (!o.size_set) o.size = test.verb == Verb::Atomic ? 8 : lat ? 2 : 65536;
    if (!o.iters_set) o.iters = lat ? 1000 : 5000;
    if (o.tx_depth == 0) o.tx_depth = lat ? 1 : 128;
    if (o.inline_size < 0)
        o.inline_size = lat && (test.verb == Verb::Send || test.verb == Verb::Write) ? 220 : 0;

    // Combinations the tests cannot run.
    if (o.connection == Connection::UD && test.verb != Verb::Send)
        return refuse("UD connection only possible in SEND verb");
    if (o.connection == Connection::UC && (test.verb == Verb::Read || test.verb == Verb::Atomic))
        return refuse("UC connection not possible in READ/ATOMIC verbs");
    if (test.verb == Verb::Atomic && o.size != 8)
        return refuse("Message size for atomic operations must be 8 bytes (asked for " +
                      std::to_string(o.size) + ")");
    if (o.all_sizes && o.size_set && test.verb != Verb::Atomic)
        return refuse("Use either -a (all sizes) or -s (one size), not both");
    if (o.duration && o.iters_set) return refuse("Use either -D (duration) or -n (iterations), not both");
    if (o.progress && !o.duration)
        return refuse("--progress reports once a second of a -D run; add -D SECONDS");
    if (o.size > kMaxSize) return refuse("Max message size is " + std::to_string(kMaxSize) + " bytes");
    if (o.inline_size > 0 && (test.verb == Verb::Read || test.verb == Verb::Atomic))
        return refuse("Inline data (-I) is only possible in SEND and WRITE verbs");
    if (lat && o.qps > 1) return refuse("Latency tests run on one QP (-q 1)");
    // Latency tests keep one request in flight whatever -t says, as perftest does.
    if (o.events && test.verb == Verb::Write && lat)
        return refuse("Events are not possible in WRITE latency test: it watches memory, not a CQ");
    if (test.kind == Kind::Bandwidth && o.cq_mod > o.tx_depth) o.cq_mod = o.tx_depth;
    return 0;
}

std::vector<uint64_t> sizes_of(const TestKind &test, const Options &o, uint32_t mtu_bytes) {
    if (!o.all_sizes || test.verb == Verb::Atomic) return {o.size};
    std::vector<uint64_t> sizes;
    uint64_t max = kMaxAllSize;
    if (o.connection == Connection::UD) max = mtu_bytes;
    for (uint64_t s = 2; s <= max; s *= 2) sizes.push_back(s);
    return sizes;
}

std::string usage_line(const TestKind &test) {
    return std::string(test.command) +
           " [-d DEV] [-i PORT] [-s SIZE | -a] [-n ITERS | -D SECONDS] [-c RC|UC|UD] [-q QPS] [-t TX_DEPTH]"
           " [-I INLINE_SIZE] [-e] [-u TIMEOUT] [--report_gbits] [--out_json FILE] [--out_csv FILE] "
           "[--direct]"
           " [--verify] [--progress] [-F] [-h]";
}

std::string usage_text(const TestKind &test) {
    const bool lat = test.kind == Kind::Latency;
    std::string s;
    s += "Usage:\n";
    s += std::string("  ") + test.command +
         "            start the server and the client of the test in this host\n";
    s += "\nOptions:\n";
    s += "  -a, --all                  Run sizes from 2 till 2^23\n";
    if (test.verb == Verb::Atomic)
        s += "  -A, --atomic_type=<type>   type of atomic operation from {CMP_AND_SWAP,FETCH_AND_ADD} "
             "(default FETCH_AND_ADD)\n";
    s += "  -c, --connection=<RC/UC/UD>  connection type RC/UC/UD (default RC)\n";
    s += "  -d, --ib-dev=<dev>         use IB device <dev> for the client (default first device found); the "
         "server uses the other\n";
    s += "  -D, --duration             Run test for a customized period of seconds\n";
    s += "  -e, --events               Sleep on CQ events (default poll)\n";
    s += "  -F, --CPU-freq             Do not show a warning even if cpufreq_ondemand module is loaded\n";
    s += "  -h, --help                 Show this help screen\n";
    s += "  -i, --ib-port=<port>       Use port <port> of IB device (default 1)\n";
    s += "  -I, --inline_size=<size>   Max size of message to be sent in inline (default " +
         std::string(lat && (test.verb == Verb::Send || test.verb == Verb::Write) ? "220" : "0") + ")\n";
    s += "  -m, --mtu=<mtu>            MTU size : 256 - 4096 (default port mtu)\n";
    s += "  -n, --iters=<iters>        Number of exchanges (at least 1, default " +
         std::string(lat ? "1000" : "5000") + ")\n";
    s += "  -q, --qp=<num of qp's>     Num of qp's(default 1)\n";
    if (!lat)
        s += "  -Q, --cq-mod               Generate Cqe only after <--cq-mod> completion (default 100)\n";
    if (test.verb == Verb::Send) s += "  -r, --rx-depth=<dep>       Rx queue size (default 512)\n";
    s += "  -s, --size=<size>          Size of message to exchange (default " +
         std::string(test.verb == Verb::Atomic ? "8"
                     : lat                     ? "2"
                                               : "65536") +
         ")\n";
    s += "  -t, --tx-depth=<dep>       Size of tx queue (default " + std::string(lat ? "1" : "128") + ")\n";
    s += "  -u, --qp_timeout=<timeout> QP timeout, timeout value is 4 usec * 2 ^(timeout), default 14\n";
    s += "      --report_gbits         Report Max/Average BW of test in Gbit/sec (instead of MB/sec)\n";
    s += "      --out_json=<file>      Write the results to <file> in JSON, one record per size\n";
    s += "      --out_csv=<file>       Write the results to <file> as comma-separated values\n";
    s += "      --direct               Run on the HCA's VAPI without the adaptor module\n";
    s += "      --verify               Report the check of the bytes moved (a mismatch always fails the "
         "test)\n";
    s += "      --progress             With -D, print the running result once a second\n";
    return s;
}

}  // namespace marlix::perftest
