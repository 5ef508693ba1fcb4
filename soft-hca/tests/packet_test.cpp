// The packet format: what each base transport header opcode carries, and the bytes a packet
// counts for in the port counters.
#include <gtest/gtest.h>

#include <cstring>
#include <set>

#include "datapath/packet.hpp"

namespace sh = marlix::softhca;
namespace op = sh::op;

namespace {

const uint8_t kTransports[] = {op::kRc, op::kUc, op::kUd};

// Every operation of the low five bits, the 21 defined and the 11 that are not.
bool listed(const std::set<uint8_t> &ops, uint8_t opcode) {
    return ops.count(op::operation(opcode)) != 0;
}

}  // namespace

TEST(PacketOpcodes, FirstLastImmediateAndRdmaHeaderFollowTheOperation) {
    const std::set<uint8_t> first = {op::kSendFirst,         op::kSendOnly,        op::kSendOnlyImm,
                                     op::kWriteFirst,        op::kWriteOnly,       op::kWriteOnlyImm,
                                     op::kReadResponseFirst, op::kReadResponseOnly};
    const std::set<uint8_t> last = {
        op::kSendLast,     op::kSendLastImm, op::kSendOnly,     op::kSendOnlyImm,      op::kWriteLast,
        op::kWriteLastImm, op::kWriteOnly,   op::kWriteOnlyImm, op::kReadResponseLast, op::kReadResponseOnly};
    const std::set<uint8_t> imm = {op::kSendLastImm, op::kSendOnlyImm, op::kWriteLastImm, op::kWriteOnlyImm};
    const std::set<uint8_t> reth = {op::kWriteFirst, op::kWriteOnly, op::kWriteOnlyImm, op::kReadRequest};
    for (uint8_t t : kTransports) {
        for (uint8_t o = 0; o < 32; ++o) {
            const uint8_t opcode = uint8_t(t | o);
            SCOPED_TRACE(int(opcode));
            EXPECT_EQ(op::is_first(opcode), listed(first, opcode));
            EXPECT_EQ(op::is_last(opcode), listed(last, opcode));
            EXPECT_EQ(op::has_imm(opcode), listed(imm, opcode));
            EXPECT_EQ(op::has_reth(opcode), listed(reth, opcode));
        }
    }
}

TEST(PacketWireBytes, HeadersPaddedPayloadAndIcrc) {
    // LRH 8 + BTH 12 + ICRC 4, then the extensions.
    EXPECT_EQ(sh::Packet::wire_bytes_of(op::kRc | op::kAck, false, 0), 28u);  // + AETH
    EXPECT_EQ(sh::Packet::wire_bytes_of(op::kRc | op::kSendOnly, false, 8), 32u);
    EXPECT_EQ(sh::Packet::wire_bytes_of(op::kRc | op::kSendOnly, false, 5), 32u);  // padded to 4
    EXPECT_EQ(sh::Packet::wire_bytes_of(op::kRc | op::kSendOnlyImm, false, 8), 36u);
    EXPECT_EQ(sh::Packet::wire_bytes_of(op::kRc | op::kWriteOnly, false, 64), 104u);  // + RETH
    EXPECT_EQ(sh::Packet::wire_bytes_of(op::kRc | op::kWriteOnlyImm, false, 64), 108u);
    EXPECT_EQ(sh::Packet::wire_bytes_of(op::kRc | op::kWriteMiddle, false, 256), 280u);
    EXPECT_EQ(sh::Packet::wire_bytes_of(op::kRc | op::kReadRequest, false, 0), 40u);
    EXPECT_EQ(sh::Packet::wire_bytes_of(op::kRc | op::kReadResponseMiddle, false, 256), 280u);  // no AETH
    EXPECT_EQ(sh::Packet::wire_bytes_of(op::kRc | op::kReadResponseLast, false, 256), 284u);
    EXPECT_EQ(sh::Packet::wire_bytes_of(op::kRc | op::kCompareSwap, false, 0), 52u);  // + AtomicETH
    EXPECT_EQ(sh::Packet::wire_bytes_of(op::kRc | op::kAtomicAck, false, 0), 36u);    // + AETH, AtomicAckETH
    EXPECT_EQ(sh::Packet::wire_bytes_of(op::kUd | op::kSendOnly, false, 8), 40u);     // + DETH
    EXPECT_EQ(sh::Packet::wire_bytes_of(op::kUd | op::kSendOnly, true, 8), 80u);      // + GRH
    sh::Packet p;
    p.opcode = op::kUc | op::kSendLastImm;
    p.payload_len = 3;
    EXPECT_EQ(p.wire_bytes(), 32u);
    static_assert(sh::Packet::wire_bytes_of(op::kRc | op::kAck, false, 0) == 28);
}

