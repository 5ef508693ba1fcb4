// Fixture of the data path suites: the module loaded, an HCA opened through the provider table on
// each of the two devices (stepped engine, so every exchange is the same on every run), and
// helpers that make CQs and QPs through VAPI with the tracking records the module expects, build
// generic work requests field by field, and read what the module handed to VAPI.
#pragma once

#include <asm/page.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "adaptor_fixture.hpp"
#include "datapath_layout.h"
#include "layout_view.hpp"
#include "ulp_datapath.h"

namespace adaptor_test {

// A data path constant of the module; a name the module does not define fails the test.
inline long long dp_const(const char *name) {
    return layout_constant(dpl_layout(), name);
}

// One data path record, read and written by field name (see datapath_layout.h).
class DpView : public LayoutView {
  public:
    DpView(const char *record, void *base) : LayoutView(dpl_layout(), record, base) {}
};

// A zeroed buffer holding `count` records of a kind, with views on each.
class DpRecords {
  public:
    DpRecords(const char *record, size_t count = 1)
        : record_(record), size_(layout_sizeof(dpl_layout(), record)), bytes_(size_ * count, 0) {
        EXPECT_NE(0u, size_) << record;
    }
    DpView operator[](size_t i) { return DpView(record_, bytes_.data() + i * size_); }
    void *data() { return bytes_.data(); }
    void fill(uint8_t byte) { std::memset(bytes_.data(), byte, bytes_.size()); }

  private:
    const char *record_;
    size_t size_;
    std::vector<char> bytes_;
};

// A kernel buffer (directly mapped host memory) the tests send from and receive into.
struct DpBuffer {
    std::vector<uint8_t> bytes;
    uint8_t *data() { return bytes.data(); }
    unsigned long addr() const { return reinterpret_cast<unsigned long>(bytes.data()); }
};

// A QP as a test holds it: the module's record (the caller's handle) and VAPI's view.
struct DpQp {
    void *record = nullptr;
    VAPI_qp_hndl_t vapi = 0;
    VAPI_qp_num_t num = 0;
    int side = 0;
};

struct DpCq {
    void *record = nullptr;
    VAPI_cq_hndl_t vapi = 0;
    int side = 0;
};

class DataPathFixture : public AdaptorFixture {
  protected:
    static constexpr const char *kDev[2] = {"InfiniHost0", "InfiniHost1"};

    void SetUp() override {
        boot_all(2, engine());
        set_debug_level(debug_level());
        load_ok();
        for (int i = 0; i < 2; ++i) {
            hcas[i] = open_hca(kDev[i]);
            ASSERT_NE(nullptr, hcas[i]);
            ASSERT_EQ(0, ulp_get_gen_mr_attrib(provider(), hcas[i], nullptr, 0, &gen_mr[i], &gen_lkey[i],
                                               &gen_rkey[i]));
            lid[i] = hca::port_status(kDev[i], 1)->lid;
        }
        hca::reset_call_counts();
    }

    virtual hca::EngineKind engine() { return hca::EngineKind::Stepped; }
    // The adaptor's trace level while the test runs (DEBUG: every line of the data path).
    virtual long debug_level() { return 4; }

    VAPI_hca_hndl_t vapi_hca(int side) {
        return static_cast<VAPI_hca_hndl_t>(hca_record(hcas[side])["hca_h"]);
    }
    uint32_t gen_pd(int side) { return static_cast<uint32_t>(hca_record(hcas[side])["generic_pd_h"]); }
    uint64_t gen_iova(int side) {
        void *element = adp_list_first(hca_record(hcas[side]).at("generic_mem_reg_list"));
        return static_cast<uint64_t>(RecordView("ox_gen_mr_element_t", element)["iova"]);
    }
    // Where the generic registration puts a kernel address.
    uint64_t gen_addr(int side, const void *p) {
        return gen_iova(side) + (reinterpret_cast<unsigned long>(p) - PAGE_OFFSET);
    }

    DpBuffer &buffer(size_t size, uint8_t fill = 0) {
        auto b = std::make_unique<DpBuffer>();
        b->bytes.assign(size, fill);
        buffers.push_back(std::move(b));
        return *buffers.back();
    }

