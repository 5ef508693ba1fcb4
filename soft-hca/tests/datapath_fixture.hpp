// Both devices open, each with a PD, a CQ and registered buffers; helpers that connect RC and UC
// QPs (on one device or across the two), build and post requests, send one message end to end,
// run the devices and poll. The stepped engine by default, so each test sees the same packets and
// completions on every run.
#pragma once

#include <algorithm>
#include <array>
#include <cstring>
#include <memory>
#include <optional>
#include <vector>

#include "softhca_fixture.hpp"

#include <asm/page.h>
#include <linux/hardirq.h>

namespace dp {

namespace sh = marlix::softhca;

constexpr VAPI_mrw_acl_t kAllAccess =
    VAPI_EN_LOCAL_WRITE | VAPI_EN_REMOTE_WRITE | VAPI_EN_REMOTE_READ | VAPI_EN_REMOTE_ATOM;

struct Side {
    VAPI_hca_hndl_t hca = 0;
    VAPI_pd_hndl_t pd = 0;
    VAPI_cq_hndl_t cq = 0;
    IB_lid_t lid = 0;
    const char *name = "";
};

// A registered buffer.
struct Buffer {
    std::vector<uint8_t> bytes;
    VAPI_mr_hndl_t mr = 0;
    VAPI_lkey_t lkey = 0;
    VAPI_rkey_t rkey = 0;
    uint64_t addr() const { return reinterpret_cast<uintptr_t>(bytes.data()); }
    VAPI_sg_lst_entry_t sg(uint32_t offset, uint32_t len) const { return {addr() + offset, len, lkey}; }
};

struct Qp {
    VAPI_qp_hndl_t hndl = 0;
    VAPI_qp_num_t num = 0;
    Side *side = nullptr;
};

// Connection attributes; tests change fields before connect().
struct Conn {
    uint8_t timeout = 14;
    uint8_t retry_count = 7;
    uint8_t rnr_retry = 7;
    uint8_t min_rnr_timer = 1;  // 0.01 ms
    uint8_t rd_atom = 4;        // both directions
    VAPI_rdma_atom_acl_t access = VAPI_EN_REM_WRITE | VAPI_EN_REM_READ | VAPI_EN_REM_ATOMIC_OP;
    IB_mtu_t mtu = MTU2048;
};

// A signalled send request with its own gather list. The constructor fills what every request
// has; a test sets the other fields of `d` (immediate data, fence, solicited event, compare and
// swap values) and hands desc() to the verb it posts with.
struct SendWr {
    SendWr(VAPI_wr_id_t id, VAPI_wr_opcode_t op, std::vector<VAPI_sg_lst_entry_t> gather,
           uint64_t remote_addr = 0, VAPI_rkey_t rkey = 0)
        : sg(std::move(gather)) {
        d.id = id;
        d.opcode = op;
        d.comp_type = VAPI_SIGNALED;
        d.remote_addr = remote_addr;
        d.r_key = rkey;
    }
    // Addressed to datagram QP `qp` through address handle `ah`.
    SendWr &to(VAPI_ud_av_hndl_t ah, VAPI_qp_num_t qp, VAPI_qkey_t qkey = 0) {
        d.remote_ah = ah;
        d.remote_qp = qp;
        d.remote_qkey = qkey;
        return *this;
    }
    VAPI_sr_desc_t *desc() {
        d.sg_lst_p = sg.data();
        d.sg_lst_len = uint32_t(sg.size());
        return &d;
    }
    VAPI_sr_desc_t d{};
    std::vector<VAPI_sg_lst_entry_t> sg;
};

// What one message left on the two sides: the completions polled from the sender's CQ and from
// the receiver's.
struct Delivery {
    std::vector<VAPI_wc_desc_t> sent, got;
};

// A completion whose every byte is 0xff: what only() and poll() show where the device wrote
// nothing, so that no field of it matches a value a test expects.
inline VAPI_wc_desc_t unwritten_completion() {
    VAPI_wc_desc_t wc;
    std::memset(&wc, 0xff, sizeof wc);
    return wc;
}

// The statuses of `wcs`, in order.
inline std::vector<VAPI_wc_status_t> statuses(const std::vector<VAPI_wc_desc_t> &wcs) {
    std::vector<VAPI_wc_status_t> out;
    for (const VAPI_wc_desc_t &wc : wcs) out.push_back(wc.status);
    return out;
}

// The one completion in `wcs`. None or several fail the test; with none the caller sees
// unwritten_completion().
inline VAPI_wc_desc_t only(const std::vector<VAPI_wc_desc_t> &wcs) {
    EXPECT_EQ(wcs.size(), 1u) << "expected exactly one completion";
    return wcs.empty() ? unwritten_completion() : wcs.front();
}

// Asynchronous events seen by a handler, per device.
struct AsyncLog {
    std::vector<VAPI_event_record_t> events;
    static void handler(VAPI_hca_hndl_t, VAPI_event_record_t *rec, void *priv) {
        static_cast<AsyncLog *>(priv)->events.push_back(*rec);
    }
    bool has(VAPI_event_record_type_t type, uint64_t qp_or_cq) const { return count(type, qp_or_cq) > 0; }
    // Events of `type` (for the one QP or CQ `qp_or_cq` when given).
    size_t count(VAPI_event_record_type_t type, std::optional<uint64_t> qp_or_cq = std::nullopt) const {
        size_t n = 0;
        for (const auto &e : events) n += e.type == type && (!qp_or_cq || e.modifier.qp_hndl == *qp_or_cq);
        return n;
    }
};

class DataPathTest : public SoftHcaTest {
  protected:
    sh::Options options() override {
        sh::Options o;
        o.engine = engine_;
        return o;
    }

