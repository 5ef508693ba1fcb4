// What the threads of a stress run share: the provider and the two open HCAs, the lock an upper
// layer holds around the module's control path, the cable's state, the tally of everything the
// threads did through the module, and the first failures.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "ulp_verbs.h"

namespace stress {

// Everything the threads did that the module counts too. Updated with atomic adds, so these sums
// are exact whatever the module's own (unlocked) counters lose.
struct Tally {
    // Posting and polling.
    std::atomic<uint64_t> send_posts{0}, send_segments{0}, tx_bytes{0};
    std::atomic<uint64_t> receive_posts{0}, receive_list_requests{0};
    std::atomic<uint64_t> polls{0}, polls_empty{0}, rx_bytes{0};
    std::atomic<uint64_t> send_error_completions{0}, receive_error_completions{0};
    std::atomic<uint64_t> arms{0}, cq_callbacks{0}, async_callbacks{0}, port_events[2] = {0, 0};
    // Messages.
    std::atomic<uint64_t> messages_sent{0}, messages_checked{0}, bytes_checked{0};
    std::atomic<uint64_t> datagrams_lost{0}, rc_breaks{0}, rc_unfinished{0};
    // The control path.
    std::atomic<uint64_t> cqs_created{0}, cqs_destroyed{0}, qps_created{0}, qps_destroyed{0};
    std::atomic<uint64_t> ahs_created{0}, ahs_destroyed{0};
    std::atomic<uint64_t> statistics_reads{0}, control_writes{0}, link_reads{0}, cable_pulls{0};
};

// The cable of InfiniHost1's port 1. `generation` is odd while it is out; a batch that sees the
// same even value before and after never met a pull.
struct Cable {
    std::atomic<uint64_t> generation{0};
    bool out() const { return generation.load() & 1; }
};

struct Rig {
    const ulp_funcs_t *funcs = nullptr;
    void *hca[2] = {nullptr, nullptr};
    // The port state an active port reports through the module.
    uint64_t port_active_state = 0;

    // Creation of QPs is not re-entrant and destroy unlinks records from the HCA's lists without
    // the adaptor lock, so an upper layer serialises its control path; the statistics page and
    // the control commands that walk the CQ list take the same lock here (see docs/reliability.md).
    std::mutex control;
    // Polling keeps a running total of the error completions it logs in a static without a lock
    // (kept as built). Only RC flows that cross the cable see error completions; they poll under
    // this lock, so no two threads poll an error at once.
    std::mutex error_polls;

    Cable cable;
    Tally tally;
    std::atomic<bool> stop{false};

    // Records a failure (reported to the test, at most the first few in full) and ends the run.
    void fail(const std::string &what);
    bool failed() const { return failure_count.load() > 0; }
    std::vector<std::string> failures();

    // Whether port 1 of device `dev` is active, asked through the module.
    bool port_active(int dev);

  private:
    std::mutex failure_mutex;
    std::vector<std::string> failure_texts;
    std::atomic<int> failure_count{0};
};

}  // namespace stress
