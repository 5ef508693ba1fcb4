/* Local MAD processing: one management datagram handed to the port's agents on the adapter, the
 * answer written into the caller's buffer. Both buffers belong to the caller. The options value
 * is always 1 (the M_Key is not checked). A failure is recorded under the ring index of device
 * memory release (64), which is where the diagnostics have always looked for it. */
#include <evapi.h>

#include "adaptor-tavor.h"
#include "ox-entry-points.h"

#define OX_MLX_LOCAL_MAD_OPTIONS 1

ox_return_t oxi_mlx_process_local_mad(ox_opened_hca_t *opened_hca_p, ox_port_num_t port, ox_lid_t slid,
                                      const void *mad_in_p, void *mad_out_p) {
    VAPI_ret_t stat = EVAPI_process_local_mad(opened_hca_p->hca_h, port, slid, OX_MLX_LOCAL_MAD_OPTIONS,
                                              mad_in_p, mad_out_p);

    if (stat != VAPI_OK) {
        AD_TAVOR_ERROR("MLXAD_ERR: VAPI Fail to EVAPI_process_local_mad(), hca_h: %d, (mlx:%d, %s)",
                       (int)opened_hca_p->hca_h, stat, AD_TAVOR_MLX_STR);
        ox_mlx_count_vapi_failure(tavor_free_dev_mem_indx, stat);
        return ox_return_err;
    }
    return ox_return_ok;
}
