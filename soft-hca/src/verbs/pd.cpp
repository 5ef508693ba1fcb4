// Protection domains.
#include "device/device.hpp"

using namespace marlix::softhca;

namespace {

VAPI_ret_t alloc_pd(Device &dev, u_int32_t max_num_avs, VAPI_pd_hndl_t *pd_hndl_p) {
    if (!pd_hndl_p) return VAPI_EINVAL_PARAM;
    // The PD's address-handle limit is its own; it cannot exceed what the device holds at all.
    // A limit of 0 is accepted and means the PD takes no address handles.
    if (max_num_avs > dev.cap.max_ah_num) return VAPI_EINVAL_PARAM;
    if (dev.pds.size() >= dev.cap.max_pd_num) return VAPI_EOL;
    auto pd = std::make_unique<Pd>();
    pd->max_num_avs = max_num_avs;
    VAPI_pd_hndl_t h = dev.pd_handles.allocate();
    dev.pds[h] = std::move(pd);
    *pd_hndl_p = h;
    return VAPI_OK;
}

}  // namespace

extern "C" {

VAPI_ret_t EVAPI_alloc_pd(VAPI_hca_hndl_t hca_hndl, u_int32_t max_num_avs, VAPI_pd_hndl_t *pd_hndl_p) {
    Call call(Verb::EVAPI_alloc_pd, hca_hndl);
    if (call.failed()) return call.status();
    return alloc_pd(call.dev(), max_num_avs, pd_hndl_p);
}

VAPI_ret_t VAPI_alloc_pd(VAPI_hca_hndl_t hca_hndl, VAPI_pd_hndl_t *pd_hndl_p) {
    Call call(Verb::VAPI_alloc_pd, hca_hndl);
    if (call.failed()) return call.status();
    return alloc_pd(call.dev(), call.dev().cap.max_ah_num, pd_hndl_p);
}

VAPI_ret_t VAPI_dealloc_pd(VAPI_hca_hndl_t hca_hndl, VAPI_pd_hndl_t pd_hndl) {
    Call call(Verb::VAPI_dealloc_pd, hca_hndl);
    if (call.failed()) return call.status();
    Device &dev = call.dev();
    Pd *pd = dev.find_pd(pd_hndl);
    if (!pd) return VAPI_EINVAL_PD_HNDL;
    if (pd->users != 0) return VAPI_EBUSY;
    dev.pds.erase(pd_hndl);
    dev.pd_handles.release(pd_hndl);
    return VAPI_OK;
}

}  // extern "C"
