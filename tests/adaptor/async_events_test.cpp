// Asynchronous events: what the software HCA raises (a cable pulled and replugged, a QP driven into
// error, a CQ overrun, a catastrophic error, and every other VAPI type by hand) reaches the newest
// callback registered on that HCA with the translated record; registering, removing and discarding
// callbacks; the deferred-delivery routine.
#include <algorithm>
#include <mutex>
#include <regex>

#include <vapi.h>

#include "queues_fixture.hpp"
#include "ulp_events.h"

namespace adaptor_test {
namespace {

const std::string kH = "ox_mlx_async_event_callback";
const std::string kSet = "oxi_mlx_set_async_event_cb";
const std::string kDel = "oxi_mlx_dell_async_event_cb";

// What the upper layer's callbacks received, in order.
struct AsyncSink {
    static inline std::mutex m;
    static inline std::vector<ulp_async_event> events;
    static void receive(const ulp_async_event *e) {
        std::lock_guard<std::mutex> g(m);
        events.push_back(*e);
    }
    static std::vector<ulp_async_event> take() {
        k::irq_sync();
        std::lock_guard<std::mutex> g(m);
        std::vector<ulp_async_event> out;
        out.swap(events);
        return out;
    }
};

uint64_t at(const char *name) {
    return static_cast<uint64_t>(module_const(name));
}
uint32_t req(const char *name) {
    return static_cast<uint32_t>(ulp_async_request_value(name));
}

class AsyncEvents : public QueuesFixture {
  protected:
    void SetUp() override {
        QueuesFixture::SetUp();
        AsyncSink::take();
        ulp_async_set_receiver(&AsyncSink::receive);
    }
    void TearDown() override {
        ulp_async_set_receiver(nullptr);
        QueuesFixture::TearDown();
    }

    void open_with_context(const char *device = "InfiniHost0") {
        load_ok();
        hca_ = open_hca(device, &hca_context_);
        ASSERT_NE(nullptr, hca_);
    }
    int reg(unsigned slot, const char *kind = "ox_async_even_all", void *object = nullptr,
            void *hca = nullptr) {
        return ulp_async_register(provider(), hca ? hca : hca_, slot, req(kind), object);
    }
    int unreg(unsigned slot, void *hca = nullptr) {
        return ulp_async_unregister(provider(), hca ? hca : hca_, slot);
    }
    VAPI_hca_hndl_t vapi_hca() { return static_cast<VAPI_hca_hndl_t>(hca_record(hca_)["hca_h"]); }
    void raise(uint32_t type, uint64_t modifier) {
        ASSERT_TRUE(hca::raise_async_event("InfiniHost0", type, modifier));
        k::irq_sync();
    }
    void handler(unsigned hca_hndl, unsigned type, unsigned long modifier, void *record) {
        adp_call_async_handler(sym<void>("ox_mlx_async_event_callback"), hca_hndl, type, modifier, record);
    }
    long long registered() { return stats()["registered_async_event_cb_num"]; }
    void *first_registration() { return adp_list_first(hca_record(hca_).at("events_lists.reg_for_async")); }
    RecordView element(void *e) { return RecordView("ox_asy_ev_element_t", e); }

    // The handler's lines without the lock trace and the pid/interrupt line.
    static std::vector<std::string> handler_lines() {
        std::vector<std::string> out;
        for (const auto &l : without_lock_trace(log()))
            if (l.find(" : AD_TAVOR : " + kH + ":") != std::string::npos &&
                l.find("current->pid:") == std::string::npos)
                out.push_back(l);
        return out;
    }

