// The adaptor path: the test drives the module's entry points through the provider table that the
// module registered with the stack's verbs core ("mlx"), as an upper-layer protocol does. Buffers
// are addressed by their kernel virtual addresses under the HCA's generic registration; the peer
// reaches them at the address the module advertises for them.
#include <cstdlib>
#include <cstring>
#include <vector>

#include <marlix/kernel.hpp>

#include "perftest/endpoint_base.hpp"
#include "perftest/transport.hpp"
#include "ulp_datapath.h"
#include "ulp_pair.hpp"
#include "ulp_verbs.h"
#include "ulp_verbs_queues.h"

namespace marlix::perftest {
namespace {

constexpr const char *kProvider = "mlx";
constexpr uint64_t kPortActive = 4;  // ox_port_active
// Local write, remote write, remote read and remote atomic.
constexpr uint32_t kAllAccess = 0x0f;
// Send gather entries asked for: the device gives a QP inline room of its send gather list, 16
// bytes an entry (the module's create asks for no inline room of its own).
constexpr uint32_t kSendGather = 8;

// The module calls a CQ owner's callback with the CQ's context: here, the CQ's events.
extern "C" void on_adaptor_completion_event(uint64_t context) {
    reinterpret_cast<CqEvents *>(static_cast<uintptr_t>(context))->signal();
}

class AdaptorEndpoint final : public EndpointBase {
  public:
    explicit AdaptorEndpoint(const ulp_funcs_t *funcs) : funcs_(funcs) {}
    ~AdaptorEndpoint() override { release(); }

    bool open(const std::string &device, int, std::string &error) override {
        int rc = ulp_hca_open(funcs_, device.c_str(), nullptr, &hca_);
        if (rc != 0 || !hca_) {
            hca_ = nullptr;
            error = failure("ox_hca_open", rc);
            return false;
        }
        uint64_t mr = 0;
        if ((rc = ulp_get_gen_pd_h(funcs_, hca_, &pd_)) == 0)
            rc = ulp_get_gen_mr_attrib(funcs_, hca_, nullptr, 0, &mr, &l_key_, &r_key_);
        return succeeded(rc, "the generic PD and region", error);
    }

    bool query_port(int port, PortInfo &info, std::string &error) override {
        std::vector<unsigned char> attrib(ulp_sizeof_port_attrib(), 0);
        int rc = ulp_port_query(funcs_, hca_, unsigned(port), attrib.data());
        if (rc != 0) {
            error = "no such port: " + std::to_string(port) + " (" + failure("ox_port_query", rc) + ")";
            return false;
        }
        uint64_t lid = 0, mtu = 0, state = 0;
        ulp_port_attrib_field(attrib.data(), "port_base_lid", &lid);
        ulp_port_attrib_field(attrib.data(), "port_mtu", &mtu);
        ulp_port_attrib_field(attrib.data(), "port_state", &state);
        info.lid = uint16_t(lid);
        info.mtu_code = int(mtu);
        info.mtu_bytes = 128u << int(mtu);
        info.active = state == kPortActive;
        info.max_rd_atomic = 4;  // what the connection asks of the module (as `ulp connect` does)
        return true;
    }

    bool register_memory(uint8_t *addr, size_t length, Region &region, std::string &error) override {
        // Local addresses go through the HCA's generic registration (the module turns them into
        // its addresses), so the local key is the generic one. The generic region takes no remote
        // atomics; a region of its own, registered through the module with every remote right,
        // gives the peer its key and addresses.
        uint64_t mr = 0;
        uint32_t l_key = 0, r_key = 0;
        if (!succeeded(ulp_mr_register(funcs_, hca_, addr, length, pd_, kAllAccess, &mr, &l_key, &r_key),
                       "ox_mr_register", error))
            return false;
        mrs_.push_back(mr);
        region.addr = addr;
        region.length = length;
        region.lkey = l_key_;
        region.rkey = r_key;
        region.local_addr = reinterpret_cast<uintptr_t>(addr);
        region.remote_addr = reinterpret_cast<uintptr_t>(addr);
        return true;
    }

    bool create_cq(uint32_t entries, bool events, CqId &cq, std::string &error) override {
        auto ev = events ? std::make_unique<CqEvents>() : nullptr;
        void *h = nullptr;
        uint32_t actual = 0;
        if (!succeeded(ulp_cq_create(funcs_, hca_, entries, ev ? on_adaptor_completion_event : nullptr,
                                     ev.get(), &h, &actual),
                       "ox_cq_create", error))
            return false;
        cqs_.push_back(h);
        cq = reinterpret_cast<uintptr_t>(h);
        if (ev) keep_events(cq, std::move(ev));
        return true;
    }