    void SetUp() override {
        SoftHcaTest::SetUp();
        ASSERT_NO_FATAL_FAILURE(open_side(s0, "InfiniHost0"));
        ASSERT_NO_FATAL_FAILURE(open_side(s1, "InfiniHost1"));
    }

    // From here on the asynchronous events of each device are logged in async0 and async1.
    void log_async_events() {
        ASSERT_EQ(VAPI_set_async_event_handler(s0.hca, AsyncLog::handler, &async0), VAPI_OK);
        ASSERT_EQ(VAPI_set_async_event_handler(s1.hca, AsyncLog::handler, &async1), VAPI_OK);
    }

    // Opens device `name` with a PD and a 255-entry CQ, and learns the LID of its port 1.
    void open_side(Side &s, const char *name) {
        s.name = name;
        s.hca = open(name);
        ASSERT_EQ(EVAPI_alloc_pd(s.hca, 64, &s.pd), VAPI_OK);
        VAPI_cqe_num_t n = 0;
        ASSERT_EQ(VAPI_create_cq(s.hca, 255, &s.cq, &n), VAPI_OK);
        s.lid = sh::port_status(name, 1)->lid;
    }

    Buffer &buffer(Side &s, size_t size, VAPI_mrw_acl_t acl = kAllAccess, uint8_t fill = 0) {
        auto b = std::make_unique<Buffer>();
        b->bytes.assign(size, fill);
        VAPI_mrw_t req = virtual_region(s.pd, b->bytes.data(), size, acl), rep{};
        EXPECT_EQ(VAPI_register_mr(s.hca, &req, &b->mr, &rep), VAPI_OK);
        b->lkey = rep.l_key;
        b->rkey = rep.r_key;
        buffers.push_back(std::move(b));
        return *buffers.back();
    }

    Qp create(Side &s, VAPI_ts_type_t ts, uint32_t depth = 16, VAPI_cq_hndl_t cq = 0,
              VAPI_sig_type_t sig = VAPI_SIGNAL_REQ_WR) {
        VAPI_qp_init_attr_t a{};
        a.sq_cq_hndl = a.rq_cq_hndl = cq ? cq : s.cq;
        a.cap.max_oust_wr_sq = a.cap.max_oust_wr_rq = depth;
        a.cap.max_sg_size_sq = a.cap.max_sg_size_rq = 4;
        a.cap.max_inline_data_sq = 64;
        a.sq_sig_type = sig;
        a.rq_sig_type = VAPI_SIGNAL_ALL_WR;
        a.pd_hndl = s.pd;
        a.ts_type = ts;
        Qp q;
        VAPI_qp_prop_t prop{};
        EXPECT_EQ(VAPI_create_qp(s.hca, &a, &q.hndl, &prop), VAPI_OK);
        q.num = prop.qp_num;
        q.side = &s;
        return q;
    }

