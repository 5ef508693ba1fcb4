// A test's two sides, connected: the client on one device of the fabric, the server on the other,
// both driven by the calling thread. Everything is made before the measured loops start, which
// then only post and poll.
//
// Each side's buffer holds one slot per QP, and each slot a transmit area and a receive area, so
// that what a side sends and what it receives never share bytes and both can be checked at the end.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "perftest/options.hpp"
#include "perftest/report.hpp"
#include "perftest/transport.hpp"

namespace marlix::perftest {

constexpr uint32_t kGrhRoom = 40;  // a UD receive starts with room for a global route header
constexpr uint32_t kQkey = 0x11111111;

struct Side {
    std::unique_ptr<Endpoint> ep;
    std::string device;
    PortInfo port;
    CqId send_cq = 0, recv_cq = 0;
    std::vector<QpId> qps;
    std::vector<QpInfo> qp_info;
    std::vector<uint32_t> psn;
    AhId ah = 0;  // UD: towards the other side
    uint8_t *buffer = nullptr;
    Region mr;
    size_t area = 0;  // bytes of one transmit or receive area

    uint8_t *tx(int q) { return buffer + size_t(q) * 2 * area; }
    uint8_t *rx(int q) { return tx(q) + area; }
    uint64_t tx_local(int q) const { return mr.local_addr + uint64_t(q) * 2 * area; }
    uint64_t rx_local(int q) const { return tx_local(q) + area; }
    uint64_t tx_remote(int q) const { return mr.remote_addr + uint64_t(q) * 2 * area; }
    uint64_t rx_remote(int q) const { return tx_remote(q) + area; }
};

class Session {
  public:
    Session(const TestKind &test, Options &options) : test_(test), o_(options) {}

    // Opens both sides, makes the CQs, QPs and buffers for messages up to `max_size` and connects
    // them. False with a message.
    bool setup(uint64_t max_size, std::string &error);
    // Picks the devices and the MTU before setup (needed for -a under UD). False with a message.
    bool choose_devices(std::string &error);

    RunInfo run_info() const;
    std::vector<AddressLine> addresses(const Side &side, const Side &peer) const;

    // Fills the areas for one size: transmit areas get a pattern (different per side), receive
    // areas are cleared.
    void prepare(uint64_t size);
    // Checks the bytes the test moved; prints nothing when all is well, else one line per
    // mismatching area to `err`. `ops` counts the atomic operations done per QP.
    bool verify(uint64_t size, const std::vector<uint64_t> &ops, std::ostream &err, uint64_t &checked);

    // Starting value and addend of the atomic target of QP q.
    static uint64_t atomic_start(int q) { return 0x1000000000ull * uint64_t(q + 1); }
    static constexpr uint64_t kAddend = 3;

    Side client, server;
    uint32_t mtu_bytes = 0;
    int mtu_code = 0;
    Path path = Path::Direct;

  private:
    bool open_side(Side &s, const std::string &device, std::string &error);
    bool make_queues(Side &s, uint64_t max_size, std::string &error);
    bool connect(Side &s, const Side &peer, std::string &error);

    const TestKind &test_;
    Options &o_;
    uint32_t outstanding_reads_ = 4;
};

// Monotonic nanoseconds.
inline uint64_t now_ns() {
    return uint64_t(std::chrono::duration_cast<std::chrono::nanoseconds>(
                        std::chrono::steady_clock::now().time_since_epoch())
                        .count());
}

// The running test's stop request (Ctrl-C). Set from a signal handler; read on the loops.
bool stop_requested();
// Installs the SIGINT handler for the lifetime of the object and restores the old one after.
class InterruptScope {
  public:
    InterruptScope();
    ~InterruptScope();
    InterruptScope(const InterruptScope &) = delete;
    InterruptScope &operator=(const InterruptScope &) = delete;
};
// Asks the running test to stop, as Ctrl-C does (for tests of the tools).
void request_stop();

// Polls the CQ once; with `events`, an empty CQ is armed and the completion event waited for
// (up to 100 ms) before polling again. Returns what Endpoint::poll() returns.
int poll_cq(Endpoint &ep, CqId cq, bool events, Completion &c);

// Bandwidth and latency runs of one message size. They return false (with a message in `err`)
// on a failed post, poll or completion.
struct RunOutcome {
    bool ok = true;
    bool interrupted = false;
    std::vector<uint64_t> ops;  // operations completed per QP
};
RunOutcome run_bandwidth(Session &s, const TestKind &test, const Options &o, uint64_t size, BwResult &result,
                         std::ostream &out, std::ostream &err);
RunOutcome run_latency(Session &s, const TestKind &test, const Options &o, uint64_t size, LatResult &result,
                       std::vector<uint64_t> &samples, std::ostream &out, std::ostream &err);

}  // namespace marlix::perftest
