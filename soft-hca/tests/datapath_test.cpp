// Moving data through every opcode and transport, on one device and across the two, with every
// byte and every completion field checked.
#include "datapath_fixture.hpp"

using namespace dp;

namespace {

class DataPath : public DataPathTest {};

TEST_F(DataPath, ReliableSendAcrossDevicesGathersAndScattersEveryByte) {
    auto [a, b] = pair(VAPI_TS_RC, s0, s1);
    Buffer &src = buffer(s0, 6000), &dst = buffer(s1, 8000, kAllAccess, 0xee);
    pattern(src, 1);
    // 5000 bytes in two pieces, into two receive pieces: three packets at an MTU of 2048.
    post_message(a, b, {src.sg(0, 1000), src.sg(2000, 4000)}, {dst.sg(0, 3000), dst.sg(4000, 4000)}, 11, 77);
    EXPECT_TRUE(poll(s0).empty());  // nothing happens before the engine runs
    run();
    const VAPI_wc_desc_t sent = only(poll(s0));
    EXPECT_EQ(sent.status, VAPI_SUCCESS);
    EXPECT_EQ(sent.id, 11u);
    EXPECT_EQ(sent.opcode, VAPI_CQE_SQ_SEND_DATA);
    EXPECT_EQ(sent.byte_len, 5000u);
    EXPECT_EQ(sent.local_qp_num, a.num);
    EXPECT_EQ(sent.free_res_count, 16u);
    const VAPI_wc_desc_t r = only(poll(s1));
    EXPECT_EQ(r.status, VAPI_SUCCESS);
    EXPECT_EQ(r.id, 77u);
    EXPECT_EQ(r.opcode, VAPI_CQE_RQ_SEND_DATA);
    EXPECT_EQ(r.byte_len, 5000u);
    EXPECT_EQ(r.local_qp_num, b.num);
    EXPECT_EQ(r.imm_data_valid, FALSE);
    EXPECT_EQ(r.remote_node_addr.slid, s0.lid);
    EXPECT_EQ(r.remote_node_addr.qp_ety.qp, a.num);
    EXPECT_EQ(r.free_res_count, 16u);
    // The message: 1000 bytes from offset 0, then 4000 from offset 2000.
    std::vector<uint8_t> msg(src.bytes.begin(), src.bytes.begin() + 1000);
    msg.insert(msg.end(), src.bytes.begin() + 2000, src.bytes.begin() + 6000);
    EXPECT_TRUE(std::equal(msg.begin(), msg.begin() + 3000, dst.bytes.begin()));
    EXPECT_TRUE(filled(dst, 3000, 4000, 0xee));
    EXPECT_TRUE(std::equal(msg.begin() + 3000, msg.end(), dst.bytes.begin() + 4000));
    EXPECT_TRUE(filled(dst, 6000, 8000, 0xee));
}

TEST_F(DataPath, SendWithImmediateOnOneDevice) {
    auto [a, b] = pair(VAPI_TS_RC, s0, s0);  // both ends on InfiniHost0: loopback through port 1
    Buffer &src = buffer(s0, 64), &dst = buffer(s0, 64);
    pattern(src, 9);
    ASSERT_EQ(post_recv(b, 2, {dst.sg(0, 64)}), VAPI_OK);
    SendWr wr(1, VAPI_SEND_WITH_IMM, {src.sg(0, 40)});
    wr.d.imm_data = 0xfeedbeef;
    ASSERT_EQ(post(a, wr), VAPI_OK);
    run();
    auto wcs = poll(s0);
    ASSERT_EQ(wcs.size(), 2u);
    const VAPI_wc_desc_t &r = wcs[0].id == 2 ? wcs[0] : wcs[1];
    const VAPI_wc_desc_t &s = wcs[0].id == 1 ? wcs[0] : wcs[1];
    EXPECT_EQ(s.opcode, VAPI_CQE_SQ_SEND_DATA);
    EXPECT_EQ(r.opcode, VAPI_CQE_RQ_SEND_DATA);
    EXPECT_EQ(r.byte_len, 40u);
    EXPECT_EQ(r.imm_data_valid, TRUE);
    EXPECT_EQ(r.imm_data, 0xfeedbeefu);
    EXPECT_EQ(r.remote_node_addr.qp_ety.qp, a.num);
    EXPECT_EQ(0, std::memcmp(dst.bytes.data(), src.bytes.data(), 40));
}

TEST_F(DataPath, InlineSendCarriesTheDataTakenAtPostTime) {
    auto [a, b] = pair(VAPI_TS_RC, s0, s1);
    Buffer &dst = buffer(s1, 64);
    uint8_t data[48];
    for (int i = 0; i < 48; ++i) data[i] = uint8_t(200 - i);
    ASSERT_EQ(post_recv(b, 5, {dst.sg(0, 64)}), VAPI_OK);
    SendWr wr(4, VAPI_SEND, {{reinterpret_cast<uintptr_t>(data), 48, 0}});
    ASSERT_EQ(EVAPI_post_inline_sr(s0.hca, a.hndl, wr.desc()), VAPI_OK);
    uint8_t expect[48];
    std::memcpy(expect, data, 48);
    std::memset(data, 0, sizeof data);  // the caller's buffer is free again at once
    run();
    ASSERT_EQ(poll(s1).size(), 1u);
    EXPECT_EQ(0, std::memcmp(dst.bytes.data(), expect, 48));
}

TEST_F(DataPath, RdmaWriteAndWriteWithImmediate) {
    auto [a, b] = pair(VAPI_TS_RC, s0, s1);
    Buffer &src = buffer(s0, 10000), &dst = buffer(s1, 10000);
    pattern(src, 3);
    ASSERT_EQ(post_send(a, 1, VAPI_RDMA_WRITE, {src.sg(0, 9000)}, dst.addr() + 500, dst.rkey), VAPI_OK);
    run();
    const VAPI_wc_desc_t w = only(poll(s0));
    EXPECT_EQ(w.opcode, VAPI_CQE_SQ_RDMA_WRITE);
    EXPECT_EQ(w.byte_len, 9000u);
    EXPECT_TRUE(poll(s1).empty());  // a plain write consumes no receive request
    EXPECT_EQ(0, std::memcmp(dst.bytes.data() + 500, src.bytes.data(), 9000));
    EXPECT_EQ(dst.bytes[499], 0);
    // With immediate data the target learns of it through a receive completion.
    ASSERT_EQ(post_recv(b, 9, {}), VAPI_OK);
    SendWr wr(2, VAPI_RDMA_WRITE_WITH_IMM, {src.sg(100, 3000)}, dst.addr(), dst.rkey);
    wr.d.imm_data = 0x5151;
    ASSERT_EQ(post(a, wr), VAPI_OK);
    run();
    const VAPI_wc_desc_t r = only(poll(s1));
    EXPECT_EQ(r.id, 9u);
    EXPECT_EQ(r.opcode, VAPI_CQE_RQ_RDMA_WITH_IMM);
    EXPECT_EQ(r.byte_len, 3000u);
    EXPECT_EQ(r.imm_data_valid, TRUE);
    EXPECT_EQ(r.imm_data, 0x5151u);
    EXPECT_EQ(0, std::memcmp(dst.bytes.data(), src.bytes.data() + 100, 3000));
}

TEST_F(DataPath, RdmaReadBringsTheRemoteBytes) {
    auto [a, b] = pair(VAPI_TS_RC, s0, s1);
    Buffer &local = buffer(s0, 20000), &remote = buffer(s1, 20000);
    pattern(remote, 77);
    ASSERT_EQ(post_send(a, 3, VAPI_RDMA_READ, {local.sg(0, 7000), local.sg(10000, 5000)}, remote.addr() + 16,
                        remote.rkey),
              VAPI_OK);
    run();
    const VAPI_wc_desc_t w = only(poll(s0));
    EXPECT_EQ(w.status, VAPI_SUCCESS);
    EXPECT_EQ(w.opcode, VAPI_CQE_SQ_RDMA_READ);
    EXPECT_EQ(w.byte_len, 12000u);
    EXPECT_EQ(0, std::memcmp(local.bytes.data(), remote.bytes.data() + 16, 7000));
    EXPECT_EQ(0, std::memcmp(local.bytes.data() + 10000, remote.bytes.data() + 16 + 7000, 5000));
    EXPECT_EQ(local.bytes[7000], 0);
}

TEST_F(DataPath, AtomicsCompareAndSwapAndFetchAndAdd) {
    auto [a, b] = pair(VAPI_TS_RC, s0, s1);
    Buffer &local = buffer(s0, 64), &remote = buffer(s1, 64);
    const uint64_t v = 100;
    std::memcpy(remote.bytes.data() + 8, &v, 8);
    SendWr add(1, VAPI_ATOMIC_FETCH_AND_ADD, {local.sg(0, 8)}, remote.addr() + 8, remote.rkey);
    add.d.compare_add = 5;
    ASSERT_EQ(post(a, add), VAPI_OK);
    // Compare 105 (matches after the add) and swap in 7.
    SendWr swap(2, VAPI_ATOMIC_CMP_AND_SWP, {local.sg(8, 8)}, remote.addr() + 8, remote.rkey);
    swap.d.compare_add = 105;
    swap.d.swap = 7;
    ASSERT_EQ(post(a, swap), VAPI_OK);
    // A compare that fails leaves the value and still returns it.
    SendWr miss(3, VAPI_ATOMIC_CMP_AND_SWP, {local.sg(16, 8)}, remote.addr() + 8, remote.rkey);
    miss.d.compare_add = 1;
    miss.d.swap = 999;
    ASSERT_EQ(post(a, miss), VAPI_OK);
    run();
    auto wcs = poll(s0);
    ASSERT_EQ(wcs.size(), 3u);
    EXPECT_EQ(wcs[0].opcode, VAPI_CQE_SQ_FETCH_ADD);
    EXPECT_EQ(wcs[1].opcode, VAPI_CQE_SQ_COMP_SWAP);
    EXPECT_EQ(wcs[2].opcode, VAPI_CQE_SQ_COMP_SWAP);
    for (auto &w : wcs) EXPECT_EQ(w.byte_len, 8u);
    EXPECT_EQ(u64(local, 0), 100u);
    EXPECT_EQ(u64(local, 8), 105u);
    EXPECT_EQ(u64(local, 16), 7u);
    EXPECT_EQ(u64(remote, 8), 7u);
}

TEST_F(DataPath, UnreliableConnectedSendAndWrite) {
    auto [a, b] = pair(VAPI_TS_UC, s0, s1);
    Buffer &src = buffer(s0, 5000), &dst = buffer(s1, 10000);
    pattern(src, 5);
    post_message(a, b, {src.sg(0, 4500)}, {dst.sg(0, 5000)}, 1, 1);
    ASSERT_EQ(post_send(a, 2, VAPI_RDMA_WRITE, {src.sg(0, 5000)}, dst.addr() + 5000, dst.rkey), VAPI_OK);
    run();
    auto s = poll(s0);
    ASSERT_EQ(s.size(), 2u);
    EXPECT_EQ(s[0].opcode, VAPI_CQE_SQ_SEND_DATA);
    EXPECT_EQ(s[1].opcode, VAPI_CQE_SQ_RDMA_WRITE);
    EXPECT_EQ(only(poll(s1)).byte_len, 4500u);
    EXPECT_EQ(0, std::memcmp(dst.bytes.data(), src.bytes.data(), 4500));
    EXPECT_EQ(0, std::memcmp(dst.bytes.data() + 5000, src.bytes.data(), 5000));
    // Without a receive request an unreliable send is simply lost; the sender completes anyway.
    ASSERT_EQ(post_send(a, 3, VAPI_SEND, {src.sg(0, 10)}), VAPI_OK);
    run();
    ASSERT_EQ(poll(s0).size(), 1u);
    EXPECT_TRUE(poll(s1).empty());
    EXPECT_EQ(state(b), VAPI_RTS);
}

TEST_F(DataPath, DatagramLeavesRoomForTheGrhAndNamesTheSender) {
    Qp a = ud(s0), b = ud(s1);
    Buffer &src = buffer(s0, 100), &dst = buffer(s1, 200, kAllAccess, 0x11);
    pattern(src, 40);
    ASSERT_EQ(post_recv(b, 8, {dst.sg(0, 200)}), VAPI_OK);
    SendWr wr(6, VAPI_SEND_WITH_IMM, {src.sg(0, 100)});
    wr.to(ah(s0, s1.lid), b.num, 0x1234);
    wr.d.imm_data = 42;
    ASSERT_EQ(post(a, wr), VAPI_OK);
    run();
    EXPECT_EQ(only(poll(s0)).status, VAPI_SUCCESS);
    const VAPI_wc_desc_t r = only(poll(s1));
    EXPECT_EQ(r.byte_len, 140u);  // the GRH area counts
    EXPECT_EQ(r.remote_node_addr.type, VAPI_RNA_UD);
    EXPECT_EQ(r.remote_node_addr.slid, s0.lid);
    EXPECT_EQ(r.remote_node_addr.sl, 3);
    EXPECT_EQ(r.remote_node_addr.qp_ety.qp, a.num);
    EXPECT_EQ(r.grh_flag, FALSE);
    EXPECT_EQ(r.imm_data_valid, TRUE);
    EXPECT_EQ(r.imm_data, 42u);
    EXPECT_EQ(r.pkey_ix, 0);
    // Without a GRH the first 40 bytes are left as they were.
    EXPECT_TRUE(filled(dst, 0, 40, 0x11));
    EXPECT_EQ(0, std::memcmp(dst.bytes.data() + 40, src.bytes.data(), 100));
}

TEST_F(DataPath, DatagramWithGrhFillsTheGrhArea) {
    Qp a = ud(s0), b = ud(s1);
    Buffer &src = buffer(s0, 16), &dst = buffer(s1, 100);
    ASSERT_EQ(post_recv(b, 1, {dst.sg(0, 100)}), VAPI_OK);
    SendWr wr(0, VAPI_SEND, {src.sg(0, 16)});
    wr.to(ah(s0, s1.lid, true), b.num, 0x1234);
    ASSERT_EQ(post(a, wr), VAPI_OK);
    run();
    EXPECT_EQ(only(poll(s1)).grh_flag, TRUE);
    EXPECT_EQ(dst.bytes[0] >> 4, 6);  // IP version 6
    EXPECT_EQ(dst.bytes[6], 0x1b);    // next header: IBA
    EXPECT_EQ(dst.bytes[8], 0xfe);    // source GID: fe80::/64 + port GUID
    EXPECT_EQ(dst.bytes[9], 0x80);
    EXPECT_EQ(dst.bytes[24], 0xa0);  // destination GID from the address vector
    EXPECT_EQ(dst.bytes[39], 0xaf);
}

TEST_F(DataPath, DatagramQkeyMismatchIsDroppedAndCounted) {
    Qp a = ud(s0), b = ud(s1, 0x5555);
    Buffer &src = buffer(s0, 16), &dst = buffer(s1, 100);
    ASSERT_EQ(post_recv(b, 1, {dst.sg(0, 100)}), VAPI_OK);
    SendWr wr(0, VAPI_SEND, {src.sg(0, 16)});
    wr.to(ah(s0, s1.lid), b.num, 0x1234);
    ASSERT_EQ(post(a, wr), VAPI_OK);
    run();
    EXPECT_EQ(poll(s0).size(), 1u);  // the sender cannot know
    EXPECT_TRUE(poll(s1).empty());
    EXPECT_EQ(port_props(s1).qkey_viol_counter, 1u);
    // A Q_Key with the high bit set sends the QP's own Q_Key instead: a QP with 0x5555 gets through.
    Qp c = ud(s0, 0x5555);
    wr.d.remote_qkey = 0x80000000u;
    ASSERT_EQ(post(c, wr), VAPI_OK);
    run();
    EXPECT_EQ(poll(s1).size(), 1u);
}

TEST_F(DataPath, DatagramLongerThanTheMtuFailsLocally) {
    Qp a = ud(s0);
    Buffer &src = buffer(s0, 4096);
    SendWr wr(12, VAPI_SEND, {src.sg(0, 2049)});
    wr.to(ah(s0, s1.lid), 0x401);
    ASSERT_EQ(post(a, wr), VAPI_OK);
    run();
    const VAPI_wc_desc_t s = only(poll(s0));
    EXPECT_EQ(s.status, VAPI_LOC_LEN_ERR);
    EXPECT_EQ(s.id, 12u);
    EXPECT_EQ(state(a), VAPI_SQE);  // a datagram QP stops its send queue only
}

TEST_F(DataPath, MulticastReachesEveryAttachedQpOnBothDevices) {
    Qp a = ud(s0), m0 = ud(s0), m1 = ud(s1), m2 = ud(s1), other = ud(s1);
    IB_gid_t mgid = {0xff, 0x12, 0x40, 0x1b, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
    const IB_lid_t mlid = 0xc001;
    ASSERT_EQ(VAPI_attach_to_multicast(s0.hca, mgid, m0.hndl, mlid), VAPI_OK);
    ASSERT_EQ(VAPI_attach_to_multicast(s1.hca, mgid, m1.hndl, mlid), VAPI_OK);
    ASSERT_EQ(VAPI_attach_to_multicast(s1.hca, mgid, m2.hndl, mlid), VAPI_OK);
    Buffer &src = buffer(s0, 32), &d0 = buffer(s0, 100), &d1 = buffer(s1, 100), &d2 = buffer(s1, 100),
           &d3 = buffer(s1, 100);
    pattern(src, 8);
    ASSERT_EQ(post_recv(m0, 10, {d0.sg(0, 100)}), VAPI_OK);
    ASSERT_EQ(post_recv(m1, 11, {d1.sg(0, 100)}), VAPI_OK);
    ASSERT_EQ(post_recv(m2, 12, {d2.sg(0, 100)}), VAPI_OK);
    ASSERT_EQ(post_recv(other, 13, {d3.sg(0, 100)}), VAPI_OK);
    SendWr wr(0, VAPI_SEND, {src.sg(0, 32)});
    wr.to(ah(s0, mlid), 0xffffff, 0x1234);
    ASSERT_EQ(post(a, wr), VAPI_OK);
    run();
    auto r0 = poll(s0), r1 = poll(s1);
    ASSERT_EQ(r0.size(), 2u);  // the send and m0's receive (loopback on the sender's device)
    ASSERT_EQ(r1.size(), 2u);
    for (Buffer *b : {&d0, &d1, &d2}) EXPECT_EQ(0, std::memcmp(b->bytes.data() + 40, src.bytes.data(), 32));
    EXPECT_EQ(d3.bytes[40], 0);
}

TEST_F(DataPath, UnsignalledRequestsLeaveNoCompletionUnlessTheQpSignalsAll) {
    auto [a, b] = pair(VAPI_TS_RC, s0, s1);
    Buffer &src = buffer(s0, 64), &dst = buffer(s1, 64);
    ASSERT_EQ(post_send(a, 1, VAPI_RDMA_WRITE, {src.sg(0, 8)}, dst.addr(), dst.rkey, false), VAPI_OK);
    ASSERT_EQ(post_send(a, 2, VAPI_RDMA_WRITE, {src.sg(0, 8)}, dst.addr(), dst.rkey, true), VAPI_OK);
    run();
    EXPECT_EQ(only(poll(s0)).id, 2u);
    // A QP created with "all signalled" completes every request.
    Qp c = create(s0, VAPI_TS_RC, 16, 0, VAPI_SIGNAL_ALL_WR), e = create(s1, VAPI_TS_RC);
    connect(c, e, VAPI_TS_RC);
    ASSERT_EQ(post_send(c, 3, VAPI_RDMA_WRITE, {src.sg(0, 8)}, dst.addr(), dst.rkey, false), VAPI_OK);
    run();
    EXPECT_EQ(only(poll(s0)).id, 3u);
}

TEST_F(DataPath, CompletionsCountTheRequestsFreedUpToAndIncludingTheirOwn) {
    auto [a, b] = pair(VAPI_TS_RC, s0, s1);  // queues of 16
    Buffer &src = buffer(s0, 64), &dst = buffer(s1, 64);
    for (int i = 0; i < 3; ++i) ASSERT_EQ(post_recv(b, 100 + i, {dst.sg(8 * i, 8)}), VAPI_OK);
    ASSERT_EQ(post_send(a, 200, VAPI_SEND, {src.sg(0, 8)}), VAPI_OK);
    ASSERT_EQ(post_send(a, 201, VAPI_SEND, {src.sg(8, 8)}, 0, 0, false), VAPI_OK);
    ASSERT_EQ(post_send(a, 202, VAPI_SEND, {src.sg(16, 8)}), VAPI_OK);
    ASSERT_EQ(post_send(a, 203, VAPI_RDMA_WRITE, {src.sg(24, 8)}, dst.addr() + 32, dst.rkey, false), VAPI_OK);
    run();
    // The unsignalled requests leave no completion, but their slots are free all the same.
    auto s = poll(s0);
    ASSERT_EQ(s.size(), 2u);
    EXPECT_EQ(s[0].id, 200u);
    EXPECT_EQ(s[0].free_res_count, 13u);
    EXPECT_EQ(s[1].id, 202u);
    EXPECT_EQ(s[1].free_res_count, 15u);
    auto r = poll(s1);
    ASSERT_EQ(r.size(), 3u);
    for (uint32_t i = 0; i < 3; ++i) {
        EXPECT_EQ(r[i].id, VAPI_wr_id_t(100 + i));
        EXPECT_EQ(r[i].free_res_count, 14u + i);
    }
    // Every slot is free again: a full queue's worth goes in.
    for (int i = 0; i < 16; ++i)
        ASSERT_EQ(post_send(a, 300 + i, VAPI_RDMA_WRITE, {src.sg(0, 8)}, dst.addr(), dst.rkey, false),
                  VAPI_OK);
    EXPECT_NE(post_send(a, 316, VAPI_RDMA_WRITE, {src.sg(0, 8)}, dst.addr(), dst.rkey, false), VAPI_OK);
    run();
}

TEST_F(DataPath, ListPostsRunInOrder) {
    auto [a, b] = pair(VAPI_TS_RC, s0, s1);
    Buffer &src = buffer(s0, 64), &dst = buffer(s1, 64);
    pattern(src, 0);
    VAPI_sg_lst_entry_t rsg[3] = {dst.sg(0, 8), dst.sg(8, 8), dst.sg(16, 8)};
    VAPI_rr_desc_t rr[3]{};
    VAPI_sg_lst_entry_t ssg[3] = {src.sg(0, 8), src.sg(8, 8), src.sg(16, 8)};
    VAPI_sr_desc_t sr[3]{};
    for (int i = 0; i < 3; ++i) {
        rr[i].id = 100 + i;
        rr[i].opcode = VAPI_RECEIVE;
        rr[i].comp_type = VAPI_SIGNALED;
        rr[i].sg_lst_p = &rsg[i];
        rr[i].sg_lst_len = 1;
        sr[i].id = 200 + i;
        sr[i].opcode = VAPI_SEND;
        sr[i].comp_type = VAPI_SIGNALED;
        sr[i].sg_lst_p = &ssg[2 - i];
        sr[i].sg_lst_len = 1;
    }
    ASSERT_EQ(EVAPI_post_rr_list(s1.hca, b.hndl, 3, rr), VAPI_OK);
    ASSERT_EQ(EVAPI_post_sr_list(s0.hca, a.hndl, 3, sr), VAPI_OK);
    run();
    auto s = poll(s0), r = poll(s1);
    ASSERT_EQ(s.size(), 3u);
    ASSERT_EQ(r.size(), 3u);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(s[i].id, VAPI_wr_id_t(200 + i));
        EXPECT_EQ(r[i].id, VAPI_wr_id_t(100 + i));
    }
    // The messages went in reverse order of their source pieces.
    EXPECT_EQ(0, std::memcmp(dst.bytes.data(), src.bytes.data() + 16, 8));
    EXPECT_EQ(0, std::memcmp(dst.bytes.data() + 8, src.bytes.data() + 8, 8));
    EXPECT_EQ(0, std::memcmp(dst.bytes.data() + 16, src.bytes.data(), 8));
}

TEST_F(DataPath, WholeMemoryPhysicalRegionCarriesKernelAddresses) {
    // The registration a module makes at open: IOVA = kernel virtual address - PAGE_OFFSET.
    VAPI_phy_buf_t all{0, 0xFFFFFFFFFFFFC000ull};
    VAPI_mrw_t req{}, rep0{}, rep1{};
    req.type = VAPI_MPR;
    req.size = 0xFFFFFFFFFFFFC000ull;
    req.acl = kAllAccess;
    req.pbuf_list_len = 1;
    req.pbuf_list_p = &all;
    VAPI_mr_hndl_t mr;
    req.pd_hndl = s0.pd;
    ASSERT_EQ(VAPI_register_mr(s0.hca, &req, &mr, &rep0), VAPI_OK);
    req.pd_hndl = s1.pd;
    ASSERT_EQ(VAPI_register_mr(s1.hca, &req, &mr, &rep1), VAPI_OK);
    auto [a, b] = pair(VAPI_TS_RC, s0, s1);
    static uint8_t src[3000], dst[3000];
    for (int i = 0; i < 3000; ++i) src[i] = uint8_t(i * 13);
    std::memset(dst, 0, sizeof dst);  // static: a repeated run must not find the last run's bytes
    auto iova = [](void *p) { return uint64_t(reinterpret_cast<uintptr_t>(p)) - PAGE_OFFSET; };
    ASSERT_EQ(post_send(a, 1, VAPI_RDMA_WRITE, {{iova(src), 3000, rep0.l_key}}, iova(dst), rep1.r_key),
              VAPI_OK);
    run();
    EXPECT_EQ(only(poll(s0)).status, VAPI_SUCCESS);
    EXPECT_EQ(0, std::memcmp(src, dst, 3000));
}

TEST_F(DataPath, PortCountersCountPacketsAndWords) {
    auto [a, b] = pair(VAPI_TS_RC, s0, s1);
    Buffer &src = buffer(s0, 5000), &dst = buffer(s1, 5000);
    auto before0 = port_counters(s0), before1 = port_counters(s1);
    ASSERT_EQ(post_send(a, 1, VAPI_RDMA_WRITE, {src.sg(0, 5000)}, dst.addr(), dst.rkey), VAPI_OK);
    run();
    auto after0 = port_counters(s0), after1 = port_counters(s1);
    // Three packets of 2048 + 2048 + 904 bytes; the first carries the RETH (16). Each adds LRH 8,
    // BTH 12 and ICRC 4; the data counters count 4-byte words. The one ACK back adds its AETH.
    const uint32_t bytes = 5000 + 16 + 3 * 24;
    EXPECT_EQ(after0[2] - before0[2], 3u);
    EXPECT_EQ(after1[3] - before1[3], 3u);
    EXPECT_EQ(after0[0] - before0[0], bytes / 4);
    EXPECT_EQ(after1[1] - before1[1], bytes / 4);
    EXPECT_EQ(after1[2] - before1[2], 1u);  // the ACK
    EXPECT_EQ(after0[3] - before0[3], 1u);
}

TEST_F(DataPath, GsiSendOnAChosenPkeyIndexReachesThePeersQp1) {
    // QP1 on port 1 of each device, with the well-known GSI Q_Key.
    auto gsi = [&](Side &s) {
        VAPI_qp_init_attr_t a{};
        a.sq_cq_hndl = a.rq_cq_hndl = s.cq;
        a.cap.max_oust_wr_sq = a.cap.max_oust_wr_rq = 4;
        a.cap.max_sg_size_sq = a.cap.max_sg_size_rq = 1;
        a.sq_sig_type = a.rq_sig_type = VAPI_SIGNAL_ALL_WR;
        a.pd_hndl = s.pd;
        Qp q;
        VAPI_qp_cap_t cap{};
        EXPECT_EQ(VAPI_get_special_qp(s.hca, 1, VAPI_GSI_QP, &a, &q.hndl, &cap), VAPI_OK);
        q.num = 1;
        q.side = &s;
        VAPI_qp_attr_t at{};
        at.qp_state = VAPI_INIT;
        at.qkey = 0x80010000u;
        EXPECT_EQ(modify(q, at, QP_ATTR_QP_STATE | QP_ATTR_PKEY_IX | QP_ATTR_QKEY), VAPI_OK);
        at.qp_state = VAPI_RTR;
        EXPECT_EQ(modify(q, at, QP_ATTR_QP_STATE), VAPI_OK);
        at.qp_state = VAPI_RTS;
        EXPECT_EQ(modify(q, at, QP_ATTR_QP_STATE | QP_ATTR_SQ_PSN), VAPI_OK);
        return q;
    };
    Qp a = gsi(s0), b = gsi(s1);
    Buffer &src = buffer(s0, 256), &dst = buffer(s1, 512);
    pattern(src, 50);
    ASSERT_EQ(post_recv(b, 3, {dst.sg(0, 512)}), VAPI_OK);
    SendWr wr(4, VAPI_SEND, {src.sg(0, 256)});
    wr.to(ah(s0, s1.lid), 1, 0x80010000u);
    ASSERT_EQ(EVAPI_post_gsi_sr(s0.hca, a.hndl, wr.desc(), 0), VAPI_OK);
    run();
    const VAPI_wc_desc_t s = only(poll(s0));
    EXPECT_EQ(s.status, VAPI_SUCCESS);
    EXPECT_EQ(s.pkey_ix, 0);
    const VAPI_wc_desc_t r = only(poll(s1));
    EXPECT_EQ(r.byte_len, 40u + 256u);
    EXPECT_EQ(r.remote_node_addr.qp_ety.qp, 1u);
    EXPECT_EQ(0, std::memcmp(dst.bytes.data() + 40, src.bytes.data(), 256));
    // P_Key index 1 holds no P_Key (0): the receiver's 0xFFFF does not match, the packet is dropped.
    ASSERT_EQ(post_recv(b, 5, {dst.sg(0, 512)}), VAPI_OK);
    ASSERT_EQ(EVAPI_post_gsi_sr(s0.hca, a.hndl, wr.desc(), 1), VAPI_OK);
    run();
    EXPECT_EQ(poll(s0).size(), 1u);
    EXPECT_TRUE(poll(s1).empty());
    EXPECT_EQ(port_props(s1).bad_pkey_counter, 1u);
}

}  // namespace

