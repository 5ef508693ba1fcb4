#include "datapath/packet.hpp"

#include <algorithm>
#include <array>
#include <cstring>

namespace marlix::softhca {

namespace {

// The headers a packet of that opcode carries, with the ICRC, in bytes (the GRH apart).
constexpr uint32_t header_bytes(uint8_t opcode) {
    uint32_t n = 8 + 12 + 4;  // LRH, BTH, ICRC
    const uint8_t o = op::operation(opcode);
    if (op::transport(opcode) == op::kUd) n += 8;  // DETH
    if (op::has_reth(opcode)) n += 16;
    if (op::is_atomic(opcode)) n += 28;
    if (o == op::kAck || o == op::kAtomicAck || o == op::kReadResponseFirst || o == op::kReadResponseLast ||
        o == op::kReadResponseOnly)
        n += 4;  // AETH
    if (o == op::kAtomicAck) n += 8;
    if (op::has_imm(opcode)) n += 4;
    return n;
}

// Every packet is counted, twice (sent and received): the header sizes are looked up.
constexpr auto kHeaderBytes = [] {
    std::array<uint8_t, 256> t{};
    for (uint32_t o = 0; o < 256; ++o) t[o] = uint8_t(header_bytes(uint8_t(o)));
    return t;
}();

}  // namespace

uint32_t Packet::wire_bytes_of(uint8_t opcode, bool grh, uint32_t payload_len) {
    return kHeaderBytes[opcode] + (grh ? 40u : 0u) + ((payload_len + 3) & ~3u);
}

void Packet::read_payload(uint64_t from, uint8_t *dst, size_t len) const {
    uint64_t skip = payload_offset + from;
    for (uint32_t i = 0; i < span_count && len > 0; ++i) {
        const ByteSpan &s = spans[i];
        if (skip >= s.len) {
            skip -= s.len;
            continue;
        }
        size_t n = std::min<size_t>(s.len - skip, len);
        std::memcpy(dst, s.ptr + skip, n);
        dst += n;
        len -= n;
        skip = 0;
    }
}

}  // namespace marlix::softhca
