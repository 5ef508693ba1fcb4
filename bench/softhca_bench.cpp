// The software HCA at the VAPI level, on the threaded engine: the message rate of 8-byte sends
// posted and polled on one QP, RDMA write bandwidth beside memcpy of the same sizes, and the
// half round trip of an RC send ping-pong beside a cross-thread cache-line ping-pong. These are
// the baseline the adaptor is measured against (docs/soft-hca.md).
#include <benchmark/benchmark.h>

#include "floors.hpp"

#include <atomic>
#include <cstring>
#include <memory>
#include <thread>
#include <vector>

#include <evapi.h>

#include "marlix/softhca.hpp"

namespace {

namespace sh = marlix::softhca;

struct Side {
    VAPI_hca_hndl_t hca = 0;
    VAPI_pd_hndl_t pd = 0;
    VAPI_cq_hndl_t cq = 0;
    IB_lid_t lid = 0;
};

struct Region {
    std::vector<uint8_t> bytes;
    VAPI_lkey_t lkey = 0;
    VAPI_rkey_t rkey = 0;
    uint64_t addr() const { return reinterpret_cast<uintptr_t>(bytes.data()); }
};

// Two devices, an RC connection between them, registered buffers on both sides.
struct Fabric {
    Side s[2];
    VAPI_qp_hndl_t qp[2] = {};
    VAPI_qp_num_t num[2] = {};
    Region buf[2];

    explicit Fabric(size_t bytes, uint32_t depth = 256) {
        sh::Options o;
        o.engine = sh::EngineKind::Threaded;
        sh::boot(o);
        const char *names[2] = {"InfiniHost0", "InfiniHost1"};
        for (int i = 0; i < 2; ++i) {
            VAPI_open_hca(names[i], &s[i].hca);
            EVAPI_alloc_pd(s[i].hca, 16, &s[i].pd);
            VAPI_cqe_num_t n = 0;
            VAPI_create_cq(s[i].hca, 4 * depth, &s[i].cq, &n);
            s[i].lid = sh::port_status(names[i], 1)->lid;
            buf[i].bytes.assign(bytes, uint8_t(i));
            VAPI_mrw_t req{}, rep{};
            req.type = VAPI_MR;
            req.start = buf[i].addr();
            req.size = bytes;
            req.pd_hndl = s[i].pd;
            req.acl = VAPI_EN_LOCAL_WRITE | VAPI_EN_REMOTE_WRITE | VAPI_EN_REMOTE_READ;
            VAPI_mr_hndl_t mr = 0;
            VAPI_register_mr(s[i].hca, &req, &mr, &rep);
            buf[i].lkey = rep.l_key;
            buf[i].rkey = rep.r_key;
            VAPI_qp_init_attr_t a{};
            a.sq_cq_hndl = a.rq_cq_hndl = s[i].cq;
            a.cap.max_oust_wr_sq = a.cap.max_oust_wr_rq = depth;
            a.cap.max_sg_size_sq = a.cap.max_sg_size_rq = 1;
            a.sq_sig_type = VAPI_SIGNAL_REQ_WR;
            a.rq_sig_type = VAPI_SIGNAL_ALL_WR;
            a.pd_hndl = s[i].pd;
            a.ts_type = VAPI_TS_RC;
            VAPI_qp_prop_t prop{};
            VAPI_create_qp(s[i].hca, &a, &qp[i], &prop);
            num[i] = prop.qp_num;
        }
        for (int i = 0; i < 2; ++i) connect(i, 1 - i);
    }
    ~Fabric() { sh::halt(); }

    void connect(int i, int peer) {
        VAPI_qp_attr_t a{};
        VAPI_qp_cap_t cap{};
        a.qp_state = VAPI_INIT;
        a.port = 1;
        a.remote_atomic_flags = VAPI_EN_REM_WRITE | VAPI_EN_REM_READ;
        VAPI_qp_attr_mask_t m =
            QP_ATTR_QP_STATE | QP_ATTR_PORT | QP_ATTR_PKEY_IX | QP_ATTR_REMOTE_ATOMIC_FLAGS;
        VAPI_modify_qp(s[i].hca, qp[i], &a, &m, &cap);
        a.qp_state = VAPI_RTR;
        a.av.dlid = s[peer].lid;
        a.path_mtu = MTU2048;
        a.dest_qp_num = num[peer];
        a.qp_ous_rd_atom = 4;
        m = QP_ATTR_QP_STATE | QP_ATTR_AV | QP_ATTR_PATH_MTU | QP_ATTR_DEST_QP_NUM | QP_ATTR_RQ_PSN |
            QP_ATTR_QP_OUS_RD_ATOM;
        VAPI_modify_qp(s[i].hca, qp[i], &a, &m, &cap);
        a.qp_state = VAPI_RTS;
        a.timeout = 14;
        a.retry_count = 7;
        a.rnr_retry = 7;
        a.ous_dst_rd_atom = 4;
        m = QP_ATTR_QP_STATE | QP_ATTR_SQ_PSN | QP_ATTR_TIMEOUT | QP_ATTR_RETRY_COUNT | QP_ATTR_RNR_RETRY |
            QP_ATTR_OUS_DST_RD_ATOM;
        VAPI_modify_qp(s[i].hca, qp[i], &a, &m, &cap);
    }

