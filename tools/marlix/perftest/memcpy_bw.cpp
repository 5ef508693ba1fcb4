// memcpy_bw: how fast this machine copies memory at each message size, measured the way the
// bandwidth tools measure, so that a plot can show the tools beside the copy they cannot beat (the
// software HCA moves every byte with one copy).
#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <ostream>

#include <nlohmann/json.hpp>

#include "perftest/report.hpp"
#include "perftest/run.hpp"
#include "perftest/session.hpp"

namespace marlix::perftest {

namespace {

constexpr uint64_t kBytesPerSize = uint64_t(1) << 30;  // copy at most this much per size
constexpr int kChunks = 10;                            // the peak is the best tenth of the run

}  // namespace

std::string memcpy_usage() {
    return "memcpy_bw [-s SIZE | -a] [-n ITERS] [--report_gbits] [--out_json FILE] [--out_csv FILE]";
}

int run_memcpy(const std::vector<std::string> &args, std::ostream &out, std::ostream &err) {
    uint64_t size = 65536, iters = 5000;
    bool all = false, gbits = false;
    std::string json_path, csv_path;
    for (size_t i = 1; i < args.size(); ++i) {
        const std::string &a = args[i];
        auto value = [&](uint64_t &v) {
            if (i + 1 >= args.size()) return false;
            const std::string &t = args[++i];
            auto [end, ec] = std::from_chars(t.data(), t.data() + t.size(), v);
            return ec == std::errc() && end == t.data() + t.size() && v > 0;
        };
        if (a == "-a" || a == "--all") {
            all = true;
        } else if (a == "-s" || a == "--size") {
            if (!value(size) || size > kMaxSize) return err << "usage: " << memcpy_usage() << "\n", 2;
        } else if (a == "-n" || a == "--iters") {
            if (!value(iters)) return err << "usage: " << memcpy_usage() << "\n", 2;
        } else if (a == "--report_gbits") {
            gbits = true;
        } else if ((a == "--out_json" || a == "--out_csv") && i + 1 < args.size()) {
            (a == "--out_json" ? json_path : csv_path) = args[++i];
        } else {
            err << "memcpy_bw: invalid option '" << a << "'\nusage: " << memcpy_usage() << "\n";
            return 2;
        }
    }
    std::vector<uint64_t> sizes;
    if (all)
        for (uint64_t s = 2; s <= kMaxAllSize; s *= 2) sizes.push_back(s);
    else
        sizes.push_back(size);
    const uint64_t max = *std::max_element(sizes.begin(), sizes.end());
    std::vector<uint8_t> src(max, 0x5a), dst(max, 0);

    Options o;
    o.report_gbits = gbits;
    out << "---------------------------------------------------------------------------------------\n"
        << "                    memcpy BW Test\n"
        << "---------------------------------------------------------------------------------------\n";
    print_bw_header(out, o);
    std::vector<BwResult> results;
    for (uint64_t s : sizes) {
        const uint64_t n = std::clamp<uint64_t>(std::min(iters, kBytesPerSize / s), kChunks, UINT64_MAX);
        const uint64_t per_chunk = n / kChunks;
        double best = 0;
        const uint64_t t0 = now_ns();
        for (int c = 0; c < kChunks; ++c) {
            const uint64_t c0 = now_ns();
            for (uint64_t i = 0; i < per_chunk; ++i) {
                std::memcpy(dst.data(), src.data(), s);
                asm volatile("" : : "r"(dst.data()) : "memory");  // keep every copy
            }
            const uint64_t c1 = now_ns();
            if (c1 > c0) best = std::max(best, double(per_chunk) / double(c1 - c0));
        }
        const uint64_t t1 = now_ns();
        const uint64_t done = per_chunk * kChunks;
        auto bw = [&](double ops_per_ns) {
            const double bytes_per_s = ops_per_ns * double(s) * 1e9;
            return gbits ? bytes_per_s * 8 / 1e9 : bytes_per_s / 1048576.0;
        };
        BwResult r;
        r.bytes = s;
        r.iterations = done;
        const double avg = t1 > t0 ? double(done) / double(t1 - t0) : 0;
        r.bw_average = bw(avg);
        r.bw_peak = bw(std::max(best, avg));
        r.msg_rate_mpps = avg * 1e3;
        print_bw_row(out, r);
        results.push_back(r);
    }
    out << "---------------------------------------------------------------------------------------\n";
    if (!json_path.empty()) {
        nlohmann::json doc;
        doc["test"] = "memcpy_bw";
        doc["title"] = "memcpy BW Test";
        doc["path"] = "memcpy";
        doc["units"] = gbits ? "Gb/sec" : "MB/sec";
        nlohmann::json rows = nlohmann::json::array();
        for (const BwResult &r : results)
            rows.push_back({{"bytes", r.bytes},
                            {"iterations", r.iterations},
                            {"bw_peak", r.bw_peak},
                            {"bw_average", r.bw_average},
                            {"msg_rate_mpps", r.msg_rate_mpps}});
        doc["results"] = rows;
        std::ofstream f(json_path);
        if (!(f << doc.dump(2) << "\n")) return err << " cannot write " << json_path << "\n", 1;
    }
    std::string error;
    if (!csv_path.empty() && !write_csv(csv_path, Kind::Bandwidth, o, results, {}, error))
        return err << " " << error << "\n", 1;
    return 0;
}

}  // namespace marlix::perftest
