// One flow of a stress run: a QP on one device sending checked messages to a QP on the same or the
// other device, through the module's provider table, in batches: post the receives, post the
// sends, wait for every send to complete, then account for every message of the batch.
//
// RC delivers a batch whole and in order unless the cable was out long enough for the sender to
// give up (retry count exceeded, the rest flushed); the flow then waits for the port, makes its
// QPs anew and goes on. UC and UD lose messages only while the cable is out and deliver each
// message at most once.
#pragma once

#include <cstdint>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "rig.hpp"
#include "ulp_pair.hpp"

namespace stress {

enum class Transport { Rc, Uc, Ud };
const char *transport_name(Transport t);

struct FlowPlan {
    uint32_t id = 0;
    Transport transport = Transport::Rc;
    int from = 0, to = 1;         // devices of the sending and the receiving QP
    uint32_t batch = 8;           // messages per batch (and receive buffers)
    uint32_t max_length = 65536;  // bytes per message at most (UD: at most the MTU)
    bool receive_lists = false;   // post receives as one list per batch
    bool arm = false;             // arm the receive CQ before every batch
};

class Flow {
  public:
    Flow(Rig &rig, const FlowPlan &plan);
    ~Flow();
    Flow(const Flow &) = delete;
    Flow &operator=(const Flow &) = delete;

    // Makes the CQs, QPs (and the address handle) and connects them; false after a failure,
    // which is reported to the rig.
    bool open();
    // Destroys what open() made.
    void close();
    // One batch; failures are reported to the rig.
    void run_batch();

    const FlowPlan &plan() const { return plan_; }
    uint64_t batches() const { return batches_; }
    bool crosses_cable() const { return plan_.from == 1 || plan_.to == 1; }
    std::string name() const;

  private:
    struct Batch;
    bool post_receives();
    bool post_sends();
    // Polls `s`'s CQ once; false when it is empty (or the poll failed, reported).
    bool poll(marlix::ulp_pair::Side &s, ulp_completion &c);
    void on_send(Batch &b, const ulp_completion &c);
    void on_receive(Batch &b, const ulp_completion &c);
    // Judges a finished batch: losses, breaks, and what the cable excuses.
    void account(const Batch &b, bool met_pull);
    // After a break: waits for both ports, then makes the flow's CQs and QPs anew.
    void reconnect();

    struct Impl;
    Rig &rig_;
    FlowPlan plan_;
    uint64_t batches_ = 0;
    std::unique_ptr<Impl> impl_;
};

}  // namespace stress
