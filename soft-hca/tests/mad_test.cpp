#include <cstring>

#include "softhca_fixture.hpp"

namespace {

struct Mad {
    uint8_t b[256] = {};
    Mad(uint8_t mgmt_class, uint8_t method, uint16_t attr, uint32_t mod = 0) {
        b[0] = 1;
        b[1] = mgmt_class;
        b[2] = 1;
        b[3] = method;
        b[8] = 0xAB;  // transaction id, echoed
        b[16] = uint8_t(attr >> 8);
        b[17] = uint8_t(attr);
        b[20] = uint8_t(mod >> 24);
        b[21] = uint8_t(mod >> 16);
        b[22] = uint8_t(mod >> 8);
        b[23] = uint8_t(mod);
    }
};

uint16_t be16(const uint8_t *p) {
    return uint16_t(p[0] << 8 | p[1]);
}
uint32_t be32(const uint8_t *p) {
    return uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | p[3];
}
uint64_t be64(const uint8_t *p) {
    return uint64_t(be32(p)) << 32 | be32(p + 4);
}

}  // namespace

class MadTest : public SoftHcaTest {
  protected:
    void SetUp() override {
        SoftHcaTest::SetUp();
        h = open();
    }
    // Processes `in`; the response lands in `out`, which is all 0xff bytes before, so that a
    // field the device leaves unwritten cannot pass for a zero a test expects.
    VAPI_ret_t run(const Mad &in, IB_port_t port = 1) {
        std::memset(out, 0xff, sizeof out);
        return EVAPI_process_local_mad(h, port, 1, EVAPI_MAD_IGNORE_MKEY, in.b, out);
    }
    VAPI_hca_hndl_t h = 0;
    uint8_t out[256] = {};
};

TEST_F(MadTest, NodeInfo) {
    ASSERT_EQ(run(Mad(0x01, 0x01, 0x0011)), VAPI_OK);
    EXPECT_EQ(out[3], 0x81);
    EXPECT_EQ(be16(out + 4), 0);
    EXPECT_EQ(out[8], 0xAB);
    const uint8_t *d = out + 64;
    EXPECT_EQ(d[2], 1);  // channel adapter
    EXPECT_EQ(d[3], 2);  // ports
    EXPECT_EQ(be64(d + 12), 0x0002c90000001000ull);
    EXPECT_EQ(be64(d + 20), 0x0002c90000001001ull);
    EXPECT_EQ(be16(d + 30), 23108);
    EXPECT_EQ(d[36], 1);
    EXPECT_EQ(d[37] << 16 | d[38] << 8 | d[39], 0x02c9);
}

TEST_F(MadTest, NodeDescriptionDirectedRouteSetsTheDirectionBit) {
    ASSERT_EQ(run(Mad(0x81, 0x01, 0x0010)), VAPI_OK);
    EXPECT_EQ(be16(out + 4), 0x8000);
    EXPECT_STREQ(reinterpret_cast<const char *>(out + 64), "MT23108 InfiniHost Mellanox Technologies");
}

TEST_F(MadTest, PortInfoOfTheReceivingPortAndOfAnotherPort) {
    ASSERT_EQ(run(Mad(0x01, 0x01, 0x0015)), VAPI_OK);
    const uint8_t *d = out + 64;
    EXPECT_EQ(be64(d + 8), 0xfe80000000000000ull);
    EXPECT_EQ(be16(d + 16), 1);            // LID
    EXPECT_EQ(be16(d + 18), 1);            // SM LID
    EXPECT_EQ(be32(d + 20), 0x02510a6au);  // capability mask
    EXPECT_EQ(d[32] & 0xF, PORT_ACTIVE);
    EXPECT_EQ(d[33] >> 4, PORT_PHYS_LINKUP);
    ASSERT_EQ(run(Mad(0x01, 0x01, 0x0015, 2)), VAPI_OK);
    EXPECT_EQ(out[64 + 32] & 0xF, PORT_DOWN);
    EXPECT_EQ(out[64 + 28], 2);
    ASSERT_EQ(run(Mad(0x01, 0x01, 0x0015, 3)), VAPI_OK);
    EXPECT_EQ(be16(out + 4), 7 << 2);  // invalid attribute modifier
}

TEST_F(MadTest, GuidInfoAndPkeyTable) {
    ASSERT_EQ(run(Mad(0x01, 0x01, 0x0014)), VAPI_OK);
    EXPECT_EQ(be64(out + 64), 0x0002c90000001001ull);
    ASSERT_EQ(run(Mad(0x01, 0x01, 0x0016)), VAPI_OK);
    EXPECT_EQ(be16(out + 64), 0xFFFF);
    EXPECT_EQ(be16(out + 66), 0);
    ASSERT_EQ(run(Mad(0x01, 0x01, 0x0016, 2)), VAPI_OK);  // blocks 0 and 1 only
    EXPECT_EQ(be16(out + 4), 7 << 2);
}

TEST_F(MadTest, UnsupportedMethodsAndAttributesGetTheirStatus) {
    ASSERT_EQ(run(Mad(0x01, 0x02, 0x0015)), VAPI_OK);  // Set(PortInfo)
    EXPECT_EQ(be16(out + 4), 2 << 2);
    ASSERT_EQ(run(Mad(0x01, 0x01, 0x0020)), VAPI_OK);  // SLtoVLMappingTable
    EXPECT_EQ(be16(out + 4), 3 << 2);
    ASSERT_EQ(run(Mad(0x01, 0x05, 0x0011)), VAPI_OK);  // Trap
    EXPECT_EQ(be16(out + 4), 2 << 2);
    Mad bad(0x01, 0x01, 0x0011);
    bad.b[2] = 2;  // class version
    ASSERT_EQ(run(bad), VAPI_OK);
    EXPECT_EQ(be16(out + 4), 1 << 2);
    EXPECT_EQ(run(Mad(0x03, 0x01, 0x0011)), VAPI_EINVAL_MAD);  // no SA on the HCA
    EXPECT_EQ(run(Mad(0x01, 0x01, 0x0011), 3), VAPI_EINVAL_PORT);
}

TEST_F(MadTest, PortCountersCountLinkDownsAndClearOnSet) {
    marlix::softhca::unplug("InfiniHost0", 1);
    marlix::softhca::plug("InfiniHost0", 1);
    ASSERT_EQ(run(Mad(0x04, 0x01, 0x0012)), VAPI_OK);
    EXPECT_EQ(be16(out + 4), 0);
    EXPECT_EQ(out[64 + 7], 1);  // LinkDownedCounter
    Mad set(0x04, 0x02, 0x0012);
    set.b[64 + 2] = 0x00;
    set.b[64 + 3] = 0x04;  // CounterSelect: LinkDowned
    ASSERT_EQ(run(set), VAPI_OK);
    EXPECT_EQ(out[64 + 7], 0);
    ASSERT_EQ(run(Mad(0x04, 0x01, 0x0011)), VAPI_OK);
    EXPECT_EQ(be16(out + 4), 3 << 2);
}
