// What the device benchmarks share about an RC connection between the two devices: one side of
// it as VAPI sees it (post, poll), the connection built straight on VAPI, and the loop that keeps
// a window of sends outstanding and reports the message rate.
#pragma once

#include <benchmark/benchmark.h>

#include <cstdint>
#include <vector>

#include <evapi.h>

#include "marlix/softhca.hpp"

namespace marlix::bench {

// One end of an RC connection: the handles VAPI knows it by and a registered buffer, addressed
// as the device sees it (`base`: the address of its first byte in the region's key space).
struct RcEnd {
    VAPI_hca_hndl_t hca = 0;
    VAPI_qp_hndl_t qp = 0;
    VAPI_cq_hndl_t cq = 0;
    VAPI_lkey_t lkey = 0;
    uint64_t base = 0;

    VAPI_ret_t send(uint64_t id, uint32_t offset, uint32_t len, bool signalled,
                    VAPI_wr_opcode_t op = VAPI_SEND, uint64_t remote = 0, VAPI_rkey_t rkey = 0) const {
        VAPI_sg_lst_entry_t sg{base + offset, len, lkey};
        VAPI_sr_desc_t d{};
        d.id = id;
        d.opcode = op;
        d.comp_type = signalled ? VAPI_SIGNALED : VAPI_UNSIGNALED;
        d.sg_lst_p = &sg;
        d.sg_lst_len = 1;
        d.remote_addr = remote;
        d.r_key = rkey;
        return VAPI_post_sr(hca, qp, &d);
    }
    VAPI_ret_t recv(uint64_t id, uint32_t offset, uint32_t len) const {
        VAPI_sg_lst_entry_t sg{base + offset, len, lkey};
        const VAPI_rr_desc_t d{
            .id = id, .opcode = VAPI_RECEIVE, .comp_type = VAPI_SIGNALED, .sg_lst_p = &sg, .sg_lst_len = 1};
        return VAPI_post_rr(hca, qp, &d);
    }
    bool poll(VAPI_wc_desc_t &wc) const { return VAPI_poll_cq(hca, cq, &wc) == VAPI_OK; }
    // Busy-polls until one completion arrives.
    VAPI_wc_desc_t wait() const {
        VAPI_wc_desc_t wc{};
        while (!poll(wc)) {
        }
        return wc;
    }
};

// Boots the two devices on the threaded engine, as every device benchmark runs them.
inline void boot_threaded_devices() {
    softhca::Options o;
    o.engine = softhca::EngineKind::Threaded;
    softhca::boot(o);
}

// Two devices booted, an RC connection between them made straight on VAPI, a registered buffer
// on each side (remote read and write allowed). One CQ per side takes both queues' completions;
// receives are always signalled, sends when the request asks.
struct RcFabric {
    RcEnd end[2];
    std::vector<uint8_t> buf[2];
    VAPI_rkey_t rkey[2] = {};

    explicit RcFabric(size_t bytes, uint32_t depth = 256) {
        boot_threaded_devices();
        const char *names[2] = {"InfiniHost0", "InfiniHost1"};
        IB_lid_t lid[2] = {};
        VAPI_qp_num_t num[2] = {};
        for (int i = 0; i < 2; ++i) {
            RcEnd &e = end[i];
            VAPI_open_hca(names[i], &e.hca);
            VAPI_pd_hndl_t pd = 0;
            EVAPI_alloc_pd(e.hca, 16, &pd);
            VAPI_cqe_num_t n = 0;
            VAPI_create_cq(e.hca, 4 * depth, &e.cq, &n);
            lid[i] = softhca::port_status(names[i], 1)->lid;
            buf[i].assign(bytes, uint8_t(i));
            e.base = reinterpret_cast<uintptr_t>(buf[i].data());
            VAPI_mrw_t req{}, rep{};
            req.type = VAPI_MR;
            req.start = e.base;
            req.size = bytes;
            req.pd_hndl = pd;
            req.acl = VAPI_EN_LOCAL_WRITE | VAPI_EN_REMOTE_WRITE | VAPI_EN_REMOTE_READ;
            VAPI_mr_hndl_t mr = 0;
            VAPI_register_mr(e.hca, &req, &mr, &rep);
            e.lkey = rep.l_key;
            rkey[i] = rep.r_key;
            VAPI_qp_init_attr_t a{};
            a.sq_cq_hndl = a.rq_cq_hndl = e.cq;
            a.cap.max_oust_wr_sq = a.cap.max_oust_wr_rq = depth;
            a.cap.max_sg_size_sq = a.cap.max_sg_size_rq = 1;
            a.sq_sig_type = VAPI_SIGNAL_REQ_WR;
            a.rq_sig_type = VAPI_SIGNAL_ALL_WR;
            a.pd_hndl = pd;
            a.ts_type = VAPI_TS_RC;
            VAPI_qp_prop_t prop{};
            VAPI_create_qp(e.hca, &a, &e.qp, &prop);
            num[i] = prop.qp_num;
        }
        for (int i = 0; i < 2; ++i) connect(end[i], lid[1 - i], num[1 - i]);
    }
    ~RcFabric() { softhca::halt(); }
    RcFabric(const RcFabric &) = delete;
    RcFabric &operator=(const RcFabric &) = delete;

