// One tool run from its command line to its exit status: options, set-up, the sizes, the report.
#include "perftest/run.hpp"

#include <algorithm>
#include <ostream>

#include "perftest/session.hpp"

namespace marlix::perftest {

int run_tool(const TestKind &test, const std::vector<std::string> &args, std::ostream &out,
             std::ostream &err) {
    Options o;
    if (int st = parse_options(test, args, o, err)) return st;
    if (o.help) {
        out << usage_text(test);
        return 0;
    }
    Session s(test, o);
    s.path = o.direct ? Path::Direct : Path::Adaptor;
    std::string error;
    if (!s.choose_devices(error)) {
        err << " " << error << "\n";
        return 1;
    }
    const std::vector<uint64_t> sizes = sizes_of(test, o, s.mtu_bytes);
    if (!s.setup(*std::max_element(sizes.begin(), sizes.end()), error)) {
        err << " " << error << "\n";
        return 1;
    }

    const RunInfo info = s.run_info();
    print_banner(out, info, o);
    print_addresses(out, test, s.addresses(s.client, s.server), s.addresses(s.server, s.client));
    const bool bw = test.kind == Kind::Bandwidth;
    if (bw)
        print_bw_header(out, o);
    else
        print_lat_header(out);

    InterruptScope interrupt;
    std::vector<BwResult> bw_results;
    std::vector<LatResult> lat_results;
    // Latency samples: one per iteration, or the first million of a timed run.
    std::vector<uint64_t> samples(bw ? 0 : o.duration ? size_t(1) << 20 : size_t(o.iters));
    bool interrupted = false, verified = true;
    uint64_t checked = 0;
    int status = 0;
    for (uint64_t size : sizes) {
        s.prepare(size);
        RunOutcome r;
        if (bw) {
            BwResult res;
            r = run_bandwidth(s, test, o, size, res, out, err);
            if (r.ok) {
                print_bw_row(out, res);
                bw_results.push_back(res);
            }
        } else {
            LatResult res;
            r = run_latency(s, test, o, size, res, samples, out, err);
            if (r.ok) {
                print_lat_row(out, res);
                lat_results.push_back(res);
            }
        }
        if (!r.ok) {
            status = 1;
            break;
        }
        if (!s.verify(size, r.ops, err, checked)) verified = false;
        if (r.interrupted) {
            interrupted = true;
            break;
        }
    }
    print_dashes(out);
    if (o.verify && status == 0)
        out << " Data check      : " << checked << " bytes compared, "
            << (verified ? "all correct" : "MISMATCH") << "\n";
    if (!verified) {
        err << " Verify FAILED: the bytes moved are not the bytes sent\n";
        status = 1;
    }
    if (interrupted) {
        out << " Interrupted: the last row covers the iterations completed before Ctrl-C\n";
        if (status == 0) status = 130;
    }
    const RunInfo written = info;
    if (!o.out_json.empty() &&
        !write_json(o.out_json, written, o, bw_results, lat_results, interrupted, error)) {
        err << " " << error << "\n";
        status = status ? status : 1;
    }
    if (!o.out_csv.empty() && !write_csv(o.out_csv, test.kind, o, bw_results, lat_results, error)) {
        err << " " << error << "\n";
        status = status ? status : 1;
    }
    return status;
}

}  // namespace marlix::perftest
