// A fixed number of device operations, for counting the instructions they cost (the count does
// not drift with the machine's speed as timings do on a shared virtual machine). Run it under
// callgrind with scripts/instructions.sh, which divides the instructions counted between the
// markers below by the number of operations.
//
//   softhca_ops write SIZE N   N signalled RDMA writes of SIZE bytes, each waited for
//   softhca_ops pingpong N     N round trips of 8-byte RC sends driven by one thread
//   softhca_ops rate N         N signalled 8-byte sends, each received and its receive posted again
//   softhca_ops window N       N windows of 64 signalled 8-byte sends, one per post, then their
//                              completions and receives polled, each receive posted again
//   softhca_ops list N         N lists of 64 8-byte sends in one EVAPI_post_sr_list, the last one
//                              signalled; each receive polled and posted again, one per call
//                              (instructions.sh gives the count per message)
//
// Both devices run on the threaded engine, as in softhca_bench; each post carries its message
// through on the posting thread (or, in `window`, the poll carries the posts it finds left), so
// the counted instructions are the whole cost of an operation.
#include "rc_fabric.hpp"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>

#if __has_include(<valgrind/callgrind.h>)
#include <valgrind/callgrind.h>
#else
// Without valgrind's header the program runs unmarked (and scripts/instructions.sh says so).
#define CALLGRIND_ZERO_STATS
#define CALLGRIND_START_INSTRUMENTATION
#define CALLGRIND_STOP_INSTRUMENTATION
#define CALLGRIND_DUMP_STATS_AT(what)
#endif

namespace {

namespace mb = marlix::bench;

int usage() {
    std::fprintf(stderr, "usage: softhca_ops write SIZE N | pingpong N | rate N | window N | list N\n");
    return 2;
}

// Runs `op` a hundred times to warm up, then `n` times between the instruction count's markers.
void measure(int n, const std::function<void(uint64_t)> &op) {
    for (int i = 0; i < 100; ++i) op(uint64_t(i));
    CALLGRIND_ZERO_STATS;
    CALLGRIND_START_INSTRUMENTATION;
    for (int i = 0; i < n; ++i) op(uint64_t(100 + i));
    CALLGRIND_STOP_INSTRUMENTATION;
    CALLGRIND_DUMP_STATS_AT("operations");
}

}  // namespace

int main(int argc, char **argv) {
    if (argc < 3) return usage();
    const std::string what = argv[1];
    if (what == "write" && argc == 4) {
        const uint32_t size = uint32_t(std::strtoul(argv[2], nullptr, 0));
        mb::RcFabric f(size, 64);
        measure(std::atoi(argv[3]), [&](uint64_t id) {
            f.end[0].send(id, 0, size, true, VAPI_RDMA_WRITE, f.remote(1), f.rkey[1]);
            f.end[0].wait();
        });
        return 0;
    }
    if (what == "pingpong" && argc == 3) {
        mb::RcFabric f(4096, 64);
        for (uint32_t i = 0; i < 32; ++i) {
            f.end[0].recv(i, 0, 8);
            f.end[1].recv(i, 0, 8);
        }
        measure(std::atoi(argv[2]), [&](uint64_t id) {
            f.end[0].send(id, 2048, 8, false);
            f.end[1].wait();
            f.end[1].send(id, 2048, 8, false);
            f.end[0].wait();
            f.end[1].recv(id, 0, 8);
            f.end[0].recv(id, 0, 8);
        });
        return 0;
    }
    if (what == "rate" && argc == 3) {
        mb::RcFabric f(4096, 64);
        for (uint32_t i = 0; i < 32; ++i) f.end[1].recv(i, 0, 8);
        measure(std::atoi(argv[2]), [&](uint64_t id) {
            f.end[0].send(id, 0, 8, true);
            f.end[0].wait();
            f.end[1].wait();
            f.end[1].recv(id, 0, 8);
        });
        return 0;
    }
    if (what == "window" && argc == 3) {
        // The message rate's own loop: 64 signalled sends, one per post, then every completion
        // and every receive polled, each receive posted again.
        constexpr uint32_t kWindow = 64;
        mb::RcFabric f(4096, 256);
        for (uint32_t i = 0; i < 2 * kWindow; ++i) f.end[1].recv(i, 0, 8);
        measure(std::atoi(argv[2]), [&](uint64_t id) {
            for (uint32_t i = 0; i < kWindow; ++i) f.end[0].send(id * kWindow + i, 0, 8, true);
            for (uint32_t i = 0; i < kWindow; ++i) f.end[0].wait();
            for (uint32_t i = 0; i < kWindow; ++i) {
                f.end[1].wait();
                f.end[1].recv(id * kWindow + i, 0, 8);
            }
        });
        return 0;
    }
    if (what == "list" && argc == 3) {
        constexpr uint32_t kList = 64;
        mb::RcFabric f(4096, 256);
        for (uint32_t i = 0; i < 2 * kList; ++i) f.end[1].recv(i, 0, 8);
        const mb::RcEnd &tx = f.end[0];
        VAPI_sg_lst_entry_t sg{tx.base, 8, tx.lkey};
        VAPI_sr_desc_t list[kList] = {};
        for (VAPI_sr_desc_t &d : list) {
            d.opcode = VAPI_SEND;
            d.comp_type = VAPI_UNSIGNALED;
            d.sg_lst_p = &sg;
            d.sg_lst_len = 1;
        }
        list[kList - 1].comp_type = VAPI_SIGNALED;
        measure(std::atoi(argv[2]), [&](uint64_t id) {
            for (uint32_t i = 0; i < kList; ++i) list[i].id = id * kList + i;
            EVAPI_post_sr_list(tx.hca, tx.qp, kList, list);
            tx.wait();
            for (uint32_t i = 0; i < kList; ++i) {
                f.end[1].wait();
                f.end[1].recv(id * kList + i, 0, 8);
            }
        });
        return 0;
    }
    return usage();
}
