// The wire: carries packets from a port to the port (or, for a multicast LID, the ports) its
// destination LID names, through the switch, applying the links' loss and delay. Delivery runs
// the receiving device's responder or completer under that device's lock; nothing else is held.
#pragma once

#include "datapath/datapath.hpp"

namespace marlix::softhca {

// Sends one Outbox entry (cut into packets when it is a train). Replies the responders produce
// go to `replies`.
void transmit(const Outbox::Entry &e, uint64_t now, Outbox &replies);
// Something to do under a receiving device's mutex once a run of entries has been handed to it:
// `fn(*dev, ctx)` runs after each run delivered to `dev`, so a caller can read what the packets
// changed there without taking the mutex again.
struct AfterRun {
    Device *dev = nullptr;
    void (*fn)(Device &, void *) = nullptr;
    void *ctx = nullptr;
};
// Sends `n` entries in order. While the links are healthy, consecutive entries between the same
// two ports reach the receiving device under one hold of its lock (a train whole).
void transmit_all(const Outbox::Entry *entries, uint32_t n, uint64_t now, Outbox &replies,
                  const AfterRun *after = nullptr);
// Delivers the delayed packets that are due. Returns how many.
size_t deliver_delayed(uint64_t now, Outbox &replies);
// True when a link loses or delays packets or a delayed packet waits: then only the engine
// carries packets, in its rounds. Lock-free.
bool wire_busy();
// When the next delayed packet is due (0: none waiting).
uint64_t next_delayed();
// Forgets every link fault and delayed packet (boot, halt).
void wire_reset();

}  // namespace marlix::softhca
