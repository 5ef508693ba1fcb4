// Completion event dispatch: the handler CQ create registers, reached by a completion event the
// software HCA raises and called directly, and the look-up from a VAPI CQ handle to the caller's
// CQ handle (array slot up to 1000, list walk under the adaptor lock above).
#include <regex>

#include <vapi.h>

#include "queues_fixture.hpp"

namespace adaptor_test {
namespace {

uint64_t at(const char *name) {
    return static_cast<uint64_t>(module_const(name));
}

const std::string kH = "ox_mlx_cq_completion_event_handler";
const std::string kL = "ox_mlx_get_user_cq_h";

class CompletionEvents : public QueuesFixture {
  protected:
    VAPI_hca_hndl_t vapi_hca() { return static_cast<VAPI_hca_hndl_t>(hca_record(hca_)["hca_h"]); }
    void handler(unsigned long cq_hndl, void *record) {
        adp_call_completion_handler(sym<void>("ox_mlx_cq_completion_event_handler"),
                                    static_cast<unsigned>(vapi_hca()), cq_hndl, record);
    }
    int lookup(unsigned long vapi_handle, void **out) {
        return adp_call_get_user_cq_h(sym<void>("ox_mlx_get_user_cq_h"), hca_, vapi_handle, out);
    }
    int modify(void *q, QpAttr &req) { return ulp_qp_modify(provider(), hca_, q, req.data(), nullptr); }

