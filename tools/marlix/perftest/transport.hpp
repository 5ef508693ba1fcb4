// The verbs a traffic test needs from one side of a connection, behind one small interface, so the
// same test runs on the software HCA's VAPI directly ("direct") and through the adaptor module's
// provider table ("adaptor").
//
// Set-up calls may allocate and report errors as text. The data-path calls (post_send, post_recv,
// poll, arm, wait_event) allocate nothing and return a transport status: 0 is success, anything
// else is the layer's own status, named by status_name().
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace marlix::perftest {

enum class Connection { RC, UC, UD };

enum class Op { Send, Write, Read, CompareSwap, FetchAdd };

// Handles of the layer below, opaque to the tests.
using CqId = uint64_t;
using QpId = uint64_t;
using AhId = uint64_t;

struct PortInfo {
    uint16_t lid = 0;
    int mtu_code = 0;        // IB MTU code: 1 = 256 .. 5 = 4096
    uint32_t mtu_bytes = 0;  // the path MTU the tests use (the port's maximum)
    bool active = false;
    uint32_t max_rd_atomic = 1;  // reads/atomics a QP may have outstanding (the HCA's limit)
};

// A buffer registered for local and remote access.
struct Region {
    uint8_t *addr = nullptr;  // where the test reads and writes it
    size_t length = 0;
    uint32_t lkey = 0;
    uint32_t rkey = 0;
    uint64_t local_addr = 0;   // the address of addr in work requests posted by this side
    uint64_t remote_addr = 0;  // the address of addr in RDMA requests posted by the peer (VAddr)
};

struct QpCaps {
    uint32_t send_depth = 1;
    uint32_t recv_depth = 1;
    uint32_t max_inline = 0;
};

struct QpInfo {
    uint32_t qpn = 0;
    uint32_t max_inline = 0;  // what the layer granted
};

// What one side tells the other to connect (perftest's "address" lines).
struct Peer {
    uint16_t lid = 0;
    uint32_t qpn = 0;
    uint32_t psn = 0;
    uint32_t qkey = 0;
};

struct ConnectParams {
    Connection connection = Connection::RC;
    int port = 1;
    int mtu_code = 0;
    uint32_t my_psn = 0;
    uint32_t qkey = 0;
    uint8_t timeout = 14;  // 4.096 us * 2^timeout
    uint8_t retry_count = 7;
    uint8_t rnr_retry = 7;
    uint8_t rd_atomic = 4;  // outstanding reads/atomics, both as initiator and responder
    Peer remote;
};

struct SendRequest {
    uint64_t id = 0;
    Op op = Op::Send;
    bool signaled = true;
    bool inline_data = false;
    uint64_t local_addr = 0;  // Region::local_addr + offset
    uint32_t length = 0;
    uint32_t lkey = 0;
    uint64_t remote_addr = 0;  // Region::remote_addr of the peer + offset
    uint32_t rkey = 0;
    uint64_t compare_add = 0;
    uint64_t swap = 0;
    // UD
    AhId ah = 0;
    uint32_t remote_qpn = 0;
    uint32_t remote_qkey = 0;
};

struct Completion {
    uint64_t id = 0;
    int status = 0;  // 0 success; otherwise the layer's completion status
    uint32_t byte_len = 0;
};

// One side: an open HCA with a PD, the CQs, QPs, regions and address handles made through it.
// Destroying it releases everything it made.
class Endpoint {
  public:
    virtual ~Endpoint() = default;

    // ---- Set-up (may allocate; false with a message in `error`) ----
    virtual bool open(const std::string &device, int port, std::string &error) = 0;
    virtual bool query_port(int port, PortInfo &info, std::string &error) = 0;
    virtual bool register_memory(uint8_t *addr, size_t length, Region &region, std::string &error) = 0;
    virtual bool create_cq(uint32_t entries, bool events, CqId &cq, std::string &error) = 0;
    virtual bool create_qp(Connection connection, CqId send_cq, CqId recv_cq, const QpCaps &caps, QpId &qp,
                           QpInfo &info, std::string &error) = 0;
    // RESET -> INIT -> RTR -> RTS towards the peer.
    virtual bool connect(QpId qp, const ConnectParams &params, std::string &error) = 0;
    virtual bool create_ah(uint16_t dlid, int port, AhId &ah, std::string &error) = 0;
    // Memory for test buffers that this layer can address (page aligned, zeroed); freed by the
    // endpoint's destructor.
    virtual uint8_t *allocate_buffer(size_t length, std::string &error) = 0;

    // ---- Data path (no allocation) ----
    virtual int post_send(QpId qp, const SendRequest &request) = 0;
    virtual int post_recv(QpId qp, uint64_t id, uint64_t local_addr, uint32_t length, uint32_t lkey) = 0;
    // 1: a completion was stored; 0: the CQ is empty; anything else: a failure status (negated
    // so that it is never 0 or 1).
    virtual int poll(CqId cq, Completion &completion) = 0;
    // Asks for an event at the next completion of the CQ.
    virtual int arm(CqId cq) = 0;
    // Waits up to `timeout_ms` for an event of the CQ after its last arm; true when one came.
    virtual bool wait_event(CqId cq, int timeout_ms) = 0;

    // False when the layer does not pass the operands of an atomic request to the device (the
    // adaptor's translation leaves them out): the device then adds zero and compares with zero.
    virtual bool carries_atomic_operands() const { return true; }

    virtual std::string status_name(int status) const = 0;
    virtual std::string completion_status_name(int status) const = 0;
};

enum class Path { Direct, Adaptor };

// A new, unopened endpoint of the path; nullptr with a message when the path cannot run here.
std::unique_ptr<Endpoint> make_direct_endpoint();
std::unique_ptr<Endpoint> make_adaptor_endpoint(std::string &why_not);

}  // namespace marlix::perftest
