/* Protection domains: allocate (sized for oxi_mlx_max_ah_per_pd address handles) and release.
 * The HCA's generic PD is released only by HCA close. Neither call writes the ring of last VAPI
 * errors: a PD failure is counted, not recorded. */
#include <vapi.h>
#include <evapi.h>

#include "adaptor-tavor.h"
#include "ox-entry-points.h"

ox_return_t oxi_mlx_pd_allocate(ox_opened_hca_t *opened_hca_p, ox_pd_h_t *pd_h) {
    /* VAPI's PD handle is wider than the generic one, which keeps its low 32 bits. */
    VAPI_pd_hndl_t vapi_pd_h = 0;
    VAPI_ret_t stat;

    AD_TAVOR_DEBUG("MLX pd_h is 64bit");
    stat = EVAPI_alloc_pd(opened_hca_p->hca_h, (u_int32_t)oxi_mlx_max_ah_per_pd, &vapi_pd_h);
    if (stat != VAPI_OK) {
        AD_TAVOR_ERROR("MLXAD_ERR: VAPI Fail to allocate PD, hca_h: %d (mlx:%d, %s)",
                       (int)opened_hca_p->hca_h, stat, AD_TAVOR_MLX_STR);
        ox_mlx_count_vapi_failure_no_ring();
        return ox_return_err;
    }
    *pd_h = (ox_pd_h_t)vapi_pd_h;
    AD_TAVOR_DEBUG("New pd_h: %d, hca_h: %d", (int)*pd_h, (int)opened_hca_p->hca_h);
    g_stat.pd_num++;
    g_stat.last_pd_num++;
    return ox_return_ok;
}

ox_return_t oxi_mlx_pd_deallocate(ox_opened_hca_t *opened_hca_p, ox_pd_h_t pd_h) {
    VAPI_ret_t stat;

    if (pd_h == opened_hca_p->generic_pd_h) {
        AD_TAVOR_ERROR("The application is trying to destroy generic PD");
        ox_mlx_count_error();
        return ox_return_err;
    }
    stat = VAPI_dealloc_pd(opened_hca_p->hca_h, (VAPI_pd_hndl_t)pd_h);
    if (stat != VAPI_OK) {
        AD_TAVOR_ERROR("MLXAD_ERR: VAPI Fail to de-allocate PD, The hca_h: %d (mlx:%d, %s)",
                       (int)opened_hca_p->hca_h, stat, AD_TAVOR_MLX_STR);
        ox_mlx_count_vapi_failure_no_ring();
        return ox_return_err;
    }
    g_stat.pd_num--;
    g_stat.last_pd_num--;
    AD_TAVOR_DEBUG("dealloc pd_h: %d, hca_h: %d, PD global statistic: %d", (int)pd_h,
                   (int)opened_hca_p->hca_h, (int)g_stat.pd_num);
    return ox_return_ok;
}