TEST(PacketPayload, ReadsFromOnePieceOrSeveralAtAnyOffset) {
    uint8_t mem[64];
    for (int i = 0; i < 64; ++i) mem[i] = uint8_t(i);
    // One piece: the payload starts 4 bytes into it.
    const sh::ByteSpan one[1] = {{mem, 40}};
    sh::Packet p;
    p.spans = one;
    p.span_count = 1;
    p.payload_offset = 4;
    p.payload_len = 36;
    uint8_t out[64] = {};
    p.read_payload(0, out, 36);
    for (int i = 0; i < 36; ++i) ASSERT_EQ(out[i], uint8_t(4 + i)) << i;
    std::memset(out, 0xee, sizeof out);
    p.read_payload(30, out, 6);  // up to the piece's end
    for (int i = 0; i < 6; ++i) ASSERT_EQ(out[i], uint8_t(34 + i)) << i;
    EXPECT_EQ(out[6], 0xee);
    // Asking past the piece's end copies what there is and nothing more.
    std::memset(out, 0xee, sizeof out);
    p.read_payload(30, out, 10);
    for (int i = 0; i < 6; ++i) ASSERT_EQ(out[i], uint8_t(34 + i)) << i;
    EXPECT_EQ(out[6], 0xee);
    // Three pieces out of order in memory: 10 bytes at 50, 5 at 0, 20 at 20.
    const sh::ByteSpan three[3] = {{mem + 50, 10}, {mem, 5}, {mem + 20, 20}};
    p.spans = three;
    p.span_count = 3;
    p.payload_offset = 8;
    p.payload_len = 27;
    const uint8_t expect[27] = {58, 59, 0,  1,  2,  3,  4,  20, 21, 22, 23, 24, 25, 26,
                                27, 28, 29, 30, 31, 32, 33, 34, 35, 36, 37, 38, 39};
    std::memset(out, 0xee, sizeof out);
    p.read_payload(0, out, 27);
    EXPECT_EQ(0, std::memcmp(out, expect, 27));
    EXPECT_EQ(out[27], 0xee);
    std::memset(out, 0xee, sizeof out);
    p.read_payload(3, out, 10);  // from the second piece into the third
    EXPECT_EQ(0, std::memcmp(out, expect + 3, 10));
    EXPECT_EQ(out[10], 0xee);
}

namespace {

TEST(PacketPayload, CopiesOfEveryShortLengthMoveExactlyTheirBytes) {
    // The short copies move overlapping words: each length up to past the word sizes must move
    // its own bytes and leave the byte after them alone.
    uint8_t src[48];
    for (size_t i = 0; i < sizeof src; ++i) src[i] = uint8_t(i + 1);
    for (size_t len = 0; len <= 40; ++len) {
        uint8_t dst[48];
        std::memset(dst, 0xee, sizeof dst);
        sh::copy_bytes(dst + 1, src + 3, len);
        EXPECT_EQ(dst[0], 0xee) << len;
        EXPECT_EQ(std::memcmp(dst + 1, src + 3, len), 0) << len;
        EXPECT_EQ(dst[1 + len], 0xee) << len;
    }
}

}  // namespace
