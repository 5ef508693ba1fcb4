// Complete exchanges through the module's provider table between the two devices: CQs, QPs and
// their transitions made by the module, every post and poll through it, and every byte checked.
// The kept translation quirks show end to end: immediate data and atomic operands never reach
// the wire (the immediate flag does: the opcode carries it).
#include "datapath_fixture.hpp"
#include "ulp_pair.hpp"

namespace adaptor_test {
namespace {

namespace pair = marlix::ulp_pair;

constexpr long long kSuccess = 0, kLocLen = 1, kFlush = 5, kRemInvReq = 9, kRemAccess = 10;
constexpr long long kSendSq = 0, kWriteSq = 1, kReadSq = 2, kCasSq = 3, kFaaSq = 4, kSendRq = 6, kRdmaImm = 7;

class Exchange : public DataPathFixture, public ::testing::WithParamInterface<hca::EngineKind> {
  protected:
    hca::EngineKind engine() override { return GetParam(); }
    void SetUp() override {
        DataPathFixture::SetUp();
        for (int i = 0; i < 2; ++i) {
            side[i].funcs = provider();
            side[i].hca = hcas[i];
        }
    }
    void TearDown() override {
        pair::release(side[0]);
        pair::release(side[1]);
        DataPathFixture::TearDown();
    }
    void connect(const char *type) { ASSERT_EQ(kOk, pair::connect(side[0], side[1], type)); }
    int optype(const char *type) { return ulp_operation_type(type); }

    void post_recv(int s, DpBuffer &b, uint32_t len, uint64_t id, uint32_t offset = 0) {
        ASSERT_EQ(kOk, ulp_post_receive_simple(provider(), hcas[s], side[s].qp, id, b.data() + offset, len,
                                               side[s].l_key));
    }
    void post(int s, const char *type, ulp_send_op op, uint64_t id, void *addr, uint32_t len,
              const ulp_send_target &t) {
        ASSERT_EQ(kOk, ulp_post_send_simple(provider(), hcas[s], side[s].qp, optype(type), op, id, addr, len,
                                            side[s].l_key, &t));
    }
    ulp_send_target remote(int s, const void *p) {
        ulp_send_target t{};
        t.remote_addr = gen_addr(s, p);
        t.r_key = side[s].r_key;
        return t;
    }
    std::vector<std::vector<char>> completions(int s) {
        std::vector<std::vector<char>> out;
        for (;;) {
            std::vector<char> wc(ulp_sizeof_wc(), 0);
            if (ulp_poll(provider(), hcas[s], side[s].cq, wc.data()) != kOk) break;
            out.push_back(std::move(wc));
        }
        return out;
    }
    static void pattern(DpBuffer &b, uint8_t seed) {
        for (size_t i = 0; i < b.bytes.size(); ++i) b.bytes[i] = uint8_t(seed + i * 13);
    }
    static void expect_wc(std::vector<char> &wc, long long id, long long op, long long status,
                          long long bytes) {
        DpView v = wc_view(wc);
        EXPECT_EQ(id, v["wr_id"]);
        EXPECT_EQ(op, v["operation_type"]) << "wr " << id;
        EXPECT_EQ(status, v["completion_status"]) << "wr " << id;
        if (bytes >= 0) {
            EXPECT_EQ(bytes, v["num_bytes_transfered"]) << "wr " << id;
        }
    }

