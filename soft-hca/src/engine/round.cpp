// One engine round, the same for both engines, and the same work done for one device by a posting
// thread that finds the device's data path free.
#include <memory>
#include <mutex>
#include <thread>

#include "engine/engine.hpp"
#include "fabric/wire.hpp"

namespace marlix::softhca {

namespace {

// A pass's scratch: packets leaving the device, the replies they provoke, the QPs whose requester
// ran, and the events raised while the pass holds its device's mutex. Every thread that runs
// passes (the engine's, posting threads) has its own, allocated the first time it runs one.
struct Scratch {
    Outbox out;
    Outbox replies;
    RanQps ran;
    PendingEvents own_events;
    PendingEvents other_events;
};

// Thread-locals of this library use the initial-exec model: the library is loaded with the program,
// and a pass then reads them without a call into the dynamic linker. A pass finds its scratch
// through a plain pointer, constant-initialised, which tests no guard; the owner, whose
// destructor frees it when the thread exits, is touched only the first time.
[[gnu::tls_model("initial-exec")]] constinit thread_local Scratch *t_scratch = nullptr;

struct ScratchOwner {
    std::unique_ptr<Scratch> scratch = std::make_unique<Scratch>();
    ScratchOwner() { t_scratch = scratch.get(); }
    ~ScratchOwner() { t_scratch = nullptr; }
};

[[gnu::noinline]] Scratch &first_scratch() {
    [[gnu::tls_model("initial-exec")]] thread_local ScratchOwner owner;
    return *owner.scratch;
}

Scratch &scratch() {
    if (Scratch *s = t_scratch) [[likely]]
        return *s;
    return first_scratch();
}

enum class Pass { Round, Posted };

// Whether the engine must still run for the device after a posting thread's pass: work left on
// its requesters (a full outbox, a rewind), or a timer armed by a request still unanswered on a
// QP that ran. Called with the device mutex held; inline, since every posting thread's pass asks.
[[gnu::always_inline]] inline bool work_left(Device &d, const RanQps &ran) {
    if (!d.active_qps.empty() || ran.overflow || d.doorbells.load(std::memory_order_relaxed)) return true;
    for (uint32_t i = 0; i < ran.count; ++i) {
        const Qp &qp = *ran.qps[i];
        if (!qp.destroyed && (qp.retransmit_at != 0 || qp.rnr_wait_until != 0)) return true;
    }
    return false;
}

// The requesters of one device and everything their packets provoke, as one pass (see
// Device::pass_running): the device's mutex is taken once and, while the other devices' mutexes
// can be had at once, kept until the replies are in. A round also fires due timers and frees
// retired records; a posting thread's pass leaves both to the engine and says in `left` whether
// the engine must run, which it must also when another pass is under way (the posted QP is then
// left on the active list for it). Returns the work done.
size_t run_device(Device &d, Qp *posted, uint64_t now, Scratch &s, Pass pass, bool *timers_pending,
                  bool *left) {
    size_t work = 0;
    Outbox &out = s.out;
    out.clear();
    s.ran.clear();
    PendingEvents &events = s.own_events;
    std::unique_lock lk(d.mu);
    if (!d.open || d.failed) return 0;
    if (d.pass_running) {
        if (pass == Pass::Posted) {
            if (posted && !posted->destroyed) activate(d, *posted);
            *left = true;
            return 0;
        }
        // The engine's round waits for a posting thread's pass to end.
        while (d.pass_running) {
            lk.unlock();
            std::this_thread::yield();
            lk.lock();
        }
        if (!d.open || d.failed) return 0;
    }
    if (posted && !posted->destroyed) activate(d, *posted);
    if (pass == Pass::Round) {
        // Records of QPs destroyed before this round: no packet points into them any more,
        // and once the doorbell list has let go of them they serve new QPs.
        take_doorbells(d);
        for (auto &r : d.retired) d.spare_qps.push_back(std::move(r));
        d.retired.clear();
        work += run_timers(d, now, events);
    }
    work += run_requesters(d, now, out, events, &s.ran);
    if (timers_pending && !*timers_pending) *timers_pending = next_timer(d) != 0;
    if (out.count > 0) {
        d.pass_running = true;
        // The wire: requests to their responders, the replies back to the completers here.
        HeldDevice held{&d, &lk, &events, nullptr, &s.other_events};
        s.replies.clear();
        transmit_all(out.entries.data(), out.count, now, s.replies, &held);
        // Completers do not reply: the requests' outbox, done with, takes whatever might.
        out.clear();
        transmit_all(s.replies.entries.data(), s.replies.count, now, out, &held);
        if (!lk.owns_lock()) lk.lock();
        d.pass_running = false;
        // UD and UC requests whose packets have all gone complete now.
        if (!d.sent_unreliable.empty()) work += finish_sent(d, events);
        if (left) *left = work_left(d, s.ran);
        lk.unlock();
        held.deliver_others();
    } else {
        if (left) *left = work_left(d, s.ran);
        lk.unlock();
    }
    events.deliver(d);  // (delivering empties the list for the next pass)
    return work;
}

}  // namespace

size_t run_round(uint64_t now, bool *timers_pending) {
    Scratch &s = scratch();
    size_t work = 0;
    bool timers = false;
    for (size_t di = 0, dn = device_count(); di < dn; ++di) {
        Device *d = device_at(di);
        if (!d) continue;
        new_pass();
        work += run_device(*d, nullptr, now, s, Pass::Round, timers_pending ? &timers : nullptr, nullptr);
    }
    s.replies.clear();
    work += deliver_delayed(now, s.replies);
    Outbox &dummy = s.out;
    dummy.clear();
    transmit_all(s.replies.entries.data(), s.replies.count, now, dummy);
    if (timers_pending) *timers_pending = timers || next_delayed() != 0;
    return work;
}

PostedRun run_posted(Device &dev, Qp *qp, uint64_t now) {
    // Packets held on a delayed link, or links that lose or delay packets, are the engine's: a
    // pass here could overtake them.
    if (wire_busy()) {
        if (qp) ring_doorbell(dev, *qp);
        return PostedRun::Engine;
    }
    if (qp) warm_peer(*qp);
    Scratch &s = scratch();
    new_pass();
    bool left = false;
    run_device(dev, qp, now, s, Pass::Posted, nullptr, &left);
    return left ? PostedRun::Engine : PostedRun::Done;
}

}  // namespace marlix::softhca
