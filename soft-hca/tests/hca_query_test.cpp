#include <algorithm>
#include <cstring>
#include <iterator>

#include "softhca_fixture.hpp"

namespace sh = marlix::softhca;

TEST_F(SoftHcaTest, CapabilitiesAreThoseOfAnInfiniHost) {
    VAPI_hca_hndl_t h = open();
    VAPI_hca_vendor_t v{};
    VAPI_hca_cap_t c{};
    ASSERT_EQ(VAPI_query_hca_cap(h, &v, &c), VAPI_OK);
    EXPECT_EQ(v.vendor_id, 0x02c9u);
    EXPECT_EQ(v.vendor_part_id, 23108u);
    EXPECT_EQ(v.hw_ver, 0xa1u);
    EXPECT_EQ(c.max_num_qp, 64512u);
    EXPECT_EQ(c.max_qp_ous_wr, 16384u);
    EXPECT_EQ(c.max_num_sg_ent, 59u);
    EXPECT_EQ(c.max_num_sg_ent_rd, 54u);
    EXPECT_EQ(c.max_num_cq, 65408u);
    EXPECT_EQ(c.max_num_ent_cq, 131071u);
    EXPECT_EQ(c.max_num_mr, 131056u);
    EXPECT_EQ(c.max_pd_num, 32764u);
    EXPECT_EQ(c.page_size_cap, 4096u);
    EXPECT_EQ(c.phys_port_num, 2);
    EXPECT_EQ(c.max_pkeys, 64);
    EXPECT_EQ(c.local_ca_ack_delay, 15);
    EXPECT_EQ(c.max_mcast_grp_num, 8192u);
    EXPECT_EQ(c.max_mcast_qp_attach_num, 56u);
    const uint8_t guid[8] = {0x00, 0x02, 0xc9, 0x00, 0x00, 0x00, 0x10, 0x00};
    EXPECT_EQ(0, memcmp(c.node_guid, guid, 8));
}

TEST_F(SoftHcaTest, PortPropertiesOfACabledAndAnUncabledPort) {
    VAPI_hca_hndl_t h = open();
    VAPI_hca_port_t p{};
    ASSERT_EQ(VAPI_query_hca_port_prop(h, 1, &p), VAPI_OK);
    EXPECT_EQ(p.state, PORT_ACTIVE);
    EXPECT_EQ(p.max_mtu, MTU2048);
    EXPECT_EQ(p.lid, 1);
    EXPECT_EQ(p.sm_lid, 1);
    EXPECT_EQ(p.capability_mask, 0x02510a6au);
    EXPECT_EQ(p.gid_tbl_len, 32);
    EXPECT_EQ(p.pkey_tbl_len, 64);
    ASSERT_EQ(VAPI_query_hca_port_prop(h, 2, &p), VAPI_OK);
    EXPECT_EQ(p.state, PORT_DOWN);
    EXPECT_EQ(p.lid, 0);
    EXPECT_EQ(VAPI_query_hca_port_prop(h, 0, &p), VAPI_EINVAL_PORT);
    EXPECT_EQ(VAPI_query_hca_port_prop(h, 3, &p), VAPI_EINVAL_PORT);
}

TEST_F(SoftHcaTest, GidTableTooSmallReturnsEagainWithTheNeededSize) {
    VAPI_hca_hndl_t h = open();
    IB_gid_t gids[32];
    std::memset(gids, 0xee, sizeof gids);  // the zero GIDs below must be written, not left over
    u_int16_t out = 0;
    EXPECT_EQ(VAPI_query_hca_gid_tbl(h, 1, 4, &out, gids), VAPI_EAGAIN);
    EXPECT_EQ(out, 32);
    ASSERT_EQ(VAPI_query_hca_gid_tbl(h, 1, 32, &out, gids), VAPI_OK);
    const uint8_t gid0[16] = {0xfe, 0x80, 0, 0, 0, 0, 0, 0, 0x00, 0x02, 0xc9, 0x00, 0x00, 0x00, 0x10, 0x01};
    EXPECT_EQ(0, memcmp(gids[0], gid0, 16));
    const uint8_t zero[16] = {};
    EXPECT_EQ(0, memcmp(gids[1], zero, 16));
}

TEST_F(SoftHcaTest, PkeyTableHoldsTheDefaultKeyAtIndexZero) {
    VAPI_hca_hndl_t h = open();
    VAPI_pkey_t keys[64];
    std::fill(std::begin(keys), std::end(keys), VAPI_pkey_t(0xeeee));  // likewise the empty entries
    u_int16_t out = 0;
    EXPECT_EQ(VAPI_query_hca_pkey_tbl(h, 2, 63, &out, keys), VAPI_EAGAIN);
    EXPECT_EQ(out, 64);
    ASSERT_EQ(VAPI_query_hca_pkey_tbl(h, 2, 64, &out, keys), VAPI_OK);
    EXPECT_EQ(keys[0], 0xFFFF);
    EXPECT_EQ(keys[1], 0);
}

TEST_F(SoftHcaTest, ModifyHcaAttrChangesOnlyTheMaskedCapabilityBits) {
    VAPI_hca_hndl_t h = open();
    VAPI_hca_attr_t attr{};
    VAPI_hca_attr_mask_t mask = HCA_ATTR_IS_SM | HCA_ATTR_IS_SNMP_TUN_SUP;
    attr.is_snmp_tun_sup = TRUE;
    attr.is_dev_mgt_sup = TRUE;  // not in the mask
    ASSERT_EQ(VAPI_modify_hca_attr(h, 1, &attr, &mask), VAPI_OK);
    VAPI_hca_port_t p{};
    ASSERT_EQ(VAPI_query_hca_port_prop(h, 1, &p), VAPI_OK);
    EXPECT_EQ(p.capability_mask, (0x02510a6au & ~0x2u) | 0x20000u);
    mask = 0x40;
    EXPECT_EQ(VAPI_modify_hca_attr(h, 1, &attr, &mask), VAPI_EINVAL_ATTR);
    mask = HCA_ATTR_IS_SM;
    EXPECT_EQ(VAPI_modify_hca_attr(h, 5, &attr, &mask), VAPI_EINVAL_PORT);
}

// The numbers of these statuses are part of the interface (callers compare them, parse_status()
// takes them as text): a header that changed them stops the build.
static_assert(VAPI_EAGAIN == -253);
static_assert(VAPI_CQ_EMPTY == -212);

TEST_F(SoftHcaTest, StatusNamesAndTexts) {
    EXPECT_STREQ(VAPI_strerror_sym(VAPI_EAGAIN), "VAPI_EAGAIN");
    EXPECT_STREQ(VAPI_strerror_sym(VAPI_CQ_EMPTY), "VAPI_CQ_EMPTY");
    EXPECT_STREQ(VAPI_strerror_sym(VAPI_OK), "VAPI_OK");
    EXPECT_STREQ(VAPI_strerror(VAPI_EINVAL_HCA_HNDL), "Invalid HCA handle");
    EXPECT_STREQ(VAPI_strerror_sym(-1), "VAPI_EUNKNOWN");
    EXPECT_EQ(sh::parse_status("VAPI_EBUSY"), VAPI_EBUSY);
    EXPECT_EQ(sh::parse_status("-253"), VAPI_EAGAIN);
    EXPECT_EQ(sh::parse_status("nonsense"), std::nullopt);
}
