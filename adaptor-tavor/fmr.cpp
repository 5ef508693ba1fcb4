/* Fast memory regions: allocate, map, unmap and free, each one EVAPI call. The adaptor keeps no
 * record and counts nothing on success; the FMR handle is EVAPI's own. The access mask is EVAPI's
 * own bits and travels unchanged. */
#include <linux/string.h>

#include <evapi.h>

#include "adaptor-tavor.h"
#include "ox-entry-points.h"

ox_return_t oxi_mlx_alloc_fmr(ox_opened_hca_t *opened_hca_p, ox_fmr_t *fmr_props, ox_fmr_h_t *fmr_h) {
    EVAPI_fmr_t props;
    VAPI_ret_t stat;

    memset(&props, 0, sizeof(props));
    props.pd_hndl = fmr_props->pd_hndl;
    props.acl = fmr_props->acl;
    props.max_pages = fmr_props->max_pages;
    props.log2_page_sz = fmr_props->log2_page_sz;
    props.max_outstanding_maps = fmr_props->max_outstanding_maps;

    stat = EVAPI_alloc_fmr(opened_hca_p->hca_h, &props, (EVAPI_fmr_hndl_t *)fmr_h);
    if (stat != VAPI_OK) {
        AD_TAVOR_ERROR("MLXAD_ERR: VAPI Fail to EVAPI_alloc_fmr(), hca_h: %d, (mlx:%d, %s)",
                       (int)opened_hca_p->hca_h, stat, AD_TAVOR_MLX_STR);
        ox_mlx_count_vapi_failure(tavor_alloc_fmr_indx, stat);
        return ox_return_err;
    }
    return ox_return_ok;
}

ox_return_t oxi_mlx_map_fmr(ox_opened_hca_t *opened_hca_p, ox_fmr_h_t fmr_h, ox_fmr_map_t *map,
                            ox_l_key_t *l_key, ox_r_key_t *r_key) {
    EVAPI_fmr_map_t vapi_map;
    VAPI_ret_t stat;

    memset(&vapi_map, 0, sizeof(vapi_map));
    vapi_map.start = (VAPI_virt_addr_t)(unsigned long)map->start;
    vapi_map.size = map->size;
    vapi_map.page_array_len = map->page_array_len;
    vapi_map.page_array = (VAPI_phy_addr_t *)map->page_array;

    stat = EVAPI_map_fmr(opened_hca_p->hca_h, (EVAPI_fmr_hndl_t)fmr_h, &vapi_map, l_key, r_key);
    if (stat != VAPI_OK) {
        AD_TAVOR_ERROR("MLXAD_ERR: VAPI Fail to EVAPI_map_fmr(), hca_h: %d, (mlx:%d, %s)",
                       (int)opened_hca_p->hca_h, stat, AD_TAVOR_MLX_STR);
        ox_mlx_count_vapi_failure(tavor_map_fmr_indx, stat);
        return ox_return_err;
    }
    return ox_return_ok;
}

ox_return_t oxi_mlx_unmap_fmr(ox_opened_hca_t *opened_hca_p, u32 num_to_unmap, ox_fmr_h_t *fmr_h_array_p) {
    VAPI_ret_t stat =
        EVAPI_unmap_fmr(opened_hca_p->hca_h, num_to_unmap, (const EVAPI_fmr_hndl_t *)fmr_h_array_p);

    if (stat != VAPI_OK) {
        AD_TAVOR_ERROR("MLXAD_ERR: VAPI Fail to EVAPI_unmap_fmr(), hca_h: %d, (mlx:%d, %s)",
                       (int)opened_hca_p->hca_h, stat, AD_TAVOR_MLX_STR);
        ox_mlx_count_vapi_failure(tavor_unmap_fmr_indx, stat);
        return ox_return_err;
    }
    return ox_return_ok;
}

ox_return_t oxi_mlx_free_fmr(ox_opened_hca_t *opened_hca_p, ox_fmr_h_t fmr_h) {
    VAPI_ret_t stat = EVAPI_free_fmr(opened_hca_p->hca_h, (EVAPI_fmr_hndl_t)fmr_h);

    if (stat != VAPI_OK) {
        AD_TAVOR_ERROR("MLXAD_ERR: VAPI Fail to EVAPI_free_fmr(), hca_h: %d, (mlx:%d, %s)",
                       (int)opened_hca_p->hca_h, stat, AD_TAVOR_MLX_STR);
        ox_mlx_count_vapi_failure(tavor_free_fmr_indx, stat);
        return ox_return_err;
    }
    return ox_return_ok;
}
