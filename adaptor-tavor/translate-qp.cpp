/* Translation of the QP attributes that the transitions and the query share: address vectors
 * (GIDs reversed) and remote access rights. */
#include <vapi.h>

#include "translate.h"

void ox_mlx_add_vec_to_vapi(const ox_add_vec_t *add_vec, VAPI_ud_av_t *av) {
    av->sl = add_vec->service_level;
    av->dlid = add_vec->dlid;
    av->src_path_bits = (u_int8_t)add_vec->source_path_bit;
    av->static_rate = add_vec->max_static_rate;
    av->grh_flag = add_vec->grh_flag;
    av->traffic_class = (u_int8_t)add_vec->global_dest.traffic_class;
    av->hop_limit = add_vec->global_dest.hope_limit;
    av->flow_label = add_vec->global_dest.flow_lable;
    av->sgid_index = (u_int8_t)add_vec->global_dest.s_gid_index;
    ox_mlx_gid_to_vapi(av->dgid, &add_vec->global_dest.d_gid);
}

void ox_mlx_add_vec_from_vapi(const VAPI_ud_av_t *av, ox_add_vec_t *add_vec) {
    add_vec->service_level = av->sl;
    add_vec->grh_flag = av->grh_flag;
    add_vec->dlid = av->dlid;
    add_vec->max_static_rate = av->static_rate;
    add_vec->source_path_bit = av->src_path_bits;
    add_vec->global_dest.flow_lable = av->flow_label;
    add_vec->global_dest.hope_limit = av->hop_limit;
    add_vec->global_dest.traffic_class = av->traffic_class;
    add_vec->global_dest.s_gid_index = av->sgid_index;
    ox_mlx_gid_from_vapi(&add_vec->global_dest.d_gid, av->dgid);
}

VAPI_rdma_atom_acl_t ox_mlx_access_to_vapi(ox_access_con_bit_mask_t access) {
    VAPI_rdma_atom_acl_t flags = 0;

    if (access & ox_access_remote_atomic) flags |= VAPI_EN_REM_ATOMIC_OP;
    if (access & ox_access_remote_read) flags |= VAPI_EN_REM_READ;
    if (access & ox_access_remote_write) flags |= VAPI_EN_REM_WRITE;
    return flags;
}

ox_access_con_bit_mask_t ox_mlx_access_from_vapi(VAPI_rdma_atom_acl_t flags) {
    ox_access_con_bit_mask_t access = 0;

    if (flags & VAPI_EN_REM_ATOMIC_OP) access |= ox_access_remote_atomic;
    if (flags & VAPI_EN_REM_READ) access |= ox_access_remote_read;
    if (flags & VAPI_EN_REM_WRITE) access |= ox_access_remote_write;
    return access;
}
