/* Address handles of unreliable-datagram sends: create, modify, query and destroy.
 *
 * The handle VAPI returns is the caller's handle as it is (both are 64-bit); the adaptor keeps no
 * record of its own and only counts live handles. The number of handles per PD is VAPI's bound,
 * set when the PD was allocated; exceeding it is a failed create like any other. */
#include <vapi.h>

#include "adaptor-tavor.h"
#include "ox-entry-points.h"
#include "translate-address-vector.h"

#define OX_MLX_AV_DUMP_FMT                                                                              \
    " dgid[0]: %d, dlid: %d,\n flow_label: %d, grh_flag: %d, hop_limit: %d,\n sgid_index: %d, sl: %d, " \
    "src_path_bits: %d,\n static_rate: %d, traffic_class: %d"
#define OX_MLX_AV_DUMP_ARGS(av)                                                                       \
    (int)(av).dgid[0], (int)(av).dlid, (int)(av).flow_label, (int)(av).grh_flag, (int)(av).hop_limit, \
        (int)(av).sgid_index, (int)(av).sl, (int)(av).src_path_bits, (int)(av).static_rate,           \
        (int)(av).traffic_class

ox_return_t oxi_mlx_address_hndl_create(ox_opened_hca_t *opened_hca_p, ox_pd_h_t pd_h, ox_add_vec_t *add_vec,
                                        ox_add_h_t *add_h) {
    VAPI_ud_av_t av;
    VAPI_ret_t stat;

    ox_mlx_ah_av_to_vapi(add_vec, &av);
    AD_TAVOR_DEBUG("take from user: av.port = %d", (int)av.port);
    AD_TAVOR_DEBUG("going to VAPI_create_addr_hndl:\n" OX_MLX_AV_DUMP_FMT, OX_MLX_AV_DUMP_ARGS(av));
    AD_TAVOR_DEBUG("MLX ah is 64bit");

    stat = VAPI_create_addr_hndl(opened_hca_p->hca_h, (VAPI_pd_hndl_t)pd_h, &av, (VAPI_ud_av_hndl_t *)add_h);
    if (stat != VAPI_OK) {
        AD_TAVOR_ERROR("MLXAD_ERR: VAPI Fail to create address handle, hca_h: %d (mlx:%d, %s)",
                       (int)opened_hca_p->hca_h, stat, AD_TAVOR_MLX_STR);
        ox_mlx_count_vapi_failure(address_hndl_create_indx, stat);
        return ox_return_err;
    }
    AD_TAVOR_DEBUG("Create new AH: %p", (void *)(unsigned long)*add_h);
    g_stat.ah_num++;
    g_stat.last_ah_num++;
    return ox_return_ok;
}

ox_return_t oxi_mlx_address_hndl_modify(ox_opened_hca_t *opened_hca_p, ox_add_h_t add_h,
                                        ox_add_vec_t *add_vec) {
    VAPI_ud_av_t av;
    VAPI_ret_t stat;

    ox_mlx_ah_av_to_vapi(add_vec, &av);
    AD_TAVOR_DEBUG("take from user: av.port = %d", (int)av.port);

    stat = VAPI_modify_addr_hndl(opened_hca_p->hca_h, (VAPI_ud_av_hndl_t)add_h, &av);
    if (stat != VAPI_OK) {
        AD_TAVOR_ERROR("MLXAD_ERR: VAPI Fail to modify address handle, hca_h: %d, add_h: %d (mlx:%d, %s)",
                       (int)opened_hca_p->hca_h, (int)add_h, stat, AD_TAVOR_MLX_STR);
        ox_mlx_count_vapi_failure(address_hndl_modify_indx, stat);
        return ox_return_err;
    }
    return ox_return_ok;
}

/* The PD output is not written: VAPI's query does not report the handle's PD, and the adaptor
 * keeps no record that would. */
ox_return_t oxi_mlx_address_hndl_query(ox_opened_hca_t *opened_hca_p, ox_add_h_t add_h, ox_add_vec_t *add_vec,
                                       ox_pd_h_t * /*pd_h*/) {
    VAPI_ud_av_t av;
    VAPI_ret_t stat;

    memset(&av, 0, sizeof(av));
    stat = VAPI_query_addr_hndl(opened_hca_p->hca_h, (VAPI_ud_av_hndl_t)add_h, &av);
    if (stat != VAPI_OK) {
        AD_TAVOR_ERROR("MLXAD_ERR: VAPI Fail to query address handle, hca_h: %d, add_h: %d (mlx:%d, %s)",
                       (int)opened_hca_p->hca_h, (int)add_h, stat, AD_TAVOR_MLX_STR);
        ox_mlx_count_vapi_failure(address_hndl_query_indx, stat);
        return ox_return_err;
    }
    AD_TAVOR_DEBUG("after VAPI mlx param:" OX_MLX_AV_DUMP_FMT ",\n port: %d", OX_MLX_AV_DUMP_ARGS(av),
                   (int)av.port);
    ox_mlx_ah_av_from_vapi(&av, add_vec);
    AD_TAVOR_DEBUG(
        "after VAPI ox param: dgid: %d, dlid: %d,\n flow_lable: %d, grh_flag: %d, hope_limit: %d,\n "
        "s_gid_index: "
        "%d, service_level: %d, source_path_bit: %d,\n max_static_rate: %d, traffic_class: %d, phy_port_num: "
        "%d",
        (int)add_vec->global_dest.d_gid.gid[0], (int)add_vec->dlid, (int)add_vec->global_dest.flow_lable,
        (int)add_vec->grh_flag, (int)add_vec->global_dest.hope_limit, (int)add_vec->global_dest.s_gid_index,
        (int)add_vec->service_level, (int)add_vec->source_path_bit, (int)add_vec->max_static_rate,
        (int)add_vec->global_dest.traffic_class, (int)add_vec->phy_port_num);
    return ox_return_ok;
}

ox_return_t oxi_mlx_address_hndl_destroy(ox_opened_hca_t *opened_hca_p, ox_add_h_t add_h) {
    VAPI_ret_t stat = VAPI_destroy_addr_hndl(opened_hca_p->hca_h, (VAPI_ud_av_hndl_t)add_h);

    if (stat != VAPI_OK) {
        AD_TAVOR_ERROR("MLXAD_ERR: VAPI Fail to destroy address handle, hca_h: %d, add_h: %d (mlx:%d, %s)",
                       (int)opened_hca_p->hca_h, (int)add_h, stat, AD_TAVOR_MLX_STR);
        ox_mlx_count_vapi_failure(address_hndl_destroy_indx, stat);
        return ox_return_err;
    }
    AD_TAVOR_DEBUG("Destroy add_h: %d, for hca_h: %d", (int)add_h, (int)opened_hca_p->hca_h);
    g_stat.ah_num--;
    g_stat.last_ah_num--;
    return ox_return_ok;
}
