// Finding queue pairs by handle and by number.
#include "device/qp.hpp"

#include "device/limits.hpp"

namespace marlix::softhca {

using qpsm::QpKind;

Qp *find_qp(Device &dev, VAPI_qp_hndl_t qp) {
    auto it = dev.qps.find(qp);
    return it == dev.qps.end() ? nullptr : static_cast<Qp *>(it->second.get());
}

namespace {
Qp **fast_number_slot(Device &dev, const Qp &qp) {
    const VAPI_qp_num_t n = qp.qp_num;
    if (n < limits::kFirstQpNum || n - limits::kFirstQpNum >= Device::kFastQpNumbers) return nullptr;
    return &dev.qp_by_fast_number[n - limits::kFirstQpNum];
}
}  // namespace

void publish_qp(Device &dev, Qp &qp) {
    dev.qp_by_number[qp_number_key(qp.qp_num, qp.special_port)] = &qp;
    if (Qp **slot = fast_number_slot(dev, qp)) *slot = &qp;
    if (qp.hndl < Device::kFastQpHandles) dev.fast_qps[qp.hndl].store(&qp, std::memory_order_release);
}

void withdraw_qp(Device &dev, Qp &qp) {
    dev.qp_by_number.erase(qp_number_key(qp.qp_num, qp.special_port));
    if (Qp **slot = fast_number_slot(dev, qp)) *slot = nullptr;
    if (qp.hndl < Device::kFastQpHandles) dev.fast_qps[qp.hndl].store(nullptr, std::memory_order_release);
}

uint32_t qp_number_key(VAPI_qp_num_t qp_num, IB_port_t port) {
    // QP0 and QP1 exist once per port; every other number once per device.
    return qp_num <= 1 ? (qp_num | uint32_t(port) << 24) : qp_num;
}

Qp *find_qp_by_num_hashed(Device &dev, VAPI_qp_num_t qp_num, IB_port_t port) {
    auto it = dev.qp_by_number.find(qp_number_key(qp_num, port));
    return it == dev.qp_by_number.end() ? nullptr : it->second;
}

}  // namespace marlix::softhca
