// Posting through the verbs: which states take work, opcode and capability checks, what gets
// queued (gather list copies, inline data), list posts, flushing in the error state and faults.
#include <functional>
#include <thread>
#include <vector>

#include "queue_fixture.hpp"

namespace sh = marlix::softhca;

namespace {

class PostTest : public QueueTest {
  protected:
    void SetUp() override {
        QueueTest::SetUp();
        cq = make_cq(64);
        ASSERT_EQ(VAPI_create_addr_hndl(hca, pd, &av_, &ah), VAPI_OK);
    }

    VAPI_sr_desc_t send(VAPI_wr_id_t id, VAPI_sg_lst_entry_t *sg, u_int32_t n,
                        VAPI_wr_opcode_t op = VAPI_SEND) {
        VAPI_sr_desc_t d{};
        d.id = id;
        d.opcode = op;
        d.comp_type = VAPI_SIGNALED;
        d.sg_lst_p = sg;
        d.sg_lst_len = n;
        d.remote_ah = ah;
        d.remote_qp = 0x401;
        d.remote_qkey = 0x11111111;
        return d;
    }
    VAPI_rr_desc_t recv(VAPI_wr_id_t id, VAPI_sg_lst_entry_t *sg, u_int32_t n) {
        VAPI_rr_desc_t d{};
        d.id = id;
        d.opcode = VAPI_RECEIVE;
        d.comp_type = VAPI_SIGNALED;
        d.sg_lst_p = sg;
        d.sg_lst_len = n;
        return d;
    }
    size_t sq_depth(VAPI_qp_hndl_t qp) {
        size_t n = 0;
        inspect_qp(qp, [&](sh::Qp &q) { n = q.sq.count(); });
        return n;
    }
    size_t rq_depth(VAPI_qp_hndl_t qp) {
        size_t n = 0;
        inspect_qp(qp, [&](sh::Qp &q) { n = q.rq.count(); });
        return n;
    }
    // Takes the fresh QP `qp` of transport `ts` from RESET through INIT and RTR to RTS and returns
    // what `post` answered in each of the four states.
    std::vector<VAPI_ret_t> answers_up_to_rts(VAPI_qp_hndl_t qp, VAPI_ts_type_t ts,
                                              const std::function<VAPI_ret_t()> &post) {
        std::vector<VAPI_ret_t> answers{post()};
        EXPECT_EQ(modify(qp, full_attr(VAPI_INIT), init_mask(ts)), VAPI_OK);
        answers.push_back(post());
        EXPECT_EQ(modify(qp, full_attr(VAPI_RTR), rtr_mask(ts)), VAPI_OK);
        answers.push_back(post());
        EXPECT_EQ(modify(qp, full_attr(VAPI_RTS), rts_mask(ts)), VAPI_OK);
        answers.push_back(post());
        return answers;
    }
    std::vector<VAPI_wc_desc_t> drain() {
        std::vector<VAPI_wc_desc_t> out;
        VAPI_wc_desc_t wc;
        while (VAPI_poll_cq(hca, cq, &wc) == VAPI_OK) out.push_back(wc);
        return out;
    }

    VAPI_ud_av_t av_ = good_av();
    VAPI_ud_av_hndl_t ah = 0;
    VAPI_sg_lst_entry_t sg_[2] = {{0x1000, 64, 7}, {0x2000, 32, 7}};
};

}  // namespace

TEST_F(PostTest, ReceivesAreTakenFromInitOn) {
    VAPI_qp_hndl_t qp = make_qp(VAPI_TS_RC);
    VAPI_rr_desc_t r = recv(1, sg_, 1);
    // RESET, INIT, RTR, RTS.
    EXPECT_EQ(answers_up_to_rts(qp, VAPI_TS_RC, [&] { return VAPI_post_rr(hca, qp, &r); }),
              (std::vector<VAPI_ret_t>{VAPI_EINVAL_QP_STATE, VAPI_OK, VAPI_OK, VAPI_OK}));
    EXPECT_EQ(rq_depth(qp), 3u);
}

