// Setting up both sides of a test, and checking the bytes it moved.
#include "perftest/session.hpp"

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstring>
#include <ostream>

#include "marlix/softhca.hpp"

namespace marlix::perftest {

namespace {

std::atomic<bool> g_stop{false};

extern "C" void on_sigint(int) {
    g_stop.store(true, std::memory_order_relaxed);
}

struct sigaction g_old_action;

// Bytes of a transmit area: different for every side and QP, and not periodic at 256 bytes so
// that a shifted copy does not pass for a good one.
uint8_t pattern_byte(uint64_t j, uint32_t seed) {
    return uint8_t((j ^ (j >> 8) ^ (j >> 16)) * 31 + seed * 97 + 1);
}

void fill_pattern(uint8_t *p, uint64_t n, uint32_t seed) {
    for (uint64_t j = 0; j < n; ++j) p[j] = pattern_byte(j, seed);
}

uint32_t initial_psn(uint32_t qpn, uint32_t salt) {
    return (qpn * 0x9e3779b1u + salt * 0x85ebca6bu) & 0xffffff;
}

void store64(uint8_t *p, uint64_t v) {
    std::memcpy(p, &v, sizeof v);
}

}  // namespace

bool stop_requested() {
    return g_stop.load(std::memory_order_relaxed);
}
void request_stop() {
    g_stop.store(true, std::memory_order_relaxed);
}

InterruptScope::InterruptScope() {
    g_stop.store(false);
    struct sigaction sa {};
    sa.sa_handler = on_sigint;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGINT, &sa, &g_old_action);
}

InterruptScope::~InterruptScope() {
    sigaction(SIGINT, &g_old_action, nullptr);
    g_stop.store(false);
}

int poll_cq(Endpoint &ep, CqId cq, bool events, Completion &c) {
    int r = ep.poll(cq, c);
    if (r != 0 || !events) return r;
    // Arm, then look again: a completion that came before the arm raises no event.
    if (int a = ep.arm(cq); a != 0) return a < 0 ? a : -a;
    r = ep.poll(cq, c);
    if (r != 0) return r;
    ep.wait_event(cq, 100);
    return ep.poll(cq, c);
}

bool Session::choose_devices(std::string &error) {
    std::vector<std::string> names = softhca::device_names();
    if (names.empty()) {
        error = "No IB devices found";
        return false;
    }
    client.device = o_.device.empty() ? names[0] : o_.device;
    if (std::find(names.begin(), names.end(), client.device) == names.end()) {
        error = "IB device " + client.device + " not found";
        return false;
    }
    // The server takes the next device of the fabric (the same one when there is only one).
    server.device = client.device;
    for (size_t i = 0; i < names.size(); ++i)
        if (names[i] == client.device) server.device = names[(i + 1) % names.size()];

    for (Side *s : {&client, &server}) {
        std::string why;
        s->ep = path == Path::Direct ? make_direct_endpoint() : make_adaptor_endpoint(why);
        if (!s->ep) {
            error = why;
            return false;
        }
        if (!open_side(*s, s->device, error)) return false;
    }
    const int port_mtu = std::min(client.port.mtu_code, server.port.mtu_code);
    mtu_code = o_.mtu ? std::min(o_.mtu, port_mtu) : port_mtu;
    if (o_.mtu > port_mtu) {
        error = "MTU " + std::to_string(128u << o_.mtu) + " is above the port's maximum of " +
                std::to_string(128u << port_mtu);
        return false;
    }
    mtu_bytes = 128u << mtu_code;
    outstanding_reads_ = std::min(client.port.max_rd_atomic, server.port.max_rd_atomic);
    if (o_.connection == Connection::UD && test_.verb == Verb::Send && !o_.all_sizes && o_.size > mtu_bytes) {
        error = "Max msg size in UD is MTU " + std::to_string(mtu_bytes);
        return false;
    }
    return true;
}

bool Session::open_side(Side &s, const std::string &device, std::string &error) {
    if (!s.ep->open(device, o_.port, error)) return false;
    if (!s.ep->query_port(o_.port, s.port, error)) {
        error = device + ": " + error;
        return false;
    }
    if (!s.port.active) {
        error = "Port " + std::to_string(o_.port) + " of " + device + " is not active";
        return false;
    }
    return true;
}

bool Session::make_queues(Side &s, uint64_t max_size, std::string &error) {
    const bool lat = test_.kind == Kind::Latency;
    const bool send = test_.verb == Verb::Send;
    const uint32_t tx_depth = lat ? 1 : o_.tx_depth;
    const uint32_t rx_depth = send ? o_.rx_depth : 1;
    const bool events = o_.events;
    if (!s.ep->create_cq(tx_depth * uint32_t(o_.qps) + 16, events, s.send_cq, error)) return false;
    if (!s.ep->create_cq(rx_depth * uint32_t(o_.qps) + 16, events, s.recv_cq, error)) return false;
    QpCaps caps;
    caps.send_depth = tx_depth;
    caps.recv_depth = rx_depth;
    caps.max_inline = uint32_t(o_.inline_size);
    for (int q = 0; q < o_.qps; ++q) {
        QpId qp = 0;
        QpInfo info;
        if (!s.ep->create_qp(o_.connection, s.send_cq, s.recv_cq, caps, qp, info, error)) return false;
        s.qps.push_back(qp);
        s.qp_info.push_back(info);
        s.psn.push_back(initial_psn(info.qpn, uint32_t(q) + (&s == &client ? 0u : 7u)));
    }
    // Areas hold the largest message, the GRH room of a UD receive, and stay 64-byte aligned.
    s.area = (std::max<uint64_t>(max_size, 8) + kGrhRoom + 63) / 64 * 64;
    const size_t bytes = size_t(o_.qps) * 2 * s.area;
    s.buffer = s.ep->allocate_buffer(bytes, error);
    if (!s.buffer) return false;
    return s.ep->register_memory(s.buffer, bytes, s.mr, error);
}

