// What the traffic tools measure, measured by Google Benchmark:
// - the module's log line when its level is off (trace level 0): the goal is at most 1 ns;
// - 8-byte RC send post + poll on the threaded engine, straight on VAPI, through the tools'
//   direct endpoint (the tools' own cost over VAPI) and through the adaptor endpoint (the
//   module's oxi_mlx_post_send, oxi_mlx_post_receive and oxi_mlx_poll_for_completion);
// - memcpy at the sizes of the performance table, the floor of a copying device, and a cache line
//   bounced between two threads, the floor of a latency.
#include <benchmark/benchmark.h>

#include "floors.hpp"

#include <atomic>
#include <cstring>
#include <sstream>
#include <thread>
#include <string>
#include <vector>

#include "marlix/kernel.hpp"
#include "marlix/softhca.hpp"
#include "marlix/stack.hpp"
#include "console.hpp"
#include "perftest/transport.hpp"

extern "C" void bench_module_debug_line(const void *qp, int count, unsigned long address);

namespace {

namespace pt = marlix::perftest;

void BM_ModuleLogLineOff(benchmark::State &state) {
    marlix::kernel::boot();
    marlix::stack::boot();  // logger_trace_level 5: only the module's own level filters
    int dummy = 0;
    for (auto _ : state) {
        bench_module_debug_line(&dummy, 1, 0x1000);
        benchmark::ClobberMemory();  // the levels are read again on every call, as in the module
    }
    marlix::stack::halt();
    marlix::kernel::halt();
}
BENCHMARK(BM_ModuleLogLineOff);

// A booted host (kernel, stack, software HCA on its threaded engine), with the adaptor module
// loaded at trace level 0 when asked.
struct Host {
    std::ostringstream out, err;
    marlix::console::Console console{out, err};
    marlix::console::Host host{console};
    explicit Host(bool module) {
        if (module) console.run_text("insmod adaptor-mlx; rep set marlix/modules/adaptor-mlx/ debug-level 0");
    }
};

std::unique_ptr<pt::Endpoint> make(pt::Path path) {
    std::string why;
    return path == pt::Path::Direct ? pt::make_direct_endpoint() : pt::make_adaptor_endpoint(why);
}

// Two endpoints of a path, one RC QP each, connected across the two devices.
struct Pair {
    Host booted;
    std::unique_ptr<pt::Endpoint> a, b;
    pt::CqId acq = 0, bcq = 0;
    pt::QpId aqp = 0, bqp = 0;
    pt::QpInfo ai, bi;
    pt::Region amr, bmr;
    std::string error;
    bool ok = false;

    explicit Pair(pt::Path path = pt::Path::Direct)
        : booted(path == pt::Path::Adaptor), a(make(path)), b(make(path)) {
        if (!a || !b) {
            error = "the adaptor's provider is not registered";
            return;
        }
        pt::PortInfo ap, bp;
        pt::QpCaps caps{64, 64, 0};
        ok = a->open("InfiniHost0", 1, error) && b->open("InfiniHost1", 1, error) &&
             a->query_port(1, ap, error) && b->query_port(1, bp, error) &&
             a->create_cq(256, false, acq, error) && b->create_cq(256, false, bcq, error) &&
             a->create_qp(pt::Connection::RC, acq, acq, caps, aqp, ai, error) &&
             b->create_qp(pt::Connection::RC, bcq, bcq, caps, bqp, bi, error);
        if (!ok) return;
        uint8_t *abuf = a->allocate_buffer(4096, error), *bbuf = b->allocate_buffer(4096, error);
        ok = abuf && bbuf && a->register_memory(abuf, 4096, amr, error) &&
             b->register_memory(bbuf, 4096, bmr, error);
        if (!ok) return;
        pt::ConnectParams p;
        p.mtu_code = ap.mtu_code;
        p.remote = {bp.lid, bi.qpn, 0, 0};
        ok = a->connect(aqp, p, error);
        p.remote = {ap.lid, ai.qpn, 0, 0};
        ok = ok && b->connect(bqp, p, error);
    }
    ~Pair() {
        a.reset();
        b.reset();
    }
};

void BM_EndpointSendPostPoll(benchmark::State &state) {
    Pair p(state.range(0) ? pt::Path::Adaptor : pt::Path::Direct);
    if (!p.ok) return state.SkipWithError(p.error.c_str());
    for (int i = 0; i < 64; ++i) p.b->post_recv(p.bqp, 0, p.bmr.local_addr, 64, p.bmr.lkey);
    pt::SendRequest w;
    w.op = pt::Op::Send;
    w.local_addr = p.amr.local_addr;
    w.length = 8;
    w.lkey = p.amr.lkey;
    pt::Completion c;
    for (auto _ : state) {
        p.a->post_send(p.aqp, w);
        while (p.a->poll(p.acq, c) == 0) {
        }
        while (p.b->poll(p.bcq, c) == 0) {
        }
        p.b->post_recv(p.bqp, 0, p.bmr.local_addr, 64, p.bmr.lkey);
    }
    state.SetItemsProcessed(state.iterations());
}
// Argument 0: the direct endpoint (VAPI); 1: the adaptor endpoint (the module's provider table,
// trace level 0).
BENCHMARK(BM_EndpointSendPostPoll)->Arg(0)->Arg(1)->UseRealTime();

void BM_VapiSendPostPoll(benchmark::State &state) {
    Pair p;
    if (!p.ok) return state.SkipWithError(p.error.c_str());
    // The same QPs, posted and polled with VAPI itself: handles 0 and 1 are the two devices.
    for (int i = 0; i < 64; ++i) p.b->post_recv(p.bqp, 0, p.bmr.local_addr, 64, p.bmr.lkey);
    VAPI_sg_lst_entry_t sg{p.amr.local_addr, 8, p.amr.lkey}, rsg{p.bmr.local_addr, 64, p.bmr.lkey};
    VAPI_sr_desc_t sr{};
    sr.opcode = VAPI_SEND;
    sr.comp_type = VAPI_SIGNALED;
    sr.sg_lst_p = &sg;
    sr.sg_lst_len = 1;
    VAPI_rr_desc_t rr{};
    rr.opcode = VAPI_RECEIVE;
    rr.comp_type = VAPI_SIGNALED;
    rr.sg_lst_p = &rsg;
    rr.sg_lst_len = 1;
    VAPI_wc_desc_t wc;
    for (auto _ : state) {
        VAPI_post_sr(0, p.aqp, &sr);
        while (VAPI_poll_cq(0, p.acq, &wc) == VAPI_CQ_EMPTY) {
        }
        while (VAPI_poll_cq(1, p.bcq, &wc) == VAPI_CQ_EMPTY) {
        }
        VAPI_post_rr(1, p.bqp, &rr);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_VapiSendPostPoll)->UseRealTime();

// Half a round trip of one cache line between two threads: the floor of any latency between two
// agents of this machine (the engine's thread and the test's).
void BM_CacheLinePingPong(benchmark::State &state) {
    marlix::bench::cache_line_pingpong_floor(state);
}
BENCHMARK(BM_CacheLinePingPong)->UseRealTime();

void BM_Memcpy(benchmark::State &state) {
    marlix::bench::memcpy_floor(state);
}
BENCHMARK(BM_Memcpy)->Arg(64)->Arg(4096)->Arg(65536)->Arg(1 << 20);

}  // namespace