TEST_F(PostTest, SendsAreTakenOnlyOnceTheQpIsReadyToSend) {
    VAPI_qp_hndl_t qp = make_qp(VAPI_TS_UD);
    VAPI_sr_desc_t s = send(1, sg_, 1);
    // RESET, INIT, RTR, RTS.
    EXPECT_EQ(
        answers_up_to_rts(qp, VAPI_TS_UD, [&] { return VAPI_post_sr(hca, qp, &s); }),
        (std::vector<VAPI_ret_t>{VAPI_EINVAL_QP_STATE, VAPI_EINVAL_QP_STATE, VAPI_EINVAL_QP_STATE, VAPI_OK}));
    EXPECT_EQ(sq_depth(qp), 1u);
}

TEST_F(PostTest, QueuedWorkKeepsItsOwnCopyOfTheGatherList) {
    VAPI_qp_hndl_t qp = make_qp(VAPI_TS_RC);
    bring_up(qp, VAPI_TS_RC);
    VAPI_sg_lst_entry_t sg[2] = {{0x1000, 64, 7}, {0x2000, 32, 8}};
    VAPI_sr_desc_t s = send(42, sg, 2, VAPI_RDMA_WRITE);
    s.remote_addr = 0xabc000;
    s.r_key = 0x99;
    ASSERT_EQ(VAPI_post_sr(hca, qp, &s), VAPI_OK);
    sg[0].addr = 0xdead;
    VAPI_rr_desc_t r = recv(43, sg, 1);
    ASSERT_EQ(VAPI_post_rr(hca, qp, &r), VAPI_OK);
    sg[0].len = 1;
    inspect_qp(qp, [](sh::Qp &q) {
        ASSERT_EQ(q.sq.count(), 1u);
        const sh::SendEntry &w = q.sq.front();
        EXPECT_EQ(w.desc.id, 42u);
        EXPECT_EQ(w.desc.opcode, VAPI_RDMA_WRITE);
        EXPECT_EQ(w.desc.remote_addr, 0xabc000u);
        EXPECT_EQ(w.desc.r_key, 0x99u);
        EXPECT_EQ(w.desc.sg_lst_p, nullptr);
        ASSERT_EQ(w.sg_count, 2u);
        EXPECT_EQ(w.sg[0].addr, 0x1000u);
        EXPECT_EQ(w.sg[1].lkey, 8u);
        EXPECT_FALSE(w.is_inline);
        ASSERT_EQ(q.rq.count(), 1u);
        EXPECT_EQ(q.rq.front().desc.id, 43u);
        ASSERT_EQ(q.rq.front().sg_count, 1u);
        EXPECT_EQ(q.rq.front().sge(0).addr, 0xdeadu);
        EXPECT_EQ(q.rq.front().sge(0).len, 64u);
    });
}

TEST_F(PostTest, OpcodesMustSuitTheTransport) {
    VAPI_qp_hndl_t rc = make_qp(VAPI_TS_RC), uc = make_qp(VAPI_TS_UC), ud = make_qp(VAPI_TS_UD);
    bring_up(rc, VAPI_TS_RC);
    bring_up(uc, VAPI_TS_UC);
    bring_up(ud, VAPI_TS_UD);
    VAPI_sg_lst_entry_t eight = {0x1000, 8, 7};
    // Four of them: the send queue is four deep.
    for (VAPI_wr_opcode_t op :
         {VAPI_RDMA_READ, VAPI_ATOMIC_CMP_AND_SWP, VAPI_ATOMIC_FETCH_AND_ADD, VAPI_RDMA_WRITE_WITH_IMM}) {
        VAPI_sr_desc_t s = send(1, &eight, 1, op);
        EXPECT_EQ(VAPI_post_sr(hca, rc, &s), VAPI_OK) << op;
    }
    VAPI_sr_desc_t s = send(1, &eight, 1, VAPI_RDMA_READ);
    EXPECT_EQ(VAPI_post_sr(hca, uc, &s), VAPI_EINVAL_OP);
    s.opcode = VAPI_RDMA_WRITE;
    EXPECT_EQ(VAPI_post_sr(hca, uc, &s), VAPI_OK);
    EXPECT_EQ(VAPI_post_sr(hca, ud, &s), VAPI_EINVAL_OP);
    s.opcode = VAPI_SEND_WITH_IMM;
    EXPECT_EQ(VAPI_post_sr(hca, ud, &s), VAPI_OK);
    s.opcode = VAPI_RECEIVE;
    EXPECT_EQ(VAPI_post_sr(hca, rc, &s), VAPI_EINVAL_OP);
    set_raw(s.opcode, 8);
    EXPECT_EQ(VAPI_post_sr(hca, rc, &s), VAPI_EINVAL_OP);
}

