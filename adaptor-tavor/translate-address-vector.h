/* adaptor-mlx: address vectors of address handles, generic <-> VAPI.
 *
 * The mapping is the same in both directions; the GID's bytes are reversed each way. pmtu,
 * l_ack_timeout, retry_count and rnr_retry_count belong to connected QPs' paths: an address
 * handle neither takes nor reports them. Compiles as C and as C++. */
#ifndef AD_TAVOR_TRANSLATE_ADDRESS_VECTOR_H
#define AD_TAVOR_TRANSLATE_ADDRESS_VECTOR_H

#include <linux/string.h>

#include <vapi.h>

#include "ox-types.h"
#include "translate.h"

__BEGIN_KERNEL_DECLS

/* Generic -> VAPI; `av` is cleared first. */
static inline void ox_mlx_ah_av_to_vapi(const ox_add_vec_t *add_vec, VAPI_ud_av_t *av) {
    memset(av, 0, sizeof(*av));
    ox_mlx_gid_to_vapi(av->dgid, &add_vec->global_dest.d_gid);
    av->dlid = add_vec->dlid;
    av->flow_label = add_vec->global_dest.flow_lable;
    av->grh_flag = add_vec->grh_flag;
    av->hop_limit = add_vec->global_dest.hope_limit;
    av->sgid_index = (u_int8_t)add_vec->global_dest.s_gid_index;
    av->sl = add_vec->service_level;
    av->src_path_bits = (u_int8_t)add_vec->source_path_bit;
    av->static_rate = add_vec->max_static_rate;
    av->traffic_class = (u_int8_t)add_vec->global_dest.traffic_class;
    av->port = add_vec->phy_port_num;
}

/* VAPI -> generic; the connected-path fields of `add_vec` are left as they are. */
static inline void ox_mlx_ah_av_from_vapi(const VAPI_ud_av_t *av, ox_add_vec_t *add_vec) {
    ox_mlx_gid_from_vapi(&add_vec->global_dest.d_gid, av->dgid);
    add_vec->dlid = av->dlid;
    add_vec->global_dest.flow_lable = av->flow_label;
    add_vec->grh_flag = av->grh_flag;
    add_vec->global_dest.hope_limit = av->hop_limit;
    add_vec->global_dest.s_gid_index = av->sgid_index;
    add_vec->service_level = av->sl;
    add_vec->source_path_bit = av->src_path_bits;
    add_vec->max_static_rate = (u8)av->static_rate;
    add_vec->global_dest.traffic_class = av->traffic_class;
    add_vec->phy_port_num = av->port;
}

__END_KERNEL_DECLS

#endif