    // An RC QP brought to RTS, connected to itself, without remote access rights.
    void loopback(void *q) {
        auto modify = [&](QpAttr &r) { return ulp_qp_modify(provider(), hca_, q, r.data(), nullptr); };
        const uint16_t lid = hca::port_status("InfiniHost0", 1)->lid;
        QpAttr i;
        i.set("modify.qp_modify_into_state", qp_state("init"))
            .set("modify.ox_qp_attr_mask",
                 at("OX_QP_AT_P_KEY_IX") | at("OX_QP_AT_PHY_PORT_NUM") | at("OX_QP_AT_ACCESS_CON_F"))
            .set("modify.params.init.phy_port_num", 1);
        ASSERT_EQ(kQOk, modify(i));
        QpAttr r;
        r.set("modify.qp_modify_into_state", qp_state("rtr"))
            .set("modify.ox_qp_attr_mask", at("OX_QP_AT_DEST_QP") | at("OX_QP_AT_R_PSN") |
                                               at("OX_QP_AT_ADD_VEC") | at("OX_QP_AT_RESP_RDMA_ATOM_OUT_NUM"))
            .set("modify.params.rtr.destanation_qp", static_cast<uint64_t>(qp_record(q)["qp_num"]))
            .set("modify.params.rtr.remote_add_vec.dlid", lid)
            .set("modify.params.rtr.remote_add_vec.pmtu", 3);
        ASSERT_EQ(kQOk, modify(r));
        QpAttr t;
        t.set("modify.qp_modify_into_state", qp_state("rts"))
            .set("modify.ox_qp_attr_mask", at("OX_QP_AT_L_ACK_T") | at("OX_QP_AT_DEST_RDMA_ATOM_OUT_NUM") |
                                               at("OX_QP_AT_RETRY_NUM") | at("OX_QP_AT_RNR_NUM") |
                                               at("OX_QP_AT_S_PSN"))
            .set("modify.params.rts.local_ack_timeout", 14)
            .set("modify.params.rts.retry_num", 7)
            .set("modify.params.rts.rnr_num", 7);
        ASSERT_EQ(kQOk, modify(t));
    }