TEST_F(PostTest, DepthGatherCountAndArgumentsAreChecked) {
    VAPI_qp_hndl_t qp = make_qp(VAPI_TS_UD);  // 4 deep, 2 gather entries each way
    bring_up(qp, VAPI_TS_UD);
    VAPI_sg_lst_entry_t three[3] = {{0x1000, 1, 7}, {0x1000, 1, 7}, {0x1000, 1, 7}};
    VAPI_sr_desc_t s = send(1, three, 3);
    EXPECT_EQ(VAPI_post_sr(hca, qp, &s), VAPI_E2BIG_SG_NUM);
    VAPI_rr_desc_t r = recv(1, three, 3);
    EXPECT_EQ(VAPI_post_rr(hca, qp, &r), VAPI_E2BIG_SG_NUM);
    s = send(1, nullptr, 1);
    EXPECT_EQ(VAPI_post_sr(hca, qp, &s), VAPI_EINVAL_PARAM);
    s = send(1, sg_, 1);
    set_raw(s.comp_type, 5);
    EXPECT_EQ(VAPI_post_sr(hca, qp, &s), VAPI_EINVAL_PARAM);
    s = send(1, sg_, 1);
    s.remote_ah = 999;
    EXPECT_EQ(VAPI_post_sr(hca, qp, &s), VAPI_EINVAL_AV_HNDL);
    EXPECT_EQ(VAPI_post_sr(hca, qp, nullptr), VAPI_EINVAL_PARAM);
    EXPECT_EQ(VAPI_post_sr(hca, 99, &s), VAPI_EINVAL_QP_HNDL);
    s = send(1, sg_, 0);  // a zero-length send is fine
    for (int i = 0; i < 4; ++i) ASSERT_EQ(VAPI_post_sr(hca, qp, &s), VAPI_OK);
    EXPECT_EQ(VAPI_post_sr(hca, qp, &s), VAPI_E2BIG_WR_NUM);
    r = recv(1, sg_, 2);
    for (int i = 0; i < 4; ++i) ASSERT_EQ(VAPI_post_rr(hca, qp, &r), VAPI_OK);
    EXPECT_EQ(VAPI_post_rr(hca, qp, &r), VAPI_E2BIG_WR_NUM);
    EXPECT_EQ(sq_depth(qp), 4u);
    EXPECT_EQ(rq_depth(qp), 4u);
}

