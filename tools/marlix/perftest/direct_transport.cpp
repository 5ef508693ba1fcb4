// The direct path: the test drives the software HCA through VAPI/EVAPI, with no module between.
// It is the floor the adaptor's path is compared with.
#include <cstdlib>
#include <cstring>
#include <vector>

#include <evapi.h>
#include <marlix/kernel.hpp>

#include "perftest/endpoint_base.hpp"
#include "perftest/transport.hpp"

namespace marlix::perftest {
namespace {

// The handler of every CQ made with events; its private data is the CQ's events.
void on_completion_event(VAPI_hca_hndl_t, VAPI_cq_hndl_t, void *private_data) {
    static_cast<CqEvents *>(private_data)->signal();
}

class DirectEndpoint final : public EndpointBase {
  public:
    ~DirectEndpoint() override { release(); }

    bool open(const std::string &device, int, std::string &error) override {
        VAPI_ret_t rc = VAPI_open_hca(device.c_str(), &hca_);
        if (rc == VAPI_EBUSY_HCA) {
            // Opened already (by the module): borrow its handle and give it back at the end.
            rc = EVAPI_get_hca_hndl(device.c_str(), &hca_);
            borrowed_ = rc == VAPI_OK;
        }
        if (rc != VAPI_OK) {
            error = rc == VAPI_EINVAL_HCA_ID ? "no such device: " + device : failure("VAPI_open_hca", rc);
            return false;
        }
        opened_ = true;
        if (!succeeded(VAPI_alloc_pd(hca_, &pd_), "VAPI_alloc_pd", error)) return false;
        have_pd_ = true;
        return true;
    }

    bool query_port(int port, PortInfo &info, std::string &error) override {
        VAPI_hca_port_t p{};
        VAPI_ret_t rc = VAPI_query_hca_port_prop(hca_, IB_port_t(port), &p);
        if (rc != VAPI_OK) {
            error = rc == VAPI_EINVAL_PORT ? "no such port: " + std::to_string(port)
                                           : failure("VAPI_query_hca_port_prop", rc);
            return false;
        }
        info.lid = p.lid;
        info.mtu_code = int(p.max_mtu);
        info.mtu_bytes = 128u << int(p.max_mtu);
        info.active = p.state == PORT_ACTIVE;
        VAPI_hca_vendor_t vendor{};
        VAPI_hca_cap_t cap{};
        if (!succeeded(VAPI_query_hca_cap(hca_, &vendor, &cap), "VAPI_query_hca_cap", error)) return false;
        info.max_rd_atomic = cap.max_qp_init_rd_atom;
        return true;
    }

    bool register_memory(uint8_t *addr, size_t length, Region &region, std::string &error) override {
        VAPI_mrw_t req{};
        req.type = VAPI_MR;
        req.start = reinterpret_cast<uintptr_t>(addr);
        req.size = length;
        req.pd_hndl = pd_;
        req.acl = VAPI_EN_LOCAL_WRITE | VAPI_EN_REMOTE_WRITE | VAPI_EN_REMOTE_READ | VAPI_EN_REMOTE_ATOM;
        VAPI_mrw_t rep{};
        VAPI_mr_hndl_t mr = 0;
        if (!succeeded(VAPI_register_mr(hca_, &req, &mr, &rep), "VAPI_register_mr", error)) return false;
        mrs_.push_back(mr);
        region.addr = addr;
        region.length = length;
        region.lkey = rep.l_key;
        region.rkey = rep.r_key;
        region.local_addr = req.start;
        region.remote_addr = req.start;
        return true;
    }

    bool create_cq(uint32_t entries, bool events, CqId &cq, std::string &error) override {
        VAPI_cq_hndl_t h = 0;
        VAPI_cqe_num_t actual = 0;
        if (!succeeded(VAPI_create_cq(hca_, entries, &h, &actual), "VAPI_create_cq", error)) return false;
        cqs_.push_back(h);
        if (events) {
            auto ev = std::make_unique<CqEvents>();
            EVAPI_compl_handler_hndl_t handler = 0;
            if (!succeeded(EVAPI_set_comp_eventh(hca_, h, on_completion_event, ev.get(), &handler),
                           "EVAPI_set_comp_eventh", error))
                return false;
            handlers_.push_back(handler);
            keep_events(h, std::move(ev));
        }
        cq = h;
        return true;
    }