    VAPI_ret_t modify(const Qp &q, const VAPI_qp_attr_t &a, VAPI_qp_attr_mask_t mask) {
        VAPI_qp_cap_t cap{};
        return VAPI_modify_qp(q.side->hca, q.hndl, &a, &mask, &cap);
    }

    // Brings `q` to RTS, connected to `peer` (RC or UC).
    void connect_one(const Qp &q, const Qp &peer, VAPI_ts_type_t ts, const Conn &c) {
        VAPI_qp_attr_t a{};
        a.qp_state = VAPI_INIT;
        a.port = 1;
        a.pkey_ix = 0;
        a.remote_atomic_flags = c.access;
        ASSERT_EQ(
            modify(q, a, QP_ATTR_QP_STATE | QP_ATTR_PORT | QP_ATTR_PKEY_IX | QP_ATTR_REMOTE_ATOMIC_FLAGS),
            VAPI_OK);
        a.qp_state = VAPI_RTR;
        a.av.dlid = peer.side->lid;
        a.av.port = 1;
        a.path_mtu = c.mtu;
        a.dest_qp_num = peer.num;
        a.rq_psn = 0x100;
        a.qp_ous_rd_atom = c.rd_atom;
        a.min_rnr_timer = c.min_rnr_timer;
        VAPI_qp_attr_mask_t m =
            QP_ATTR_QP_STATE | QP_ATTR_AV | QP_ATTR_PATH_MTU | QP_ATTR_DEST_QP_NUM | QP_ATTR_RQ_PSN;
        if (ts == VAPI_TS_RC) m |= QP_ATTR_QP_OUS_RD_ATOM | QP_ATTR_MIN_RNR_TIMER;
        ASSERT_EQ(modify(q, a, m), VAPI_OK);
        a.qp_state = VAPI_RTS;
        a.sq_psn = 0x100;
        a.timeout = c.timeout;
        a.retry_count = c.retry_count;
        a.rnr_retry = c.rnr_retry;
        a.ous_dst_rd_atom = c.rd_atom;
        m = QP_ATTR_QP_STATE | QP_ATTR_SQ_PSN;
        if (ts == VAPI_TS_RC)
            m |= QP_ATTR_TIMEOUT | QP_ATTR_RETRY_COUNT | QP_ATTR_RNR_RETRY | QP_ATTR_OUS_DST_RD_ATOM;
        ASSERT_EQ(modify(q, a, m), VAPI_OK);
    }

    // Connects `a` and `b` to each other, both with the same attributes.
    void connect(const Qp &a, const Qp &b, VAPI_ts_type_t ts, const Conn &c = Conn{}) {
        connect_one(a, b, ts, c);
        connect_one(b, a, ts, c);
    }

    // A connected pair: `a` on side `sa`, `b` on side `sb` (the same side: loopback).
    std::pair<Qp, Qp> pair(VAPI_ts_type_t ts, Side &sa, Side &sb, const Conn &c = Conn{}) {
        Qp a = create(sa, ts), b = create(sb, ts);
        connect(a, b, ts, c);
        return {a, b};
    }

    Qp ud(Side &s, uint32_t qkey = 0x1234) {
        Qp q = create(s, VAPI_TS_UD);
        VAPI_qp_attr_t a{};
        a.qp_state = VAPI_INIT;
        a.port = 1;
        a.qkey = qkey;
        EXPECT_EQ(modify(q, a, QP_ATTR_QP_STATE | QP_ATTR_PORT | QP_ATTR_PKEY_IX | QP_ATTR_QKEY), VAPI_OK);
        a.qp_state = VAPI_RTR;
        EXPECT_EQ(modify(q, a, QP_ATTR_QP_STATE), VAPI_OK);
        a.qp_state = VAPI_RTS;
        EXPECT_EQ(modify(q, a, QP_ATTR_QP_STATE | QP_ATTR_SQ_PSN), VAPI_OK);
        return q;
    }