    pair::Side side[2];
};

TEST_P(Exchange, RcSendWithAndWithoutImmediate) {
    connect("rc");
    DpBuffer &src = buffer(3000), &dst = buffer(3000), &dst2 = buffer(64);
    pattern(src, 1);
    post_recv(1, dst, 3000, 10);
    post_recv(1, dst2, 64, 11);
    post(0, "rc", ulp_op_send, 1, src.data(), 3000, {});
    post(0, "rc", ulp_op_send_imm, 2, src.data(), 64, {});
    run();
    EXPECT_EQ(0, std::memcmp(dst.data(), src.data(), 3000));
    EXPECT_EQ(0, std::memcmp(dst2.data(), src.data(), 64));
    auto s = completions(0), r = completions(1);
    ASSERT_EQ(2u, s.size());
    ASSERT_EQ(2u, r.size());
    expect_wc(s[0], 1, kSendSq, kSuccess, -1);
    expect_wc(s[1], 2, kSendSq, kSuccess, -1);
    expect_wc(r[0], 10, kSendRq, kSuccess, 3000);
    EXPECT_EQ(0, wc_view(r[0])["immidiate_data_indicator"]);
    expect_wc(r[1], 11, kSendRq, kSuccess, 64);
    EXPECT_EQ(1, wc_view(r[1])["immidiate_data_indicator"]);
    EXPECT_EQ(0, wc_view(r[1])["immidiate_data"]);  // the request's value is never copied
    EXPECT_EQ(3064, stats()["tx_byte"]);
    EXPECT_EQ(3064, stats()["rx_byte"]);
    EXPECT_EQ(2, stats()["post_s_num"]);
    EXPECT_EQ(2, stats()["post_r_num"]);
}

TEST_P(Exchange, RcRdmaWriteWriteWithImmediateAndRead) {
    connect("rc");
    DpBuffer &src = buffer(5000), &dst = buffer(5000, 0), &back = buffer(5000, 0), &imm = buffer(16);
    pattern(src, 7);
    post(0, "rc", ulp_op_write, 1, src.data(), 5000, remote(1, dst.data()));
    run();
    EXPECT_EQ(0, std::memcmp(dst.data(), src.data(), 5000));
    post_recv(1, imm, 16, 20);
    post(0, "rc", ulp_op_write_imm, 2, src.data(), 100, remote(1, dst.data() + 4000));
    post(0, "rc", ulp_op_read, 3, back.data(), 5000, remote(1, dst.data()));
    run();
    EXPECT_EQ(0, std::memcmp(back.data(), dst.data(), 5000));
    EXPECT_EQ(0, std::memcmp(dst.data() + 4000, src.data(), 100));
    auto s = completions(0), r = completions(1);
    ASSERT_EQ(3u, s.size());
    expect_wc(s[0], 1, kWriteSq, kSuccess, -1);
    expect_wc(s[1], 2, kWriteSq, kSuccess, -1);
    expect_wc(s[2], 3, kReadSq, kSuccess, 5000);
    ASSERT_EQ(1u, r.size());
    expect_wc(r[0], 20, kRdmaImm, kSuccess, -1);
    EXPECT_EQ(1, wc_view(r[0])["immidiate_data_indicator"]);
    EXPECT_EQ(5100, stats()["tx_byte"]);  // the read moved nothing out
    EXPECT_EQ(5000, stats()["rx_byte"]);  // ...and its answer came in
}

TEST_P(Exchange, RcAtomicsCarryNoOperands) {
    connect("rc");
    // The generic region grants no atomic access: the target sits in a region of its own.
    DpBuffer &target = buffer(16, 0), &old = buffer(16, 0xee);
    uint64_t mr = 0;
    uint32_t l_key = 0, r_key = 0;
    ASSERT_EQ(kOk,
              ulp_mr_register(provider(), hcas[1], target.data(), 16, side[1].pd, 0x0f, &mr, &l_key, &r_key));
    ulp_send_target t{};
    t.remote_addr = target.addr();
    t.r_key = r_key;
    const uint64_t initial = 0x1122334455667788ull;
    std::memcpy(target.data(), &initial, 8);
    // Compare-and-swap: the compare value reaches the wire as 0, so the swap does not happen.
    post(0, "rc", ulp_op_cas, 1, old.data(), 8, t);
    // Fetch-and-add adds 0.
    post(0, "rc", ulp_op_faa, 2, old.data() + 8, 8, t);
    run();
    uint64_t now = 0, got0 = 0, got1 = 0;
    std::memcpy(&now, target.data(), 8);
    std::memcpy(&got0, old.data(), 8);
    std::memcpy(&got1, old.data() + 8, 8);
    EXPECT_EQ(initial, now);
    EXPECT_EQ(initial, got0);
    EXPECT_EQ(initial, got1);
    // On a target holding 0 the compare matches and 0 is swapped in.
    const uint64_t zero = 0;
    std::memcpy(target.data(), &zero, 8);
    post(0, "rc", ulp_op_cas, 3, old.data(), 8, t);
    run();
    std::memcpy(&now, target.data(), 8);
    std::memcpy(&got0, old.data(), 8);
    EXPECT_EQ(0u, now);
    EXPECT_EQ(0u, got0);
    auto s = completions(0);
    ASSERT_EQ(3u, s.size());
    expect_wc(s[0], 1, kCasSq, kSuccess, 8);
    expect_wc(s[1], 2, kFaaSq, kSuccess, 8);
    expect_wc(s[2], 3, kCasSq, kSuccess, 8);

    // Through the generic region (no atomic right) the peer refuses.
    post(0, "rc", ulp_op_faa, 4, old.data(), 8, remote(1, target.data()));
    run();
    s = completions(0);
    ASSERT_EQ(1u, s.size());
    expect_wc(s[0], 4, kFaaSq, kRemAccess, -1);
    ASSERT_EQ(kOk, ulp_mr_destroy(provider(), hcas[1], mr));
}

TEST_P(Exchange, UcSendAndWrite) {
    connect("uc");
    DpBuffer &src = buffer(2500), &dst = buffer(2500, 0), &wdst = buffer(700, 0);
    pattern(src, 3);
    post_recv(1, dst, 2500, 5);
    post(0, "uc", ulp_op_send, 1, src.data(), 2500, {});
    post(0, "uc", ulp_op_write, 2, src.data(), 700, remote(1, wdst.data()));
    run();
    EXPECT_EQ(0, std::memcmp(dst.data(), src.data(), 2500));
    EXPECT_EQ(0, std::memcmp(wdst.data(), src.data(), 700));
    auto s = completions(0), r = completions(1);
    ASSERT_EQ(2u, s.size());
    expect_wc(s[0], 1, kSendSq, kSuccess, -1);
    expect_wc(s[1], 2, kWriteSq, kSuccess, -1);
    ASSERT_EQ(1u, r.size());
    expect_wc(r[0], 5, kSendRq, kSuccess, 2500);
}

TEST_P(Exchange, UdSendThroughAnAddressHandleWithTheGrhArea) {
    connect("ud");
    uint64_t ah = 0;
    ASSERT_EQ(kOk, ulp_ah_create_simple(provider(), hcas[0], side[0].pd, side[1].lid, 0, &ah));
    DpBuffer &src = buffer(1000), &dst = buffer(1040, 0);
    pattern(src, 9);
    post_recv(1, dst, 1040, 30);
    ulp_send_target t{};
    t.ah = ah;
    t.remote_qpn = side[1].qpn;
    t.q_key = pair::kQkey;
    post(0, "ud", ulp_op_send, 1, src.data(), 1000, t);
    run();
    EXPECT_EQ(0, std::memcmp(dst.data() + 40, src.data(), 1000));
    auto r = completions(1);
    ASSERT_EQ(1u, r.size());
    expect_wc(r[0], 30, kSendRq, kSuccess, 1040);
    EXPECT_EQ(side[0].qpn, wc_view(r[0])["addres_info.source_qp"]);
    EXPECT_EQ(side[0].lid, wc_view(r[0])["addres_info.slid"]);
    EXPECT_EQ(dp_const("ox_qp_type_u_dgram"), wc_view(r[0])["addres_info.remote_qp_type"]);
    EXPECT_EQ(1040, stats()["rx_byte"]);
    ASSERT_EQ(kOk, ulp_ah_destroy(provider(), hcas[0], ah));
}

TEST_P(Exchange, MulticastGroupWithTwoReceivers) {
    // Sender on device 0; two receivers on device 1, attached through the module.
    ASSERT_EQ(kOk, pair::prepare(side[0]));
    ASSERT_EQ(kOk, pair::prepare(side[1]));
    ASSERT_EQ(kOk, pair::create(side[0], "ud", 64, 16));
    ASSERT_EQ(kOk, pair::connect_one(side[0], side[1], "ud"));
    pair::Side r1 = side[1], r2 = side[1];
    ASSERT_EQ(kOk, pair::create(r1, "ud", 64, 16));
    ASSERT_EQ(kOk, pair::connect_one(r1, side[0], "ud"));
    ASSERT_EQ(kOk, pair::create(r2, "ud", 64, 16));
    ASSERT_EQ(kOk, pair::connect_one(r2, side[0], "ud"));
    // ff12:401b::1 on the wire; the generic order is reversed.
    const uint8_t wire[16] = {0xff, 0x12, 0x40, 0x1b, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
    uint8_t gid[16];
    for (int i = 0; i < 16; ++i) gid[i] = wire[15 - i];
    const uint16_t mlid = 0xc001;
    ASSERT_EQ(kOk, ulp_mcast_attach(provider(), hcas[1], mlid, gid, r1.qp));
    ASSERT_EQ(kOk, ulp_mcast_attach(provider(), hcas[1], mlid, gid, r2.qp));
    EXPECT_EQ(2, stats()["mg_num"]);
    DpBuffer &src = buffer(32), &d1 = buffer(100, 0), &d2 = buffer(100, 0);
    pattern(src, 5);
    ASSERT_EQ(kOk, ulp_post_receive_simple(provider(), hcas[1], r1.qp, 1, d1.data(), 100, side[1].l_key));
    ASSERT_EQ(kOk, ulp_post_receive_simple(provider(), hcas[1], r2.qp, 2, d2.data(), 100, side[1].l_key));
    uint64_t ah = 0;
    ASSERT_EQ(kOk, ulp_ah_create_simple(provider(), hcas[0], side[0].pd, mlid, 0, &ah));
    ulp_send_target t{};
    t.ah = ah;
    t.remote_qpn = 0xffffff;
    t.q_key = pair::kQkey;
    post(0, "ud", ulp_op_send, 9, src.data(), 32, t);
    run();
    EXPECT_EQ(0, std::memcmp(d1.data() + 40, src.data(), 32));
    EXPECT_EQ(0, std::memcmp(d2.data() + 40, src.data(), 32));
    std::vector<char> wc(ulp_sizeof_wc(), 0);
    ASSERT_EQ(kOk, ulp_poll(provider(), hcas[1], r1.cq, wc.data()));
    expect_wc(wc, 1, kSendRq, kSuccess, 72);
    ASSERT_EQ(kOk, ulp_poll(provider(), hcas[1], r2.cq, wc.data()));
    expect_wc(wc, 2, kSendRq, kSuccess, 72);
    ASSERT_EQ(kOk, ulp_mcast_detach(provider(), hcas[1], mlid, gid, 1, r1.qp));
    ASSERT_EQ(kOk, ulp_mcast_detach(provider(), hcas[1], mlid, gid, 1, r2.qp));
    EXPECT_EQ(0, stats()["mg_num"]);
    pair::release(r1);
    pair::release(r2);
}

TEST_P(Exchange, InlineAndListPosts) {
    connect("rc");
    DpBuffer &src = buffer(64), &dst = buffer(64, 0);
    pattern(src, 2);
    const std::vector<uint8_t> sent(src.bytes);
    post_recv(1, dst, 64, 1);
    DpRecords sg("ox_scatgat_t");
    entry(sg, 0, src.data(), 64, 0);
    DpRecords wr("ox_wr_t");
    wr[0].set("wr_id", 50).set("wr_type", dp_const("ox_wr_send")).set("completion_notification", 1);
    wr[0].set("num_of_data_segments", 1);
    set_sg(wr[0], sg);
    ASSERT_EQ(kOk, ulp_inline_post_send(provider(), hcas[0], side[0].qp, wr.data(), optype("rc")));
    std::memset(src.data(), 0, 64);  // the data was taken at post time
    run();
    EXPECT_EQ(0, std::memcmp(dst.data(), sent.data(), 64));

    // Three single-entry sends in one list, into a receive list of three.
    DpBuffer &lsrc = buffer(3 * 100), &ldst = buffer(3 * 100, 0);
    pattern(lsrc, 4);
    DpRecords ssg("ox_scatgat_t", 3), rsg("ox_scatgat_t", 3);
    DpRecords swr("ox_wr_t", 3), rwr("ox_wr_t", 3);
    for (int i = 0; i < 3; ++i) {
        entry(ssg, i, lsrc.data() + 100 * i, 100, side[0].l_key);
        entry(rsg, i, ldst.data() + 100 * i, 100, side[1].l_key);
        swr[i].set("wr_id", 60 + i).set("wr_type", dp_const("ox_wr_send")).set("completion_notification", 1);
        swr[i].set("num_of_data_segments", 1).set("scatgat_list", reinterpret_cast<long long>(ssg[i].base()));
        rwr[i].set("wr_id", 70 + i).set("completion_notification", 1).set("num_of_data_segments", 1);
        rwr[i].set("scatgat_list", reinterpret_cast<long long>(rsg[i].base()));
    }
    ASSERT_EQ(kOk, ulp_post_receive_list(provider(), hcas[1], side[1].qp, 3, rwr.data()));
    ASSERT_EQ(kOk, ulp_post_send_list(provider(), hcas[0], side[0].qp, 3, swr.data(), optype("rc")));
    run();
    EXPECT_EQ(0, std::memcmp(ldst.data(), lsrc.data(), 300));
    auto s = completions(0), r = completions(1);
    ASSERT_EQ(4u, s.size());
    expect_wc(s[0], 50, kSendSq, kSuccess, -1);
    for (int i = 0; i < 3; ++i) expect_wc(s[1 + i], 60 + i, kSendSq, kSuccess, -1);
    ASSERT_EQ(4u, r.size());
    expect_wc(r[0], 1, kSendRq, kSuccess, 64);
    for (int i = 0; i < 3; ++i) expect_wc(r[1 + i], 70 + i, kSendRq, kSuccess, 100);
    EXPECT_EQ(1, stats()["inline_send_num"]);
    EXPECT_EQ(3, stats()["post_s_list_num"]);
    EXPECT_EQ(3, stats()["post_r_list_num"]);
}

TEST_P(Exchange, RemoteAccessViolation) {
    connect("rc");
    DpBuffer &src = buffer(64), &dst = buffer(64, 0x5c);
    pattern(src, 1);
    ulp_send_target t = remote(1, dst.data());
    t.r_key ^= 0x100;  // not a key of the peer
    post(0, "rc", ulp_op_write, 1, src.data(), 64, t);
    run();
    for (uint8_t b : dst.bytes) EXPECT_EQ(0x5c, b);
    auto s = completions(0);
    ASSERT_EQ(1u, s.size());
    expect_wc(s[0], 1, kWriteSq, kRemAccess, -1);
    EXPECT_EQ(1, stats()["ox_send_error_status"]);
    EXPECT_EQ(1, stats()["ox_send_last_error_status"]);
}

TEST_P(Exchange, ReceiveBufferTooSmallThenFlush) {
    connect("rc");
    DpBuffer &src = buffer(200), &small = buffer(100, 0), &later = buffer(100, 0);
    pattern(src, 1);
    post_recv(1, small, 100, 1);
    post_recv(1, later, 100, 2);
    post(0, "rc", ulp_op_send, 7, src.data(), 200, {});
    run();
    auto r = completions(1);
    ASSERT_EQ(2u, r.size());
    expect_wc(r[0], 1, kSendRq, kLocLen, -1);
    expect_wc(r[1], 2, kSendRq, kFlush, -1);  // the receiver's QP went to error: the rest is flushed
    auto s = completions(0);
    ASSERT_EQ(1u, s.size());
    expect_wc(s[0], 7, kSendSq, kRemInvReq, -1);
    EXPECT_EQ(2, stats()["ox_receive_error_status"]);
    EXPECT_EQ(1, stats()["ox_send_error_status"]);
    for (uint8_t b : later.bytes) EXPECT_EQ(0, b);

    // A receive posted on the QP in error completes flushed at once.
    DpBuffer &more = buffer(16);
    post_recv(1, more, 16, 3);
    run();
    auto f = completions(1);
    ASSERT_EQ(1u, f.size());
    expect_wc(f[0], 3, kSendRq, kFlush, -1);
}

// Every exchange on both engines: stepped (exactly repeatable) and threaded (as a real adapter).
INSTANTIATE_TEST_SUITE_P(Engines, Exchange,
                         ::testing::Values(hca::EngineKind::Stepped, hca::EngineKind::Threaded),
                         [](const ::testing::TestParamInfo<hca::EngineKind> &info) {
                             return info.param == hca::EngineKind::Stepped ? "Stepped" : "Threaded";
                         });

}  // namespace
}  // namespace adaptor_test
