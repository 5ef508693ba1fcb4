// The helpers every CQ and QP entry point shares: finding a tracking record by its VAPI handle
// (array slots for handles 0 to 1000, the list above), and the gather-address rule. They run on an
// HCA opened through the provider table, with records linked the way creation links them.
#include "adaptor_fixture.hpp"

namespace adaptor_test {
namespace {

class TrackingLookup : public AdaptorFixture {
  protected:
    void SetUp() override {
        AdaptorFixture::SetUp();
        load_ok();
        hca_ = open_hca("InfiniHost0");
    }
    void TearDown() override {
        close_hca(hca_);  // frees the linked records too
        AdaptorFixture::TearDown();
    }
    void *hca_ = nullptr;
};

TEST_F(TrackingLookup, HandlesUpTo1000HaveASlot) {
    EXPECT_TRUE(adp_handle_has_slot(0));
    EXPECT_TRUE(adp_handle_has_slot(1000));
    EXPECT_FALSE(adp_handle_has_slot(1001));
    EXPECT_FALSE(adp_handle_has_slot(1ull << 32));
    EXPECT_EQ(1001, module_const("OX_OPENED_ARRAY_SLOTS"));
}

TEST_F(TrackingLookup, CqsAreFoundInTheArrayOrOnTheList) {
    // Slot 1000 exists and reads empty on a fresh HCA.
    EXPECT_EQ(nullptr, adp_find_cq(hca_, 1000));
    void *at_1000 = adp_link_cq_record(hca_, 1000);
    void *high = adp_link_cq_record(hca_, 1001);
    void *low = adp_link_cq_record(hca_, 3);
    EXPECT_EQ(at_1000, adp_find_cq(hca_, 1000));
    EXPECT_EQ(low, adp_find_cq(hca_, 3));
    EXPECT_EQ(high, adp_find_cq(hca_, 1001));
    EXPECT_EQ(nullptr, adp_find_cq(hca_, 4));     // an empty slot: no list walk
    EXPECT_EQ(nullptr, adp_find_cq(hca_, 5000));  // not on the list
    // A list walk that finds nothing reports the last record it examined (the oldest).
    void *last = nullptr;
    EXPECT_EQ(nullptr, adp_cq_in_list(hca_, 5000, &last));
    EXPECT_EQ(at_1000, last);
    EXPECT_EQ(high, adp_cq_in_list(hca_, 1001, &last));
    EXPECT_EQ(high, last);
    // Handles up to 1000 are on the list as well.
    EXPECT_EQ(low, adp_cq_in_list(hca_, 3, nullptr));
}

TEST_F(TrackingLookup, QpsAreFoundInTheArrayOrOnTheList) {
    void *last = reinterpret_cast<void *>(1);
    EXPECT_EQ(nullptr, adp_qp_in_list(hca_, 7, &last));
    EXPECT_EQ(nullptr, last);  // an empty list
    void *qp7 = adp_link_qp_record(hca_, 7);
    void *qp_big = adp_link_qp_record(hca_, 0x100000000ull);
    EXPECT_EQ(qp7, adp_find_qp(hca_, 7));
    EXPECT_EQ(qp_big, adp_find_qp(hca_, 0x100000000ull));
    EXPECT_EQ(nullptr, adp_find_qp(hca_, 0x100000007ull));  // all 64 bits are compared
}

TEST_F(TrackingLookup, GatherAddressesAreInsideTheGenericRegion) {
    const unsigned long page_offset = 0x10000000000ul;
    EXPECT_EQ(0x1234ull, adp_gather_address(hca_, page_offset + 0x1234));
    void *gen = adp_list_first(hca_record(hca_).at("generic_mem_reg_list"));
    RecordView("ox_gen_mr_element_t", gen).set("iova", 0x100000);
    EXPECT_EQ(0x101234ull, adp_gather_address(hca_, page_offset + 0x1234));
    RecordView("ox_gen_mr_element_t", gen).set("iova", 0);
}

}  // namespace
}  // namespace adaptor_test
