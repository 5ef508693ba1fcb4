// Generator and event control commands once an HCA is open: pollcq, comaddcq, comremcq and comshow
// on real CQs (by record address, VAPI handle or position), and event_ctrl suppressing CQ arming.
#include <cstdio>

#include <vapi.h>

#include "queues_fixture.hpp"
#include "ulp_datapath.h"

namespace adaptor_test {
namespace {

class ProcGeneratorCqs : public QueuesFixture {
  protected:
    VAPI_hca_hndl_t vapi_hca() { return static_cast<VAPI_hca_hndl_t>(hca_record(hca_)["hca_h"]); }
    static std::string p0x(const void *p) { return "0x" + kptr(p); }
    static std::string h0x(unsigned long v) { return "0x" + hex(v); }
    std::string where(int n, void *cq) {
        return "cq_index: " + std::to_string(n) + ", user: " + p0x(cq) + ", mlx: " + h0x(vapi_cq(cq));
    }
};

TEST_F(ProcGeneratorCqs, PollTestByPositionHandleAndRecord) {
    open();
    ASSERT_TRUE(hca::set_next_cq_handle("InfiniHost0", 2000));
    void *older = create_cq();
    ASSERT_TRUE(hca::set_next_cq_handle("InfiniHost0", 3000));
    void *newer = create_cq();  // heads the list
    EXPECT_EQ((std::vector<std::string>{"poll_cq_num: 0", "Empty CQ: " + where(1, newer),
                                        "Empty CQ: " + where(2, older)}),
              command("pollcq 0"));
    EXPECT_EQ((std::vector<std::string>{"poll_cq_num: 2", "find CQ: " + where(2, older),
                                        "Empty CQ: " + where(2, older)}),
              command("pollcq 2"));
    EXPECT_EQ((std::vector<std::string>{"poll_cq_num: 3000", "find CQ: " + where(1, newer),
                                        "Empty CQ: " + where(1, newer)}),
              command("pollcq 3000"));
    char by_record[64];
    std::snprintf(by_record, sizeof(by_record), "pollcq 0x%lx", reinterpret_cast<unsigned long>(older));
    EXPECT_EQ((std::vector<std::string>{"poll_cq_num: " + std::to_string(reinterpret_cast<long>(older)),
                                        "find CQ: " + where(2, older), "Empty CQ: " + where(2, older)}),
              command(by_record));
    EXPECT_EQ((std::vector<std::string>{"poll_cq_num: 3", "ERROR - Didn't find cq_h: 0x0000000000000003"}),
              command("pollcq 3"));

    // A completion found by the test is consumed: the owner never sees it.
    VAPI_rr_desc_t rr{};
    rr.id = 0x100000007ull;
    rr.opcode = VAPI_RECEIVE;
    rr.comp_type = VAPI_SIGNALED;
    const uint32_t pd = alloc_pd();
    void *q = create_qp(qp_type("rc"), older, older, pd);
    QpAttr to_err;
    to_err.set("modify.qp_modify_into_state", qp_state("init"))
        .set("modify.ox_qp_attr_mask",
             static_cast<uint64_t>(module_const("OX_QP_AT_P_KEY_IX") | module_const("OX_QP_AT_PHY_PORT_NUM") |
                                   module_const("OX_QP_AT_ACCESS_CON_F")))
        .set("modify.params.init.phy_port_num", 1);
    ASSERT_EQ(kQOk, ulp_qp_modify(provider(), hca_, q, to_err.data(), nullptr));
    ASSERT_EQ(VAPI_OK, VAPI_post_rr(vapi_hca(), vapi_qp(q), &rr));
    QpAttr err;
    err.set("modify.qp_modify_into_state", qp_state("err"));
    ASSERT_EQ(kQOk, ulp_qp_modify(provider(), hca_, q, err.data(), nullptr));
    hca::run_until_idle();
    // The flushed receive: low 32 bits of its id, and the flush status.
    EXPECT_EQ(
        (std::vector<std::string>{"poll_cq_num: 2", "find CQ: " + where(2, older),
                                  "CQ is not empty !!!! " + where(2, older) +
                                      " (mlx - wrid: 7, stat: " + std::to_string(VAPI_WR_FLUSH_ERR) + ")"}),
        command("pollcq 2"));
    EXPECT_EQ("Empty CQ: " + where(2, older), command("pollcq 2").back());
    EXPECT_EQ(0, stats()["poll_num"]);

    // A failing poll.
    hca::inject_fault("VAPI_poll_cq", "InfiniHost0", VAPI_EINVAL_CQ_HNDL);
    EXPECT_EQ("ERROR polling CQ: " + where(1, newer), command("pollcq 1").back());
    EXPECT_EQ((std::vector<long long>{0, 0, 0, 0, 0, 0}), error_counters());
    destroy_qp(q);
    destroy_cq(newer);
    destroy_cq(older);
    close_hca(hca_);
}

TEST_F(ProcGeneratorCqs, SelectionCommandsFindRealCqsButHaveNoArray) {
    open();
    void *cq = create_cq();
    const unsigned long h = vapi_cq(cq);
    // The commands' own selection array is never allocated: a CQ that exists has nowhere to go.
    EXPECT_EQ((std::vector<std::string>{"Didn't find cq_h: " + hex(h)}),
              command("comaddcq " + std::to_string(h)));
    char by_record[64];
    std::snprintf(by_record, sizeof(by_record), "comaddcq 0x%lx", reinterpret_cast<unsigned long>(cq));
    EXPECT_EQ((std::vector<std::string>{"Didn't find cq_h: " + kptr(cq)}), command(by_record));
    EXPECT_EQ((std::vector<std::string>{"ERROR - Didn't find cq in the array: " + kptr(cq) +
                                        ", vendor_cq_h: " + std::to_string(h)}),
              command("comremcq " + std::to_string(h)));
    EXPECT_EQ((std::vector<std::string>{"ERROR - Didn't find cq_h: 0000000000000063"}),
              command("comremcq 99"));
    set_debug_level(4);
    auto lines = command("comremcq " + std::to_string(h));
    EXPECT_TRUE(contains(lines, proc_debug("proc_com_remcq", "Find in list cq_h: " + kptr(cq))));
    EXPECT_TRUE(contains(lines, proc_debug("proc_com_remcq", "vendor_cq_h: " + std::to_string(h) +
                                                                 ", user_cq_h: " + kptr(cq))));
    set_debug_level(1);
    // The show lists nothing: there is no array to list.
    auto shown = command("comshow");
    EXPECT_EQ("g_com_index_of_selected_cq: 0", shown[3]);
    EXPECT_EQ("g_com_cq_array: 0000000000000000", shown.back());
    // Work mode 2 stays refused.
    EXPECT_EQ((std::vector<std::string>{"ERROR - can't modify to work mode 2 !!!, no allocated cq array"}),
              command("commode 2"));
    destroy_cq(cq);
    close_hca(hca_);
}

TEST_F(ProcGeneratorCqs, EventControlSuppressesArmingAndTheEventsItWouldBring) {
    open();
    int context = 0;
    void *cq = create_cq(16, &context);
    const unsigned long before = hca::call_count("VAPI_req_comp_notif");
    command("event_ctrl 1");
    EXPECT_EQ(kQOk, ulp_request_notification(provider(), hca_, cq, 0));
    EXPECT_EQ(before, hca::call_count("VAPI_req_comp_notif"));
    EXPECT_EQ(0, stats()["com_notify_num"]);
    command("event_ctrl 0");
    EXPECT_EQ(kQOk, ulp_request_notification(provider(), hca_, cq, 0));
    EXPECT_EQ(before + 1, hca::call_count("VAPI_req_comp_notif"));
    EXPECT_EQ(1, stats()["com_notify_num"]);
    // Option 11 suppresses too; option 10 lifts it.
    command("event_ctrl 11");
    EXPECT_EQ(kQOk, ulp_request_notification(provider(), hca_, cq, 0));
    EXPECT_EQ(before + 1, hca::call_count("VAPI_req_comp_notif"));
    command("event_ctrl 10");
    EXPECT_EQ(kQOk, ulp_request_notification(provider(), hca_, cq, 1));
    EXPECT_EQ(before + 2, hca::call_count("VAPI_req_comp_notif"));
    destroy_cq(cq);
    close_hca(hca_);
}

}  // namespace
}  // namespace adaptor_test