    // The address of byte `offset` of side i's buffer, for the other side's RDMA.
    uint64_t remote(int i, uint32_t offset = 0) const { return end[i].base + offset; }

  private:
    static void connect(const RcEnd &e, IB_lid_t peer_lid, VAPI_qp_num_t peer_qp) {
        VAPI_qp_attr_t a{};
        VAPI_qp_cap_t cap{};
        a.qp_state = VAPI_INIT;
        a.port = 1;
        a.remote_atomic_flags = VAPI_EN_REM_WRITE | VAPI_EN_REM_READ;
        VAPI_qp_attr_mask_t m =
            QP_ATTR_QP_STATE | QP_ATTR_PORT | QP_ATTR_PKEY_IX | QP_ATTR_REMOTE_ATOMIC_FLAGS;
        VAPI_modify_qp(e.hca, e.qp, &a, &m, &cap);
        a.qp_state = VAPI_RTR;
        a.av.dlid = peer_lid;
        a.path_mtu = MTU2048;
        a.dest_qp_num = peer_qp;
        a.qp_ous_rd_atom = 4;
        m = QP_ATTR_QP_STATE | QP_ATTR_AV | QP_ATTR_PATH_MTU | QP_ATTR_DEST_QP_NUM | QP_ATTR_RQ_PSN |
            QP_ATTR_QP_OUS_RD_ATOM;
        VAPI_modify_qp(e.hca, e.qp, &a, &m, &cap);
        a.qp_state = VAPI_RTS;
        a.timeout = 14;
        a.retry_count = 7;
        a.rnr_retry = 7;
        a.ous_dst_rd_atom = 4;
        m = QP_ATTR_QP_STATE | QP_ATTR_SQ_PSN | QP_ATTR_TIMEOUT | QP_ATTR_RETRY_COUNT | QP_ATTR_RNR_RETRY |
            QP_ATTR_OUS_DST_RD_ATOM;
        VAPI_modify_qp(e.hca, e.qp, &a, &m, &cap);
    }
};

// Keeps at most `window` sends outstanding: each iteration makes one post call of `per_call`
// requests, first reaping the sender's completions and the receiver's receives until the call
// fits. `post(first_id)` posts requests first_id .. first_id + per_call - 1; `reap(done)` polls
// the sender's CQ and advances `done`, the count of requests known to be finished;
// `replenish()` polls the receiver and posts its receives again. Reports msg/s.
template <class Post, class Reap, class Replenish>
void send_window(benchmark::State &state, uint32_t window, uint32_t per_call, Post post, Reap reap,
                 Replenish replenish) {
    uint64_t posted = 0, done = 0;
    for (auto _ : state) {
        while (posted - done + per_call > window) {
            reap(done);
            replenish();
        }
        post(posted);
        posted += per_call;
    }
    while (done < posted) {
        reap(done);
        replenish();
    }
    state.SetItemsProcessed(int64_t(posted));
    state.counters["msg/s"] = benchmark::Counter(double(posted), benchmark::Counter::kIsRate);
}

}  // namespace marlix::bench
