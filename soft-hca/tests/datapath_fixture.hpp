// Both devices open, each with a PD, a CQ and registered buffers; helpers that connect RC and UC
// QPs (on one device or across the two), post, run the devices and poll. The stepped engine by
// default, so each test sees the same packets and completions on every run.
#pragma once

#include <algorithm>
#include <array>
#include <cstring>
#include <memory>
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

class DataPathTest : public SoftHcaTest {
  protected:
    sh::Options options() override {
        sh::Options o;
        o.engine = engine_;
        return o;
    }

    void SetUp() override {
        SoftHcaTest::SetUp();
        for (int i = 0; i < 2; ++i) {
            Side &s = sides[i];
            s.name = i == 0 ? "InfiniHost0" : "InfiniHost1";
            s.hca = open(s.name);
            ASSERT_EQ(EVAPI_alloc_pd(s.hca, 64, &s.pd), VAPI_OK);
            VAPI_cqe_num_t n = 0;
            ASSERT_EQ(VAPI_create_cq(s.hca, 255, &s.cq, &n), VAPI_OK);
            s.lid = sh::port_status(s.name, 1)->lid;
        }
    }

    Buffer &buffer(Side &s, size_t size, VAPI_mrw_acl_t acl = kAllAccess, uint8_t fill = 0) {
        auto b = std::make_unique<Buffer>();
        b->bytes.assign(size, fill);
        VAPI_mrw_t req{}, rep{};
        req.type = VAPI_MR;
        req.start = b->addr();
        req.size = size;
        req.pd_hndl = s.pd;
        req.acl = acl;
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

    // A connected pair: `a` on side `sa`, `b` on side `sb` (the same side: loopback).
    std::pair<Qp, Qp> pair(VAPI_ts_type_t ts, Side &sa, Side &sb, const Conn &c = Conn{}) {
        Qp a = create(sa, ts), b = create(sb, ts);
        connect_one(a, b, ts, c);
        connect_one(b, a, ts, c);
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

    VAPI_ret_t post_send(const Qp &q, VAPI_wr_id_t id, VAPI_wr_opcode_t op,
                         std::vector<VAPI_sg_lst_entry_t> sg, uint64_t remote_addr = 0, VAPI_rkey_t rkey = 0,
                         bool signalled = true) {
        VAPI_sr_desc_t d{};
        d.id = id;
        d.opcode = op;
        d.comp_type = signalled ? VAPI_SIGNALED : VAPI_UNSIGNALED;
        d.sg_lst_p = sg.data();
        d.sg_lst_len = uint32_t(sg.size());
        d.remote_addr = remote_addr;
        d.r_key = rkey;
        return VAPI_post_sr(q.side->hca, q.hndl, &d);
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

    size_t run() { return sh::run_until_idle(); }

    std::vector<VAPI_wc_desc_t> poll(Side &s, VAPI_cq_hndl_t cq = 0) {
        std::vector<VAPI_wc_desc_t> out;
        VAPI_wc_desc_t wc{};
        while (VAPI_poll_cq(s.hca, cq ? cq : s.cq, &wc) == VAPI_OK) out.push_back(wc);
        return out;
    }

    VAPI_qp_state_t state(const Qp &q) {
        VAPI_qp_attr_t a{};
        VAPI_qp_attr_mask_t m = 0;
        VAPI_qp_init_attr_t i{};
        EXPECT_EQ(VAPI_query_qp(q.side->hca, q.hndl, &a, &m, &i), VAPI_OK);
        return a.qp_state;
    }

    // PortXmitData, PortRcvData, PortXmitPkts, PortRcvPkts of port 1 (PerfMgt PortCounters).
    static std::array<uint32_t, 4> port_counters(const Side &s) {
        uint8_t in[256] = {}, out[256] = {};
        in[0] = 1;       // base version
        in[1] = 0x04;    // PerfMgt
        in[2] = 1;       // class version
        in[3] = 0x01;    // Get
        in[17] = 0x12;   // PortCounters
        in[64 + 1] = 1;  // port 1
        EXPECT_EQ(EVAPI_process_local_mad(s.hca, 1, 0, EVAPI_MAD_IGNORE_MKEY, in, out), VAPI_OK);
        auto be32 = [&](int off) {
            return uint32_t(out[off]) << 24 | uint32_t(out[off + 1]) << 16 | uint32_t(out[off + 2]) << 8 |
                   out[off + 3];
        };
        return {be32(64 + 24), be32(64 + 28), be32(64 + 32), be32(64 + 36)};
    }

    static void pattern(Buffer &b, uint8_t seed) {
        for (size_t i = 0; i < b.bytes.size(); ++i) b.bytes[i] = uint8_t(seed + i * 7);
    }

    sh::EngineKind engine_ = sh::EngineKind::Stepped;  // set in a derived fixture's constructor
    Side sides[2];
    Side &s0 = sides[0];
    Side &s1 = sides[1];
    std::vector<std::unique_ptr<Buffer>> buffers;
};

// Asynchronous events seen by a handler, per device.
struct AsyncLog {
    std::vector<VAPI_event_record_t> events;
    static void handler(VAPI_hca_hndl_t, VAPI_event_record_t *rec, void *priv) {
        static_cast<AsyncLog *>(priv)->events.push_back(*rec);
    }
    bool has(VAPI_event_record_type_t type, uint64_t qp_or_cq) const {
        for (const auto &e : events)
            if (e.type == type && e.modifier.qp_hndl == qp_or_cq) return true;
        return false;
    }
};

}  // namespace dp
