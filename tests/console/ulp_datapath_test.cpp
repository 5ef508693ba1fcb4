// The console's upper layer moving data: ulp ah, ulp post, ulp poll, ulp mcast and ulp pingpong
// through the provider "mlx", and the statistics page counting what they did.
#include <sstream>
#include <vector>

#include "console_fixture.hpp"

namespace {

class UlpDatapathTest : public TwoHcaConsoleTest {};

TEST_F(UlpDatapathTest, PingpongOfEachTransportChecksEveryByteAndIsCounted) {
    ASSERT_EQ(0, run("ulp pingpong rc 100 5")) << err();
    EXPECT_EQ(lines_of(out()).back(), "pingpong rc: 5 exchanges, 100 bytes, 1000 bytes verified, 0 errors");
    std::string p = page();
    EXPECT_TRUE(has_line(p, "    send WR: 10 (10) [0 (0)] {0 (0)}")) << p;
    EXPECT_TRUE(has_line(p, " receive WR: 10 (10) [0 (0)]")) << p;
    EXPECT_TRUE(has_line(p, "  Byte - TX: 1000 (1000) RX: 1000 (1000)")) << p;
    EXPECT_TRUE(has_line(p, "   comp err: RX: 0 (0)    TX: 0 (0)")) << p;
    EXPECT_NE(std::string::npos, p.find("       poll: OK: ")) << p;

    ASSERT_EQ(0, run("ulp pingpong uc 3000 2")) << err();
    EXPECT_EQ(lines_of(out()).back(), "pingpong uc: 2 exchanges, 3000 bytes, 12000 bytes verified, 0 errors");
    ASSERT_EQ(0, run("ulp pingpong ud 256 3")) << err();
    EXPECT_EQ(lines_of(out()).back(), "pingpong ud: 3 exchanges, 256 bytes, 1536 bytes verified, 0 errors");
    p = page();
    // Only the companions of the page's last read: the two runs since.
    EXPECT_TRUE(has_line(p, "  Byte - TX: 14536 (13536) RX: 14776 (13776)")) << p;
}

TEST_F(UlpDatapathTest, PingpongThatLosesMessagesFails) {
    // A datagram larger than the path MTU cannot be sent.
    EXPECT_EQ(1, run("ulp pingpong ud 5000 1"));
    EXPECT_EQ(lines_of(out()).back(), "pingpong ud: 1 exchanges, 5000 bytes, 0 bytes verified, 2 errors");
}

TEST_F(UlpDatapathTest, PostAndPollWithTheGenericFieldNames) {
    ASSERT_EQ(0, run("ulp connect rc")) << err();
    ASSERT_EQ(0, run("ulp post recv qp2 64")) << err();
    EXPECT_EQ("post recv on qp2: wr_id 1, 64 bytes\n", out());
    ASSERT_EQ(0, run("ulp post send qp1 64")) << err();
    EXPECT_EQ("post send on qp1: wr_id 1, 64 bytes\n", out());
    ASSERT_EQ(0, run("ulp post write qp1 128; ulp post read qp1 32")) << err();
    EXPECT_EQ("post write on qp1 on qp2: wr_id 2, 128 bytes\npost read on qp1 on qp2: wr_id 3, 32 bytes\n",
              out());
    ASSERT_EQ(0, run("ulp poll cq1")) << err();
    EXPECT_EQ(
        "cq1: wr_id: 1, operation_type: ox_wc_send_sq, num_bytes_transfered: 64, completion_status: "
        "ox_comp_status_success, immidiate_data_indicator: 0, immidiate_data: 0x0, source_qp: 0x0, slid: 0\n"
        "cq1: wr_id: 2, operation_type: ox_wc_rdma_write_sq, num_bytes_transfered: 128, completion_status: "
        "ox_comp_status_success, immidiate_data_indicator: 0, immidiate_data: 0x0, source_qp: 0x0, slid: 0\n"
        "cq1: wr_id: 3, operation_type: ox_wc_rdma_read_sq, num_bytes_transfered: 32, completion_status: "
        "ox_comp_status_success, immidiate_data_indicator: 0, immidiate_data: 0x0, source_qp: 0x0, slid: 0\n",
        out());
    ASSERT_EQ(0, run("ulp poll cq2")) << err();
    EXPECT_EQ(
        "cq2: wr_id: 1, operation_type: ox_wc_send_rq, num_bytes_transfered: 64, completion_status: "
        "ox_comp_status_success, immidiate_data_indicator: 0, immidiate_data: 0x0, source_qp: 0x400, slid: "
        "1\n",
        out());
    ASSERT_EQ(0, run("ulp poll cq2")) << err();
    EXPECT_EQ("cq2: empty\n", out());
    EXPECT_EQ(2, run("ulp post fly qp1 8"));
}

TEST_F(UlpDatapathTest, AddressHandlesAndUdPosts) {
    ASSERT_EQ(0, run("ulp connect ud")) << err();
    ASSERT_EQ(0, run("ulp ah create pd1 2 3")) << err();
    EXPECT_EQ("ah1: created on hca1 in pd1, dlid 2, sl 3, add_h 1\n", out());
    ASSERT_EQ(0, run("ulp post recv qp2 140; ulp post send qp1 100")) << err();
    EXPECT_EQ(
        "post recv on qp2: wr_id 1, 140 bytes\npost send on qp1 to qp2 through ah1: wr_id 1, 100 bytes\n",
        out());
    ASSERT_EQ(0, run("ulp poll cq2")) << err();
    EXPECT_EQ(
        "cq2: wr_id: 1, operation_type: ox_wc_send_rq, num_bytes_transfered: 140, completion_status: "
        "ox_comp_status_success, immidiate_data_indicator: 0, immidiate_data: 0x0, source_qp: 0x400, slid: "
        "1\n",
        out());
    EXPECT_EQ(1, run("ulp post write qp1 8"));
    EXPECT_EQ("ulp: post write: a datagram QP only sends\n", err());
    ASSERT_EQ(0, run("ulp ah destroy ah1")) << err();
    EXPECT_EQ("ah1: destroyed, add_h 1\n", out());
    const std::string p = page();
    EXPECT_NE(std::string::npos, p.find("  num of AH: 0 (0),")) << p;
}

// A pair lives in each HCA's generic PD, the PD of the generic region whose keys go with every
// post; the session names that PD once per HCA, and the module will not free it.
TEST_F(UlpDatapathTest, PairsUseTheGenericPdWhichCannotBeFreed) {
    ASSERT_EQ(0, run("ulp connect rc; ulp connect ud; ulp list")) << err();
    EXPECT_TRUE(has_line(out(), "pd1 on hca1 (generic)")) << out();
    EXPECT_TRUE(has_line(out(), "pd2 on hca2 (generic)")) << out();
    EXPECT_EQ(std::string::npos, out().find("pd3")) << out();  // the second pair names no new PD
    // The page's log copy counts the two generic PDs only: connecting allocated none.
    ASSERT_EQ(0, run(std::string("dmesg -C; cat ") + kControl + "; dmesg -t")) << err();
    EXPECT_TRUE(has_line(out(), "   num of PD: 2 (2)")) << out();

    EXPECT_EQ(1, run("ulp pd free pd1"));
    EXPECT_EQ("ulp: pd free pd1: ox_return_err (1)\n", err());

    // The generic region's keys work for RC traffic in it...
    ASSERT_EQ(0, run("ulp post recv qp2 64; ulp post send qp1 64; ulp poll cq1")) << err();
    EXPECT_NE(std::string::npos,
              out().find("cq1: wr_id: 1, operation_type: ox_wc_send_sq, num_bytes_transfered: "
                         "64, completion_status: ox_comp_status_success"))
        << out();
    // ...and a datagram pingpong after a PD of the upper layer's own still sends through an
    // address handle of the QPs' (generic) PD.
    ASSERT_EQ(0, run("ulp pd alloc hca1; ulp pingpong ud 64 2")) << err();
    EXPECT_EQ(lines_of(out()).back(), "pingpong ud: 2 exchanges, 64 bytes, 256 bytes verified, 0 errors");
}

// A QP of another PD gathers through keys of the generic PD: the device refuses the gather.
TEST_F(UlpDatapathTest, AQpOutsideTheGenericPdCannotGatherFromTheGenericRegion) {
    ASSERT_EQ(0, run("ulp pd alloc hca1; ulp cq create 16 hca1; ulp qp create ud pd1 cq1")) << err();
    ASSERT_EQ(0, run("ulp pd alloc hca2; ulp cq create 16 hca2; ulp qp create ud pd2 cq2")) << err();
    for (const char *qp : {"qp1", "qp2"})
        ASSERT_EQ(0, run(std::string("ulp qp modify ") + qp + " init; ulp qp modify " + qp +
                         " rtr; ulp qp modify " + qp + " rts"))
            << err();
    ASSERT_EQ(0, run("ulp ah create pd1 2; ulp post recv qp2 140; ulp post send qp1 100")) << err();
    ASSERT_EQ(0, run("ulp poll cq1")) << err();
    EXPECT_NE(std::string::npos, out().find("completion_status: ox_comp_status_loc_portection_err")) << out();
    ASSERT_EQ(0, run("ulp poll cq2")) << err();
    EXPECT_EQ("cq2: empty\n", out());
}

TEST_F(UlpDatapathTest, MulticastAttachAndDetach) {
    ASSERT_EQ(0, run("ulp connect ud")) << err();
    ASSERT_EQ(0, run("ulp mcast attach qp1 ff12:401b::1")) << err();
    EXPECT_EQ("qp1: attached to ff12:401b::1 (mlid 0xc001)\n", out());
    std::string p = page();
    EXPECT_NE(std::string::npos, p.find("MG: 1 (1)")) << p;
    ASSERT_EQ(0, run("ulp mcast detach qp1 ff12:401b::1 0xc001")) << err();
    EXPECT_EQ("qp1: detached from ff12:401b::1 (mlid 0xc001)\n", out());
    EXPECT_EQ(1, run("ulp mcast attach qp1 nonsense:gid"));
    EXPECT_EQ("ulp: mcast: not a GID: nonsense:gid\n", err());
}

}  // namespace