    VAPI_ret_t send(int i, uint64_t id, uint32_t offset, uint32_t len, bool signalled,
                    VAPI_wr_opcode_t op = VAPI_SEND, uint64_t remote = 0) {
        VAPI_sg_lst_entry_t sg{buf[i].addr() + offset, len, buf[i].lkey};
        VAPI_sr_desc_t d{};
        d.id = id;
        d.opcode = op;
        d.comp_type = signalled ? VAPI_SIGNALED : VAPI_UNSIGNALED;
        d.sg_lst_p = &sg;
        d.sg_lst_len = 1;
        d.remote_addr = remote;
        d.r_key = buf[1 - i].rkey;
        return VAPI_post_sr(s[i].hca, qp[i], &d);
    }
    VAPI_ret_t recv(int i, uint64_t id, uint32_t offset, uint32_t len) {
        VAPI_sg_lst_entry_t sg{buf[i].addr() + offset, len, buf[i].lkey};
        VAPI_rr_desc_t d{};
        d.id = id;
        d.opcode = VAPI_RECEIVE;
        d.comp_type = VAPI_SIGNALED;
        d.sg_lst_p = &sg;
        d.sg_lst_len = 1;
        return VAPI_post_rr(s[i].hca, qp[i], &d);
    }
    // Waits for one completion on side i's CQ.
    VAPI_wc_desc_t wait(int i) {
        VAPI_wc_desc_t wc{};
        while (VAPI_poll_cq(s[i].hca, s[i].cq, &wc) != VAPI_OK) {
        }
        return wc;
    }
};

// 8-byte sends on one QP: post a window, poll what completes, keep the window full. Every send
// is signalled and every receive completes, so each message costs two posts and two polls.
void BM_SendMessageRate(benchmark::State &state) {
    constexpr uint32_t kWindow = 64;
    Fabric f(4096, 256);
    uint64_t posted = 0, done = 0, received = 0;
    for (uint32_t i = 0; i < 2 * kWindow; ++i) f.recv(1, i, (i % 64) * 8, 8);
    uint64_t recvs = 2 * kWindow;
    VAPI_wc_desc_t wc{};
    for (auto _ : state) {
        while (posted - done >= kWindow) {
            while (VAPI_poll_cq(f.s[0].hca, f.s[0].cq, &wc) == VAPI_OK) ++done;
            while (VAPI_poll_cq(f.s[1].hca, f.s[1].cq, &wc) == VAPI_OK) {
                ++received;
                f.recv(1, recvs++, 0, 8);
            }
        }
        f.send(0, posted, (posted % 64) * 8, 8, true);
        ++posted;
    }
    while (done < posted) done += VAPI_poll_cq(f.s[0].hca, f.s[0].cq, &wc) == VAPI_OK;
    state.SetItemsProcessed(int64_t(posted));
    state.counters["msg/s"] = benchmark::Counter(double(posted), benchmark::Counter::kIsRate);
}
BENCHMARK(BM_SendMessageRate)->UseRealTime();

// RDMA writes of one size, one outstanding at a time (signalled), against memcpy of the same size.
void BM_RdmaWrite(benchmark::State &state) {
    const uint32_t size = uint32_t(state.range(0));
    Fabric f(size, 16);
    uint64_t id = 0;
    for (auto _ : state) {
        f.send(0, id++, 0, size, true, VAPI_RDMA_WRITE, f.buf[1].addr());
        f.wait(0);
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * size);
}
BENCHMARK(BM_RdmaWrite)->RangeMultiplier(4)->Range(64, 1 << 20)->UseRealTime();

void BM_Memcpy(benchmark::State &state) {
    marlix::bench::memcpy_floor(state);
}
BENCHMARK(BM_Memcpy)->RangeMultiplier(4)->Range(64, 1 << 20)->UseRealTime();

// RC send ping-pong: side 1 echoes on its own thread; the time reported is half a round trip.
void BM_SendPingPong(benchmark::State &state) {
    Fabric f(4096, 64);
    std::atomic<bool> stop{false};
    for (int i = 0; i < 32; ++i) {
        f.recv(0, i, 0, 8);
        f.recv(1, i, 0, 8);
    }
    std::thread echo([&] {
        VAPI_wc_desc_t wc{};
        uint64_t n = 0;
        while (!stop.load(std::memory_order_relaxed)) {
            if (VAPI_poll_cq(f.s[1].hca, f.s[1].cq, &wc) != VAPI_OK) continue;
            if (wc.opcode != VAPI_CQE_RQ_SEND_DATA) continue;
            f.recv(1, n, 0, 8);
            f.send(1, n++, 8, 8, false);
        }
    });
    uint64_t n = 0;
    for (auto _ : state) {
        f.send(0, n, 8, 8, false);
        for (;;) {
            VAPI_wc_desc_t wc = f.wait(0);
            if (wc.opcode == VAPI_CQE_RQ_SEND_DATA) break;
        }
        f.recv(0, n++, 0, 8);
    }
    stop = true;
    echo.join();
    // Each iteration is a whole round trip: two one-way hand-offs.
    state.counters["one_way"] = benchmark::Counter(double(state.iterations()) * 2,
                                                   benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}
BENCHMARK(BM_SendPingPong)->UseRealTime();

// Two threads passing a token through one cache line: the floor of any cross-thread hand-off.
void BM_CacheLinePingPong(benchmark::State &state) {
    marlix::bench::cache_line_pingpong_floor(state, "one_way");
}
BENCHMARK(BM_CacheLinePingPong)->UseRealTime();

}  // namespace
