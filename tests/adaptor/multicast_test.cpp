// Multicast attach and detach: the GID reversed on its way to VAPI, mg_num counting attachments,
// and the two failure wordings with their ring indexes.
#include "datapath_fixture.hpp"

namespace adaptor_test {
namespace {


class Multicast : public DataPathFixture {
  protected:
    void SetUp() override {
        DataPathFixture::SetUp();
        c0 = cq(0);
        q = ud(0, c0);
        // Generic order: the wire's first byte (0xff, multicast) is the last one here.
        for (int i = 0; i < 16; ++i) gid[i] = uint8_t(i);
        gid[15] = 0xff;
        for (int i = 0; i < 16; ++i) wire[i] = gid[15 - i];
        k::log_clear();
    }
    DpCq c0;
    DpQp q;
    uint8_t gid[16], wire[16];
};

TEST_F(Multicast, AttachReversesTheGidAndCountsDetachUncounts) {
    ASSERT_EQ(kOk, ulp_mcast_attach(provider(), hcas[0], 0xc001, gid, q.record));
    EXPECT_EQ(1, stats()["mg_num"]);
    EXPECT_EQ(1, stats()["last_mg_num"]);
    const std::string f = "oxi_mlx_qp_attach_to_multicast";
    const auto lines = log();
    ASSERT_EQ(3u, lines.size());
    EXPECT_EQ(ad_debug(f, "user qp h: " + kptr(q.record) +
                              ", vend qp h: " + kptr(reinterpret_cast<void *>(q.vapi))),
              lines[0]);
    EXPECT_EQ(0u, lines[1].find(ad_debug(f, "MG param: gid.eui64: 0x")));
    EXPECT_NE(std::string::npos, lines[1].find(", dlid: 49153"));
    EXPECT_EQ(ad_debug(f, "OK - VAPI_attach_to_multicast()"), lines[2]);

    // VAPI holds the attachment under the reversed GID: detaching it directly works once.
    IB_gid_t reversed;
    std::memcpy(reversed, wire, 16);
    EXPECT_EQ(VAPI_OK, VAPI_detach_from_multicast(vapi_hca(0), reversed, q.vapi, 0xc001));
    EXPECT_EQ(VAPI_OK, VAPI_attach_to_multicast(vapi_hca(0), reversed, q.vapi, 0xc001));

    k::log_clear();
    ASSERT_EQ(kOk, ulp_mcast_detach(provider(), hcas[0], 0xc001, gid, 1, q.record));
    EXPECT_EQ(0, stats()["mg_num"]);
    EXPECT_EQ(0, stats()["last_mg_num"]);
    const auto detach = log();
    ASSERT_EQ(3u, detach.size());
    EXPECT_EQ(0u,
              detach[1].find(ad_debug("oxi_mlx_qp_detach_from_multicast", "MG detach param: gid.eui64: 0x")));
    EXPECT_NE(std::string::npos, detach[1].find(", dlid: 49153, port: 1"));
    EXPECT_EQ(ad_debug("oxi_mlx_qp_detach_from_multicast", "OK - VAPI_detach_from_multicast()"), detach[2]);
    EXPECT_NE(VAPI_OK, VAPI_detach_from_multicast(vapi_hca(0), reversed, q.vapi, 0xc001));
}

TEST_F(Multicast, FailuresUseTheirWordingsAndIndexes) {
    hca::inject_fault("VAPI_attach_to_multicast", kDev[0], VAPI_EAGAIN);
    EXPECT_EQ(kErr, ulp_mcast_attach(provider(), hcas[0], 0xc001, gid, q.record));
    hca::inject_fault("VAPI_detach_from_multicast", kDev[0], VAPI_EAGAIN);
    EXPECT_EQ(kErr, ulp_mcast_detach(provider(), hcas[0], 0xc001, gid, 2, q.record));
    const std::string h = std::to_string(vapi_hca(0)), s = std::to_string(VAPI_EAGAIN);
    EXPECT_EQ(
        (std::vector<std::string>{
            ad_error(
                "oxi_mlx_qp_attach_to_multicast",
                "MLXAD_ERR: VAPI Fail to VAPI_attach_to_multicast, hca_h: " + h + " (mlx:" + s + ", MLX)"),
            ad_error("oxi_mlx_qp_detach_from_multicast",
                     "MLXVAPI Fail to VAPI_detach_from_multicast, hca_h: " + h + " (mlx:" + s + ", MLX)")}),
        at_level(log(), "ERROR  "));
    EXPECT_EQ(dp_const("qp_attach_to_multicast_indx"), ring_entry(0)["func_ix_st"]);
    EXPECT_EQ(dp_const("qp_detach_from_multicast_indx"), ring_entry(1)["func_ix_st"]);
    EXPECT_EQ(VAPI_EAGAIN, ring_entry(1)["stat_st"]);
    EXPECT_EQ(0, stats()["mg_num"]);
    EXPECT_EQ(2, stats()["error_num"]);
    EXPECT_EQ(2, stats()["VAPI_error_num"]);
}

}  // namespace
}  // namespace adaptor_test
