// The push_completion() control: a completion entry of any value written into a CQ's ring, as the
// layers above must be ready to read it.
#include <vector>

#include "queue_fixture.hpp"

namespace sh = marlix::softhca;

namespace {

std::vector<VAPI_cq_hndl_t> g_events;
void record_event(VAPI_hca_hndl_t, VAPI_cq_hndl_t cq, void *) {
    g_events.push_back(cq);
}

uint32_t raw(const VAPI_wc_status_t &f) {
    return sh::raw_value(f);
}
uint32_t raw(const VAPI_cqe_opcode_t &f) {
    return sh::raw_value(f);
}
uint32_t raw(const VAPI_remote_node_addr_type_t &f) {
    return sh::raw_value(f);
}

class PushCompletionTest : public QueueTest {
  protected:
    void SetUp() override {
        QueueTest::SetUp();
        g_events.clear();
    }
};

}  // namespace

TEST_F(PushCompletionTest, AnEntryOutsideEveryEnumerationIsPolledByteForByte) {
    VAPI_cq_hndl_t h = make_cq();
    VAPI_wc_desc_t in{};
    set_raw(in.status, 0x12345678);
    set_raw(in.opcode, 0xfffffffe);
    set_raw(in.remote_node_addr.type, 77);
    in.id = 0xfeedf00dcafe;
    in.byte_len = 4000000000u;
    in.imm_data_valid = 200;
    in.vendor_err_syndrome = 0x99;
    ASSERT_TRUE(sh::push_completion("InfiniHost0", h, in));

    VAPI_wc_desc_t out{};
    ASSERT_EQ(VAPI_poll_cq(hca, h, &out), VAPI_OK);
    EXPECT_EQ(raw(out.status), 0x12345678u);
    EXPECT_EQ(raw(out.opcode), 0xfffffffeu);
    EXPECT_EQ(raw(out.remote_node_addr.type), 77u);
    EXPECT_EQ(out.id, 0xfeedf00dcafeu);
    EXPECT_EQ(out.byte_len, 4000000000u);
    EXPECT_EQ(out.imm_data_valid, 200);
    EXPECT_EQ(out.vendor_err_syndrome, 0x99u);
    EXPECT_EQ(VAPI_poll_cq(hca, h, &out), VAPI_CQ_EMPTY);
}

TEST_F(PushCompletionTest, AnArmedCqRaisesItsEventAsForAnyCompletion) {
    VAPI_cq_hndl_t h = make_cq();
    EVAPI_compl_handler_hndl_t hh = 0;
    ASSERT_EQ(EVAPI_set_comp_eventh(hca, h, record_event, nullptr, &hh), VAPI_OK);
    VAPI_wc_desc_t wc{};
    ASSERT_TRUE(sh::push_completion("InfiniHost0", h, wc));
    EXPECT_TRUE(g_events.empty());  // not armed

    ASSERT_EQ(VAPI_req_comp_notif(hca, h, VAPI_SOLIC_COMP), VAPI_OK);
    ASSERT_TRUE(sh::push_completion("InfiniHost0", h, wc, false));
    EXPECT_TRUE(g_events.empty());  // neither solicited nor failed
    ASSERT_TRUE(sh::push_completion("InfiniHost0", h, wc, true));
    ASSERT_EQ(g_events, std::vector<VAPI_cq_hndl_t>{h});

    // A status outside the enumeration is a failed completion: it ends a solicited wait too.
    ASSERT_EQ(VAPI_req_comp_notif(hca, h, VAPI_SOLIC_COMP), VAPI_OK);
    set_raw(wc.status, 1000);
    ASSERT_TRUE(sh::push_completion("InfiniHost0", h, wc, false));
    EXPECT_EQ(g_events.size(), 2u);
}

TEST_F(PushCompletionTest, AnUnknownDeviceOrCqIsRefused) {
    VAPI_cq_hndl_t h = make_cq();
    VAPI_wc_desc_t wc{};
    EXPECT_FALSE(sh::push_completion("InfiniHost9", h, wc));
    EXPECT_FALSE(sh::push_completion("InfiniHost0", h + 1000, wc));
    VAPI_wc_desc_t out{};
    EXPECT_EQ(VAPI_poll_cq(hca, h, &out), VAPI_CQ_EMPTY);
}
