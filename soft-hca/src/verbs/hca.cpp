// HCA-level verbs: finding, opening and closing a device, capability and port queries, port
// attributes, and the asynchronous event handler.
#include <cstring>

#include "device/device.hpp"
#include "device/limits.hpp"
#include "fabric/fabric.hpp"

using namespace marlix::softhca;

namespace {

using namespace limits;

// A device name from a 32-byte identifier that need not be NUL-terminated.
std::string id_string(const char *id) {
    return id ? std::string(id, strnlen(id, sizeof(VAPI_hca_id_t))) : "";
}

}  // namespace

extern "C" {

VAPI_ret_t EVAPI_list_hcas(u_int32_t hca_id_buf_sz, u_int32_t *num_of_hcas_p, VAPI_hca_id_t *hca_id_buf_p) {
    Call call(Verb::EVAPI_list_hcas, "*", ByName{});
    if (call.failed()) return call.status();
    if (!num_of_hcas_p || (hca_id_buf_sz > 0 && !hca_id_buf_p)) return VAPI_EINVAL_PARAM;
    std::vector<Device *> devs = devices();
    *num_of_hcas_p = u_int32_t(devs.size());
    for (size_t i = 0; i < devs.size() && i < hca_id_buf_sz; ++i) {
        std::memset(hca_id_buf_p[i], 0, sizeof(VAPI_hca_id_t));
        std::strncpy(hca_id_buf_p[i], devs[i]->name.c_str(), sizeof(VAPI_hca_id_t) - 1);
    }
    return devs.size() > hca_id_buf_sz ? VAPI_EAGAIN : VAPI_OK;
}

VAPI_ret_t VAPI_open_hca(const VAPI_hca_id_t hca_id, VAPI_hca_hndl_t *hca_hndl_p) {
    std::string name = id_string(hca_id);
    Call call(Verb::VAPI_open_hca, name, ByName{});
    if (call.failed()) return call.status();
    if (!hca_hndl_p) return VAPI_EINVAL_PARAM;
    Device *dev = call.dev_ptr();
    if (!dev) return VAPI_EINVAL_HCA_ID;
    std::lock_guard lk(dev->mu);
    if (dev->open) return VAPI_EBUSY_HCA;
    dev->event_gate = std::make_shared<EventGate>();
    // Opening initialises the adapter: its ports count from zero again.
    for (Port &p : dev->ports) p.reset_counters();
    dev->sends_posted = false;
    dev->open = true;
    dev->borrowed = 0;
    *hca_hndl_p = dev->hndl;
    return VAPI_OK;
}

VAPI_ret_t EVAPI_get_hca_hndl(const VAPI_hca_id_t hca_id, VAPI_hca_hndl_t *hca_hndl_p) {
    std::string name = id_string(hca_id);
    Call call(Verb::EVAPI_get_hca_hndl, name, ByName{});
    if (call.failed()) return call.status();
    if (!hca_hndl_p) return VAPI_EINVAL_PARAM;
    Device *dev = call.dev_ptr();
    if (!dev) return VAPI_EINVAL_HCA_ID;
    std::lock_guard lk(dev->mu);
    if (!dev->open) return VAPI_EINVAL_HCA_ID;  // only an open device can be borrowed
    ++dev->borrowed;
    *hca_hndl_p = dev->hndl;
    return VAPI_OK;
}

VAPI_ret_t EVAPI_release_hca_hndl(VAPI_hca_hndl_t hca_hndl) {
    Call call(Verb::EVAPI_release_hca_hndl, hca_hndl);
    if (call.failed()) return call.status();
    Device &dev = call.dev();
    // A release without a borrow would hide a caller's bookkeeping error: refuse it.
    if (dev.borrowed == 0) return VAPI_EINVAL_HCA_HNDL;
    --dev.borrowed;
    return VAPI_OK;
}

VAPI_ret_t VAPI_close_hca(VAPI_hca_hndl_t hca_hndl) {
    Call call(Verb::VAPI_close_hca, hca_hndl);
    if (call.failed()) return call.status();
    Device &dev = call.dev();
    // No event of this opening runs once close returns: the device's gate and those of the QPs
    // and CQs still alive close now, and are waited on once the device mutex is released.
    std::vector<EventGateRef> gates = dev.event_gates();
    for (const EventGateRef &g : gates) g->close();
    dev.release_all();
    dev.open = false;
    dev.borrowed = 0;
    call.unlock();
    for (const EventGateRef &g : gates) g->wait_idle();
    return VAPI_OK;
}

VAPI_ret_t VAPI_query_hca_cap(VAPI_hca_hndl_t hca_hndl, VAPI_hca_vendor_t *hca_vendor_p,
                              VAPI_hca_cap_t *hca_cap_p) {
    Call call(Verb::VAPI_query_hca_cap, hca_hndl);
    if (call.failed()) return call.status();
    if (!hca_vendor_p || !hca_cap_p) return VAPI_EINVAL_PARAM;
    *hca_vendor_p = call.dev().vendor;
    *hca_cap_p = call.dev().cap;
    return VAPI_OK;
}

VAPI_ret_t VAPI_query_hca_port_prop(VAPI_hca_hndl_t hca_hndl, IB_port_t port_num,
                                    VAPI_hca_port_t *hca_port_p) {
    Call call(Verb::VAPI_query_hca_port_prop, hca_hndl);
    if (call.failed()) return call.status();
    Port *p = call.dev().port(port_num);
    if (!p) return VAPI_EINVAL_PORT;
    if (!hca_port_p) return VAPI_EINVAL_PARAM;
    VAPI_hca_port_t r{};
    r.max_mtu = MTU2048;
    r.max_msg_sz = 0x80000000u;
    r.lid = p->lid;
    r.lmc = p->lmc;
    r.state = p->state;
    r.capability_mask = p->capability_mask;
    r.max_vl_num = 8;
    r.bad_pkey_counter = p->bad_pkey_counter;
    r.qkey_viol_counter = p->qkey_viol_counter;
    r.sm_lid = p->sm_lid;
    r.sm_sl = p->sm_sl;
    r.pkey_tbl_len = kPkeyTableLen;
    r.gid_tbl_len = kGidTableLen;
    r.subnet_timeout = 18;
    r.initTypeReply = 0;
    *hca_port_p = r;
    return VAPI_OK;
}

VAPI_ret_t VAPI_query_hca_gid_tbl(VAPI_hca_hndl_t hca_hndl, IB_port_t port_num, u_int16_t tbl_len_in,
                                  u_int16_t *tbl_len_out, IB_gid_t *gid_tbl_p) {
    Call call(Verb::VAPI_query_hca_gid_tbl, hca_hndl);
    if (call.failed()) return call.status();
    Port *p = call.dev().port(port_num);
    if (!p) return VAPI_EINVAL_PORT;
    if (!tbl_len_out) return VAPI_EINVAL_PARAM;
    *tbl_len_out = kGidTableLen;
    if (tbl_len_in < kGidTableLen) return VAPI_EAGAIN;
    if (!gid_tbl_p) return VAPI_EINVAL_PARAM;
    for (unsigned i = 0; i < kGidTableLen; ++i) p->gid(i, gid_tbl_p[i]);
    return VAPI_OK;
}

VAPI_ret_t VAPI_query_hca_pkey_tbl(VAPI_hca_hndl_t hca_hndl, IB_port_t port_num, u_int16_t tbl_len_in,
                                   u_int16_t *tbl_len_out, VAPI_pkey_t *pkey_tbl_p) {
    Call call(Verb::VAPI_query_hca_pkey_tbl, hca_hndl);
    if (call.failed()) return call.status();
    Port *p = call.dev().port(port_num);
    if (!p) return VAPI_EINVAL_PORT;
    if (!tbl_len_out) return VAPI_EINVAL_PARAM;
    *tbl_len_out = kPkeyTableLen;
    if (tbl_len_in < kPkeyTableLen) return VAPI_EAGAIN;
    if (!pkey_tbl_p) return VAPI_EINVAL_PARAM;
    for (unsigned i = 0; i < kPkeyTableLen; ++i) pkey_tbl_p[i] = p->pkeys[i];
    return VAPI_OK;
}

VAPI_ret_t VAPI_modify_hca_attr(VAPI_hca_hndl_t hca_hndl, IB_port_t port_num,
                                const VAPI_hca_attr_t *hca_attr_p,
                                const VAPI_hca_attr_mask_t *hca_attr_mask_p) {
    Call call(Verb::VAPI_modify_hca_attr, hca_hndl);
    if (call.failed()) return call.status();
    Port *p = call.dev().port(port_num);
    if (!p) return VAPI_EINVAL_PORT;
    if (!hca_attr_p || !hca_attr_mask_p) return VAPI_EINVAL_PARAM;
    VAPI_hca_attr_mask_t mask = *hca_attr_mask_p;
    if (mask & ~VAPI_hca_attr_mask_t(HCA_ATTR_MAX - 1)) return VAPI_EINVAL_ATTR;
    auto apply = [&](VAPI_hca_attr_mask_t bit, MT_bool value, IB_port_cap_mask_t cap_bit) {
        if (!(mask & bit)) return;
        if (value)
            p->capability_mask |= cap_bit;
        else
            p->capability_mask &= ~cap_bit;
    };
    apply(HCA_ATTR_IS_SM, hca_attr_p->is_sm, IB_CAP_MASK_IS_SM);
    apply(HCA_ATTR_IS_SNMP_TUN_SUP, hca_attr_p->is_snmp_tun_sup, IB_CAP_MASK_IS_SNMP_TUNN_SUP);
    apply(HCA_ATTR_IS_DEV_MGT_SUP, hca_attr_p->is_dev_mgt_sup, IB_CAP_MASK_IS_DEVICE_MGMT_SUP);
    apply(HCA_ATTR_IS_VENDOR_CLS_SUP, hca_attr_p->is_vendor_cls_sup, IB_CAP_MASK_IS_VENDOR_CLS_SUP);
    if ((mask & HCA_ATTR_RESET_QKEY_COUNTER) && hca_attr_p->reset_qkey_counter) p->qkey_viol_counter = 0;
    return VAPI_OK;
}

VAPI_ret_t VAPI_set_async_event_handler(VAPI_hca_hndl_t hca_hndl, VAPI_async_event_handler_t handler,
                                        void *private_data) {
    Call call(Verb::VAPI_set_async_event_handler, hca_hndl);
    if (call.failed()) return call.status();
    call.dev().async_handler = handler;
    call.dev().async_private = handler ? private_data : nullptr;
    return VAPI_OK;
}

}  // extern "C"