TEST_F(PostTest, InlineSendCopiesTheDataAtPostTime) {
    VAPI_qp_hndl_t qp = make_qp(VAPI_TS_UD);  // 2 gather entries: 32 bytes of inline room
    bring_up(qp, VAPI_TS_UD);
    uint8_t a[20], b[12];
    for (int i = 0; i < 20; ++i) a[i] = uint8_t(i);
    for (int i = 0; i < 12; ++i) b[i] = uint8_t(100 + i);
    VAPI_sg_lst_entry_t sg[2] = {{reinterpret_cast<uintptr_t>(a), 20, 0},
                                 {reinterpret_cast<uintptr_t>(b), 12, 0}};
    VAPI_sr_desc_t s = send(5, sg, 2);
    ASSERT_EQ(EVAPI_post_inline_sr(hca, qp, &s), VAPI_OK);
    std::memset(a, 0xee, sizeof a);
    inspect_qp(qp, [](sh::Qp &q) {
        ASSERT_EQ(q.sq.count(), 1u);
        const sh::SendEntry &w = q.sq.front();
        EXPECT_TRUE(w.is_inline);
        ASSERT_EQ(w.inline_len, 32u);
        EXPECT_EQ(w.inline_data[0], 0);
        EXPECT_EQ(w.inline_data[19], 19);
        EXPECT_EQ(w.inline_data[20], 100);
        EXPECT_EQ(w.inline_data[31], 111);
    });
    sg[0].len = 21;  // 33 bytes: beyond the QP's inline room
    EXPECT_EQ(EVAPI_post_inline_sr(hca, qp, &s), VAPI_E2BIG_INLINE);
    VAPI_sg_lst_entry_t null_data = {0, 4, 0};
    s = send(6, &null_data, 1);
    EXPECT_EQ(EVAPI_post_inline_sr(hca, qp, &s), VAPI_EINVAL_VA);
    EXPECT_EQ(sq_depth(qp), 1u);
}

TEST_F(PostTest, InlineReadsAreRefused) {
    VAPI_qp_hndl_t qp = make_qp(VAPI_TS_RC);
    bring_up(qp, VAPI_TS_RC);
    uint8_t buf[8] = {};
    VAPI_sg_lst_entry_t sg = {reinterpret_cast<uintptr_t>(buf), 8, 0};
    VAPI_sr_desc_t s = send(1, &sg, 1, VAPI_RDMA_READ);
    EXPECT_EQ(EVAPI_post_inline_sr(hca, qp, &s), VAPI_EINVAL_OP);
    s.opcode = VAPI_RDMA_WRITE;
    EXPECT_EQ(EVAPI_post_inline_sr(hca, qp, &s), VAPI_OK);
}

TEST_F(PostTest, SendListIsAllOrNothing) {
    VAPI_qp_hndl_t qp = make_qp(VAPI_TS_UD);
    bring_up(qp, VAPI_TS_UD);
    VAPI_sr_desc_t list[5];
    for (int i = 0; i < 5; ++i) list[i] = send(10 + i, &sg_[0], 1);
    list[2].opcode = VAPI_RDMA_READ;
    EXPECT_EQ(EVAPI_post_sr_list(hca, qp, 3, list), VAPI_EINVAL_OP);
    EXPECT_EQ(sq_depth(qp), 0u);
    list[2].opcode = VAPI_SEND;
    EXPECT_EQ(EVAPI_post_sr_list(hca, qp, 5, list), VAPI_E2BIG_WR_NUM);  // 4 deep
    EXPECT_EQ(sq_depth(qp), 0u);
    EXPECT_EQ(EVAPI_post_sr_list(hca, qp, 0, nullptr), VAPI_OK);
    EXPECT_EQ(EVAPI_post_sr_list(hca, qp, 2, nullptr), VAPI_EINVAL_PARAM);
    ASSERT_EQ(EVAPI_post_sr_list(hca, qp, 4, list), VAPI_OK);
    inspect_qp(qp, [](sh::Qp &q) {
        ASSERT_EQ(q.sq.count(), 4u);
        for (int i = 0; i < 4; ++i) EXPECT_EQ(q.sq.at(q.sq.head() + i).desc.id, VAPI_wr_id_t(10 + i));
    });
}

