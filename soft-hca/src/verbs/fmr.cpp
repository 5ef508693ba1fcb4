// Fast memory regions: allocated once in a PD, then mapped onto a page list (with new keys every
// time) and unmapped cheaply.
#include "device/device.hpp"

using namespace marlix::softhca;

namespace marlix::softhca {
VAPI_ret_t check_acl(VAPI_mrw_acl_t acl);
}

namespace {

void unmap(Device &dev, Fmr &f) {
    if (f.mapped) dev.remove_keys(f.region);
    f.mapped = false;
    f.maps_since_unmap = 0;
}

}  // namespace

extern "C" {

VAPI_ret_t EVAPI_alloc_fmr(VAPI_hca_hndl_t hca_hndl, const EVAPI_fmr_t *fmr_props_p,
                           EVAPI_fmr_hndl_t *fmr_hndl_p) {
    Call call(Verb::EVAPI_alloc_fmr, hca_hndl);
    if (call.failed()) return call.status();
    Device &dev = call.dev();
    if (!fmr_props_p || !fmr_hndl_p) return VAPI_EINVAL_PARAM;
    const EVAPI_fmr_t props = *fmr_props_p;
    Pd *pd = dev.find_pd(props.pd_hndl);
    if (!pd) return VAPI_EINVAL_PD_HNDL;
    if (VAPI_ret_t st = check_acl(props.acl)) return st;
    if (props.max_pages == 0 || props.log2_page_sz < 12 || props.log2_page_sz > 31) return VAPI_EINVAL_PARAM;
    if (props.max_outstanding_maps == 0 || props.max_outstanding_maps > dev.cap.max_num_map_per_fmr)
        return VAPI_EINVAL_PARAM;
    if (dev.fmrs.size() >= dev.cap.max_num_fmr) return VAPI_EOL;
    auto f = std::make_unique<Fmr>();
    f->props = props;
    f->key_index = dev.allocate_key_index();
    ++pd->users;
    EVAPI_fmr_hndl_t h = dev.fmr_handles.allocate();
    dev.fmrs[h] = std::move(f);
    *fmr_hndl_p = h;
    return VAPI_OK;
}

VAPI_ret_t EVAPI_map_fmr(VAPI_hca_hndl_t hca_hndl, EVAPI_fmr_hndl_t fmr_hndl, const EVAPI_fmr_map_t *map_p,
                         VAPI_lkey_t *l_key_p, VAPI_rkey_t *r_key_p) {
    Call call(Verb::EVAPI_map_fmr, hca_hndl);
    if (call.failed()) return call.status();
    Device &dev = call.dev();
    auto it = dev.fmrs.find(fmr_hndl);
    if (it == dev.fmrs.end()) return VAPI_EINVAL_FMR_HNDL;
    Fmr &f = *it->second;
    if (!map_p || !l_key_p || !r_key_p) return VAPI_EINVAL_PARAM;
    const EVAPI_fmr_map_t map = *map_p;
    const uint64_t page = uint64_t(1) << f.props.log2_page_sz;
    if (map.page_array_len == 0 || map.page_array_len > f.props.max_pages || !map.page_array)
        return VAPI_EINVAL_PARAM;
    for (u_int32_t i = 0; i < map.page_array_len; ++i)
        if (map.page_array[i] % page != 0) return VAPI_EINVAL_PARAM;
    const uint64_t offset = map.start & (page - 1);
    if (map.size == 0 || map.size > uint64_t(map.page_array_len) * page - offset) return VAPI_EINVAL_LEN;
    if (map.start + map.size < map.start) return VAPI_EINVAL_VA;
    // Remapping without an unmap is allowed up to the FMR's limit of outstanding maps.
    if (f.maps_since_unmap >= f.props.max_outstanding_maps) return VAPI_EOL;

    if (f.mapped) dev.remove_keys(f.region);
    Region &r = f.region;
    r = Region{};
    r.type = VAPI_MPR;
    r.pd = f.props.pd_hndl;
    r.acl = f.props.acl;
    r.start = map.start;
    r.size = map.size;
    r.physical = true;
    for (u_int32_t i = 0; i < map.page_array_len; ++i) r.bufs.push_back({map.page_array[i], page});
    r.offset = offset;
    dev.set_keys(r, f.key_index, ++f.key_gen);  // a new key for every map
    dev.add_keys(r);
    f.mapped = true;
    ++f.maps_since_unmap;
    *l_key_p = r.lkey;
    *r_key_p = r.rkey;
    return VAPI_OK;
}

VAPI_ret_t EVAPI_unmap_fmr(VAPI_hca_hndl_t hca_hndl, u_int32_t num_of_fmrs_to_unmap,
                           const EVAPI_fmr_hndl_t *fmr_hndl_array) {
    Call call(Verb::EVAPI_unmap_fmr, hca_hndl);
    if (call.failed()) return call.status();
    Device &dev = call.dev();
    if (num_of_fmrs_to_unmap > 0 && !fmr_hndl_array) return VAPI_EINVAL_PARAM;
    // All or nothing: every handle is checked before any FMR is unmapped.
    for (u_int32_t i = 0; i < num_of_fmrs_to_unmap; ++i)
        if (!dev.fmrs.count(fmr_hndl_array[i])) return VAPI_EINVAL_FMR_HNDL;
    for (u_int32_t i = 0; i < num_of_fmrs_to_unmap; ++i) unmap(dev, *dev.fmrs[fmr_hndl_array[i]]);
    return VAPI_OK;
}

VAPI_ret_t EVAPI_free_fmr(VAPI_hca_hndl_t hca_hndl, EVAPI_fmr_hndl_t fmr_hndl) {
    Call call(Verb::EVAPI_free_fmr, hca_hndl);
    if (call.failed()) return call.status();
    Device &dev = call.dev();
    auto it = dev.fmrs.find(fmr_hndl);
    if (it == dev.fmrs.end()) return VAPI_EINVAL_FMR_HNDL;
    Fmr &f = *it->second;
    if (f.mapped) return VAPI_EBUSY;  // unmap first: a peer may still hold its keys
    dev.release_key_index(f.key_index);
    if (Pd *pd = dev.find_pd(f.props.pd_hndl)) --pd->users;
    dev.fmrs.erase(it);
    dev.fmr_handles.release(fmr_hndl);
    return VAPI_OK;
}

}  // extern "C"
