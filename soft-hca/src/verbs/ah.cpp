// Address handles: UD address vectors kept by the device, each counted against its PD's limit.
#include "device/qp.hpp"
#include "device/limits.hpp"

namespace marlix::softhca {

namespace {

using namespace limits;

struct Ah : Object {
    VAPI_pd_hndl_t pd = 0;
    VAPI_ud_av_t av{};
};

Ah *find_ah(Device &dev, VAPI_ud_av_hndl_t h) {
    auto it = dev.ahs.find(h);
    return it == dev.ahs.end() ? nullptr : static_cast<Ah *>(it->second.get());
}

VAPI_ret_t check_av(Device &dev, const VAPI_ud_av_t *av) {
    if (!av) return VAPI_EINVAL_PARAM;
    if (!dev.port(av->port)) return VAPI_EINVAL_PORT;
    if (av->sl >= 16) return VAPI_EINVAL_AH;
    // The static rate is a 3-bit inter-packet delay on this adapter.
    if (av->static_rate >= 8) return VAPI_EINVAL_AH;
    // The global route fields only matter with a GRH; without one they are not looked at.
    if (av->grh_flag) {
        if (av->sgid_index >= kGidTableLen) return VAPI_EINVAL_GID_IX;
        if (av->flow_label >= (1u << 20)) return VAPI_EINVAL_AH;
    }
    return VAPI_OK;
}

}  // namespace

const VAPI_ud_av_t *find_ah_av(Device &dev, VAPI_ud_av_hndl_t h, VAPI_pd_hndl_t *pd) {
    Ah *ah = find_ah(dev, h);
    if (!ah) return nullptr;
    if (pd) *pd = ah->pd;
    return &ah->av;
}

}  // namespace marlix::softhca

using namespace marlix::softhca;

extern "C" {

VAPI_ret_t VAPI_create_addr_hndl(VAPI_hca_hndl_t hca_hndl, VAPI_pd_hndl_t pd_hndl, const VAPI_ud_av_t *av_p,
                                 VAPI_ud_av_hndl_t *av_hndl_p) {
    Call call(Verb::VAPI_create_addr_hndl, hca_hndl);
    if (call.failed()) return call.status();
    Device &dev = call.dev();
    Pd *pd = dev.find_pd(pd_hndl);
    if (!pd) return VAPI_EINVAL_PD_HNDL;
    if (!av_hndl_p) return VAPI_EINVAL_PARAM;
    if (VAPI_ret_t rc = check_av(dev, av_p); rc != VAPI_OK) return rc;
    if (pd->num_avs >= pd->max_num_avs || dev.ahs.size() >= dev.cap.max_ah_num) return VAPI_EOL;
    auto ah = std::make_unique<Ah>();
    ah->pd = pd_hndl;
    ah->av = *av_p;
    VAPI_ud_av_hndl_t h = dev.ah_handles.allocate();
    dev.ahs[h] = std::move(ah);
    pd->num_avs++;
    pd->users++;
    *av_hndl_p = h;
    return VAPI_OK;
}

VAPI_ret_t VAPI_modify_addr_hndl(VAPI_hca_hndl_t hca_hndl, VAPI_ud_av_hndl_t av_hndl,
                                 const VAPI_ud_av_t *av_p) {
    Call call(Verb::VAPI_modify_addr_hndl, hca_hndl);
    if (call.failed()) return call.status();
    Device &dev = call.dev();
    Ah *ah = find_ah(dev, av_hndl);
    if (!ah) return VAPI_EINVAL_AV_HNDL;
    if (VAPI_ret_t rc = check_av(dev, av_p); rc != VAPI_OK) return rc;
    ah->av = *av_p;
    return VAPI_OK;
}

VAPI_ret_t VAPI_query_addr_hndl(VAPI_hca_hndl_t hca_hndl, VAPI_ud_av_hndl_t av_hndl, VAPI_ud_av_t *av_p) {
    Call call(Verb::VAPI_query_addr_hndl, hca_hndl);
    if (call.failed()) return call.status();
    Ah *ah = find_ah(call.dev(), av_hndl);
    if (!ah) return VAPI_EINVAL_AV_HNDL;
    if (!av_p) return VAPI_EINVAL_PARAM;
    *av_p = ah->av;
    return VAPI_OK;
}

VAPI_ret_t VAPI_destroy_addr_hndl(VAPI_hca_hndl_t hca_hndl, VAPI_ud_av_hndl_t av_hndl) {
    Call call(Verb::VAPI_destroy_addr_hndl, hca_hndl);
    if (call.failed()) return call.status();
    Device &dev = call.dev();
    Ah *ah = find_ah(dev, av_hndl);
    if (!ah) return VAPI_EINVAL_AV_HNDL;
    if (Pd *pd = dev.find_pd(ah->pd)) {
        pd->num_avs--;
        pd->users--;
    }
    dev.ahs.erase(av_hndl);
    dev.ah_handles.release(av_hndl);
    return VAPI_OK;
}

}  // extern "C"
