// The packet format: what each base transport header opcode carries, and the bytes a packet
// counts for in the port counters.
#include <gtest/gtest.h>

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