    int hca_context_ = 0;
};

TEST_F(AsyncEvents, CablePulledAndReplugedReachTheNewestCallbackOnly) {
    open_with_context();
    set_debug_level(4);
    k::log_clear();
    ASSERT_EQ(kQOk, reg(0));
    ASSERT_EQ(kQOk, reg(1));
    EXPECT_EQ(2, registered());
    EXPECT_EQ(2, stats()["last_registered_async_event_cb_num"]);
    EXPECT_EQ(2, alloc_num("mem_async_ix"));
    const auto set_lines = without_lock_trace(log());
    EXPECT_TRUE(contains(set_lines, ad_debug(kSet, "event type is for ALL")));
    EXPECT_TRUE(contains(set_lines, ad_debug(kSet, "Insert into all async list, num of registered CB: 2")));

    k::log_clear();
    ASSERT_TRUE(hca::unplug("InfiniHost0", 1));
    auto got = AsyncSink::take();
    ASSERT_EQ(1u, got.size());
    EXPECT_EQ(1u, got[0].slot);
    EXPECT_STREQ("ox_async_r_port", ulp_async_event_name(got[0].event_type));
    EXPECT_EQ(1, got[0].port_num);
    EXPECT_EQ(&hca_context_, got[0].hca_app_h);
    EXPECT_EQ(1, stats()["async_event_num"]);
    EXPECT_EQ(1, stats()["last_async_event_num"]);
    EXPECT_EQ(
        (std::vector<std::string>{
            ad_debug(kH, "found hca in hca's list  " + kptr(hca_)),
            ad_debug(kH, "hca_hndl matches too  " + std::to_string(vapi_hca())),
            ad_debug(kH, "!-!-!-!-!-!-!-!-!-!-!-!-!-!-!-!-!-!-!-!"),
            ad_debug(kH, "hca_app_h: " + kptr(&hca_context_) + ", ox event_type: 1024, mlx event_type: 15"),
            ad_debug(kH, "case for HCA or Port 1"),
        }),
        handler_lines());
    // Lock, lock taken, unlock: the callback runs after the release.
    auto all = log();
    EXPECT_EQ(3u, count_with(all, "ADAPTOR_LOCK cpu[") + count_with(all, "ADAPTOR_UNLOCK cpu["));
    const std::regex context_line(
        R"(DEBUG   : AD_TAVOR : ox_mlx_async_event_callback:\(adaptor_tavor\):current->pid: -?\d+, in_interrupt\(\): (\d+),  in_irq\(\): (\d+), in_softirq\(\): (\d+))");
    EXPECT_EQ(1u, std::count_if(all.begin(), all.end(),
                                [&](const std::string &l) { return std::regex_match(l, context_line); }));

    ASSERT_TRUE(hca::plug("InfiniHost0", 1));
    hca::run_until_idle();
    got = AsyncSink::take();
    ASSERT_EQ(1u, got.size());
    EXPECT_EQ(1u, got[0].slot);
    EXPECT_STREQ("ox_async_r_port", ulp_async_event_name(got[0].event_type));
    EXPECT_EQ(1, got[0].port_num);
    EXPECT_EQ(2, stats()["async_event_num"]);

    // Without the newest one, the older registration receives the events.
    k::log_clear();
    ASSERT_EQ(kQOk, unreg(1));
    EXPECT_TRUE(contains(log(), ad_debug(kDel, "Remove from list: 1 elements, remaining: 1")));
    EXPECT_EQ(1, registered());
    ASSERT_TRUE(hca::unplug("InfiniHost0", 1));
    got = AsyncSink::take();
    ASSERT_EQ(1u, got.size());
    EXPECT_EQ(0u, got[0].slot);
    EXPECT_EQ((std::vector<long long>{0, 0, 0, 0, 0, 0}), error_counters());
    // Removal does not uncount the registrations in the accounting table.
    EXPECT_EQ(2, alloc_num("mem_async_ix"));
    close_hca(hca_);
}

TEST_F(AsyncEvents, AQpDrivenIntoErrorIsReportedWithTheCallersHandles) {
    open_with_context();
    int cq_context = 0, qp_context = 0;
    void *cq = create_cq(64, &cq_context);
    void *q = create_qp(qp_type("rc"), cq, cq, alloc_pd(), &qp_context);
    loopback(q);
    ASSERT_EQ(kQOk, reg(0));
    // An RDMA read the responder has not allowed: a local access violation on the QP.
    VAPI_sr_desc_t sr{};
    sr.id = 9;
    sr.opcode = VAPI_RDMA_READ;
    sr.comp_type = VAPI_SIGNALED;
    sr.remote_addr = 0x1000;
    sr.r_key = 0x77;
    set_debug_level(4);
    k::log_clear();
    ASSERT_EQ(VAPI_OK, VAPI_post_sr(vapi_hca(), vapi_qp(q), &sr));
    hca::run_until_idle();
    auto got = AsyncSink::take();
    ASSERT_EQ(1u, got.size());
    EXPECT_STREQ("ox_async_r_l_wq_err", ulp_async_event_name(got[0].event_type));
    EXPECT_EQ(q, got[0].object);
    EXPECT_EQ(static_cast<uint32_t>(qp_record(q)["qp_num"]), got[0].qp_num);
    EXPECT_EQ(&qp_context, got[0].context);
    EXPECT_EQ(&hca_context_, got[0].hca_app_h);
    const unsigned long h = vapi_qp(q);
    EXPECT_EQ(
        (std::vector<std::string>{
            ad_debug(kH, "found hca in hca's list  " + kptr(hca_)),
            ad_debug(kH, "hca_hndl matches too  " + std::to_string(vapi_hca())),
            ad_debug(kH, "!-!-!-!-!-!-!-!-!-!-!-!-!-!-!-!-!-!-!-!"),
            ad_debug(kH, "hca_app_h: " + kptr(&hca_context_) + ", ox event_type: 8, mlx event_type: 10"),
            ad_debug(kH, "case for QP"),
            ad_debug(kH, "Working with: opend_hca_p->opened_qp_array[" + std::to_string(h) + "]"),
            ad_debug(kH, "opened_qp_p: " + kptr(q)),
            ad_debug(kH, "find, user qp_h: " + kptr(q) + ", qp num: " +
                             std::to_string(qp_record(q)["qp_num"]) + ", qp context: " + kptr(&qp_context)),
        }),
        handler_lines());
    EXPECT_EQ((std::vector<long long>{0, 0, 0, 0, 0, 0}), error_counters());
    close_hca(hca_);
}

TEST_F(AsyncEvents, ACqOverrunIsReportedWithTheCallersCq) {
    open_with_context();
    int cq_context = 0;
    void *small = create_cq(2, &cq_context);
    uint32_t entries = 0;
    void *ctx = nullptr;
    ASSERT_EQ(kQOk, ulp_cq_query(provider(), hca_, small, &entries, &ctx));
    void *q = create_qp(qp_type("rc"), small, small, alloc_pd());
    loopback(q);
    ASSERT_EQ(kQOk, reg(0));
    // More completions than the CQ holds, never polled.
    for (uint32_t n = 0; n < entries + 2; ++n) {
        VAPI_rr_desc_t rr{};
        rr.id = 100 + n;
        rr.opcode = VAPI_RECEIVE;
        rr.comp_type = VAPI_SIGNALED;
        VAPI_sr_desc_t sr{};
        sr.id = 200 + n;
        sr.opcode = VAPI_SEND;
        sr.comp_type = VAPI_SIGNALED;
        // Once the CQ has overrun the QP may refuse more work: that is enough.
        if (VAPI_post_rr(vapi_hca(), vapi_qp(q), &rr) != VAPI_OK ||
            VAPI_post_sr(vapi_hca(), vapi_qp(q), &sr) != VAPI_OK)
            break;
        hca::run_until_idle();
    }
    auto got = AsyncSink::take();
    std::vector<ulp_async_event> cq_errors;
    for (const auto &e : got)
        if (std::string(ulp_async_event_name(e.event_type)) == "ox_async_r_cq_err") cq_errors.push_back(e);
    ASSERT_EQ(1u, cq_errors.size());
    EXPECT_EQ(small, cq_errors[0].object);
    EXPECT_EQ(&cq_context, cq_errors[0].context);
    EXPECT_EQ(0, stats()["error_num"]);
    close_hca(hca_);
}

TEST_F(AsyncEvents, AnInjectedCatastrophicErrorIsALocalError) {
    open_with_context();
    ASSERT_EQ(kQOk, reg(0));
    ASSERT_TRUE(hca::inject_catastrophic_error("InfiniHost0"));
    hca::run_until_idle();
    auto got = AsyncSink::take();
    ASSERT_EQ(1u, got.size());
    EXPECT_STREQ("ox_async_r_l_err", ulp_async_event_name(got[0].event_type));
    EXPECT_EQ(&hca_context_, got[0].hca_app_h);
    EXPECT_EQ(0, stats()["error_num"]);
    close_hca(hca_);
}

TEST_F(AsyncEvents, EveryVapiTypeIsTranslatedOrRefused) {
    open_with_context();
    int cq_context = 0, qp_context = 0;
    void *cq = create_cq(16, &cq_context);
    void *q = create_qp(qp_type("rc"), cq, cq, alloc_pd(), &qp_context);
    ASSERT_EQ(kQOk, reg(0));
    struct Row {
        uint32_t type;
        const char *kind;  // null: refused
        char on;           // 'q' QP, 'c' CQ, 'p' port
    };
    const std::vector<Row> rows = {
        {VAPI_QP_PATH_MIGRATED, "ox_async_r_path_migrated_ev", 'q'},
        {VAPI_EEC_PATH_MIGRATED, nullptr, 'e'},
        {VAPI_QP_COMM_ESTABLISHED, "ox_async_r_com_est_ev", 'q'},
        {VAPI_EEC_COMM_ESTABLISHED, nullptr, 'e'},
        {VAPI_SEND_QUEUE_DRAINED, "ox_async_r_send_q_drained_ev", 'q'},
        {VAPI_RECEIVE_QUEUE_DRAINED, "ox_async_r_l_err", 'p'},
        {VAPI_SRQ_LIMIT_REACHED, "ox_async_r_l_err", 'p'},
        {VAPI_SRQ_CATASTROPHIC_ERROR, "ox_async_r_l_err", 'p'},
        {VAPI_CQ_ERROR, "ox_async_r_cq_err", 'c'},
        {VAPI_LOCAL_WQ_INV_REQUEST_ERROR, "ox_async_r_l_wq_err", 'q'},
        {VAPI_LOCAL_WQ_ACCESS_VIOL_ERROR, "ox_async_r_l_wq_err", 'q'},
        {VAPI_LOCAL_WQ_CATASTROPHIC_ERROR, "ox_async_r_l_wq_err", 'q'},
        {VAPI_PATH_MIG_REQ_ERROR, "ox_async_r_path_migrated_err", 'q'},
        {VAPI_LOCAL_EEC_CATASTROPHIC_ERROR, nullptr, 'e'},
        {VAPI_LOCAL_CATASTROPHIC_ERROR, "ox_async_r_l_err", 'p'},
        {VAPI_PORT_ERROR, "ox_async_r_port", 'p'},
        {VAPI_PORT_ACTIVE, "ox_async_r_port", 'p'},
        {VAPI_CQ_COMP, nullptr, 'd'},
        {VAPI_GPIO, nullptr, 'd'},
        {VAPI_ECC_DETECT, nullptr, 'd'},
        {VAPI_PATH_MIG_ARMED, nullptr, 'r'},
        {VAPI_CLIENT_REREGISTER, nullptr, 'r'},
        {0xffffffffu, nullptr, 'r'},
    };
    set_debug_level(4);
    long long errors = 0, events = 0;
    for (const Row &row : rows) {
        SCOPED_TRACE(row.type);
        const uint64_t modifier = row.on == 'q' ? vapi_qp(q) : row.on == 'c' ? vapi_cq(cq) : 0x1202;
        k::log_clear();
        raise(row.type, modifier);
        ++events;
        EXPECT_EQ(events, stats()["async_event_num"]);
        auto got = AsyncSink::take();
        if (row.kind) {
            ASSERT_EQ(1u, got.size());
            EXPECT_STREQ(row.kind, ulp_async_event_name(got[0].event_type));
            if (row.on == 'q') {
                EXPECT_EQ(q, got[0].object);
                EXPECT_EQ(&qp_context, got[0].context);
            } else if (row.on == 'c') {
                EXPECT_EQ(cq, got[0].object);
                EXPECT_EQ(&cq_context, got[0].context);
            } else {
                // The low byte of the modifier, also for the drained and SRQ events.
                EXPECT_EQ(2, got[0].port_num);
            }
        } else {
            EXPECT_TRUE(got.empty());
            ++errors;
            const auto errs = at_level(log(), "ERROR  ");
            ASSERT_EQ(1u, errs.size());
            if (row.on == 'e')
                EXPECT_EQ(ad_error(kH, "ERROR - case for EEC - not implemented yet"), errs[0]);
            else if (row.on == 'd')
                EXPECT_EQ(ad_error(kH, "ERROR - case for default"), errs[0]);
            else
                EXPECT_EQ(ad_error(kH, "event_record_p->type (" + std::to_string(static_cast<int>(row.type)) +
                                           ") >= MAX_MLX_ASYNC_RECORD (20) or type < 0"),
                          errs[0]);
        }
        EXPECT_EQ(errors, stats()["error_num"]);
        EXPECT_EQ(errors, stats()["last_error_num"]);
    }
    destroy_qp(q);
    destroy_cq(cq);
    close_hca(hca_);
}

TEST_F(AsyncEvents, QpsAndCqsTheAdaptorDoesNotKnowAreDroppedQuietly) {
    open_with_context();
    ASSERT_TRUE(hca::set_next_qp_handle("InfiniHost0", 2000));
    ASSERT_TRUE(hca::set_next_cq_handle("InfiniHost0", 3000));
    int cq_context = 0, qp_context = 0;
    void *cq = create_cq(16, &cq_context);
    void *q = create_qp(qp_type("rc"), cq, cq, alloc_pd(), &qp_context);
    ASSERT_EQ(3000u, vapi_cq(cq));
    ASSERT_EQ(2000u, vapi_qp(q));
    ASSERT_EQ(kQOk, reg(0));
    set_debug_level(4);

    // Above 1000: found on the list.
    k::log_clear();
    raise(VAPI_SEND_QUEUE_DRAINED, 2000);
    auto got = AsyncSink::take();
    ASSERT_EQ(1u, got.size());
    EXPECT_EQ(q, got[0].object);
    auto lines = handler_lines();
    EXPECT_TRUE(contains(lines, ad_debug(kH, "looking in the list")));
    EXPECT_TRUE(contains(lines, ad_debug(kH, "find in the list: " + kptr(q))));
    k::log_clear();
    raise(VAPI_CQ_ERROR, 3000);
    got = AsyncSink::take();
    ASSERT_EQ(1u, got.size());
    EXPECT_EQ(cq, got[0].object);
    EXPECT_TRUE(contains(handler_lines(), ad_debug(kH, "find, user cq_h: " + kptr(cq) +
                                                           ", cq context: " + kptr(&cq_context))));

    // An empty slot, a handle on no list: a DEBUG line each, nothing delivered, nothing counted.
    struct Case {
        uint32_t type;
        uint64_t modifier;
        std::string line;
    };
    const std::vector<Case> cases = {
        {VAPI_QP_COMM_ESTABLISHED, 5, "NULL opened_qp_p, maybe it is NOT created by oxverbs interface"},
        {VAPI_QP_COMM_ESTABLISHED, 1000, "NULL opened_qp_p, maybe it is NOT created by oxverbs interface"},
        {VAPI_QP_COMM_ESTABLISHED, 2001,
         "ERROR - didn't find QP, maybe it is NOT created by oxverbs interface"},
        {VAPI_CQ_ERROR, 7, "NULL opened_cq_p, maybe it is NOT created by oxverbs interface"},
        {VAPI_CQ_ERROR, 3001, "didn't find CQ, maybe it is NOT created by oxverbs interface"},
    };
    long long events = stats()["async_event_num"];
    for (const Case &c : cases) {
        SCOPED_TRACE(c.modifier);
        k::log_clear();
        raise(c.type, c.modifier);
        EXPECT_TRUE(AsyncSink::take().empty());
        EXPECT_EQ(++events, stats()["async_event_num"]);
        lines = handler_lines();
        ASSERT_FALSE(lines.empty());
        EXPECT_EQ(ad_debug(kH, c.line), lines.back());
        EXPECT_TRUE(at_level(log(), "ERROR  ").empty());
    }
    // A handle whose low 32 bits are at most 1000 reads the array at those bits.
    k::log_clear();
    raise(VAPI_QP_COMM_ESTABLISHED, 0x100000005ull);
    EXPECT_TRUE(contains(handler_lines(), ad_debug(kH, "Working with: opend_hca_p->opened_qp_array[5]")));
    EXPECT_EQ((std::vector<long long>{0, 0, 0, 0, 0, 0}), error_counters());
    destroy_qp(q);
    destroy_cq(cq);
    close_hca(hca_);
}

TEST_F(AsyncEvents, WithoutRegistrationsAnEventIsLoggedNotCounted) {
    open_with_context();
    set_debug_level(1);
    k::log_clear();
    raise(VAPI_PORT_ERROR, 1);
    EXPECT_EQ((std::vector<std::string>{ad_error(kH, "got async event but the base is not register yet")}),
              log());
    EXPECT_EQ(0, stats()["error_num"]);
    EXPECT_EQ(1, stats()["async_event_num"]);
    // Events are not queued: a registration made afterwards does not receive it.
    ASSERT_EQ(kQOk, reg(0));
    EXPECT_TRUE(AsyncSink::take().empty());
    close_hca(hca_);
}

TEST_F(AsyncEvents, AHandlerCallForNoOpenHcaIsAnError) {
    open_with_context();
    ASSERT_EQ(kQOk, reg(0));
    set_debug_level(4);
    // No context.
    k::log_clear();
    handler(vapi_hca(), VAPI_PORT_ERROR, 1, nullptr);
    EXPECT_EQ((std::vector<std::string>{ad_error(kH, "no HCA context!!! hca_h: " + kptr(nullptr))}),
              without_lock_trace(log()));
    EXPECT_EQ(1, stats()["error_num"]);
    // The record, but another VAPI handle.
    k::log_clear();
    handler(vapi_hca() + 7, VAPI_PORT_ERROR, 1, hca_);
    EXPECT_EQ(
        (std::vector<std::string>{ad_debug(kH, "found hca in hca's list  " + kptr(hca_)),
                                  ad_error(kH, "hca not found in g_opened_mlx_hcas_list  -  bailing out")}),
        without_lock_trace(log()));
    // A pointer that is no open HCA.
    k::log_clear();
    int stranger = 0;
    handler(vapi_hca(), VAPI_PORT_ERROR, 1, &stranger);
    EXPECT_EQ(
        (std::vector<std::string>{ad_error(kH, "hca not found in g_opened_mlx_hcas_list  -  bailing out")}),
        without_lock_trace(log()));
    EXPECT_EQ(3, stats()["error_num"]);
    EXPECT_EQ(3, stats()["last_error_num"]);
    EXPECT_EQ(3, stats()["async_event_num"]);
    // Every exit released the lock: the same handler delivers now.
    handler(vapi_hca(), VAPI_PORT_ERROR, 1, hca_);
    EXPECT_EQ(1u, AsyncSink::take().size());
    EXPECT_TRUE(AsyncSink::take().empty());
    close_hca(hca_);
}

TEST_F(AsyncEvents, EachHcaDeliversToItsOwnRegistrations) {
    load_ok();
    int c0 = 0, c1 = 0;
    void *h0 = open_hca("InfiniHost0", &c0);
    void *h1 = open_hca("InfiniHost1", &c1);
    hca_ = h0;
    ASSERT_EQ(kQOk, reg(0, "ox_async_even_all", nullptr, h0));
    ASSERT_EQ(kQOk, reg(1, "ox_async_even_all", nullptr, h1));
    ASSERT_TRUE(hca::unplug("InfiniHost1", 1));
    auto got = AsyncSink::take();
    ASSERT_EQ(1u, got.size());
    EXPECT_EQ(1u, got[0].slot);
    EXPECT_EQ(&c1, got[0].hca_app_h);
    ASSERT_TRUE(hca::unplug("InfiniHost0", 1));
    got = AsyncSink::take();
    ASSERT_EQ(1u, got.size());
    EXPECT_EQ(0u, got[0].slot);
    EXPECT_EQ(&c0, got[0].hca_app_h);
    close_hca(h1);
    close_hca(h0);
}

TEST_F(AsyncEvents, SpecificRegistrationsStillReceiveEveryEvent) {
    open_with_context();
    int qp_context = 0;
    void *cq = create_cq(16);
    void *q = create_qp(qp_type("rc"), cq, cq, alloc_pd(), &qp_context);
    set_debug_level(4);

    k::log_clear();
    ASSERT_EQ(kQOk, reg(0, "ox_async_even_cq", cq));
    EXPECT_TRUE(contains(log(), ad_debug(kSet, "Case for the specific event")));
    EXPECT_TRUE(contains(log(), ad_debug(kSet, "Insert into cq async")));
    void *e = first_registration();
    EXPECT_EQ(static_cast<long long>(req("ox_async_even_cq")), element(e)["req_asy_ev.req_event_type"]);
    EXPECT_EQ(reinterpret_cast<long long>(cq), element(e)["req_asy_ev.type.qp_h"]);
    EXPECT_EQ(static_cast<long long>(vapi_cq(cq)), element(e)["vend_h.qp_vend_h"]);

    k::log_clear();
    ASSERT_EQ(kQOk, reg(1, "ox_async_even_qp", q));
    EXPECT_TRUE(contains(log(), ad_debug(kSet, "Insert into qp async")));
    e = first_registration();
    EXPECT_EQ(static_cast<long long>(vapi_qp(q)), element(e)["vend_h.qp_vend_h"]);
    ASSERT_EQ(kQOk, unreg(1));

    k::log_clear();
    ASSERT_EQ(kQOk, reg(2, "ox_async_even_port", reinterpret_cast<void *>(0x55)));
    EXPECT_TRUE(contains(log(), ad_debug(kSet, "Insert into hca/port async list")));
    e = first_registration();
    EXPECT_EQ(static_cast<long long>(vapi_hca()), element(e)["vend_h.qp_vend_h"] & 0xffffffff);
    ASSERT_EQ(kQOk, unreg(2));

    // The CQ registration receives a port event and a QP event.
    raise(VAPI_PORT_ACTIVE, 1);
    raise(VAPI_QP_COMM_ESTABLISHED, vapi_qp(q));
    auto got = AsyncSink::take();
    ASSERT_EQ(2u, got.size());
    EXPECT_EQ(0u, got[0].slot);
    EXPECT_STREQ("ox_async_r_port", ulp_async_event_name(got[0].event_type));
    EXPECT_EQ(0u, got[1].slot);
    EXPECT_EQ(q, got[1].object);
    destroy_qp(q);
    destroy_cq(cq);
    close_hca(hca_);
}

TEST_F(AsyncEvents, RemovingACallbackRegisteredTwiceRemovesBoth) {
    open_with_context();
    ASSERT_EQ(kQOk, reg(0));
    ASSERT_EQ(kQOk, reg(1));
    ASSERT_EQ(kQOk, reg(0, "ox_async_even_hca"));
    EXPECT_EQ(3, registered());
    set_debug_level(4);
    k::log_clear();
    ASSERT_EQ(kQOk, unreg(0));
    auto lines = without_lock_trace(log());
    EXPECT_EQ(2u, count_of(lines, ad_debug(kDel, "find in list CB: " + kptr(ulp_async_sink(0)))));
    EXPECT_EQ(ad_debug(kDel, "Remove from list: 2 elements, remaining: 1"), lines.back());
    EXPECT_EQ(1, registered());
    EXPECT_EQ(1, stats()["last_registered_async_event_cb_num"]);
    // Nothing to remove is still ok.
    k::log_clear();
    ASSERT_EQ(kQOk, unreg(5));
    EXPECT_EQ((std::vector<std::string>{ad_debug(kDel, "Remove from list: 0 elements, remaining: 1")}),
              without_lock_trace(log()));
    EXPECT_EQ(3, alloc_num("mem_async_ix"));
    close_hca(hca_);
}

TEST_F(AsyncEvents, AnEecRegistrationIsRefusedAndStaysAccounted) {
    open_with_context();
    set_debug_level(1);
    k::log_clear();
    EXPECT_EQ(kQErr, reg(0, "ox_async_even_eec"));
    EXPECT_EQ((std::vector<std::string>{ad_error(kSet, "ERROR - Insert into eec async - not suported yet")}),
              log());
    EXPECT_EQ(1, alloc_num("mem_async_ix"));
    EXPECT_EQ(0, registered());
    EXPECT_EQ(nullptr, first_registration());
    EXPECT_EQ((std::vector<long long>{1, 1, 0, 0, 0, 0}), error_counters());
    close_hca(hca_);
}

TEST_F(AsyncEvents, ARegistrationThatCannotBeAllocatedIsRefused) {
    open_with_context();
    set_debug_level(1);
    k::AllocFault fault;
    fault.site = kSet;
    k::add_alloc_fault(fault);
    k::log_clear();
    EXPECT_EQ(kQErr, reg(0));
    EXPECT_EQ((std::vector<std::string>{ad_error(kSet, "Fail to allocate memory: ox_asy_ev_element_t")}),
              log());
    EXPECT_EQ((std::vector<long long>{1, 1, 0, 0, 1, 1}), error_counters());
    EXPECT_EQ(0, alloc_num("mem_async_ix"));
    EXPECT_EQ(0, registered());
    // The next one succeeds.
    EXPECT_EQ(kQOk, reg(0));
    EXPECT_EQ(1, registered());
    close_hca(hca_);
}

TEST_F(AsyncEvents, CloseDiscardsEveryRegistration) {
    open_with_context();
    ASSERT_EQ(kQOk, reg(0));
    ASSERT_EQ(kQOk, reg(1));
    const size_t before = module_allocations();
    set_debug_level(4);
    k::log_clear();
    close_hca(hca_);
    EXPECT_TRUE(
        contains(log(), ad_debug("ox_mlx_destroy_async_events", "Remove and free from list 2 elements")));
    EXPECT_EQ(0, registered());
    EXPECT_EQ(0, stats()["last_registered_async_event_cb_num"]);
    EXPECT_EQ(2, alloc_num("mem_async_ix"));
    EXPECT_GT(before, module_allocations());
    // The device no longer has a handler: an event raised now reaches nobody.
    EXPECT_FALSE(hca::has_async_handler("InfiniHost0"));
    ASSERT_TRUE(hca::unplug("InfiniHost0", 1));
    EXPECT_TRUE(AsyncSink::take().empty());
}

TEST_F(AsyncEvents, TheTaskletRoutineCallsEveryCallbackOfItsAnchorAndFreesIt) {
    open_with_context();
    const void *fn = sym<void>("ox_call_app_async_event_cb");
    ASSERT_NE(nullptr, fn);
    // The HCA's tasklet is prepared with this routine and data 0.
    EXPECT_EQ(reinterpret_cast<long long>(fn), hca_record(hca_)["events_lists.async_tasklet.func"]);
    EXPECT_EQ(0, hca_record(hca_)["events_lists.async_tasklet.data"]);
    set_debug_level(4);
    k::log_clear();
    adp_call_async_tasklet(fn, 0);
    EXPECT_EQ(ad_error("ox_call_app_async_event_cb", "data is NULL - no pointer into the list anchor"),
              log().back());
    EXPECT_EQ(1, stats()["error_num"]);

    const void *callbacks[] = {ulp_async_sink(3), ulp_async_sink(4)};
    const size_t live = k::live_allocation_count();
    void *anchor = adp_make_async_anchor(1024, &hca_context_, callbacks, 2);
    k::log_clear();
    adp_call_async_tasklet(fn, reinterpret_cast<unsigned long>(anchor));
    auto got = AsyncSink::take();
    ASSERT_EQ(2u, got.size());
    EXPECT_EQ(3u, got[0].slot);
    EXPECT_EQ(4u, got[1].slot);
    EXPECT_EQ(&hca_context_, got[1].hca_app_h);
    auto lines = log();
    EXPECT_EQ(ad_debug("ox_call_app_async_event_cb", "!--!--!--!--!--!--!--!--!--!--!--!--!--!--!--!--!"),
              lines[0]);
    EXPECT_EQ(ad_debug("ox_call_app_async_event_cb",
                       "list_anchor_p: " + kptr(anchor) +
                           ", event_type: 1024, hca_app_h: " + kptr(&hca_context_) + ")"),
              lines[2]);
    EXPECT_EQ(ad_debug("ox_call_app_async_event_cb", "call 2 times, will free: " + kptr(anchor)),
              lines.back());
    EXPECT_EQ(live, k::live_allocation_count());
    EXPECT_EQ(1, stats()["error_num"]);
    close_hca(hca_);
}

TEST_F(AsyncEvents, TheEntryPointsAreExportedAndInTheTable) {
    load_ok();
    EXPECT_EQ(exported<void>("oxi_mlx_set_async_event_cb"), ulp_slot(provider(), 52));
    EXPECT_EQ(exported<void>("oxi_mlx_dell_async_event_cb"), ulp_slot(provider(), 53));
    EXPECT_NE(nullptr, exported<void>("ox_mlx_destroy_async_events"));
}

}  // namespace
}  // namespace adaptor_test
