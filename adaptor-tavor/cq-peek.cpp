/* Peeking at a CQ: kept in the provider table as a placeholder. It asks VAPI whether CQ handle 0
 * holds one completion, reports a failure in the usual way, and answers ox_return_ok whatever
 * VAPI said; no caller learns anything from it. */
#include <evapi.h>

#include "adaptor-tavor.h"
#include "ox-entry-points.h"

ox_return_t oxi_mlx_peek_cq(ox_opened_hca_t *opened_hca_p, int /*NOT_IMPLEMETED*/) {
    VAPI_ret_t stat = EVAPI_peek_cq(opened_hca_p->hca_h, 0, 1);

    if (stat != VAPI_OK) {
        AD_TAVOR_ERROR("MLXAD_ERR: VAPI Fail to EVAPI_peek_cq(), hca_h: %d, (mlx:%d, %s)",
                       (int)opened_hca_p->hca_h, stat, AD_TAVOR_MLX_STR);
        ox_mlx_count_vapi_failure(tavor_peek_cq_indx, stat);
    }
    return ox_return_ok;
}
