// The stress messages' own checks: a message reads back whole, and every changed byte, a foreign
// flow, a wrong length and a short arrival are caught.
#include <gtest/gtest.h>

#include <vector>

#include "payload.hpp"
#include "stress_params.hpp"

namespace stress {
namespace {

TEST(StressPayload, MessagesOfEveryLengthReadBackWhole) {
    for (uint32_t length : {24u, 25u, 31u, 32u, 33u, 1000u, 65536u, 262144u}) {
        std::vector<uint8_t> m(length);
        fill_message(m.data(), 7, 1000 + length, length);
        MessageHeader h{};
        EXPECT_EQ("", check_message(m.data(), length, 7, &h)) << length;
        EXPECT_EQ(7u, h.flow);
        EXPECT_EQ(1000u + length, h.seq);
        EXPECT_EQ(length, h.length);
    }
}

TEST(StressPayload, EveryChangedByteIsFound) {
    const uint32_t length = 101;
    std::vector<uint8_t> m(length);
    fill_message(m.data(), 3, 5, length);
    for (uint32_t i = 0; i < length; ++i) {
        std::vector<uint8_t> bad = m;
        bad[i] ^= 0x10;
        EXPECT_NE("", check_message(bad.data(), length, 3, nullptr)) << "byte " << i;
    }
    std::vector<uint8_t> bad = m;
    bad[100] ^= 1;
    EXPECT_EQ("message 5 (101 bytes) differs from byte 96", check_message(bad.data(), length, 3, nullptr));
}

TEST(StressPayload, ForeignFlowWrongLengthAndShortArrivalAreNamed) {
    std::vector<uint8_t> m(64);
    fill_message(m.data(), 3, 5, 64);
    EXPECT_EQ("message 5 of flow 3 arrived", check_message(m.data(), 64, 4, nullptr));
    EXPECT_EQ("message 5 of 64 bytes arrived as 60", check_message(m.data(), 60, 3, nullptr));
    EXPECT_EQ("20 bytes arrived, shorter than a header", check_message(m.data(), 20, 3, nullptr));
    m[8] ^= 1;  // the sequence number
    EXPECT_EQ("damaged header (64 bytes arrived)", check_message(m.data(), 64, 3, nullptr));
}

TEST(StressParams, ByteCountsTakeBinarySuffixes) {
    uint64_t n = 0;
    ASSERT_TRUE(parse_byte_count("10G", n));
    EXPECT_EQ(10ull << 30, n);
    ASSERT_TRUE(parse_byte_count("96M", n));
    EXPECT_EQ(96ull << 20, n);
    ASSERT_TRUE(parse_byte_count("5k", n));
    EXPECT_EQ(5ull << 10, n);
    ASSERT_TRUE(parse_byte_count("12345", n));
    EXPECT_EQ(12345u, n);
    EXPECT_FALSE(parse_byte_count("", n));
    EXPECT_FALSE(parse_byte_count("G", n));
    EXPECT_FALSE(parse_byte_count("10X", n));
}

}  // namespace
}  // namespace stress
