// The bandwidth loop: the client keeps up to TX depth requests in flight on each QP and learns of
// their end through one signalled request in every CQ-moderation batch; for sends the server keeps
// receives posted ahead of them. Everything the loop touches is made before it starts.
#include <algorithm>
#include <cstdio>
#include <ostream>

#include "perftest/session.hpp"

namespace marlix::perftest {

namespace {

constexpr int kIdShift = 48;
constexpr uint64_t kIdMask = (uint64_t(1) << kIdShift) - 1;
constexpr size_t kDurationSamples = size_t(1) << 20;
// How long the tail of an unacknowledged transport (UC, UD) may take to arrive at the server.
constexpr uint64_t kDrainNs = 2'000'000'000;
// No completion for this long while requests are outstanding: the test fails rather than hang (a
// lost packet waits for a retransmission timer, which does not run while the clock stands still).
constexpr uint64_t kStallNs = 5'000'000'000;

struct Sample {
    uint64_t t_ns;
    uint64_t ops;
};

// The best rate over windows of at least `window` operations.
double peak_rate(const std::vector<Sample> &s, size_t n, uint64_t window) {
    double best = 0;
    size_t j = 0;
    for (size_t i = 1; i < n; ++i) {
        while (j + 1 < i && s[i].ops - s[j + 1].ops >= window) ++j;
        if (s[i].ops - s[j].ops < window || s[i].t_ns <= s[j].t_ns) continue;
        best = std::max(best, double(s[i].ops - s[j].ops) / double(s[i].t_ns - s[j].t_ns));
    }
    return best;  // operations per nanosecond
}

double bandwidth(double ops_per_ns, uint64_t size, bool gbits) {
    const double bytes_per_s = ops_per_ns * double(size) * 1e9;
    return gbits ? bytes_per_s * 8 / 1e9 : bytes_per_s / 1048576.0;
}

}  // namespace

RunOutcome run_bandwidth(Session &s, const TestKind &test, const Options &o, uint64_t size, BwResult &result,
                         std::ostream &out, std::ostream &err) {
    RunOutcome outcome;
    const size_t Q = size_t(o.qps);
    const bool duration = o.duration > 0;
    const uint64_t iters = o.iters;
    const uint32_t depth = o.tx_depth, mod = o.cq_mod;
    const bool send = test.verb == Verb::Send;
    const bool ud = o.connection == Connection::UD;
    const uint32_t recv_len = uint32_t(size) + (ud ? kGrhRoom : 0);
    Side &c = s.client, &sv = s.server;
    Endpoint &cep = *c.ep, &sep = *sv.ep;

    // ---- Everything the loop needs, made now ----
    std::vector<uint64_t> posted(Q, 0), done(Q, 0), srv_posted(Q, 0), srv_done(Q, 0);
    std::vector<SendRequest> wr(Q);
    for (size_t q = 0; q < Q; ++q) {
        SendRequest &w = wr[q];
        const int qi = int(q);
        w.length = uint32_t(size);
        w.lkey = c.mr.lkey;
        w.rkey = sv.mr.rkey;
        w.local_addr = c.tx_local(qi);
        switch (test.verb) {
            case Verb::Send:
                w.op = Op::Send;
                w.ah = c.ah;
                w.remote_qpn = sv.qp_info[q].qpn;
                w.remote_qkey = kQkey;
                break;
            case Verb::Write:
                w.op = Op::Write;
                w.remote_addr = sv.rx_remote(qi);
                break;
            case Verb::Read:
                w.op = Op::Read;
                w.local_addr = c.rx_local(qi);
                w.remote_addr = sv.tx_remote(qi);
                break;
            case Verb::Atomic:
                w.op = o.atomic_type == AtomicType::FetchAdd ? Op::FetchAdd : Op::CompareSwap;
                w.local_addr = c.rx_local(qi);
                w.remote_addr = sv.tx_remote(qi);
                w.length = 8;
                w.compare_add = Session::kAddend;
                break;
        }
        w.inline_data = o.inline_size > 0 && size <= uint64_t(o.inline_size) &&
                        (test.verb == Verb::Send || test.verb == Verb::Write);
    }
    std::vector<Sample> samples(duration ? kDurationSamples : size_t(iters * Q / mod + Q + 2));
    size_t nsamples = 0;

    auto fail = [&](const std::string &what) {
        err << " " << what << "\n";
        outcome.ok = false;
    };

    // The server's receives, posted ahead.
    if (send) {
        const uint64_t first = duration ? o.rx_depth : std::min<uint64_t>(o.rx_depth, iters);
        for (size_t q = 0; q < Q; ++q)
            for (uint64_t i = 0; i < first; ++i) {
                if (int rc = sep.post_recv(sv.qps[q], q, sv.rx_local(int(q)), recv_len, sv.mr.lkey)) {
                    fail("Couldn't post receive: " + sep.status_name(rc));
                    return outcome;
                }
                ++srv_posted[q];
            }
    }

    // ---- The measured loop ----
    const uint64_t t_begin = now_ns();
    const uint64_t deadline = duration ? t_begin + uint64_t(o.duration) * 1'000'000'000ull : UINT64_MAX;
    uint64_t t_start = 0, t_end = 0, total_done = 0;
    uint64_t next_progress = t_begin + 1'000'000'000ull, progress_ops = 0, progress_t = t_begin;
    unsigned progress_second = 0;
    bool stopping = false;
    uint32_t pass = 0;
    Completion wc;

    // A QP is at a batch boundary when its last post was signalled.
    auto at_boundary = [&](size_t q) { return posted[q] % mod == 0 || (!duration && posted[q] == iters); };
    auto may_post = [&](size_t q) {
        if (!duration && posted[q] >= iters) return false;
        return !stopping || !at_boundary(q);
    };
    auto finished = [&] {
        for (size_t q = 0; q < Q; ++q)
            if (may_post(q) || done[q] != posted[q]) return false;
        return true;
    };

    // A signalled completion of the client ends its batch and every request before it.
    auto take_send_completion = [&] {
        const size_t q = size_t(wc.id >> kIdShift);
        if (wc.status != 0 || q >= Q) {
            char id[24];
            std::snprintf(id, sizeof id, "%#llx", (unsigned long long)wc.id);
            fail("Completion with error at client: " + cep.completion_status_name(wc.status) + " (wr_id " +
                 id + ")");
            return false;
        }
        const uint64_t upto = (wc.id & kIdMask) + 1;
        total_done += upto - done[q];
        done[q] = upto;
        t_end = now_ns();
        if (nsamples == 0) samples[nsamples++] = {t_start, 0};
        if (nsamples < samples.size()) samples[nsamples++] = {t_end, total_done};
        return true;
    };

    uint64_t last_progress = t_begin;
    uint32_t idle_passes = 0;
    while (!finished()) {
        bool progress = false;
        for (size_t q = 0; q < Q; ++q) {
            SendRequest &w = wr[q];
            while (posted[q] - done[q] < depth && may_post(q)) {
                if (send && posted[q] >= srv_posted[q]) break;  // never outrun the server's receives
                w.id = (uint64_t(q) << kIdShift) | posted[q];
                w.signaled = (posted[q] + 1) % mod == 0 || (!duration && posted[q] + 1 == iters);
                if (w.op == Op::CompareSwap) {
                    w.compare_add = Session::atomic_start(int(q)) + posted[q];
                    w.swap = w.compare_add + 1;
                }
                if (t_start == 0) t_start = now_ns();
                if (int rc = cep.post_send(c.qps[q], w)) {
                    fail("Couldn't post send: " + cep.status_name(rc));
                    return outcome;
                }
                ++posted[q];
                progress = true;
            }
        }
        for (int k = 0; k < 16; ++k) {
            int r = cep.poll(c.send_cq, wc);
            if (r == 0) break;
            if (r != 1) {
                fail("Poll on the send CQ failed: " + cep.status_name(r));
                return outcome;
            }
            if (!take_send_completion()) return outcome;
            progress = true;
        }
        if (send) {
            for (int k = 0; k < 16; ++k) {
                int r = sep.poll(sv.recv_cq, wc);
                if (r == 0) break;
                if (r != 1) {
                    fail("Poll on the receive CQ failed: " + sep.status_name(r));
                    return outcome;
                }
                const size_t q = size_t(wc.id);
                if (wc.status != 0 || q >= Q || wc.byte_len != recv_len) {
                    fail("Completion with error at server: " + sep.completion_status_name(wc.status) + ", " +
                         std::to_string(wc.byte_len) + " bytes");
                    return outcome;
                }
                ++srv_done[q];
                if (duration || srv_posted[q] < iters) {
                    if (int rc = sep.post_recv(sv.qps[q], q, sv.rx_local(int(q)), recv_len, sv.mr.lkey)) {
                        fail("Couldn't post receive: " + sep.status_name(rc));
                        return outcome;
                    }
                    ++srv_posted[q];
                }
                progress = true;
            }
        }
        if (stop_requested() && !stopping) stopping = outcome.interrupted = true;
        if (progress) {
            idle_passes = 0;
        } else if ((++idle_passes & 1023) == 0) {
            const uint64_t now = now_ns();
            if (idle_passes == 1024) last_progress = now;
            if (now - last_progress > kStallNs) {
                fail("No completion for 5 seconds: the test gives up");
                return outcome;
            }
        }
        if (duration && (++pass & 63) == 0) {
            const uint64_t now = now_ns();
            if (now >= deadline) stopping = true;
            if (o.progress && now >= next_progress && !stopping) {
                ++progress_second;
                const double rate = double(total_done - progress_ops) / double(now - progress_t);
                char line[160];
                std::snprintf(line, sizeof line, " Progress: %3u s  BW %.2f %s  MsgRate %.6f Mpps\n",
                              progress_second, bandwidth(rate, size, o.report_gbits),
                              o.report_gbits ? "Gb/sec" : "MB/sec", rate * 1e3);
                out << line << std::flush;
                progress_ops = total_done;
                progress_t = now;
                next_progress += 1'000'000'000ull;
            }
        }
        if (!progress && o.events) {
            // Sleep until the CQ that will move next has something.
            bool client_waits = false;
            for (size_t q = 0; q < Q; ++q) client_waits |= posted[q] != done[q];
            if (client_waits) {
                int r = poll_cq(cep, c.send_cq, true, wc);
                if (r != 0 && r != 1) {
                    fail("Poll on the send CQ failed: " + cep.status_name(r));
                    return outcome;
                }
                if (r == 1 && !take_send_completion()) return outcome;
            } else if (send) {
                sep.arm(sv.recv_cq);
                sep.wait_event(sv.recv_cq, 100);
            }
        }
    }

    // ---- After the loop: the server's side of sends that needed no acknowledgement ----
    if (send) {
        const uint64_t give_up = now_ns() + kDrainNs;
        for (;;) {
            bool all = true;
            for (size_t q = 0; q < Q; ++q) all &= srv_done[q] >= posted[q];
            if (all) break;
            int r = sep.poll(sv.recv_cq, wc);
            if (r == 1) {
                if (wc.status != 0 || wc.id >= Q) {
                    fail("Completion with error at server: " + sep.completion_status_name(wc.status));
                    return outcome;
                }
                ++srv_done[wc.id];
                continue;
            }
            if (r != 0) {
                fail("Poll on the receive CQ failed: " + sep.status_name(r));
                return outcome;
            }
            if (now_ns() > give_up) {
                uint64_t lost = 0;
                for (size_t q = 0; q < Q; ++q) lost += posted[q] - std::min(posted[q], srv_done[q]);
                fail(std::to_string(lost) + " messages never arrived at the server");
                return outcome;
            }
        }
    }

    outcome.ops = done;
    result.bytes = size;
    result.iterations = total_done / Q;
    if (total_done > 0 && t_end > t_start) {
        const double avg = double(total_done) / double(t_end - t_start);
        const uint64_t window = std::max<uint64_t>(uint64_t(depth) * Q, mod);
        double peak = peak_rate(samples, nsamples, window);
        peak = std::max(peak, avg);
        result.bw_average = bandwidth(avg, size, o.report_gbits);
        result.bw_peak = bandwidth(peak, size, o.report_gbits);
        result.msg_rate_mpps = avg * 1e3;
    }
    return outcome;
}

}  // namespace marlix::perftest
