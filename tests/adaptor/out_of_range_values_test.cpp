// Values outside the enumerations, from the adapter below and from callers above: completion
// entries whose status, opcode and address type are none of VAPI's, and send requests whose
// operation type and wr_type are none of the generic ones. The module reads them as raw numbers:
// it copies what it copies as it stands and refuses what it cannot translate.
#include <cstring>

#include "datapath_fixture.hpp"

namespace adaptor_test {
namespace {

class OutOfRangeValues : public DataPathFixture {
  protected:
    void SetUp() override {
        DataPathFixture::SetUp();
        c0 = cq(0);
        k::log_clear();
        hca::reset_call_counts();
    }
    static void set_raw(void *field, uint32_t value) { std::memcpy(field, &value, sizeof value); }
    DpCq c0;
};

TEST_F(OutOfRangeValues, ACompletionOfUnknownOpcodeStatusAndAddressTypeIsCopiedAsItStands) {
    VAPI_wc_desc_t in{};
    set_raw(&in.status, 1000);
    set_raw(&in.opcode, 0x7ffffff0);
    set_raw(&in.remote_node_addr.type, 9);
    in.id = 42;
    in.byte_len = 500;
    in.remote_node_addr.slid = 7;
    ASSERT_TRUE(hca::push_completion(kDev[0], c0.vapi, in));

    std::vector<char> wc(ulp_sizeof_wc(), 0);
    wc_view(wc).set("completion_status", 4);
    ASSERT_EQ(kOk, ulp_poll(provider(), hcas[0], c0.record, wc.data()));
    DpView g = wc_view(wc);
    EXPECT_EQ(42, g["wr_id"]);
    EXPECT_EQ(500, g["num_bytes_transfered"]);
    EXPECT_EQ(0x7ffffff0, g["operation_type"]);
    EXPECT_EQ(4, g["completion_status"]);  // no row for 1000: the caller's value stays
    EXPECT_EQ(dp_const("ox_qp_type_not_valid"), g["addres_info.remote_qp_type"]);
    EXPECT_EQ(7, g["addres_info.slid"]);
    EXPECT_EQ(0, stats()["rx_byte"]);  // neither a receive nor a read
    EXPECT_EQ(1, stats()["ox_send_error_status"]);
    const auto errors = at_level(log(), "ERROR  ");
    ASSERT_EQ(2u, errors.size());
    EXPECT_EQ(ad_error("oxi_mlx_poll_for_completion", "ERROR - wc_desc.status: 1000"), errors[0]);
    EXPECT_NE(std::string::npos, errors[1].find("MRX: completion_status: 4 (MLX: 1000, syndrom: 0)"));

    // The VAPI form hands the entry over unchanged and counts it as a failed send.
    ASSERT_TRUE(hca::push_completion(kDev[0], c0.vapi, in));
    VAPI_wc_desc_t out{};
    ASSERT_EQ(kOk, ulp_poll_vapi(provider(), hcas[0], c0.record, &out));
    EXPECT_EQ(0, std::memcmp(&in.status, &out.status, sizeof out.status));
    EXPECT_EQ(0, std::memcmp(&in.opcode, &out.opcode, sizeof out.opcode));
    EXPECT_EQ(2, stats()["ox_send_error_status"]);
}

TEST_F(OutOfRangeValues, ASendOfUnknownOperationTypeOrWrTypeIsRefusedWithoutAPost) {
    DpQp q = ud(0, c0);
    DpRecords wr("ox_wr_t");
    wr[0].set("wr_type", 0x40000000);
    EXPECT_EQ(kInvalidParameter,
              ulp_post_send(provider(), hcas[0], q.record, wr.data(), dp_const("ox_operation_type_send_ud")));
    EXPECT_TRUE(
        contains(log(), ad_error("ox_mlx_common_post_send_prep",
                                 "ERROR - wr_type: " + std::to_string(0x40000000) + " has no VAPI opcode")));
    wr[0].set("wr_type", dp_const("ox_wr_send"));
    k::log_clear();
    EXPECT_EQ(kNotImplemented, ulp_post_send(provider(), hcas[0], q.record, wr.data(), 0x1000000));
    EXPECT_EQ((std::vector<std::string>{
                  ad_error("oxi_mlx_post_send", "ERROR - ox_mlx_common_post_send_prep() returned error")}),
              at_level(log(), "ERROR  "));
    EXPECT_EQ(3, stats()["error_num"]);  // once for the wr_type, twice for the operation type
    EXPECT_EQ(0ul, hca::call_count("VAPI_post_sr"));
    EXPECT_EQ(0, send_lock_held(q));
}

}  // namespace
}  // namespace adaptor_test