TEST_F(DataPath, ReceivesOfOneAndOfSeveralGatherEntriesLandByteForByte) {
    auto [a, b] = pair(VAPI_TS_RC, s0, s1);
    Buffer &src = buffer(s0, 8000), &dst = buffer(s1, 8000, kAllAccess, 0xee);
    pattern(src, 3);
    // One buffer: 300 bytes at offset 100.
    Delivery one = send_message(a, b, {src.sg(0, 300)}, {dst.sg(100, 300)}, 1, 10);
    ASSERT_EQ(one.got.size(), 1u);
    EXPECT_EQ(one.got[0].status, VAPI_SUCCESS);
    EXPECT_EQ(one.got[0].id, 10u);
    EXPECT_EQ(one.got[0].byte_len, 300u);
    EXPECT_TRUE(std::equal(src.bytes.begin(), src.bytes.begin() + 300, dst.bytes.begin() + 100));
    EXPECT_TRUE(filled(dst, 0, 100, 0xee));
    EXPECT_TRUE(filled(dst, 400, 8000, 0xee));
    // Four buffers (the QP's limit) of 7, 1, 2500 and 1000 bytes: 3508 bytes in two packets.
    Delivery four =
        send_message(a, b, {src.sg(1000, 3508)},
                     {dst.sg(500, 7), dst.sg(600, 1), dst.sg(700, 2500), dst.sg(5000, 1000)}, 2, 11);
    ASSERT_EQ(four.got.size(), 1u);
    EXPECT_EQ(four.got[0].status, VAPI_SUCCESS);
    EXPECT_EQ(four.got[0].id, 11u);
    EXPECT_EQ(four.got[0].byte_len, 3508u);
    const auto from = src.bytes.begin() + 1000;
    EXPECT_TRUE(std::equal(from, from + 7, dst.bytes.begin() + 500));
    EXPECT_EQ(dst.bytes[600], from[7]);
    EXPECT_TRUE(std::equal(from + 8, from + 2508, dst.bytes.begin() + 700));
    EXPECT_TRUE(std::equal(from + 2508, from + 3508, dst.bytes.begin() + 5000));
    EXPECT_TRUE(filled(dst, 400, 500, 0xee));
    EXPECT_TRUE(filled(dst, 507, 600, 0xee));
    EXPECT_TRUE(filled(dst, 601, 700, 0xee));
    EXPECT_TRUE(filled(dst, 3200, 5000, 0xee));
    EXPECT_TRUE(filled(dst, 6000, 8000, 0xee));
}