TEST_F(PostTest, ReceiveListWithSharedGatherEntriesIsCopiedPerRequest) {
    VAPI_qp_hndl_t qp = make_qp(VAPI_TS_UD);
    bring_up(qp, VAPI_TS_UD, VAPI_INIT);
    // Two requests of two entries whose gather areas overlap by one entry.
    VAPI_sg_lst_entry_t area[3] = {{0x1000, 10, 1}, {0x2000, 20, 2}, {0x3000, 30, 3}};
    VAPI_rr_desc_t list[2] = {recv(1, &area[0], 2), recv(2, &area[1], 2)};
    ASSERT_EQ(EVAPI_post_rr_list(hca, qp, 2, list), VAPI_OK);
    inspect_qp(qp, [](sh::Qp &q) {
        ASSERT_EQ(q.rq.count(), 2u);
        EXPECT_EQ(q.rq.at(q.rq.head()).sge(1).addr, 0x2000u);
        EXPECT_EQ(q.rq.at(q.rq.head() + 1).sge(0).addr, 0x2000u);
        EXPECT_EQ(q.rq.at(q.rq.head() + 1).sge(1).len, 30u);
    });
    EXPECT_EQ(EVAPI_post_rr_list(hca, qp, 0, list), VAPI_OK);
    VAPI_rr_desc_t too_many[3] = {recv(3, area, 1), recv(4, area, 1), recv(5, area, 1)};
    EXPECT_EQ(EVAPI_post_rr_list(hca, qp, 3, too_many), VAPI_E2BIG_WR_NUM);
    EXPECT_EQ(rq_depth(qp), 2u);
}

TEST_F(PostTest, GsiSendsCarryTheirPkeyIndex) {
    VAPI_qp_init_attr_t a = init_attr(VAPI_TS_UD, cq, cq);
    VAPI_qp_hndl_t gsi = 0;
    VAPI_qp_cap_t cap{};
    ASSERT_EQ(VAPI_get_special_qp(hca, 1, VAPI_GSI_QP, &a, &gsi, &cap), VAPI_OK);
    ASSERT_EQ(modify(gsi, full_attr(VAPI_INIT), QP_ATTR_QP_STATE | QP_ATTR_PKEY_IX | QP_ATTR_QKEY), VAPI_OK);
    ASSERT_EQ(modify(gsi, full_attr(VAPI_RTR), QP_ATTR_QP_STATE), VAPI_OK);
    ASSERT_EQ(modify(gsi, full_attr(VAPI_RTS), QP_ATTR_QP_STATE | QP_ATTR_SQ_PSN), VAPI_OK);
    VAPI_sr_desc_t s = send(7, sg_, 1);
    ASSERT_EQ(EVAPI_post_gsi_sr(hca, gsi, &s, 3), VAPI_OK);
    EXPECT_EQ(EVAPI_post_gsi_sr(hca, gsi, &s, 64), VAPI_EINVAL_PKEY_IX);
    ASSERT_EQ(VAPI_post_sr(hca, gsi, &s), VAPI_OK);
    inspect_qp(gsi, [](sh::Qp &q) {
        ASSERT_EQ(q.sq.count(), 2u);
        ASSERT_TRUE(q.sq.at(q.sq.head()).has_pkey_ix);
        EXPECT_EQ(q.sq.at(q.sq.head()).pkey_ix, 3);
        EXPECT_FALSE(q.sq.at(q.sq.head() + 1).has_pkey_ix);
    });
    VAPI_qp_hndl_t ud = make_qp(VAPI_TS_UD);
    bring_up(ud, VAPI_TS_UD);
    EXPECT_EQ(EVAPI_post_gsi_sr(hca, ud, &s, 0), VAPI_EINVAL_QP_HNDL);
}

TEST_F(PostTest, RawQpsTakeNoSends) {
    VAPI_qp_init_attr_t a = init_attr(VAPI_TS_UD, cq, cq);
    VAPI_qp_hndl_t raw = 0;
    VAPI_qp_cap_t cap{};
    ASSERT_EQ(VAPI_get_special_qp(hca, 1, VAPI_RAW_ETY_QP, &a, &raw, &cap), VAPI_OK);
    VAPI_sr_desc_t s = send(1, sg_, 1);
    EXPECT_EQ(VAPI_post_sr(hca, raw, &s), VAPI_ENOSYS);
}

