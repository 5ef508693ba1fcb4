// The console's upper layer with CQs and QPs: `ulp cq`, `ulp qp` and `ulp connect` through the
// provider "mlx", and the module's statistics page counting them before and after `ulp close`.
#include <sstream>
#include <vector>

#include "console_fixture.hpp"

namespace {

class UlpQueuesTest : public ModuleConsoleTest {
  protected:
    void expect_state(const std::string &qp, const std::string &state) {
        ASSERT_EQ(0, run("ulp qp query " + qp)) << err();
        EXPECT_TRUE(has_line(out(), "  qp_state: " + state)) << qp << "\n" << out();
    }
};

TEST_F(UlpQueuesTest, ConnectsRcUcAndUdPairsAcrossTwoHcas) {
    ASSERT_EQ(0, run("ulp open InfiniHost0; ulp open InfiniHost1")) << err();
    ASSERT_EQ(0, run("ulp connect rc")) << err();
    EXPECT_EQ(
        "connect rc: qp1 on hca1 (qp_num 1024, lid 1) <-> qp2 on hca2 (qp_num 1024, lid 2), both "
        "ox_qp_state_rts\n",
        out());
    ASSERT_EQ(0, run("ulp connect uc")) << err();
    EXPECT_EQ(
        "connect uc: qp3 on hca1 (qp_num 1025, lid 1) <-> qp4 on hca2 (qp_num 1025, lid 2), both "
        "ox_qp_state_rts\n",
        out());
    ASSERT_EQ(0, run("ulp connect ud")) << err();
    EXPECT_EQ(
        "connect ud: qp5 on hca1 (qp_num 1026, lid 1) <-> qp6 on hca2 (qp_num 1026, lid 2), both "
        "ox_qp_state_rts\n",
        out());
    for (const char *qp : {"qp1", "qp2", "qp3", "qp4", "qp5", "qp6"}) expect_state(qp, "ox_qp_state_rts");

    // The query speaks the generic names: each RC side has the other as destination, on its CQ, in
    // the HCA's generic PD (the device's first, made at open).
    ASSERT_EQ(0, run("ulp qp query qp1")) << err();
    const std::string q = out();
    EXPECT_EQ("qp1 on hca1:", lines_of(q).front());
    for (const char *line : {"  qp_num: 1024", "  qp_type: ox_qp_type_r_conn", "  cq_send_h: cq1",
                             "  cq_receive_h: cq1", "  destanation_qp: 1024", "  primary_add_vec.dlid: 2",
                             "  primary_add_vec.pmtu: 3", "  access_control: 6", "  pd_h: 1"})
        EXPECT_TRUE(has_line(q, line)) << line << "\n" << q;
    ASSERT_EQ(0, run("ulp qp query qp6")) << err();
    EXPECT_TRUE(has_line(out(), "  qp_type: ox_qp_type_u_dgram")) << out();
    EXPECT_TRUE(has_line(out(), "  q_key: 286331153")) << out();

    ASSERT_EQ(0, run("ulp list")) << err();
    EXPECT_EQ(
        "hca1: InfiniHost0\nhca2: InfiniHost1\n"
        "pd1 on hca1 (generic)\ncq1 on hca1\nqp1 on hca1\npd2 on hca2 (generic)\ncq2 on hca2\nqp2 on hca2\n"
        "cq3 on hca1\nqp3 on hca1\ncq4 on hca2\nqp4 on hca2\n"
        "cq5 on hca1\nqp5 on hca1\ncq6 on hca2\nqp6 on hca2\n",
        out());

    std::string p = page();
    EXPECT_TRUE(has_line(p, "  num of CQ: 6 (6)")) << p;
    EXPECT_TRUE(has_line(p, "  num of QP: 6 (6)")) << p;
    EXPECT_TRUE(has_line(p, "     errors: 0 (0)")) << p;

    // Closing an HCA frees the records left on it.
    ASSERT_EQ(0, run("ulp close")) << err();
    EXPECT_EQ("hca2: InfiniHost1 closed\n", out());
    p = page();
    EXPECT_TRUE(has_line(p, "  num of CQ: 3 (-3)")) << p;
    EXPECT_TRUE(has_line(p, "  num of QP: 3 (-3)")) << p;
    ASSERT_EQ(0, run("ulp close")) << err();
    EXPECT_EQ("hca1: InfiniHost0 closed\n", out());
    p = page();
    EXPECT_TRUE(has_line(p, "  num of CQ: 0 (-3)")) << p;
    EXPECT_TRUE(has_line(p, "  num of QP: 0 (-3)")) << p;
    EXPECT_EQ(0, run("ulp list"));
    EXPECT_EQ("", out());
    EXPECT_EQ(0, run("rmmod adaptor-mlx")) << err();
}

TEST_F(UlpQueuesTest, ConnectsTwoQpsOnTheOneOpenHca) {
    ASSERT_EQ(0, run("ulp open")) << err();
    ASSERT_EQ(0, run("ulp connect rc")) << err();
    EXPECT_EQ(
        "connect rc: qp1 on hca1 (qp_num 1024, lid 1) <-> qp2 on hca1 (qp_num 1025, lid 1), both "
        "ox_qp_state_rts\n",
        out());
    expect_state("qp1", "ox_qp_state_rts");
    ASSERT_EQ(0, run("ulp qp query qp2")) << err();
    EXPECT_TRUE(has_line(out(), "  destanation_qp: 1024")) << out();
    std::string p = page();
    EXPECT_TRUE(has_line(p, "  num of CQ: 2 (2)")) << p;
    EXPECT_TRUE(has_line(p, "  num of QP: 2 (2)")) << p;
    ASSERT_EQ(0, run("ulp close")) << err();
}

TEST_F(UlpQueuesTest, CqAndQpCommandsOneByOne) {
    EXPECT_EQ(1, run("ulp connect rc"));
    EXPECT_EQ("ulp: connect: no HCA is open\n", err());
    ASSERT_EQ(0, run("ulp open; ulp pd alloc")) << err();
    ASSERT_EQ(0, run("ulp cq create 100")) << err();
    EXPECT_EQ("cq1: created on hca1, 127 entries (asked 100)\n", out());
    ASSERT_EQ(0, run("ulp cq query")) << err();
    EXPECT_EQ("cq1: 127 entries, 0 completion events\n", out());
    ASSERT_EQ(0, run("ulp cq resize 300 cq1")) << err();
    EXPECT_EQ("cq1: resized to 511 entries (asked 300)\n", out());
    ASSERT_EQ(0, run("ulp cq create 10")) << err();
    EXPECT_EQ("cq2: created on hca1, 15 entries (asked 10)\n", out());

    ASSERT_EQ(0, run("ulp qp create ud pd1 cq1 cq2")) << err();
    EXPECT_EQ(
        "qp1: ud created on hca1 in pd1, send cq1, receive cq2, qp_num 1024, send wr 16, receive wr 16, send "
        "sg 1, receive sg 1\n",
        out());
    ASSERT_EQ(0, run("ulp qp modify init")) << err();
    EXPECT_EQ("qp1: modified to ox_qp_state_init, send wr 16, receive wr 16\n", out());
    expect_state("qp1", "ox_qp_state_init");
    ASSERT_EQ(0, run("ulp qp modify qp1 rtr; ulp qp modify rts send_psn=0x20")) << err();
    EXPECT_EQ(
        "qp1: modified to ox_qp_state_rtr, send wr 16, receive wr 16\n"
        "qp1: modified to ox_qp_state_rts, send wr 16, receive wr 16\n",
        out());
    ASSERT_EQ(0, run("ulp qp query")) << err();
    EXPECT_TRUE(has_line(out(), "  send_psn: 32")) << out();
    EXPECT_TRUE(has_line(out(), "  cq_receive_h: cq2")) << out();

    // The adaptor refuses send-queue drain; an unknown attribute is refused by the console.
    EXPECT_EQ(1, run("ulp qp modify sqd"));
    EXPECT_EQ("ulp: qp modify qp1 sqd: ox_return_err_invalid_state (6)\n", err());
    EXPECT_EQ(1, run("ulp qp modify rts no_such=1"));
    EXPECT_EQ("ulp: qp modify: no attribute no_such on the way to rts\n", err());
    ASSERT_EQ(0, run("ulp qp modify err")) << err();
    expect_state("qp1", "ox_qp_state_error");
    ASSERT_EQ(0, run("ulp qp modify reset")) << err();
    expect_state("qp1", "ox_qp_state_reset");

    ASSERT_EQ(0, run("ulp qp special gsi 1")) << err();
    EXPECT_EQ(
        "qp2: gsi on port 1 of hca1 in pd1, send cq2, receive cq2, qp_num 2, send wr 16, receive wr 16, send "
        "sg 1, receive sg 1\n",
        out());
    ASSERT_EQ(0, run("ulp qp special smi 1 pd1 cq1")) << err();
    EXPECT_EQ(
        "qp3: smi on port 1 of hca1 in pd1, send cq1, receive cq1, qp_num 1, send wr 16, receive wr 16, send "
        "sg 1, receive sg 1\n",
        out());
    std::string p = page();
    EXPECT_TRUE(has_line(p, "  num of CQ: 2 (2)")) << p;
    EXPECT_TRUE(has_line(p, "  num of QP: 3 (3)")) << p;

    // A CQ still in use by a QP cannot be destroyed; the failure is the entry point's.
    EXPECT_EQ(1, run("ulp cq destroy cq1"));
    EXPECT_EQ("ulp: cq destroy cq1: ox_return_err (1)\n", err());
    ASSERT_EQ(0, run("ulp qp destroy; ulp qp destroy qp2; ulp qp destroy qp1")) << err();
    EXPECT_EQ("qp3: destroyed\nqp2: destroyed\nqp1: destroyed\n", out());
    ASSERT_EQ(0, run("ulp cq destroy cq1; ulp cq destroy")) << err();
    EXPECT_EQ("cq1: destroyed\ncq2: destroyed\n", out());
    EXPECT_EQ(1, run("ulp qp destroy"));
    EXPECT_EQ("ulp: qp destroy: no qp on hca1\n", err());
    p = page();
    EXPECT_TRUE(has_line(p, "  num of CQ: 0 (-2)")) << p;
    EXPECT_TRUE(has_line(p, "  num of QP: 0 (-3)")) << p;
    ASSERT_EQ(0, run("ulp close")) << err();
}

}  // namespace
