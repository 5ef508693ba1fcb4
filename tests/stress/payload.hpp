// What a stress message carries: a header naming its flow, sequence number and length, then bytes
// that follow from those three, so the receiver checks every byte without keeping a copy.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace stress {

struct MessageHeader {
    uint32_t magic;
    uint32_t flow;
    uint64_t seq;
    uint32_t length;  // the whole message, header included
    uint32_t check;   // mixes the fields above
};

inline constexpr uint32_t kMessageMagic = 0x5354524d;
inline constexpr size_t kHeaderBytes = sizeof(MessageHeader);

// Writes message `seq` of `flow`, `length` bytes (at least kHeaderBytes), at `p`.
void fill_message(uint8_t *p, uint32_t flow, uint64_t seq, uint32_t length);

// Checks the `length` bytes that arrived at `p` as a message of `flow`. Empty when every byte is
// as sent; otherwise what is wrong. The header is copied to `header` when it is intact.
std::string check_message(const uint8_t *p, size_t length, uint32_t flow, MessageHeader *header);

}  // namespace stress
