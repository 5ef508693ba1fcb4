// The packets that travel between ports: the fields of the InfiniBand headers the data path
// uses (local route header addresses, base transport header, and the datagram, RDMA, atomic,
// acknowledgement and immediate extensions), and the payload.
//
// Packets name their ends by LID and QP number only. The payload is a view of the sender's memory
// that stays valid until the packet has been consumed (the engine delivers a packet before the
// sender may complete the request it belongs to); a packet that has to wait on the wire (a
// delayed link) is given a copy of its payload first (the wire keeps it). A packet is plain data:
// copying one copies its headers and the view, nothing more.
#pragma once

#include <vapi_types.h>

#include <array>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <type_traits>

namespace marlix::softhca {

// Base transport header opcodes, as on the wire: transport in the high three bits
// (RC 0x00, UC 0x20, UD 0x60), operation in the low five.
namespace op {
constexpr uint8_t kSendFirst = 0x00;
constexpr uint8_t kSendMiddle = 0x01;
constexpr uint8_t kSendLast = 0x02;
constexpr uint8_t kSendLastImm = 0x03;
constexpr uint8_t kSendOnly = 0x04;
constexpr uint8_t kSendOnlyImm = 0x05;
constexpr uint8_t kWriteFirst = 0x06;
constexpr uint8_t kWriteMiddle = 0x07;
constexpr uint8_t kWriteLast = 0x08;
constexpr uint8_t kWriteLastImm = 0x09;
constexpr uint8_t kWriteOnly = 0x0a;
constexpr uint8_t kWriteOnlyImm = 0x0b;
constexpr uint8_t kReadRequest = 0x0c;
constexpr uint8_t kReadResponseFirst = 0x0d;
constexpr uint8_t kReadResponseMiddle = 0x0e;
constexpr uint8_t kReadResponseLast = 0x0f;
constexpr uint8_t kReadResponseOnly = 0x10;
constexpr uint8_t kAck = 0x11;
constexpr uint8_t kAtomicAck = 0x12;
constexpr uint8_t kCompareSwap = 0x13;
constexpr uint8_t kFetchAdd = 0x14;

constexpr uint8_t kRc = 0x00;
constexpr uint8_t kUc = 0x20;
constexpr uint8_t kUd = 0x60;

constexpr uint8_t operation(uint8_t opcode) {
    return opcode & 0x1f;
}
constexpr uint8_t transport(uint8_t opcode) {
    return opcode & 0xe0;
}
constexpr bool is_send(uint8_t o) {
    return operation(o) <= kSendOnlyImm;
}
constexpr bool is_write(uint8_t o) {
    return operation(o) >= kWriteFirst && operation(o) <= kWriteOnlyImm;
}
constexpr bool is_read_response(uint8_t o) {
    return operation(o) >= kReadResponseFirst && operation(o) <= kReadResponseOnly;
}
constexpr bool is_atomic(uint8_t o) {
    return operation(o) == kCompareSwap || operation(o) == kFetchAdd;
}
constexpr bool is_response(uint8_t o) {
    return is_read_response(o) || operation(o) == kAck || operation(o) == kAtomicAck;
}
// The operations (low five bits) of a set, as a mask: `o` is in it when bit operation(o) is set.
// The data path asks these of every packet, so each is one shift.
constexpr uint32_t ops_mask(std::initializer_list<uint8_t> ops) {
    uint32_t m = 0;
    for (uint8_t x : ops) m |= 1u << x;
    return m;
}
constexpr bool in(uint32_t mask, uint8_t o) {
    return (mask >> operation(o)) & 1;
}
constexpr uint32_t kFirstOps = ops_mask({kSendFirst, kSendOnly, kSendOnlyImm, kWriteFirst, kWriteOnly,
                                         kWriteOnlyImm, kReadResponseFirst, kReadResponseOnly});
constexpr uint32_t kLastOps =
    ops_mask({kSendLast, kSendLastImm, kSendOnly, kSendOnlyImm, kWriteLast, kWriteLastImm, kWriteOnly,
              kWriteOnlyImm, kReadResponseLast, kReadResponseOnly});
constexpr uint32_t kImmOps = ops_mask({kSendLastImm, kSendOnlyImm, kWriteLastImm, kWriteOnlyImm});
constexpr uint32_t kRethOps = ops_mask({kWriteFirst, kWriteOnly, kWriteOnlyImm, kReadRequest});
constexpr bool is_first(uint8_t o) {
    return in(kFirstOps, o);
}
constexpr bool is_last(uint8_t o) {
    return in(kLastOps, o);
}
constexpr bool has_imm(uint8_t o) {
    return in(kImmOps, o);
}
constexpr bool has_reth(uint8_t o) {
    return in(kRethOps, o);
}
}  // namespace op

// AETH syndromes: ACK with credits, RNR NAK with the timer code, NAK with a code.
namespace aeth {
constexpr uint8_t kAck = 0x00;     // 000x xxxx (credit field unused here)
constexpr uint8_t kRnrNak = 0x20;  // 001t tttt: t = the responder's minimum RNR timer
constexpr uint8_t kNak = 0x60;     // 011c cccc
constexpr uint8_t kNakPsnSeq = 0x60;
constexpr uint8_t kNakInvalidRequest = 0x61;
constexpr uint8_t kNakRemoteAccess = 0x62;
constexpr uint8_t kNakRemoteOp = 0x63;
constexpr uint8_t kind(uint8_t s) {
    return s & 0x60;
}
}  // namespace aeth

// A piece of host memory.
struct ByteSpan {
    uint8_t *ptr = nullptr;
    size_t len = 0;
};

// Copies `len` bytes, sizeof(Word) <= len <= 2 * sizeof(Word), as two words that may overlap.
template <class Word>
inline void copy_two_words(uint8_t *dst, const uint8_t *src, size_t len) {
    Word head, tail;
    std::memcpy(&head, src, sizeof(Word));
    std::memcpy(&tail, src + len - sizeof(Word), sizeof(Word));
    std::memcpy(dst, &head, sizeof(Word));
    std::memcpy(dst + len - sizeof(Word), &tail, sizeof(Word));
}

// Copies `len` bytes. Payloads of a few bytes (the messages of a message rate) are moved
// inline rather than through a call to memcpy.
inline void copy_bytes(uint8_t *dst, const uint8_t *src, size_t len) {
    if (len > 16)
        std::memcpy(dst, src, len);
    else if (len >= 8)
        copy_two_words<uint64_t>(dst, src, len);
    else if (len >= 4)
        copy_two_words<uint32_t>(dst, src, len);
    else
        for (size_t i = 0; i < len; ++i) dst[i] = src[i];
}

struct Packet {
    // Local route header.
    IB_lid_t slid = 0;
    IB_lid_t dlid = 0;
    IB_sl_t sl = 0;
    uint8_t src_path_bits = 0;
    bool grh = false;  // a global route header follows (UD with GRH)
    IB_gid_t sgid{};   // GRH source GID, when grh
    IB_gid_t dgid{};
    // Base transport header.
    uint8_t opcode = 0;
    bool solicited = false;
    bool ack_req = false;
    uint16_t pkey = 0xffff;
    uint32_t dest_qp = 0;
    uint32_t psn = 0;
    // Datagram extension (UD): Q_Key and source QP.
    uint32_t qkey = 0;
    uint32_t src_qp = 0;
    // RDMA extension.
    uint64_t va = 0;
    uint32_t rkey = 0;
    uint32_t dma_len = 0;
    // Atomic extension.
    uint64_t swap_add = 0;
    uint64_t compare = 0;
    // Acknowledgement extension (and the atomic acknowledgement's original value).
    uint8_t syndrome = 0;
    uint32_t msn = 0;
    uint64_t atomic_orig = 0;
    // Immediate data.
    uint32_t imm = 0;
    // Payload: `payload_len` bytes read from `spans` (pieces of sender memory, in order) starting
    // `payload_offset` bytes into the first; see the top of this file.
    const ByteSpan *spans = nullptr;
    uint32_t span_count = 0;
    uint64_t payload_offset = 0;
    uint32_t payload_len = 0;