    bool create_qp(Connection connection, CqId send_cq, CqId recv_cq, const QpCaps &caps, QpId &qp,
                   QpInfo &info, std::string &error) override {
        VAPI_qp_init_attr_t a{};
        a.sq_cq_hndl = send_cq;
        a.rq_cq_hndl = recv_cq;
        a.cap.max_oust_wr_sq = caps.send_depth;
        a.cap.max_oust_wr_rq = caps.recv_depth;
        a.cap.max_sg_size_sq = 1;
        a.cap.max_sg_size_rq = 1;
        a.cap.max_inline_data_sq = caps.max_inline;
        a.sq_sig_type = VAPI_SIGNAL_REQ_WR;
        a.rq_sig_type = VAPI_SIGNAL_ALL_WR;
        a.pd_hndl = pd_;
        a.ts_type = connection == Connection::RC   ? VAPI_TS_RC
                    : connection == Connection::UC ? VAPI_TS_UC
                                                   : VAPI_TS_UD;
        VAPI_qp_hndl_t h = 0;
        VAPI_qp_prop_t prop{};
        if (!succeeded(VAPI_create_qp(hca_, &a, &h, &prop), "VAPI_create_qp", error)) return false;
        qps_.push_back(h);
        qp = h;
        info.qpn = prop.qp_num;
        info.max_inline = prop.cap.max_inline_data_sq;
        return true;
    }

    bool connect(QpId qp, const ConnectParams &p, std::string &error) override {
        const bool ud = p.connection == Connection::UD, rc_qp = p.connection == Connection::RC;
        VAPI_qp_attr_t a{};
        a.port = IB_port_t(p.port);
        a.pkey_ix = 0;
        a.qkey = p.qkey;
        a.remote_atomic_flags = VAPI_EN_REM_WRITE | (rc_qp ? VAPI_EN_REM_READ | VAPI_EN_REM_ATOMIC_OP : 0);
        a.av.dlid = p.remote.lid;
        a.av.port = IB_port_t(p.port);
        a.path_mtu = IB_mtu_t(p.mtu_code);
        a.dest_qp_num = p.remote.qpn;
        a.rq_psn = p.remote.psn;
        a.qp_ous_rd_atom = p.rd_atomic;
        a.min_rnr_timer = 12;
        a.sq_psn = p.my_psn;
        a.timeout = p.timeout;
        a.retry_count = p.retry_count;
        a.rnr_retry = p.rnr_retry;
        a.ous_dst_rd_atom = p.rd_atomic;

        VAPI_qp_attr_mask_t init = QP_ATTR_QP_STATE | QP_ATTR_PKEY_IX | QP_ATTR_PORT |
                                   (ud ? QP_ATTR_QKEY : QP_ATTR_REMOTE_ATOMIC_FLAGS);
        VAPI_qp_attr_mask_t rtr = QP_ATTR_QP_STATE;
        if (!ud) rtr |= QP_ATTR_AV | QP_ATTR_PATH_MTU | QP_ATTR_DEST_QP_NUM | QP_ATTR_RQ_PSN;
        if (rc_qp) rtr |= QP_ATTR_QP_OUS_RD_ATOM | QP_ATTR_MIN_RNR_TIMER;
        VAPI_qp_attr_mask_t rts = QP_ATTR_QP_STATE | QP_ATTR_SQ_PSN;
        if (rc_qp) rts |= QP_ATTR_TIMEOUT | QP_ATTR_RETRY_COUNT | QP_ATTR_RNR_RETRY | QP_ATTR_OUS_DST_RD_ATOM;

        const struct {
            VAPI_qp_state_t state;
            VAPI_qp_attr_mask_t mask;
        } steps[] = {{VAPI_INIT, init}, {VAPI_RTR, rtr}, {VAPI_RTS, rts}};
        for (const auto &s : steps) {
            a.qp_state = s.state;
            VAPI_qp_attr_mask_t mask = s.mask;
            VAPI_qp_cap_t cap{};
            if (!succeeded(VAPI_modify_qp(hca_, qp, &a, &mask, &cap), "VAPI_modify_qp", error)) return false;
        }
        return true;
    }

    bool create_ah(uint16_t dlid, int port, AhId &ah, std::string &error) override {
        VAPI_ud_av_t av{};
        av.dlid = dlid;
        av.port = IB_port_t(port);
        VAPI_ud_av_hndl_t h = 0;
        if (!succeeded(VAPI_create_addr_hndl(hca_, pd_, &av, &h), "VAPI_create_addr_hndl", error))
            return false;
        ahs_.push_back(h);
        ah = h;
        return true;
    }

    int post_send(QpId qp, const SendRequest &r) override {
        VAPI_sg_lst_entry_t sg{r.local_addr, r.length, r.lkey};
        VAPI_sr_desc_t d{};
        d.id = r.id;
        d.comp_type = r.signaled ? VAPI_SIGNALED : VAPI_UNSIGNALED;
        d.sg_lst_p = &sg;
        d.sg_lst_len = 1;
        switch (r.op) {
            case Op::Send:
                d.opcode = VAPI_SEND;
                d.remote_ah = r.ah;
                d.remote_qp = r.remote_qpn;
                d.remote_qkey = r.remote_qkey;
                break;
            case Op::Write:
                d.opcode = VAPI_RDMA_WRITE;
                break;
            case Op::Read:
                d.opcode = VAPI_RDMA_READ;
                break;
            case Op::CompareSwap:
                d.opcode = VAPI_ATOMIC_CMP_AND_SWP;
                break;
            case Op::FetchAdd:
                d.opcode = VAPI_ATOMIC_FETCH_AND_ADD;
                break;
        }
        d.remote_addr = r.remote_addr;
        d.r_key = r.rkey;
        d.compare_add = r.compare_add;
        d.swap = r.swap;
        return r.inline_data ? EVAPI_post_inline_sr(hca_, qp, &d) : VAPI_post_sr(hca_, qp, &d);
    }

