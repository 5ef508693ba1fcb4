// The adaptor's data path against direct VAPI, on the same QP in the same run: 8-byte RC sends,
// a window of 64 kept full, at trace level 0, on the threaded engine.
//
//   BM_AdaptorSendPoll   oxi_mlx_post_send + oxi_mlx_poll_for_completion, through the provider
//                        table as an upper layer calls them
//   BM_VapiSendPoll      VAPI_post_sr + VAPI_poll_cq on the QP and CQ the module made
//
// The receiving side is the same in both (its receives are posted and polled through VAPI), so
// the difference between the two rates is what the adaptor adds on the sender. docs/adaptor.md
// reports the ratio.
#include <benchmark/benchmark.h>

#include <cstring>
#include <vector>

#include <evapi.h>

#include "datapath_layout.h"
#include "rc_fabric.hpp"
#include "marlix/kernel.hpp"
#include "marlix/softhca.hpp"
#include "marlix/stack.hpp"
#include "module_layout.h"
#include "ulp_pair.hpp"

namespace {

namespace k = marlix::kernel;
namespace st = marlix::stack;
namespace sh = marlix::softhca;
namespace up = marlix::ulp_pair;
namespace mb = marlix::bench;

constexpr uint32_t kWindow = 64;
constexpr uint32_t kBytes = 8;

// The module loaded at trace level 0, an HCA open on each device and an RC pair between them,
// made through the provider; the VAPI handles of what the module made, for the direct calls.
struct System {
    up::Side side[2];
    mb::RcEnd end[2];  // the same QPs and CQs as VAPI sees them, buffers at their generic IOVA
    std::vector<uint8_t> buf[2];

    System() {
        k::BootOptions ko;
        ko.clock = k::ClockMode::Real;
        ko.module_path = MARLIX_BENCH_MODULE_DIR;
        k::boot(ko);
        st::boot();
        mb::boot_threaded_devices();
        st::set_long(st::kAdaptorKey, "debug-level", 0);
        if (k::insmod("adaptor-mlx", {}) != 0) std::abort();
        const char *names[2] = {"InfiniHost0", "InfiniHost1"};
        const ulp_funcs_t *funcs = ulp_find_provider("mlx");
        for (int i = 0; i < 2; ++i) {
            side[i].funcs = funcs;
            if (ulp_hca_open(funcs, names[i], nullptr, &side[i].hca) != 0) std::abort();
        }
        if (up::connect(side[0], side[1], "rc", 1024, 512) != 0) std::abort();
        for (int i = 0; i < 2; ++i) {
            long long v = 0;
            layout_get(adp_layout(), "ox_opened_hca_t", side[i].hca, "hca_h", &v);
            end[i].hca = VAPI_hca_hndl_t(v);
            layout_get(dpl_layout(), "ox_opened_qp_t", side[i].qp, "qp_h", &v);
            end[i].qp = VAPI_qp_hndl_t(v);
            layout_get(dpl_layout(), "ox_opened_cq_t", side[i].cq, "cq_h", &v);
            end[i].cq = VAPI_cq_hndl_t(v);
            end[i].lkey = side[i].l_key;
            buf[i].assign(4096, uint8_t(i));
            unsigned long adv = 0;
            ulp_va2advertise_addr(funcs, side[i].hca, 0x10000000000UL, &adv);
            end[i].base = adv + (reinterpret_cast<unsigned long>(buf[i].data()) - 0x10000000000UL);
        }
        for (uint32_t n = 0; n < 4 * kWindow; ++n) recv(n);
    }
    ~System() {
        up::release(side[0]);
        up::release(side[1]);
        for (auto &s : side) ulp_hca_close(s.funcs, s.hca);
        k::rmmod("adaptor_mlx");
        sh::halt();
        st::halt();
        k::halt(true);
    }

    // A receive on side 1, posted directly (the same in both benchmarks).
    void recv(uint64_t id) { end[1].recv(id, uint32_t(id % 64) * kBytes, kBytes); }
    // Takes what side 1 received and posts as many receives again.
    void replenish(uint64_t &recvs) {
        VAPI_wc_desc_t wc{};
        while (end[1].poll(wc)) recv(recvs++);
    }
};

System &system_once() {
    static System s;
    return s;
}

void BM_AdaptorSendPoll(benchmark::State &state) {
    System &s = system_once();
    const ulp_funcs_t *funcs = s.side[0].funcs;
    std::vector<char> wc(ulp_sizeof_wc(), 0);
    const ulp_send_target target{};
    uint64_t recvs = 4 * kWindow;
    mb::send_window(
        state, kWindow, 1,
        [&](uint64_t id) {
            ulp_post_send_simple(funcs, s.side[0].hca, s.side[0].qp, ulp_operation_type("rc"), ulp_op_send,
                                 id, s.buf[0].data() + (id % 64) * kBytes, kBytes, s.side[0].l_key, &target);
        },
        [&](uint64_t &done) {
            while (ulp_poll(funcs, s.side[0].hca, s.side[0].cq, wc.data()) == 0) ++done;
        },
        [&] { s.replenish(recvs); });
}

void BM_VapiSendPoll(benchmark::State &state) {
    System &s = system_once();
    VAPI_wc_desc_t wc{};
    uint64_t recvs = 4 * kWindow;
    mb::send_window(
        state, kWindow, 1, [&](uint64_t id) { s.end[0].send(id, uint32_t(id % 64) * kBytes, kBytes, true); },
        [&](uint64_t &done) {
            while (s.end[0].poll(wc)) ++done;
        },
        [&] { s.replenish(recvs); });
}

// Interleaved, so that both see the same machine.
BENCHMARK(BM_VapiSendPoll)->UseRealTime()->Repetitions(5)->ReportAggregatesOnly(true);
BENCHMARK(BM_AdaptorSendPoll)->UseRealTime()->Repetitions(5)->ReportAggregatesOnly(true);

}  // namespace