    bool create_qp(Connection connection, CqId send_cq, CqId recv_cq, const QpCaps &caps, QpId &qp,
                   QpInfo &info, std::string &error) override {
        std::vector<unsigned char> req(ulp_sizeof_qp_attr(), 0), out(ulp_sizeof_qp_attr(), 0);
        ulp_qp_attr_set(req.data(), "create.qp_type", uint64_t(ulp_qp_type_value(type_name(connection))));
        ulp_qp_attr_set(req.data(), "create.cq_send_h", send_cq);
        ulp_qp_attr_set(req.data(), "create.cq_receive_h", recv_cq);
        ulp_qp_attr_set(req.data(), "create.send_max_outstand_wr", caps.send_depth);
        ulp_qp_attr_set(req.data(), "create.receive_max_outstand_wr", caps.recv_depth);
        ulp_qp_attr_set(req.data(), "create.max_scatgat_per_send_wr", kSendGather);
        ulp_qp_attr_set(req.data(), "create.max_scatgat_per_receive_wr", 1);
        ulp_qp_attr_set(req.data(), "create.signaling_type", 1);  // ox_signal_req_wr: CQ moderation
        ulp_qp_attr_set(req.data(), "create.pd_h", pd_);
        void *h = nullptr;
        if (!succeeded(ulp_qp_create(funcs_, hca_, req.data(), nullptr, &h, out.data()), "ox_qp_create",
                       error))
            return false;
        qps_.push_back(h);
        qp = reinterpret_cast<uintptr_t>(h);
        uint64_t qpn = 0;
        ulp_qp_attr_get(out.data(), "create_return.qp_num", &qpn);
        info.qpn = uint32_t(qpn);
        info.max_inline = kSendGather * 16;
        operation_type_ = ulp_operation_type(type_name(connection));
        return true;
    }

    bool connect(QpId qp, const ConnectParams &p, std::string &error) override {
        marlix::ulp_pair::Side s;
        s.funcs = funcs_;
        s.hca = hca_;
        s.qp = reinterpret_cast<void *>(static_cast<uintptr_t>(qp));
        using marlix::ulp_pair::Modify;
        int rc = 0;
        const char *step = "init";
        if (p.connection == Connection::UD) {
            rc = Modify("init")
                     .set("p_key_indx", 0)
                     .set("phy_port_num", uint64_t(p.port))
                     .set("q_key", p.qkey)
                     .apply(s);
            if (rc == 0) step = "rtr", rc = Modify("rtr").apply(s);
            if (rc == 0) step = "rts", rc = Modify("rts").set("send_psn", p.my_psn).apply(s);
        } else {
            const bool rc_qp = p.connection == Connection::RC;
            rc = Modify("init")
                     .set("p_key_indx", 0)
                     .set("phy_port_num", uint64_t(p.port))
                     .set("access_control", 0x0e)
                     .apply(s);
            if (rc == 0) {
                step = "rtr";
                Modify rtr("rtr");
                rtr.set("destanation_qp", p.remote.qpn)
                    .set("receive_psn", p.remote.psn)
                    .set("remote_add_vec.dlid", p.remote.lid)
                    .set("remote_add_vec.phy_port_num", uint64_t(p.port))
                    .set("remote_add_vec.pmtu", uint64_t(p.mtu_code));
                if (rc_qp) rtr.set("responder_rdma_r_atom_num", p.rd_atomic);
                rc = rtr.apply(s);
            }
            if (rc == 0) {
                step = "rts";
                Modify rts("rts");
                rts.set("send_psn", p.my_psn);
                if (rc_qp)
                    rts.set("local_ack_timeout", p.timeout)
                        .set("retry_num", p.retry_count)
                        .set("rnr_num", p.rnr_retry)
                        .set("dest_out_rdma_r_atom_num", p.rd_atomic);
                rc = rts.apply(s);
            }
        }
        return succeeded(rc, (std::string("ox_qp_modify to ") + step).c_str(), error);
    }

    bool create_ah(uint16_t dlid, int, AhId &ah, std::string &error) override {
        uint64_t h = 0;
        if (!succeeded(ulp_ah_create_simple(funcs_, hca_, pd_, dlid, 0, &h), "ox_ah_create", error))
            return false;
        ahs_.push_back(h);
        ah = h;
        return true;
    }