TEST_F(PostTest, EnteringErrorFlushesReceivesThenSends) {
    VAPI_qp_hndl_t qp = make_qp(VAPI_TS_RC);
    bring_up(qp, VAPI_TS_RC);
    VAPI_sr_desc_t s = send(1, sg_, 1);
    s.comp_type = VAPI_UNSIGNALED;  // flushed work completes whatever it asked for
    ASSERT_EQ(VAPI_post_sr(hca, qp, &s), VAPI_OK);
    VAPI_rr_desc_t r = recv(2, sg_, 1);
    ASSERT_EQ(VAPI_post_rr(hca, qp, &r), VAPI_OK);
    ASSERT_EQ(modify(qp, full_attr(VAPI_ERR), QP_ATTR_QP_STATE), VAPI_OK);
    std::vector<VAPI_wc_desc_t> wcs = drain();
    ASSERT_EQ(wcs.size(), 2u);
    EXPECT_EQ(wcs[0].id, 2u);
    EXPECT_EQ(wcs[0].status, VAPI_WR_FLUSH_ERR);
    EXPECT_EQ(wcs[0].opcode, VAPI_CQE_RQ_SEND_DATA);
    EXPECT_EQ(wcs[0].local_qp_num, 0x400u);
    EXPECT_EQ(wcs[1].id, 1u);
    EXPECT_EQ(wcs[1].status, VAPI_WR_FLUSH_ERR);
    EXPECT_EQ(wcs[1].opcode, VAPI_CQE_SQ_SEND_DATA);
    // In ERR new work is taken and flushed at once.
    ASSERT_EQ(VAPI_post_rr(hca, qp, &r), VAPI_OK);
    ASSERT_EQ(VAPI_post_sr(hca, qp, &s), VAPI_OK);
    wcs = drain();
    ASSERT_EQ(wcs.size(), 2u);
    EXPECT_EQ(wcs[0].status, VAPI_WR_FLUSH_ERR);
    EXPECT_EQ(wcs[1].status, VAPI_WR_FLUSH_ERR);
    EXPECT_EQ(sq_depth(qp) + rq_depth(qp), 0u);
}

namespace {
int g_events;
void count_event(VAPI_hca_hndl_t, VAPI_cq_hndl_t, void *) {
    ++g_events;
}
}  // namespace

TEST_F(PostTest, FlushRaisesTheArmedCompletionEvent) {
    g_events = 0;
    EVAPI_compl_handler_hndl_t hh = 0;
    ASSERT_EQ(EVAPI_set_comp_eventh(hca, cq, count_event, nullptr, &hh), VAPI_OK);
    VAPI_qp_hndl_t qp = make_qp(VAPI_TS_UD);
    bring_up(qp, VAPI_TS_UD, VAPI_INIT);
    VAPI_rr_desc_t r = recv(2, sg_, 1);
    ASSERT_EQ(VAPI_post_rr(hca, qp, &r), VAPI_OK);
    ASSERT_EQ(VAPI_req_comp_notif(hca, cq, VAPI_SOLIC_COMP), VAPI_OK);
    ASSERT_EQ(modify(qp, full_attr(VAPI_ERR), QP_ATTR_QP_STATE), VAPI_OK);
    EXPECT_EQ(g_events, 1);
}

TEST_F(PostTest, ResetDiscardsQueuedWorkWithoutCompletions) {
    VAPI_qp_hndl_t qp = make_qp(VAPI_TS_UC);
    bring_up(qp, VAPI_TS_UC);
    VAPI_sr_desc_t s = send(1, sg_, 1);
    VAPI_rr_desc_t r = recv(2, sg_, 1);
    ASSERT_EQ(VAPI_post_sr(hca, qp, &s), VAPI_OK);
    ASSERT_EQ(VAPI_post_rr(hca, qp, &r), VAPI_OK);
    ASSERT_EQ(modify(qp, full_attr(VAPI_RESET), QP_ATTR_QP_STATE), VAPI_OK);
    EXPECT_TRUE(drain().empty());
    EXPECT_EQ(sq_depth(qp) + rq_depth(qp), 0u);
}