    DpCq cq(int side, uint32_t entries = 255) {
        DpCq c;
        c.side = side;
        VAPI_cqe_num_t n = 0;
        EXPECT_EQ(VAPI_OK, VAPI_create_cq(vapi_hca(side), entries, &c.vapi, &n));
        c.record = dpl_make_cq_record(hcas[side], c.vapi);
        return c;
    }

    // A QP of `ts` on `side` whose sends and receives complete on `c`, with its tracking record of
    // generic type `type`.
    DpQp qp(int side, VAPI_ts_type_t ts, const DpCq &c, int type, uint32_t depth = 64) {
        VAPI_qp_init_attr_t a{};
        a.sq_cq_hndl = a.rq_cq_hndl = c.vapi;
        a.cap.max_oust_wr_sq = a.cap.max_oust_wr_rq = depth;
        a.cap.max_sg_size_sq = a.cap.max_sg_size_rq = 8;
        a.cap.max_inline_data_sq = 128;
        a.sq_sig_type = VAPI_SIGNAL_REQ_WR;
        a.rq_sig_type = VAPI_SIGNAL_ALL_WR;
        a.pd_hndl = gen_pd(side);
        a.ts_type = ts;
        DpQp q;
        q.side = side;
        VAPI_qp_prop_t prop{};
        EXPECT_EQ(VAPI_OK, VAPI_create_qp(vapi_hca(side), &a, &q.vapi, &prop));
        q.num = prop.qp_num;
        q.record = dpl_make_qp_record(hcas[side], q.vapi, q.num, type);
        return q;
    }

    VAPI_ret_t modify(const DpQp &q, VAPI_qp_attr_t a, VAPI_qp_attr_mask_t mask) {
        VAPI_qp_cap_t cap{};
        return VAPI_modify_qp(vapi_hca(q.side), q.vapi, &a, &mask, &cap);
    }

    void to_error(const DpQp &q) {
        VAPI_qp_attr_t a{};
        a.qp_state = VAPI_ERR;
        ASSERT_EQ(VAPI_OK, modify(q, a, QP_ATTR_QP_STATE));
    }

    // RC or UC `q` to RTS towards `peer`.
    void connect_one(const DpQp &q, const DpQp &peer, VAPI_ts_type_t ts) {
        VAPI_qp_attr_t a{};
        a.qp_state = VAPI_INIT;
        a.port = 1;
        a.remote_atomic_flags = VAPI_EN_REM_WRITE | VAPI_EN_REM_READ | VAPI_EN_REM_ATOMIC_OP;
        ASSERT_EQ(
            VAPI_OK,
            modify(q, a, QP_ATTR_QP_STATE | QP_ATTR_PORT | QP_ATTR_PKEY_IX | QP_ATTR_REMOTE_ATOMIC_FLAGS));
        a.qp_state = VAPI_RTR;
        a.av.dlid = lid[peer.side];
        a.av.port = 1;
        a.path_mtu = MTU2048;
        a.dest_qp_num = peer.num;
        a.rq_psn = 0x100;
        a.qp_ous_rd_atom = 4;
        a.min_rnr_timer = 1;
        VAPI_qp_attr_mask_t m =
            QP_ATTR_QP_STATE | QP_ATTR_AV | QP_ATTR_PATH_MTU | QP_ATTR_DEST_QP_NUM | QP_ATTR_RQ_PSN;
        if (ts == VAPI_TS_RC) m |= QP_ATTR_QP_OUS_RD_ATOM | QP_ATTR_MIN_RNR_TIMER;
        ASSERT_EQ(VAPI_OK, modify(q, a, m));
        a.qp_state = VAPI_RTS;
        a.sq_psn = 0x100;
        a.timeout = 14;
        a.retry_count = 7;
        a.rnr_retry = 7;
        a.ous_dst_rd_atom = 4;
        m = QP_ATTR_QP_STATE | QP_ATTR_SQ_PSN;
        if (ts == VAPI_TS_RC)
            m |= QP_ATTR_TIMEOUT | QP_ATTR_RETRY_COUNT | QP_ATTR_RNR_RETRY | QP_ATTR_OUS_DST_RD_ATOM;
        ASSERT_EQ(VAPI_OK, modify(q, a, m));
    }

    // A connected RC or UC pair across the two devices, each QP on its side's CQ.
    std::pair<DpQp, DpQp> connected(VAPI_ts_type_t ts, const DpCq &c0, const DpCq &c1) {
        int type = ts == VAPI_TS_RC ? (int)dp_const("ox_qp_type_r_conn") : (int)dp_const("ox_qp_type_u_conn");
        DpQp a = qp(c0.side, ts, c0, type), b = qp(c1.side, ts, c1, type);
        connect_one(a, b, ts);
        connect_one(b, a, ts);
        return {a, b};
    }