    int post_send(QpId qp, const SendRequest &r) override {
        ulp_send_request s{};
        s.op = r.op == Op::Send          ? ulp_op_send
               : r.op == Op::Write       ? ulp_op_write
               : r.op == Op::Read        ? ulp_op_read
               : r.op == Op::CompareSwap ? ulp_op_cas
                                         : ulp_op_faa;
        s.wr_id = r.id;
        s.unsignalled = !r.signaled;
        s.inline_data = r.inline_data;
        s.addr = reinterpret_cast<void *>(static_cast<uintptr_t>(r.local_addr));
        s.length = r.length;
        s.l_key = r.lkey;
        s.compare_add = r.compare_add;
        s.swap = r.swap;
        s.target.remote_addr = r.remote_addr;
        s.target.r_key = r.rkey;
        s.target.ah = r.ah;
        s.target.remote_qpn = r.remote_qpn;
        s.target.q_key = r.remote_qkey;
        return ulp_post_send_request(funcs_, hca_, qp_ptr(qp), operation_type_, &s);
    }

    int post_recv(QpId qp, uint64_t id, uint64_t local_addr, uint32_t length, uint32_t lkey) override {
        return ulp_post_receive_simple(funcs_, hca_, qp_ptr(qp), id,
                                       reinterpret_cast<void *>(static_cast<uintptr_t>(local_addr)), length,
                                       lkey);
    }

    // 1 with a completion, 0 when the CQ is empty, otherwise the entry point's status negated.
    int poll(CqId cq, Completion &c) override {
        ulp_completion wc;
        const int rc = ulp_poll_simple(funcs_, hca_, reinterpret_cast<void *>(static_cast<uintptr_t>(cq)),
                                       &wc, nullptr, 0);
        if (rc == ulp_cq_empty) return 0;
        if (rc != 0) return -rc;
        c.id = wc.wr_id;
        c.status = wc.completion_status;
        c.byte_len = static_cast<uint32_t>(wc.num_bytes_transfered);
        return 1;
    }

    int arm(CqId cq) override {
        arm_events(cq);
        return ulp_request_notification(funcs_, hca_, reinterpret_cast<void *>(static_cast<uintptr_t>(cq)),
                                        0);
    }

    std::string status_name(int status) const override {
        return ulp_status_name(status < 0 ? -status : status);
    }
    std::string completion_status_name(int status) const override { return ulp_comp_status_name(status); }
    bool carries_atomic_operands() const override { return false; }

  private:
    std::string failure(const char *call, int rc) const override {
        return std::string(call) + " failed: " + ulp_status_name(rc) + " (" + std::to_string(rc) + ")";
    }

    static const char *type_name(Connection c) {
        return c == Connection::RC ? "rc" : c == Connection::UC ? "uc" : "ud";
    }

    static void *qp_ptr(QpId qp) { return reinterpret_cast<void *>(static_cast<uintptr_t>(qp)); }

    void release() {
        if (hca_) {
            for (void *qp : qps_) ulp_qp_destroy(funcs_, hca_, qp);
            for (uint64_t ah : ahs_) ulp_ah_destroy(funcs_, hca_, ah);
            for (uint64_t mr : mrs_) ulp_mr_destroy(funcs_, hca_, mr);
            for (void *cq : cqs_) ulp_cq_destroy(funcs_, hca_, cq);
            ulp_hca_close(funcs_, hca_);
            hca_ = nullptr;
            // A completion event raised before the CQs went may still be running on the interrupt
            // thread; the CqEvents it touches live until this returns.
            marlix::kernel::irq_sync();
        }
    }

    const ulp_funcs_t *funcs_;
    void *hca_ = nullptr;
    uint32_t pd_ = 0, l_key_ = 0, r_key_ = 0;
    std::vector<void *> qps_, cqs_;
    std::vector<uint64_t> ahs_, mrs_;
    int operation_type_ = 0;  // every QP of a test has the same transport
};

}  // namespace

std::unique_ptr<Endpoint> make_adaptor_endpoint(std::string &why_not) {
    const ulp_funcs_t *funcs = ulp_find_provider(kProvider);
    if (!funcs) {
        why_not =
            "The provider \"mlx\" is not registered: load the adaptor module first (insmod adaptor-mlx), "
            "or run the test on VAPI with --direct";
        return nullptr;
    }
    return std::make_unique<AdaptorEndpoint>(funcs);
}

}  // namespace marlix::perftest
