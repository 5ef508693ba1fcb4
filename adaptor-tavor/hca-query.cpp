/* HCA-wide properties: the capability query (HCA open also uses it to learn the port count) and
 * HCA modify. */
#include <linux/string.h>

#include <vapi.h>

#include "adaptor-tavor.h"
#include "ox-entry-points.h"
#include "translate.h"

ox_return_t oxi_mlx_hca_query(ox_opened_hca_t *opened_hca_p, ox_hca_attrib_t *hca_attrib) {
    VAPI_hca_cap_t cap;
    VAPI_hca_vendor_t vendor;
    VAPI_ret_t stat;

    memset(&cap, 0, sizeof(cap));
    memset(&vendor, 0, sizeof(vendor));
    stat = VAPI_query_hca_cap(opened_hca_p->hca_h, &vendor, &cap);
    if (stat != VAPI_OK) {
        AD_TAVOR_ERROR("MLXAD_ERR: VAPI Fail to query mlx device with the handle: %d (mlx:%d, %s)",
                       (int)opened_hca_p->hca_h, stat, AD_TAVOR_MLX_STR);
        ox_mlx_count_vapi_failure(hca_query_indx, stat);
        return ox_return_err;
    }
    ox_mlx_hca_cap_to_ox(&cap, &vendor, hca_attrib);
    return ox_return_ok;
}

/* Applies the capability bits of the first port record. The VAPI record's flags all stay false,
 * so every capability the mask selects is written as false: that is what this call does, and
 * upper layers rely on it to clear capabilities. A caller without a port record selects none. */
ox_return_t oxi_mlx_hca_modify(ox_opened_hca_t *opened_hca_p, ox_hca_attrib_t *hca_attrib) {
    VAPI_hca_attr_t attr;
    VAPI_hca_attr_mask_t mask;
    VAPI_ret_t stat;

    if (hca_attrib->bad_p_key_count_f) AD_TAVOR_ERROR("not implemented yet");
    if (hca_attrib->bad_q_key_count_f) AD_TAVOR_ERROR("not implemented yet");

    memset(&attr, 0, sizeof(attr));
    mask = 0;
    if (hca_attrib->port_attrib_list && hca_attrib->port_attrib_list[0].port_capability_support)
        mask = ox_mlx_port_capability_to_attr_mask(hca_attrib->port_attrib_list[0].port_capability_support);

    stat = VAPI_modify_hca_attr(opened_hca_p->hca_h, hca_attrib->port_num, &attr, &mask);
    if (stat != VAPI_OK) {
        AD_TAVOR_ERROR("MLXAD_ERR: VAPI Fail to modify device attributes for device handle: %d (mlx:%d, %s)",
                       (int)opened_hca_p->hca_h, stat, AD_TAVOR_MLX_STR);
        ox_mlx_count_vapi_failure_no_ring();
        return ox_return_err;
    }
    AD_TAVOR_DEBUG("modify HCA attributes for hca_h: %d", (int)opened_hca_p->hca_h);
    return ox_return_ok;
}