    int post_recv(QpId qp, uint64_t id, uint64_t local_addr, uint32_t length, uint32_t lkey) override {
        VAPI_sg_lst_entry_t sg{local_addr, length, lkey};
        VAPI_rr_desc_t d{};
        d.id = id;
        d.opcode = VAPI_RECEIVE;
        d.comp_type = VAPI_SIGNALED;
        d.sg_lst_p = &sg;
        d.sg_lst_len = 1;
        return VAPI_post_rr(hca_, qp, &d);
    }

    int poll(CqId cq, Completion &c) override {
        VAPI_wc_desc_t wc;
        VAPI_ret_t rc = VAPI_poll_cq(hca_, cq, &wc);
        if (rc == VAPI_CQ_EMPTY) return 0;
        if (rc != VAPI_OK) return rc;  // negative: never 0 or 1
        c.id = wc.id;
        c.status = int(wc.status);
        c.byte_len = wc.byte_len;
        return 1;
    }

    int arm(CqId cq) override {
        arm_events(cq);
        return VAPI_req_comp_notif(hca_, cq, VAPI_NEXT_COMP);
    }

    std::string status_name(int status) const override { return VAPI_strerror_sym(status); }
    std::string completion_status_name(int status) const override { return wc_status_name(status); }

  private:
    std::string failure(const char *call, int rc) const override {
        return std::string(call) + " failed: " + VAPI_strerror_sym(VAPI_ret_t(rc)) + " (" +
               std::to_string(rc) + ")";
    }

    static std::string wc_status_name(int s) {
        static const char *const names[] = {"VAPI_SUCCESS",           "VAPI_LOC_LEN_ERR",
                                            "VAPI_LOC_QP_OP_ERR",     "VAPI_LOC_EE_OP_ERR",
                                            "VAPI_LOC_PROT_ERR",      "VAPI_WR_FLUSH_ERR",
                                            "VAPI_MW_BIND_ERR",       "VAPI_BAD_RESP_ERR",
                                            "VAPI_LOC_ACCS_ERR",      "VAPI_REM_INV_REQ_ERR",
                                            "VAPI_REM_ACCESS_ERR",    "VAPI_REM_OP_ERR",
                                            "VAPI_RETRY_EXC_ERR",     "VAPI_RNR_RETRY_EXC_ERR",
                                            "VAPI_LOC_RDD_VIOL_ERR",  "VAPI_REM_INV_RD_REQ_ERR",
                                            "VAPI_REM_ABORT_ERR",     "VAPI_INV_EECN_ERR",
                                            "VAPI_INV_EEC_STATE_ERR", "VAPI_COMP_FATAL_ERR",
                                            "VAPI_COMP_GENERAL_ERR",  "VAPI_COMP_LOCAL_ABORT_ERR"};
        if (s >= 0 && size_t(s) < std::size(names)) return names[s];
        return "status " + std::to_string(s);
    }

    void release() {
        if (!opened_) return;
        for (VAPI_qp_hndl_t qp : qps_) VAPI_destroy_qp(hca_, qp);
        for (VAPI_ud_av_hndl_t ah : ahs_) VAPI_destroy_addr_hndl(hca_, ah);
        for (EVAPI_compl_handler_hndl_t h : handlers_) EVAPI_clear_comp_eventh(hca_, h);
        // An event raised before the handlers were cleared may still be running on the interrupt
        // thread; the CqEvents it touches live until this returns.
        marlix::kernel::irq_sync();
        for (VAPI_cq_hndl_t cq : cqs_) VAPI_destroy_cq(hca_, cq);
        for (VAPI_mr_hndl_t mr : mrs_) VAPI_deregister_mr(hca_, mr);
        if (have_pd_) VAPI_dealloc_pd(hca_, pd_);
        if (borrowed_)
            EVAPI_release_hca_hndl(hca_);
        else
            VAPI_close_hca(hca_);
        opened_ = false;
    }

    VAPI_hca_hndl_t hca_ = 0;
    bool opened_ = false, borrowed_ = false, have_pd_ = false;
    VAPI_pd_hndl_t pd_ = 0;
    std::vector<VAPI_mr_hndl_t> mrs_;
    std::vector<VAPI_cq_hndl_t> cqs_;
    std::vector<VAPI_qp_hndl_t> qps_;
    std::vector<VAPI_ud_av_hndl_t> ahs_;
    std::vector<EVAPI_compl_handler_hndl_t> handlers_;
};

}  // namespace

std::unique_ptr<Endpoint> make_direct_endpoint() {
    return std::make_unique<DirectEndpoint>();
}

}  // namespace marlix::perftest