    VAPI_ud_av_hndl_t ah(Side &s, IB_lid_t dlid, bool grh = false) {
        VAPI_ud_av_t av{};
        av.port = 1;
        av.dlid = dlid;
        av.sl = 3;
        av.grh_flag = grh;
        av.hop_limit = 8;
        for (int i = 0; i < 16; ++i) av.dgid[i] = uint8_t(0xa0 + i);
        VAPI_ud_av_hndl_t h = 0;
        EXPECT_EQ(VAPI_create_addr_hndl(s.hca, s.pd, &av, &h), VAPI_OK);
        return h;
    }

    VAPI_ret_t post(const Qp &q, SendWr &wr) { return VAPI_post_sr(q.side->hca, q.hndl, wr.desc()); }

    VAPI_ret_t post_send(const Qp &q, VAPI_wr_id_t id, VAPI_wr_opcode_t op,
                         std::vector<VAPI_sg_lst_entry_t> sg, uint64_t remote_addr = 0, VAPI_rkey_t rkey = 0,
                         bool signalled = true) {
        SendWr wr(id, op, std::move(sg), remote_addr, rkey);
        if (!signalled) wr.d.comp_type = VAPI_UNSIGNALED;
        return post(q, wr);
    }

    VAPI_ret_t post_recv(const Qp &q, VAPI_wr_id_t id, std::vector<VAPI_sg_lst_entry_t> sg) {
        VAPI_rr_desc_t d{};
        d.id = id;
        d.opcode = VAPI_RECEIVE;
        d.comp_type = VAPI_SIGNALED;
        d.sg_lst_p = sg.data();
        d.sg_lst_len = uint32_t(sg.size());
        return VAPI_post_rr(q.side->hca, q.hndl, &d);
    }

    // One message from `a` to `b`: a receive of `to` posted on b, then a send of `from` on a.
    void post_message(const Qp &a, const Qp &b, std::vector<VAPI_sg_lst_entry_t> from,
                      std::vector<VAPI_sg_lst_entry_t> to, VAPI_wr_id_t send_id = 1,
                      VAPI_wr_id_t recv_id = 2) {
        EXPECT_EQ(post_recv(b, recv_id, std::move(to)), VAPI_OK);
        EXPECT_EQ(post_send(a, send_id, VAPI_SEND, std::move(from)), VAPI_OK);
    }

    // post_message(), then the devices run until idle and both sides' CQs are polled. For QPs on
    // two devices, each on its side's CQ.
    Delivery send_message(const Qp &a, const Qp &b, std::vector<VAPI_sg_lst_entry_t> from,
                          std::vector<VAPI_sg_lst_entry_t> to, VAPI_wr_id_t send_id = 1,
                          VAPI_wr_id_t recv_id = 2) {
        post_message(a, b, std::move(from), std::move(to), send_id, recv_id);
        run();
        Delivery d;
        d.sent = poll(*a.side);
        d.got = poll(*b.side);
        return d;
    }

    size_t run() { return sh::run_until_idle(); }

    // The link of the side's port 1 loses the next `packets` packets that cross it.
    static void drop_packets(const Side &s, uint32_t packets) {
        sh::LinkFaults f;
        f.drop_next = packets;
        EXPECT_TRUE(sh::set_link_faults(s.name, 1, f));
    }

    // The link of the side's port 1 holds every packet for `ms` milliseconds of the device clock.
    static void delay_packets(const Side &s, uint32_t ms) {
        sh::LinkFaults f;
        f.delay_ms = ms;
        EXPECT_TRUE(sh::set_link_faults(s.name, 1, f));
    }

