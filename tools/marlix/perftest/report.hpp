// What the tools print and write: perftest's banner, address lines and result tables, and the
// same results as JSON (one record per size) and CSV.
#pragma once

#include <cstdint>
#include <iosfwd>
#include <string>
#include <vector>

#include "perftest/options.hpp"

namespace marlix::perftest {

struct BwResult {
    uint64_t bytes = 0;
    uint64_t iterations = 0;  // per QP
    double bw_peak = 0;       // MB/sec (2^20 bytes) or Gb/sec with --report_gbits
    double bw_average = 0;
    double msg_rate_mpps = 0;
};

struct LatResult {
    uint64_t bytes = 0;
    uint64_t iterations = 0;
    double t_min = 0, t_max = 0, t_typical = 0, t_avg = 0, t_stdev = 0, p99 = 0, p99_9 = 0;  // usec
};

// What the banner shows about a run.
struct RunInfo {
    const TestKind *test = nullptr;
    Path path = Path::Direct;
    std::string client_device, server_device;
    uint32_t mtu_bytes = 0;
    uint32_t outstanding_reads = 0;
    bool atomic_operands = true;  // the path passes atomic operands to the device
};

struct AddressLine {
    uint16_t lid = 0;
    uint32_t qpn = 0, psn = 0, rkey = 0;
    uint64_t vaddr = 0;
};

// "RDMA_Write BW Test", "Send Latency Test", "Atomic FETCH_AND_ADD BW Test", ...
std::string test_title(const TestKind &test, const Options &options);

void print_banner(std::ostream &out, const RunInfo &info, const Options &options);
// The local and remote address lines (one pair per QP) and the dashed line after them.
void print_addresses(std::ostream &out, const TestKind &test, const std::vector<AddressLine> &local,
                     const std::vector<AddressLine> &remote);
void print_bw_header(std::ostream &out, const Options &options);
void print_bw_row(std::ostream &out, const BwResult &r);
void print_lat_header(std::ostream &out);
void print_lat_row(std::ostream &out, const LatResult &r);
void print_dashes(std::ostream &out);

// Writes the JSON document / CSV table; false with a message when the file cannot be written.
bool write_json(const std::string &path, const RunInfo &info, const Options &options,
                const std::vector<BwResult> &bw, const std::vector<LatResult> &lat, bool interrupted,
                std::string &error);
bool write_csv(const std::string &path, Kind kind, const Options &options, const std::vector<BwResult> &bw,
               const std::vector<LatResult> &lat, std::string &error);

// The latency figures of a set of samples (nanoseconds; sorted in place).
LatResult latency_stats(uint64_t bytes, uint64_t iterations, std::vector<uint64_t> &samples_ns, size_t count);

}  // namespace marlix::perftest
