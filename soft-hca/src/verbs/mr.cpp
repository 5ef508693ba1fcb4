// Memory regions: virtual (VAPI_MR) and physical (VAPI_MPR) registration, query, deregistration.
#include "device/device.hpp"

using namespace marlix::softhca;

namespace {

constexpr uint64_t kPage = 4096;
constexpr VAPI_mrw_acl_t kAllAcl = VAPI_EN_LOCAL_WRITE | VAPI_EN_REMOTE_WRITE | VAPI_EN_REMOTE_READ |
                                   VAPI_EN_REMOTE_ATOM | VAPI_EN_MEMREG_BIND;

}  // namespace

namespace marlix::softhca {

// Access rights as the architecture allows them: remote write and remote atomic need local write.
VAPI_ret_t check_acl(VAPI_mrw_acl_t acl) {
    if (acl & ~kAllAcl) return VAPI_EINVAL_ACL;
    if ((acl & (VAPI_EN_REMOTE_WRITE | VAPI_EN_REMOTE_ATOM)) && !(acl & VAPI_EN_LOCAL_WRITE))
        return VAPI_EINVAL_ACL;
    return VAPI_OK;
}

}  // namespace marlix::softhca

namespace {

VAPI_ret_t build_virtual(const VAPI_mrw_t &req, Region &r) {
    if (req.start == 0 || req.start + req.size < req.start) return VAPI_EINVAL_VA;
    r.physical = false;
    r.start = req.start;
    r.size = req.size;
    return VAPI_OK;
}

// A physical region's IOVA range runs through its page-aligned buffers, starting `iova_offset`
// bytes into the first; the IOVA keeps the offset's position within its page.
VAPI_ret_t build_physical(const VAPI_mrw_t &req, Region &r) {
    if (req.pbuf_list_len == 0 || !req.pbuf_list_p) return VAPI_EINVAL_PARAM;
    uint64_t total = 0;
    for (MT_size_t i = 0; i < req.pbuf_list_len; ++i) {
        const VAPI_phy_buf_t &b = req.pbuf_list_p[i];
        if (b.size == 0 || (b.start % kPage) != 0 || (b.size % kPage) != 0) return VAPI_EINVAL_PARAM;
        if (b.start + b.size < b.start || total + b.size < total) return VAPI_EINVAL_PARAM;
        total += b.size;
    }
    if (req.iova_offset >= req.pbuf_list_p[0].size) return VAPI_EINVAL_PARAM;
    if (req.size > total - req.iova_offset) return VAPI_EINVAL_LEN;
    if ((req.start % kPage) != (req.iova_offset % kPage)) return VAPI_EINVAL_VA;
    if (req.start + req.size < req.start) return VAPI_EINVAL_VA;
    r.physical = true;
    r.start = req.start;
    r.size = req.size;
    r.bufs.assign(req.pbuf_list_p, req.pbuf_list_p + req.pbuf_list_len);
    r.offset = req.iova_offset;
    return VAPI_OK;
}

void fill_reply(const Region &r, VAPI_mrw_t &rep) {
    rep = VAPI_mrw_t{};
    rep.type = r.type;
    rep.l_key = r.lkey;
    rep.r_key = r.rkey;
    rep.start = r.start;
    rep.size = r.size;
    rep.pd_hndl = r.pd;
    rep.acl = r.acl;
    rep.iova_offset = r.offset;
}

}  // namespace

extern "C" {

VAPI_ret_t VAPI_register_mr(VAPI_hca_hndl_t hca_hndl, const VAPI_mrw_t *req_mrw_p, VAPI_mr_hndl_t *mr_hndl_p,
                            VAPI_mrw_t *rep_mrw_p) {
    Call call(Verb::VAPI_register_mr, hca_hndl);
    if (call.failed()) return call.status();
    Device &dev = call.dev();
    if (!req_mrw_p || !mr_hndl_p || !rep_mrw_p) return VAPI_EINVAL_PARAM;
    const VAPI_mrw_t req = *req_mrw_p;  // the reply may share the request's storage
    if (req.type == VAPI_MW || req.type == VAPI_MSHAR) return VAPI_ENOSYS;
    if (req.type != VAPI_MR && req.type != VAPI_MPR) return VAPI_EINVAL_PARAM;
    Pd *pd = dev.find_pd(req.pd_hndl);
    if (!pd) return VAPI_EINVAL_PD_HNDL;
    if (VAPI_ret_t st = check_acl(req.acl)) return st;
    if (req.size == 0) return VAPI_EINVAL_LEN;
    if (dev.mrs.size() >= dev.cap.max_num_mr) return VAPI_EOL;

    auto mr = std::make_unique<Mr>();
    Region &r = mr->region;
    r.type = req.type;
    r.pd = req.pd_hndl;
    r.acl = req.acl;
    if (VAPI_ret_t st = req.type == VAPI_MR ? build_virtual(req, r) : build_physical(req, r)) return st;
    dev.set_keys(r, dev.allocate_key_index(), 0);
    dev.add_keys(r);
    ++pd->users;
    VAPI_mr_hndl_t h = dev.mr_handles.allocate();
    fill_reply(r, *rep_mrw_p);
    dev.mrs[h] = std::move(mr);
    *mr_hndl_p = h;
    return VAPI_OK;
}

VAPI_ret_t VAPI_query_mr(VAPI_hca_hndl_t hca_hndl, VAPI_mr_hndl_t mr_hndl, VAPI_mrw_t *rep_mrw_p,
                         VAPI_virt_addr_t *remote_start_p, VAPI_size_t *remote_size_p) {
    Call call(Verb::VAPI_query_mr, hca_hndl);
    if (call.failed()) return call.status();
    Device &dev = call.dev();
    auto it = dev.mrs.find(mr_hndl);
    if (it == dev.mrs.end()) return VAPI_EINVAL_MR_HNDL;
    if (!rep_mrw_p) return VAPI_EINVAL_PARAM;
    const Region &r = it->second->region;
    fill_reply(r, *rep_mrw_p);
    // The range a peer may address with the rkey: the whole region (null pointers are skipped).
    if (remote_start_p) *remote_start_p = r.start;
    if (remote_size_p) *remote_size_p = r.size;
    return VAPI_OK;
}

VAPI_ret_t VAPI_deregister_mr(VAPI_hca_hndl_t hca_hndl, VAPI_mr_hndl_t mr_hndl) {
    Call call(Verb::VAPI_deregister_mr, hca_hndl);
    if (call.failed()) return call.status();
    Device &dev = call.dev();
    auto it = dev.mrs.find(mr_hndl);
    if (it == dev.mrs.end()) return VAPI_EINVAL_MR_HNDL;
    Region &r = it->second->region;
    dev.remove_keys(r);
    dev.release_key_index(r.lkey >> 8);
    if (Pd *pd = dev.find_pd(r.pd)) --pd->users;
    dev.mrs.erase(it);
    dev.mr_handles.release(mr_hndl);
    return VAPI_OK;
}

}  // extern "C"