    // A UD QP in RTS with Q_Key `qkey`.
    DpQp ud(int side, const DpCq &c, uint32_t qkey = 0x11110000) {
        DpQp q = qp(side, VAPI_TS_UD, c, (int)dp_const("ox_qp_type_u_dgram"));
        VAPI_qp_attr_t a{};
        a.qp_state = VAPI_INIT;
        a.port = 1;
        a.qkey = qkey;
        EXPECT_EQ(VAPI_OK, modify(q, a, QP_ATTR_QP_STATE | QP_ATTR_PORT | QP_ATTR_PKEY_IX | QP_ATTR_QKEY));
        a.qp_state = VAPI_RTR;
        EXPECT_EQ(VAPI_OK, modify(q, a, QP_ATTR_QP_STATE));
        a.qp_state = VAPI_RTS;
        EXPECT_EQ(VAPI_OK, modify(q, a, QP_ATTR_QP_STATE | QP_ATTR_SQ_PSN));
        return q;
    }

    // An address handle made through VAPI, for tests of sends that name one.
    VAPI_ud_av_hndl_t vapi_ah(int side, IB_lid_t dlid) {
        VAPI_ud_av_t av{};
        av.port = 1;
        av.dlid = dlid;
        VAPI_ud_av_hndl_t h = 0;
        EXPECT_EQ(VAPI_OK, VAPI_create_addr_hndl(vapi_hca(side), gen_pd(side), &av, &h));
        return h;
    }

    // The descriptors the module filled in a QP record.
    static VAPI_sr_desc_t &sr_desc(const DpQp &q) {
        return *static_cast<VAPI_sr_desc_t *>(DpView("ox_opened_qp_t", q.record).at("sr_desc"));
    }
    static VAPI_sg_lst_entry_t *sg_s(const DpQp &q) {
        return static_cast<VAPI_sg_lst_entry_t *>(DpView("ox_opened_qp_t", q.record).at("mlx_sg_array_s"));
    }
    static VAPI_rr_desc_t &rr_desc(const DpQp &q) {
        return *static_cast<VAPI_rr_desc_t *>(DpView("ox_opened_qp_t", q.record).at("rr_desc"));
    }
    static VAPI_sg_lst_entry_t *sg_r(const DpQp &q) {
        return static_cast<VAPI_sg_lst_entry_t *>(DpView("ox_opened_qp_t", q.record).at("mlx_sg_array_r"));
    }
    static long long send_lock_takes(const DpQp &q) {
        return DpView("ox_opened_qp_t", q.record)["s_sl.acquisitions"];
    }
    static long long send_lock_held(const DpQp &q) {
        return DpView("ox_opened_qp_t", q.record)["s_sl.slock"];
    }

    // Work requests, field by field.
    static void set_sg(DpView wr, DpRecords &sg) {
        wr.set("scatgat_list", reinterpret_cast<long long>(sg.data()));
    }
    static void entry(DpRecords &sg, size_t i, const void *addr, uint32_t length, uint32_t l_key) {
        sg[i].set("v_address", reinterpret_cast<long long>(addr)).set("length", length).set("l_key", l_key);
    }

    size_t run() { return hca::run_until_idle(); }

    // Every completion of a CQ through the module, as generic records.
    std::vector<std::vector<char>> poll_all(const DpCq &c) {
        std::vector<std::vector<char>> out;
        for (;;) {
            std::vector<char> wc(ulp_sizeof_wc(), 0);
            if (ulp_poll(provider(), hcas[c.side], c.record, wc.data()) != 0) break;
            out.push_back(std::move(wc));
        }
        return out;
    }

    void *hcas[2] = {nullptr, nullptr};
    uint64_t gen_mr[2] = {0, 0};
    uint32_t gen_lkey[2] = {0, 0};
    uint32_t gen_rkey[2] = {0, 0};
    IB_lid_t lid[2] = {0, 0};
    std::vector<std::unique_ptr<DpBuffer>> buffers;
};

inline DpView wc_view(std::vector<char> &wc) {
    return DpView("ox_wc_t", wc.data());
}

}  // namespace adaptor_test
