// The latency loop: one request in flight. Sends and writes are a ping-pong between client and
// server (half the round trip is reported); reads and atomics are timed from post to completion.
// Writes are noticed, as perftest does, by the last byte of the receive area changing.
#include <algorithm>
#include <atomic>
#include <cstdio>
#include <ostream>

#include "perftest/session.hpp"

namespace marlix::perftest {

namespace {

constexpr uint64_t kStallNs = 5'000'000'000ull;  // no answer for this long: the test fails

// The device fills the watched byte as a DMA engine does, with a plain copy that no atomic load
// can pair with; the poll reads it as a CPU polls DMA memory (a volatile load, then an acquire
// fence), outside ThreadSanitizer's view, which cannot see the device's copy as a release.
__attribute__((no_sanitize_thread, noinline)) uint8_t load_byte(uint8_t *p) {
    const uint8_t value = *static_cast<volatile uint8_t *>(p);
    std::atomic_thread_fence(std::memory_order_acquire);
    return value;
}
void store_byte(uint8_t *p, uint8_t v) {
    std::atomic_ref<uint8_t>(*p).store(v, std::memory_order_release);
}

}  // namespace

RunOutcome run_latency(Session &s, const TestKind &test, const Options &o, uint64_t size, LatResult &result,
                       std::vector<uint64_t> &samples, std::ostream &out, std::ostream &err) {
    RunOutcome outcome;
    outcome.ops.assign(1, 0);
    const bool duration = o.duration > 0;
    const uint64_t iters = duration ? UINT64_MAX : o.iters;
    const bool ud = o.connection == Connection::UD;
    const uint32_t recv_len = uint32_t(size) + (ud ? kGrhRoom : 0);
    const bool inl = o.inline_size > 0 && size <= uint64_t(o.inline_size) &&
                     (test.verb == Verb::Send || test.verb == Verb::Write);
    Side &c = s.client, &sv = s.server;
    Endpoint &cep = *c.ep, &sep = *sv.ep;

    auto fail = [&](const std::string &what) {
        err << " " << what << "\n";
        outcome.ok = false;
        return outcome;
    };

    // ---- Requests of both sides, made now ----
    SendRequest cw, sw;
    cw.length = sw.length = uint32_t(size);
    cw.lkey = c.mr.lkey;
    sw.lkey = sv.mr.lkey;
    cw.rkey = sv.mr.rkey;
    sw.rkey = c.mr.rkey;
    cw.local_addr = c.tx_local(0);
    sw.local_addr = sv.tx_local(0);
    cw.inline_data = sw.inline_data = inl;
    switch (test.verb) {
        case Verb::Send:
            cw.op = sw.op = Op::Send;
            cw.ah = c.ah;
            sw.ah = sv.ah;
            cw.remote_qpn = sv.qp_info[0].qpn;
            sw.remote_qpn = c.qp_info[0].qpn;
            cw.remote_qkey = sw.remote_qkey = kQkey;
            break;
        case Verb::Write:
            cw.op = sw.op = Op::Write;
            cw.remote_addr = sv.rx_remote(0);
            sw.remote_addr = c.rx_remote(0);
            break;
        case Verb::Read:
            cw.op = Op::Read;
            cw.local_addr = c.rx_local(0);
            cw.remote_addr = sv.tx_remote(0);
            break;
        case Verb::Atomic:
            cw.op = o.atomic_type == AtomicType::FetchAdd ? Op::FetchAdd : Op::CompareSwap;
            cw.local_addr = c.rx_local(0);
            cw.remote_addr = sv.tx_remote(0);
            cw.length = 8;
            cw.compare_add = Session::kAddend;
            break;
    }
    const bool ping_pong = test.verb == Verb::Send || test.verb == Verb::Write;
    const uint64_t capacity = samples.size();

    // Receives of both sides, posted ahead (sends only).
    uint64_t c_recv_posted = 0, s_recv_posted = 0;
    const uint64_t ahead = std::min<uint64_t>(o.rx_depth, duration ? o.rx_depth : iters);
    if (test.verb == Verb::Send)
        for (uint64_t i = 0; i < ahead; ++i) {
            if (int rc = cep.post_recv(c.qps[0], 0, c.rx_local(0), recv_len, c.mr.lkey))
                return fail("Couldn't post receive: " + cep.status_name(rc));
            if (int rc = sep.post_recv(sv.qps[0], 0, sv.rx_local(0), recv_len, sv.mr.lkey))
                return fail("Couldn't post receive: " + sep.status_name(rc));
            ++c_recv_posted, ++s_recv_posted;
        }

    Completion wc;
    // Waits for one completion on a CQ; false (after a message) on failure, stall or stop.
    bool stalled = false;
    auto wait_one = [&](Endpoint &ep, CqId cq, const char *who) {
        const uint64_t since = now_ns();
        uint32_t spins = 0;
        for (;;) {
            int r = poll_cq(ep, cq, o.events, wc);
            if (r == 1) {
                if (wc.status != 0) {
                    fail(std::string("Completion with error at ") + who + ": " +
                         ep.completion_status_name(wc.status));
                    return false;
                }
                return true;
            }
            if (r != 0) {
                fail(std::string("Poll failed at ") + who + ": " + ep.status_name(r));
                return false;
            }
            if ((++spins & 1023) == 0 && now_ns() - since > kStallNs) {
                stalled = true;
                fail(std::string("No completion at the ") + who + " for 5 seconds");
                return false;
            }
        }
    };
    // Waits for the last byte of a receive area to become `value`.
    auto wait_byte = [&](uint8_t *p, uint8_t value, const char *who) {
        const uint64_t since = now_ns();
        uint32_t spins = 0;
        while (load_byte(p) != value) {
            if ((++spins & 4095) == 0 && now_ns() - since > kStallNs) {
                fail(std::string("No write arrived at the ") + who + " for 5 seconds");
                return false;
            }
        }
        return true;
    };

    // ---- The measured loop ----
    const uint64_t t_begin = now_ns();
    const uint64_t deadline = duration ? t_begin + uint64_t(o.duration) * 1'000'000'000ull : UINT64_MAX;
    uint64_t next_progress = t_begin + 1'000'000'000ull, progress_sum = 0, progress_n = 0;
    unsigned progress_second = 0;
    uint64_t n = 0, sum_ns = 0, min_ns = UINT64_MAX, max_ns = 0;
    uint8_t *const c_last_tx = c.tx(0) + size - 1, *const s_last_tx = sv.tx(0) + size - 1;
    uint8_t *const c_last_rx = c.rx(0) + size - 1, *const s_last_rx = sv.rx(0) + size - 1;

    while (n < iters) {
        if (stop_requested()) {
            outcome.interrupted = true;
            break;
        }
        const uint64_t t0 = now_ns();
        if (duration && t0 >= deadline) break;
        cw.id = n;
        if (cw.op == Op::CompareSwap) {
            cw.compare_add = Session::atomic_start(0) + n;
            cw.swap = cw.compare_add + 1;
        }
        uint64_t t1 = 0;
        if (test.verb == Verb::Write) {
            const uint8_t mark = uint8_t(n + 1);
            store_byte(c_last_tx, mark);
            if (int rc = cep.post_send(c.qps[0], cw))
                return fail("Couldn't post send: " + cep.status_name(rc));
            if (!wait_byte(s_last_rx, mark, "server")) return outcome;
            store_byte(s_last_tx, mark);
            if (int rc = sep.post_send(sv.qps[0], sw))
                return fail("Couldn't post send: " + sep.status_name(rc));
            if (!wait_byte(c_last_rx, mark, "client")) return outcome;
            t1 = now_ns();
        } else if (test.verb == Verb::Send) {
            if (int rc = cep.post_send(c.qps[0], cw))
                return fail("Couldn't post send: " + cep.status_name(rc));
            if (!wait_one(sep, sv.recv_cq, "server")) return outcome;
            if (int rc = sep.post_send(sv.qps[0], sw))
                return fail("Couldn't post send: " + sep.status_name(rc));
            if (!wait_one(cep, c.recv_cq, "client")) return outcome;
            t1 = now_ns();
            // Receives used up are replaced outside the timed part.
            if (duration || s_recv_posted < iters) {
                if (int rc = sep.post_recv(sv.qps[0], 0, sv.rx_local(0), recv_len, sv.mr.lkey))
                    return fail("Couldn't post receive: " + sep.status_name(rc));
                ++s_recv_posted;
            }
            if (duration || c_recv_posted < iters) {
                if (int rc = cep.post_recv(c.qps[0], 0, c.rx_local(0), recv_len, c.mr.lkey))
                    return fail("Couldn't post receive: " + cep.status_name(rc));
                ++c_recv_posted;
            }
        } else {
            if (int rc = cep.post_send(c.qps[0], cw))
                return fail("Couldn't post send: " + cep.status_name(rc));
            if (!wait_one(cep, c.send_cq, "client")) return outcome;
            t1 = now_ns();
        }
        if (ping_pong) {
            // The send completions of both sides, before the next request reuses the queue.
            if (!wait_one(cep, c.send_cq, "client")) return outcome;
            if (!wait_one(sep, sv.send_cq, "server")) return outcome;
        }
        const uint64_t t = ping_pong ? (t1 - t0) / 2 : t1 - t0;
        if (n < capacity) samples[n] = t;
        sum_ns += t;
        min_ns = std::min(min_ns, t);
        max_ns = std::max(max_ns, t);
        ++n;
        if (o.progress) {
            progress_sum += t;
            ++progress_n;
            if (t1 >= next_progress) {
                char line[128];
                std::snprintf(line, sizeof line, " Progress: %3u s  t_avg %.2f usec  %llu iterations\n",
                              ++progress_second, double(progress_sum) / double(progress_n) / 1000.0,
                              (unsigned long long)n);
                out << line << std::flush;
                progress_sum = progress_n = 0;
                next_progress += 1'000'000'000ull;
            }
        }
    }
    (void)stalled;

    outcome.ops[0] = n;
    const size_t kept = size_t(std::min<uint64_t>(n, capacity));
    result = latency_stats(size, n, samples, kept);
    if (n > kept) {
        // Only the first samples were kept for the distribution; the extremes and the mean
        // cover every iteration.
        result.t_min = double(min_ns) / 1000.0;
        result.t_max = double(max_ns) / 1000.0;
        result.t_avg = double(sum_ns) / double(n) / 1000.0;
    }
    return outcome;
}

}  // namespace marlix::perftest
