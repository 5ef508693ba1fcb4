// One engine round, the same for both engines.
#include <mutex>

#include "engine/engine.hpp"
#include "fabric/wire.hpp"

namespace marlix::softhca {

namespace {

// The round's scratch: packets leaving the device, and the replies they provoke. Only the
// engine's own thread runs rounds, so one set serves every round.
struct Scratch {
    Outbox out;
    Outbox replies;
};

Scratch &scratch() {
    static Scratch s;
    return s;
}

}  // namespace

size_t run_round(uint64_t now, bool *timers_pending) {
    Scratch &s = scratch();
    size_t work = 0;
    bool timers = false;
    for (size_t di = 0, dn = device_count(); di < dn; ++di) {
        Device *d = device_at(di);
        if (!d) continue;
        Outbox &out = s.out;
        out.clear();
        PendingEvents events;
        {
            std::lock_guard lk(d->mu);
            if (!d->open || d->failed) continue;
            // Records of QPs destroyed before this round: no packet points into them any more.
            d->retired.clear();
            new_round(*d);
            work += run_timers(*d, now, events);
            work += run_requesters(*d, now, out, events);
            for (uint32_t i = 0; i < out.count; ++i) out.entries[i].from = d;
            if (timers_pending && !timers) timers = next_timer(*d) != 0;
        }
        events.deliver(*d);
        if (out.count == 0) continue;
        // The wire, with no device lock held: requests to their responders, the replies back.
        s.replies.clear();
        for (uint32_t i = 0; i < out.count; ++i) transmit(out.entries[i], now, s.replies);
        // Completers do not reply: the requests' outbox, done with, takes whatever might.
        out.clear();
        for (uint32_t i = 0; i < s.replies.count; ++i) transmit(s.replies.entries[i], now, out);
        {
            std::lock_guard lk(d->mu);
            work += finish_sent(*d, events);
        }
        events.deliver(*d);
    }
    s.replies.clear();
    work += deliver_delayed(now, s.replies);
    Outbox &dummy = s.out;
    dummy.clear();
    for (uint32_t i = 0; i < s.replies.count; ++i) transmit(s.replies.entries[i], now, dummy);
    if (timers_pending) *timers_pending = timers || next_delayed() != 0;
    return work;
}

}  // namespace marlix::softhca