    // Copies `len` payload bytes starting `from` bytes into the payload, to `dst`.
    void read_payload(uint64_t from, uint8_t *dst, size_t len) const {
        // Most payloads are one piece of memory: a copy, with no walk through the pieces.
        const uint64_t skip = payload_offset + from;
        if (span_count == 1 && skip <= spans[0].len && len <= spans[0].len - skip) [[likely]] {
            copy_bytes(dst, spans[0].ptr + skip, len);
            return;
        }
        read_payload_pieces(skip, dst, len);
    }

    // The same through the pieces, `skip` bytes into the first.
    void read_payload_pieces(uint64_t skip, uint8_t *dst, size_t len) const;

    // Bytes of the packet as the port data counters count them (from the LRH to the ICRC, the
    // VCRC excluded): LRH 8, GRH 40, BTH 12, DETH 8, RETH 16, AtomicETH 28, AETH 4, AtomicAckETH 8,
    // ImmDt 4, payload padded to 4 bytes, ICRC 4.
    uint32_t wire_bytes() const { return wire_bytes_of(opcode, grh, payload_len); }
    // The same for a packet with that opcode, global route header and payload length.
    static constexpr uint32_t wire_bytes_of(uint8_t opcode, bool grh, uint32_t payload_len);
};
static_assert(std::is_trivially_copyable_v<Packet>);

namespace detail {
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
inline constexpr auto kHeaderBytes = [] {
    std::array<uint8_t, 256> t{};
    for (uint32_t o = 0; o < 256; ++o) t[o] = uint8_t(header_bytes(uint8_t(o)));
    return t;
}();
}  // namespace detail

constexpr uint32_t Packet::wire_bytes_of(uint8_t opcode, bool grh, uint32_t payload_len) {
    return detail::kHeaderBytes[opcode] + (grh ? 40u : 0u) + ((payload_len + 3) & ~3u);
}

}  // namespace marlix::softhca