TEST_F(PostTest, SendQueueDrainedStillTakesWork) {
    VAPI_qp_hndl_t qp = make_qp(VAPI_TS_RC);
    bring_up(qp, VAPI_TS_RC);
    ASSERT_EQ(modify(qp, full_attr(VAPI_SQD), QP_ATTR_QP_STATE), VAPI_OK);
    VAPI_sr_desc_t s = send(1, sg_, 1);
    EXPECT_EQ(VAPI_post_sr(hca, qp, &s), VAPI_OK);
    EXPECT_EQ(sq_depth(qp), 1u);
}

TEST_F(PostTest, InjectedFaultsQueueNothing) {
    VAPI_qp_hndl_t qp = make_qp(VAPI_TS_UD);
    bring_up(qp, VAPI_TS_UD);
    sh::inject_fault("VAPI_post_sr", "InfiniHost0", VAPI_EAGAIN, sh::FaultMode::Always);
    VAPI_sr_desc_t s = send(1, sg_, 1);
    EXPECT_EQ(VAPI_post_sr(hca, qp, &s), VAPI_EAGAIN);
    EXPECT_EQ(VAPI_post_sr(hca, qp, &s), VAPI_EAGAIN);
    EXPECT_EQ(EVAPI_post_sr_list(hca, qp, 1, &s), VAPI_OK);  // another verb
    sh::inject_fault("EVAPI_post_rr_list", "*", VAPI_EGEN);
    VAPI_rr_desc_t r = recv(1, sg_, 1);
    EXPECT_EQ(EVAPI_post_rr_list(hca, qp, 1, &r), VAPI_EGEN);
    EXPECT_EQ(sq_depth(qp), 1u);
    EXPECT_EQ(rq_depth(qp), 0u);
    EXPECT_EQ(sh::call_count("VAPI_post_sr"), 2u);
    EXPECT_EQ(sh::call_count("VAPI_post_rr"), 0u);
}

TEST_F(PostTest, PostsAndPollsFromManyThreadsAtOnce) {
    // Each thread owns a QP in ERR and its CQ: every receive it posts comes back as a flush
    // completion, while the other threads post and poll on the same device.
    constexpr int kThreads = 4, kRounds = 200;
    std::vector<VAPI_qp_hndl_t> qps;
    std::vector<VAPI_cq_hndl_t> cqs;
    for (int t = 0; t < kThreads; ++t) {
        cqs.push_back(make_cq(8));
        VAPI_qp_init_attr_t a = init_attr(VAPI_TS_UD, cqs.back(), cqs.back());
        VAPI_qp_hndl_t qp = 0;
        VAPI_qp_prop_t prop{};
        ASSERT_EQ(VAPI_create_qp(hca, &a, &qp, &prop), VAPI_OK);
        ASSERT_EQ(modify(qp, full_attr(VAPI_ERR), QP_ATTR_QP_STATE), VAPI_OK);
        qps.push_back(qp);
    }
    std::vector<int> good(kThreads, 0);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < kRounds; ++i) {
                VAPI_rr_desc_t r = recv(VAPI_wr_id_t(t) << 32 | unsigned(i), sg_, 1);
                if (VAPI_post_rr(hca, qps[t], &r) != VAPI_OK) return;
                VAPI_wc_desc_t wc{};
                if (VAPI_poll_cq(hca, cqs[t], &wc) != VAPI_OK) return;
                if (wc.id == r.id && wc.status == VAPI_WR_FLUSH_ERR) ++good[t];
            }
        });
    }
    for (std::thread &th : threads) th.join();
    for (int t = 0; t < kThreads; ++t) EXPECT_EQ(good[t], kRounds) << t;
}