bool Session::connect(Side &s, const Side &peer, std::string &error) {
    if (o_.connection == Connection::UD && !s.ep->create_ah(peer.port.lid, o_.port, s.ah, error))
        return false;
    for (size_t q = 0; q < s.qps.size(); ++q) {
        ConnectParams p;
        p.connection = o_.connection;
        p.port = o_.port;
        p.mtu_code = mtu_code;
        p.my_psn = s.psn[q];
        p.qkey = kQkey;
        p.timeout = o_.qp_timeout;
        p.rd_atomic = uint8_t(outstanding_reads_);
        p.remote.lid = peer.port.lid;
        p.remote.qpn = peer.qp_info[q].qpn;
        p.remote.psn = peer.psn[q];
        p.remote.qkey = kQkey;
        if (!s.ep->connect(s.qps[q], p, error)) return false;
    }
    return true;
}

bool Session::setup(uint64_t max_size, std::string &error) {
    for (Side *s : {&client, &server})
        if (!make_queues(*s, max_size, error)) {
            error = s->device + ": " + error;
            return false;
        }
    // The default inline size is the tool's wish; the QPs may grant less.
    const uint32_t granted = std::min(client.qp_info[0].max_inline, server.qp_info[0].max_inline);
    if (!o_.inline_set && o_.inline_size > 0 && granted < uint32_t(o_.inline_size))
        o_.inline_size = int(granted);
    if (o_.inline_size > 0 && granted < uint32_t(o_.inline_size)) {
        error = "Max inline data is " + std::to_string(granted) + " bytes";
        return false;
    }
    return connect(client, server, error) && connect(server, client, error);
}

RunInfo Session::run_info() const {
    RunInfo r;
    r.test = &test_;
    r.path = path;
    r.client_device = client.device;
    r.server_device = server.device;
    r.mtu_bytes = mtu_bytes;
    r.outstanding_reads = outstanding_reads_;
    r.atomic_operands = client.ep->carries_atomic_operands();
    return r;
}

std::vector<AddressLine> Session::addresses(const Side &side, const Side &) const {
    std::vector<AddressLine> lines;
    for (size_t q = 0; q < side.qps.size(); ++q)
        lines.push_back(
            {side.port.lid, side.qp_info[q].qpn, side.psn[q], side.mr.rkey, side.tx_remote(int(q))});
    return lines;
}

void Session::prepare(uint64_t size) {
    const uint64_t rx_bytes = std::min<uint64_t>(client.area, size + kGrhRoom);
    for (int q = 0; q < o_.qps; ++q) {
        fill_pattern(client.tx(q), size, 2u * uint32_t(q) + 1);
        fill_pattern(server.tx(q), size, 2u * uint32_t(q) + 2);
        std::memset(client.rx(q), 0, rx_bytes);
        std::memset(server.rx(q), 0, rx_bytes);
        if (test_.verb == Verb::Atomic) store64(server.tx(q), atomic_start(q));
    }
}

bool Session::verify(uint64_t size, const std::vector<uint64_t> &ops, std::ostream &err, uint64_t &checked) {
    bool ok = true;
    const uint32_t rx_off = o_.connection == Connection::UD ? kGrhRoom : 0;
    auto compare = [&](const char *what, int q, const uint8_t *got, const uint8_t *want, uint64_t n) {
        checked += n;
        if (std::memcmp(got, want, n) == 0) return;
        uint64_t j = 0;
        while (got[j] == want[j]) ++j;
        uint64_t bad = 0;
        for (uint64_t k = 0; k < n; ++k) bad += got[k] != want[k];
        err << " Verify FAILED: " << what << " of QP " << q << ", " << size << "-byte message: " << bad
            << " bytes differ, the first at offset " << j << " (expected 0x" << std::hex << int(want[j])
            << ", got 0x" << int(got[j]) << std::dec << ")\n";
        ok = false;
    };
    const bool lat = test_.kind == Kind::Latency;
    for (int q = 0; q < o_.qps; ++q) {
        const uint64_t n = ops.size() > size_t(q) ? ops[size_t(q)] : 0;
        switch (test_.verb) {
            case Verb::Send:
            case Verb::Write:
                if (n == 0) break;
                compare("server's receive buffer", q, server.rx(q) + (test_.verb == Verb::Send ? rx_off : 0),
                        client.tx(q), size);
                if (lat)
                    compare("client's receive buffer", q,
                            client.rx(q) + (test_.verb == Verb::Send ? rx_off : 0), server.tx(q), size);
                break;
            case Verb::Read:
                if (n == 0) break;
                compare("client's read buffer", q, client.rx(q), server.tx(q), size);
                break;
            case Verb::Atomic: {
                uint8_t want_target[8], want_fetched[8];
                const uint64_t start = atomic_start(q);
                // Fetch-and-add adds kAddend each time; compare-and-swap is chained (each
                // compares with the value the previous one stored, and adds one).
                // Through a layer that drops the operands, every operation adds zero or fails
                // its compare with zero: the target keeps its start value.
                uint64_t step = o_.atomic_type == AtomicType::FetchAdd ? kAddend : 1;
                if (!client.ep->carries_atomic_operands()) step = 0;
                store64(want_target, start + n * step);
                store64(want_fetched, n ? start + (n - 1) * step : 0);
                compare("server's atomic target", q, server.tx(q), want_target, 8);
                compare("client's fetched value", q, client.rx(q), want_fetched, 8);
                break;
            }
        }
    }
    return ok;
}

}  // namespace marlix::perftest