    // An RC QP brought to RTS, connected to itself.
    void loopback(void *q) {
        const uint16_t lid = hca::port_status("InfiniHost0", 1)->lid;
        QpAttr i;
        i.set("modify.qp_modify_into_state", qp_state("init"))
            .set("modify.ox_qp_attr_mask",
                 at("OX_QP_AT_P_KEY_IX") | at("OX_QP_AT_PHY_PORT_NUM") | at("OX_QP_AT_ACCESS_CON_F"))
            .set("modify.params.init.phy_port_num", 1);
        ASSERT_EQ(kQOk, modify(q, i));
        QpAttr r;
        r.set("modify.qp_modify_into_state", qp_state("rtr"))
            .set("modify.ox_qp_attr_mask", at("OX_QP_AT_DEST_QP") | at("OX_QP_AT_R_PSN") |
                                               at("OX_QP_AT_ADD_VEC") | at("OX_QP_AT_RESP_RDMA_ATOM_OUT_NUM"))
            .set("modify.params.rtr.destanation_qp", static_cast<uint64_t>(qp_record(q)["qp_num"]))
            .set("modify.params.rtr.remote_add_vec.dlid", lid)
            .set("modify.params.rtr.remote_add_vec.pmtu", 3);
        ASSERT_EQ(kQOk, modify(q, r));
        QpAttr t;
        t.set("modify.qp_modify_into_state", qp_state("rts"))
            .set("modify.ox_qp_attr_mask", at("OX_QP_AT_L_ACK_T") | at("OX_QP_AT_DEST_RDMA_ATOM_OUT_NUM") |
                                               at("OX_QP_AT_RETRY_NUM") | at("OX_QP_AT_RNR_NUM") |
                                               at("OX_QP_AT_S_PSN"))
            .set("modify.params.rts.local_ack_timeout", 14)
            .set("modify.params.rts.retry_num", 7)
            .set("modify.params.rts.rnr_num", 7);
        ASSERT_EQ(kQOk, modify(q, t));
    }
};

TEST_F(CompletionEvents, ARaisedEventReachesTheCallbackInHardirqContext) {
    open();
    int context = 0;
    void *cq = create_cq(16, &context);
    const uint32_t pd = alloc_pd();
    void *q = create_qp(qp_type("rc"), cq, cq, pd);
    loopback(q);
    set_debug_level(4);
    // The device is armed and given one zero-length message to itself; its completions raise the
    // CQ's event.
    ASSERT_EQ(VAPI_OK, VAPI_req_comp_notif(vapi_hca(), vapi_cq(cq), VAPI_NEXT_COMP));
    VAPI_rr_desc_t rr{};
    rr.id = 1;
    rr.opcode = VAPI_RECEIVE;
    rr.comp_type = VAPI_SIGNALED;
    ASSERT_EQ(VAPI_OK, VAPI_post_rr(vapi_hca(), vapi_qp(q), &rr));
    VAPI_sr_desc_t sr{};
    sr.id = 2;
    sr.opcode = VAPI_SEND;
    sr.comp_type = VAPI_SIGNALED;
    k::log_clear();
    ASSERT_EQ(VAPI_OK, VAPI_post_sr(vapi_hca(), vapi_qp(q), &sr));
    hca::run_until_idle();
    k::irq_sync();

    EXPECT_EQ(1, CompletionSink::calls.load());
    EXPECT_EQ(reinterpret_cast<uint64_t>(&context), CompletionSink::last_context.load());
    EXPECT_EQ(1, stats()["com_event_num"]);
    EXPECT_EQ(1, stats()["last_com_event_num"]);
    auto lines = log();
    std::vector<std::string> handler_lines;
    for (const auto &l : lines)
        if (l.find(" : AD_TAVOR : " + kH + ":") != std::string::npos) handler_lines.push_back(l);
    ASSERT_EQ(5u, handler_lines.size());
    EXPECT_EQ(ad_debug(kH, std::string(46, '!')), handler_lines[0]);
    // Hard interrupt: in_interrupt() and in_irq() set, in_softirq() clear.
    const std::regex context_line(
        R"(DEBUG   : AD_TAVOR : ox_mlx_cq_completion_event_handler:\(adaptor_tavor\):current->pid: -?\d+, in_interrupt\(\): (\d+),  in_irq\(\): (\d+), in_softirq\(\): (\d+)\))");
    std::smatch m;
    ASSERT_TRUE(std::regex_match(handler_lines[1], m, context_line)) << handler_lines[1];
    EXPECT_NE("0", m[1].str());
    EXPECT_NE("0", m[2].str());
    EXPECT_EQ("0", m[3].str());
    EXPECT_EQ(ad_debug(kH, "hca_hndl - 0, 0, cq_hndl - 1, " + hex(1) + ", private_data - " + kptr(cq)),
              handler_lines[2]);
    EXPECT_EQ(ad_debug(kH, "opened_cq_p: " + kptr(cq)), handler_lines[3]);
    EXPECT_EQ(ad_debug(kH, "will call the application callback directly"), handler_lines[4]);
    EXPECT_EQ((std::vector<long long>{0, 0, 0, 0, 0, 0}), error_counters());

    // Re-targeted callback and context take effect for the next event.
    int other = 0;
    ASSERT_EQ(kQOk, ulp_cq_modify_attrib(provider(), hca_, cq, &other, &CompletionSink::other_callback));
    ASSERT_EQ(VAPI_OK, VAPI_req_comp_notif(vapi_hca(), vapi_cq(cq), VAPI_NEXT_COMP));
    ASSERT_EQ(VAPI_OK, VAPI_post_rr(vapi_hca(), vapi_qp(q), &rr));
    ASSERT_EQ(VAPI_OK, VAPI_post_sr(vapi_hca(), vapi_qp(q), &sr));
    hca::run_until_idle();
    k::irq_sync();
    EXPECT_EQ(101, CompletionSink::calls.load());
    EXPECT_EQ(reinterpret_cast<uint64_t>(&other) + 1, CompletionSink::last_context.load());
    EXPECT_EQ(2, stats()["com_event_num"]);

    // Drain the CQ through the device so that it can be destroyed.
    VAPI_wc_desc_t wc{};
    while (VAPI_poll_cq(vapi_hca(), vapi_cq(cq), &wc) == VAPI_OK) {
    }
    destroy_qp(q);
    destroy_cq(cq);
    close_hca(hca_);
}

TEST_F(CompletionEvents, ARecordOfAnotherCqIsCountedAndNotCalled) {
    open();
    int context = 0;
    void *cq = create_cq(16, &context);
    set_debug_level(4);
    k::log_clear();
    handler(7, cq);
    EXPECT_EQ(0, CompletionSink::calls.load());
    auto lines = log();
    ASSERT_EQ(6u, lines.size());
    EXPECT_EQ(ad_error(kH, "ERROR - opened_cq_p->cq_h != cq_hndl 1:7????"), lines[4]);
    EXPECT_EQ(ad_error(kH, "ERROR - didn't call application callback"), lines[5]);
    EXPECT_EQ(1, stats()["com_event_num"]);
    EXPECT_EQ(1, stats()["last_com_event_num"]);
    EXPECT_EQ((std::vector<long long>{1, 1, 0, 0, 0, 0}), error_counters());

    // The matching handle calls the callback with the context.
    handler(1, cq);
    EXPECT_EQ(1, CompletionSink::calls.load());
    EXPECT_EQ(reinterpret_cast<uint64_t>(&context), CompletionSink::last_context.load());
    EXPECT_EQ(2, stats()["com_event_num"]);
    destroy_cq(cq);
    close_hca(hca_);
}

TEST_F(CompletionEvents, LookUpByArraySlotUpTo1000) {
    open();
    ASSERT_TRUE(hca::set_next_cq_handle("InfiniHost0", 1000));
    void *at1000 = create_cq();
    set_debug_level(4);
    k::log_clear();
    void *out = reinterpret_cast<void *>(0x1);
    EXPECT_EQ(kQOk, lookup(1000, &out));
    EXPECT_EQ(at1000, out);
    EXPECT_EQ((std::vector<std::string>{ad_debug(kL, "Working with: hca_context->opened_cq_array[1000]"),
                                        ad_debug(kL, "opened_cq_p: " + kptr(at1000))}),
              log());
    // An empty slot is an answer: null, and ok.
    k::log_clear();
    out = reinterpret_cast<void *>(0x1);
    EXPECT_EQ(kQOk, lookup(5, &out));
    EXPECT_EQ(nullptr, out);
    EXPECT_EQ((std::vector<std::string>{ad_debug(kL, "Working with: hca_context->opened_cq_array[5]"),
                                        ad_debug(kL, "opened_cq_p: " + kptr(nullptr))}),
              log());
    EXPECT_EQ((std::vector<long long>{0, 0, 0, 0, 0, 0}), error_counters());
    destroy_cq(at1000);
    // Slot 1000 reads as empty once its CQ is gone.
    EXPECT_EQ(kQOk, lookup(1000, &out));
    EXPECT_EQ(nullptr, out);
    close_hca(hca_);
}

TEST_F(CompletionEvents, LookUpAbove1000WalksTheListUnderTheLock) {
    open();
    ASSERT_TRUE(hca::set_next_cq_handle("InfiniHost0", 1001));
    void *a = create_cq();
    ASSERT_TRUE(hca::set_next_cq_handle("InfiniHost0", 3000));
    void *b = create_cq();
    set_debug_level(4);
    k::log_clear();
    void *out = nullptr;
    EXPECT_EQ(kQOk, lookup(1001, &out));
    EXPECT_EQ(a, out);
    auto lines = log();
    EXPECT_EQ((std::vector<std::string>{ad_debug(kL, "Find cq_h:" + hex(1001) + ", user cq h: " + kptr(a))}),
              without_lock_trace(lines));
    ASSERT_EQ(4u, lines.size());
    EXPECT_NE(std::string::npos, lines[0].find("---->b ADAPTOR_LOCK cpu[0] ("));
    EXPECT_NE(std::string::npos, lines[0].find("completion-events.cpp("));
    EXPECT_NE(std::string::npos, lines[0].find(" ox_mlx_get_user_cq_h())"));
    EXPECT_NE(std::string::npos, lines[1].find("---->ADAPTOR_LOCK cpu[0] ("));
    EXPECT_NE(std::string::npos, lines[3].find("---->ADAPTOR_UNLOCK cpu[0] ("));

    // Not on the list: an error line naming the last record examined, nothing counted, the
    // out-parameter untouched.
    k::log_clear();
    out = reinterpret_cast<void *>(0x5);
    EXPECT_EQ(kQErr, lookup(1002, &out));
    EXPECT_EQ(reinterpret_cast<void *>(0x5), out);
    EXPECT_EQ((std::vector<std::string>{ad_error(
                  kL, "ERROR - didn't find opened_cq_p->cq_h == cq_h " + hex(1001) + ":" + hex(1002))}),
              without_lock_trace(log()));
    EXPECT_EQ(4u, log().size());
    EXPECT_EQ((std::vector<long long>{0, 0, 0, 0, 0, 0}), error_counters());
    destroy_cq(a);
    destroy_cq(b);
    // An empty list: no record examined.
    k::log_clear();
    EXPECT_EQ(kQErr, lookup(1001, &out));
    EXPECT_EQ((std::vector<std::string>{ad_error(
                  kL, "ERROR - didn't find opened_cq_p->cq_h == cq_h " + kptr(nullptr) + ":" + hex(1001))}),
              without_lock_trace(log()));
    close_hca(hca_);
}

}  // namespace
}  // namespace adaptor_test
