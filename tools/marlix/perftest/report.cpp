// Banner, tables, JSON and CSV of the traffic tools.
#include "perftest/report.hpp"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <ostream>

#include <nlohmann/json.hpp>

namespace marlix::perftest {

namespace {

constexpr const char *kDashes =
    "---------------------------------------------------------------------------------------\n";

std::string format(const char *fmt, auto... args) {
    char buf[512];
    int n = std::snprintf(buf, sizeof buf, fmt, args...);
    return std::string(buf, n < 0 ? 0 : std::min<size_t>(size_t(n), sizeof buf - 1));
}

const char *on_off(bool b) {
    return b ? "ON" : "OFF";
}

}  // namespace

std::string test_title(const TestKind &test, const Options &o) {
    std::string verb;
    switch (test.verb) {
        case Verb::Send:
            verb = "Send";
            break;
        case Verb::Write:
            verb = "RDMA_Write";
            break;
        case Verb::Read:
            verb = "RDMA_Read";
            break;
        case Verb::Atomic:
            verb = o.atomic_type == AtomicType::FetchAdd ? "Atomic FETCH_AND_ADD" : "Atomic CMP_AND_SWAP";
            break;
    }
    return verb + (test.kind == Kind::Bandwidth ? " BW Test" : " Latency Test");
}

void print_dashes(std::ostream &out) {
    out << kDashes;
}

void print_banner(std::ostream &out, const RunInfo &info, const Options &o) {
    const TestKind &t = *info.test;
    const std::string title = test_title(t, o);
    out << kDashes;
    out << std::string(title.size() < 40 ? 20 : 10, ' ') << title << "\n";
    out << format(" Dual-port       : OFF\t\tDevice         : %s\n", info.client_device.c_str());
    out << format(" Number of qps   : %d\t\tTransport type : IB\n", o.qps);
    out << format(" Connection type : %s\t\tUsing SRQ      : OFF\n", connection_name(o.connection));
    out << format(" Server device   : %s\n", info.server_device.c_str());
    out << format(" Path            : %s\n",
                  info.path == Path::Direct ? "direct (VAPI, no module)" : "adaptor (provider \"mlx\")");
    out << format(" TX depth        : %u\n", t.kind == Kind::Latency ? 1u : o.tx_depth);
    if (t.verb == Verb::Send) out << format(" RX depth        : %u\n", o.rx_depth);
    if (t.kind == Kind::Bandwidth) out << format(" CQ Moderation   : %u\n", o.cq_mod);
    out << format(" Mtu             : %u[B]\n", info.mtu_bytes);
    out << " Link type       : IB\n";
    if (t.verb == Verb::Read || t.verb == Verb::Atomic)
        out << format(" Outstand reads  : %u\n", info.outstanding_reads);
    if (t.verb == Verb::Atomic && !info.atomic_operands)
        out << " Atomic operands : dropped by the adaptor (the device adds 0 / compares with 0)\n";
    out << format(" Max inline data : %d[B]\n", o.inline_size);
    out << format(" Using events    : %s\n", on_off(o.events));
    out << " rdma_cm QPs\t : OFF\n";
    out << " Data ex. method : in-process\n";
    out << kDashes;
}

void print_addresses(std::ostream &out, const TestKind &test, const std::vector<AddressLine> &local,
                     const std::vector<AddressLine> &remote) {
    const bool rdma = test.verb != Verb::Send;
    auto line = [&](const char *which, const AddressLine &a) {
        out << format(" %s address: LID %#04x QPN %#06x PSN %#08x", which, a.lid, a.qpn, a.psn);
        if (rdma) out << format(" RKey %#08x VAddr %#016llx", a.rkey, (unsigned long long)a.vaddr);
        out << "\n";
    };
    for (const AddressLine &a : local) line("local", a);
    for (const AddressLine &a : remote) line("remote", a);
    out << kDashes;
}

void print_bw_header(std::ostream &out, const Options &o) {
    const char *unit = o.report_gbits ? "Gb/sec" : "MB/sec";
    out << format(" #bytes     #iterations    BW peak[%s]    BW average[%s]   MsgRate[Mpps]\n", unit, unit);
}

void print_bw_row(std::ostream &out, const BwResult &r) {
    out << format(" %-7llu    %-10llu       %-7.2f            %-7.2f\t\t   %-7.6f\n",
                  (unsigned long long)r.bytes, (unsigned long long)r.iterations, r.bw_peak, r.bw_average,
                  r.msg_rate_mpps);
}

void print_lat_header(std::ostream &out) {
    out << " #bytes #iterations    t_min[usec]    t_max[usec]  t_typical[usec]    t_avg[usec]    "
           "t_stdev[usec]   "
           "99% percentile[usec]   99.9% percentile[usec] \n";
}

void print_lat_row(std::ostream &out, const LatResult &r) {
    out << format(
        " %-7llu %-10llu     %-7.2f        %-7.2f      %-7.2f  \t       %-7.2f     \t%-7.2f\t\t%-7.2f  "
        "\t\t%-7.2f\n",
        (unsigned long long)r.bytes, (unsigned long long)r.iterations, r.t_min, r.t_max, r.t_typical, r.t_avg,
        r.t_stdev, r.p99, r.p99_9);
}

LatResult latency_stats(uint64_t bytes, uint64_t iterations, std::vector<uint64_t> &samples, size_t count) {
    LatResult r;
    r.bytes = bytes;
    r.iterations = iterations;
    if (count == 0) return r;
    std::sort(samples.begin(), samples.begin() + long(count));
    double sum = 0, sq = 0;
    for (size_t i = 0; i < count; ++i) sum += double(samples[i]);
    const double avg = sum / double(count);
    for (size_t i = 0; i < count; ++i) sq += (double(samples[i]) - avg) * (double(samples[i]) - avg);
    auto us = [](double ns) { return ns / 1000.0; };
    auto pct = [&](double p) {
        size_t i = size_t(std::ceil(p * double(count))) - 1;
        return double(samples[std::min(i, count - 1)]);
    };
    r.t_min = us(double(samples[0]));
    r.t_max = us(double(samples[count - 1]));
    r.t_typical = us(double(samples[count / 2]));
    r.t_avg = us(avg);
    r.t_stdev = us(std::sqrt(sq / double(count)));
    r.p99 = us(pct(0.99));
    r.p99_9 = us(pct(0.999));
    return r;
}

bool write_json(const std::string &path, const RunInfo &info, const Options &o,
                const std::vector<BwResult> &bw, const std::vector<LatResult> &lat, bool interrupted,
                std::string &error) {
    using nlohmann::json;
    json doc;
    doc["test"] = info.test->command;
    doc["title"] = test_title(*info.test, o);
    doc["path"] = info.path == Path::Direct ? "direct" : "adaptor";
    doc["device"] = info.client_device;
    doc["server_device"] = info.server_device;
    doc["connection"] = connection_name(o.connection);
    doc["qps"] = o.qps;
    doc["tx_depth"] = info.test->kind == Kind::Latency ? 1u : o.tx_depth;
    doc["mtu"] = info.mtu_bytes;
    doc["inline_size"] = o.inline_size;
    doc["events"] = o.events;
    doc["interrupted"] = interrupted;
    json results = json::array();
    if (info.test->kind == Kind::Bandwidth) {
        doc["units"] = o.report_gbits ? "Gb/sec" : "MB/sec";
        for (const BwResult &r : bw)
            results.push_back({{"bytes", r.bytes},
                               {"iterations", r.iterations},
                               {"bw_peak", r.bw_peak},
                               {"bw_average", r.bw_average},
                               {"msg_rate_mpps", r.msg_rate_mpps}});
    } else {
        doc["units"] = "usec";
        for (const LatResult &r : lat)
            results.push_back({{"bytes", r.bytes},
                               {"iterations", r.iterations},
                               {"t_min", r.t_min},
                               {"t_max", r.t_max},
                               {"t_typical", r.t_typical},
                               {"t_avg", r.t_avg},
                               {"t_stdev", r.t_stdev},
                               {"p99", r.p99},
                               {"p99_9", r.p99_9}});
    }
    doc["results"] = results;
    std::ofstream f(path);
    if (!f) {
        error = "cannot write " + path;
        return false;
    }
    f << doc.dump(2) << "\n";
    return bool(f);
}

bool write_csv(const std::string &path, Kind kind, const Options &o, const std::vector<BwResult> &bw,
               const std::vector<LatResult> &lat, std::string &error) {
    std::ofstream f(path);
    if (!f) {
        error = "cannot write " + path;
        return false;
    }
    if (kind == Kind::Bandwidth) {
        const char *u = o.report_gbits ? "gb_sec" : "mb_sec";
        f << "bytes,iterations,bw_peak_" << u << ",bw_average_" << u << ",msg_rate_mpps\n";
        for (const BwResult &r : bw)
            f << format("%llu,%llu,%.2f,%.2f,%.6f\n", (unsigned long long)r.bytes,
                        (unsigned long long)r.iterations, r.bw_peak, r.bw_average, r.msg_rate_mpps);
    } else {
        f << "bytes,iterations,t_min_usec,t_max_usec,t_typical_usec,t_avg_usec,t_stdev_usec,p99_usec,p99_9_"
             "usec\n";
        for (const LatResult &r : lat)
            f << format("%llu,%llu,%.2f,%.2f,%.2f,%.2f,%.2f,%.2f,%.2f\n", (unsigned long long)r.bytes,
                        (unsigned long long)r.iterations, r.t_min, r.t_max, r.t_typical, r.t_avg, r.t_stdev,
                        r.p99, r.p99_9);
    }
    return bool(f);
}

}  // namespace marlix::perftest
