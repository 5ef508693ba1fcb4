/* Device memory (memory on the adapter itself) is not offered: both calls say so at ERROR and
 * count nothing. */
#include "adaptor-tavor.h"
#include "ox-entry-points.h"

ox_return_t oxi_mlx_alloc_dev_mem(ox_opened_hca_t *opened_hca_p, int NOT_IMPLEMETED) {
    AD_TAVOR_ERROR("ERROR hca_h %d, oxi_mlx_alloc_dev_mem() not suported (%d)", (int)opened_hca_p->hca_h,
                   NOT_IMPLEMETED);
    return ox_return_err_not_implemented;
}

ox_return_t oxi_mlx_free_dev_mem(ox_opened_hca_t *opened_hca_p, int NOT_IMPLEMETED) {
    AD_TAVOR_ERROR("ERROR hca_h %d, oxi_mlx_free_dev_mem() not suported (%d)", (int)opened_hca_p->hca_h,
                   NOT_IMPLEMETED);
    return ox_return_err_not_implemented;
}