    // Every completion waiting on the CQ, each polled into a record of 0xff bytes, so that a field
    // the device leaves unwritten cannot pass for a zero a test expects.
    std::vector<VAPI_wc_desc_t> poll(Side &s, VAPI_cq_hndl_t cq = 0) {
        std::vector<VAPI_wc_desc_t> out;
        for (VAPI_wc_desc_t wc = unwritten_completion(); VAPI_poll_cq(s.hca, cq ? cq : s.cq, &wc) == VAPI_OK;
             wc = unwritten_completion())
            out.push_back(wc);
        return out;
    }

    // The QP's attributes as VAPI_query_qp reports them, read into a record of 0xff bytes so that
    // a field left unwritten cannot pass for a zero (RESET, port 0) a test expects.
    VAPI_qp_attr_t query(const Qp &q) {
        VAPI_qp_attr_t a;
        std::memset(&a, 0xff, sizeof a);
        VAPI_qp_attr_mask_t m = 0;
        VAPI_qp_init_attr_t i{};
        EXPECT_EQ(VAPI_query_qp(q.side->hca, q.hndl, &a, &m, &i), VAPI_OK);
        return a;
    }

    VAPI_qp_state_t state(const Qp &q) { return query(q).qp_state; }

    // A PerfMgt PortCounters MAD of `method` (0x01 Get, 0x02 Set, with the CounterSelect
    // `select`) processed on port 1; returns the response.
    static std::array<uint8_t, 256> port_counters_mad(const Side &s, uint8_t method, uint16_t select = 0) {
        uint8_t in[256] = {};
        std::array<uint8_t, 256> out{};
        in[0] = 1;       // base version
        in[1] = 0x04;    // PerfMgt
        in[2] = 1;       // class version
        in[3] = method;  // Get or Set
        in[17] = 0x12;   // PortCounters
        in[64 + 1] = 1;  // port 1
        in[64 + 2] = uint8_t(select >> 8);
        in[64 + 3] = uint8_t(select);
        EXPECT_EQ(EVAPI_process_local_mad(s.hca, 1, 0, EVAPI_MAD_IGNORE_MKEY, in, out.data()), VAPI_OK);
        return out;
    }

    // PortXmitData, PortRcvData, PortXmitPkts, PortRcvPkts of port 1 (PerfMgt PortCounters).
    static std::array<uint32_t, 4> port_counters(const Side &s) {
        const std::array<uint8_t, 256> out = port_counters_mad(s, 0x01);
        auto be32 = [&](int off) {
            return uint32_t(out[off]) << 24 | uint32_t(out[off + 1]) << 16 | uint32_t(out[off + 2]) << 8 |
                   out[off + 3];
        };
        return {be32(64 + 24), be32(64 + 28), be32(64 + 32), be32(64 + 36)};
    }

    static void pattern(Buffer &b, uint8_t seed) {
        for (size_t i = 0; i < b.bytes.size(); ++i) b.bytes[i] = uint8_t(seed + i * 7);
    }

    // The 64-bit value at `offset` in `b`, in host order.
    static uint64_t u64(const Buffer &b, size_t offset) {
        uint64_t v = 0;
        std::memcpy(&v, b.bytes.data() + offset, sizeof v);
        return v;
    }

    // Port 1's properties as VAPI_query_hca_port_prop reports them.
    static VAPI_hca_port_t port_props(const Side &s) {
        VAPI_hca_port_t port{};
        EXPECT_EQ(VAPI_query_hca_port_prop(s.hca, 1, &port), VAPI_OK);
        return port;
    }

    // Whether bytes [from, to) of `b` all still hold `fill`.
    static bool filled(const Buffer &b, size_t from, size_t to, uint8_t fill) {
        return std::all_of(b.bytes.begin() + from, b.bytes.begin() + to,
                           [&](uint8_t v) { return v == fill; });
    }

    sh::EngineKind engine_ = sh::EngineKind::Stepped;  // set in a derived fixture's constructor
    Side sides[2];
    Side &s0 = sides[0];
    Side &s1 = sides[1];
    std::vector<std::unique_ptr<Buffer>> buffers;
    AsyncLog async0, async1;  // filled once log_async_events() has been called
};

}  // namespace dp
