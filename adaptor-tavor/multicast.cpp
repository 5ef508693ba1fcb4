/* Attaching a QP to a multicast group and detaching it. The group's GID is handed to VAPI with
 * its bytes reversed, as every GID is. mg_num counts attachments, not groups. */
#include <vapi.h>

#include "adaptor-tavor.h"
#include "ox-entry-points.h"
#include "translate.h"

ox_return_t oxi_mlx_qp_attach_to_multicast(ox_opened_hca_t *opened_hca_p, ox_lid_t mg_dlid,
                                           ox_gid_t mg_gid_address, ox_qp_h_t qp_h) {
    ox_opened_qp_t *qp = (ox_opened_qp_t *)qp_h;
    IB_gid_t mcg_dgid;
    VAPI_ret_t stat;

    AD_TAVOR_DEBUG("user qp h: %p, vend qp h: %p", (void *)qp, qp->qp_h);
    AD_TAVOR_DEBUG("MG param: gid.eui64: 0x%Lu, gid.subnet: 0x%lu, dlid: %d",
                   (unsigned long long)mg_gid_address.scope.eui64, (unsigned long)mg_gid_address.scope.subnet,
                   (int)mg_dlid);
    ox_mlx_gid_to_vapi(mcg_dgid, &mg_gid_address);

    stat = VAPI_attach_to_multicast(opened_hca_p->hca_h, mcg_dgid, (VAPI_qp_hndl_t)(unsigned long)qp->qp_h,
                                    mg_dlid);
    if (stat != VAPI_OK) {
        AD_TAVOR_ERROR("MLXAD_ERR: VAPI Fail to VAPI_attach_to_multicast, hca_h: %d (mlx:%d, %s)",
                       (int)opened_hca_p->hca_h, stat, AD_TAVOR_MLX_STR);
        ox_mlx_count_vapi_failure(qp_attach_to_multicast_indx, stat);
        return ox_return_err;
    }
    AD_TAVOR_DEBUG("OK - VAPI_attach_to_multicast()");
    g_stat.mg_num++;
    g_stat.last_mg_num++;
    return ox_return_ok;
}

/* `port_num` is only logged: the QP says which port the group is on. */
ox_return_t oxi_mlx_qp_detach_from_multicast(ox_opened_hca_t *opened_hca_p, ox_lid_t mg_dlid,
                                             ox_gid_t mg_gid_address, u32 port_num, ox_qp_h_t qp_h) {
    ox_opened_qp_t *qp = (ox_opened_qp_t *)qp_h;
    IB_gid_t mcg_dgid;
    VAPI_ret_t stat;

    AD_TAVOR_DEBUG("user qp h: %p, vend qp h: %p", (void *)qp, qp->qp_h);
    AD_TAVOR_DEBUG("MG detach param: gid.eui64: 0x%Lu, gid.subnet: 0x%Lu, dlid: %d, port: %d",
                   (unsigned long long)mg_gid_address.scope.eui64,
                   (unsigned long long)mg_gid_address.scope.subnet, (int)mg_dlid, (int)port_num);
    ox_mlx_gid_to_vapi(mcg_dgid, &mg_gid_address);

    stat = VAPI_detach_from_multicast(opened_hca_p->hca_h, mcg_dgid, (VAPI_qp_hndl_t)(unsigned long)qp->qp_h,
                                      mg_dlid);
    if (stat != VAPI_OK) {
        AD_TAVOR_ERROR("MLXVAPI Fail to VAPI_detach_from_multicast, hca_h: %d (mlx:%d, %s)",
                       (int)opened_hca_p->hca_h, stat, AD_TAVOR_MLX_STR);
        ox_mlx_count_vapi_failure(qp_detach_from_multicast_indx, stat);
        return ox_return_err;
    }
    AD_TAVOR_DEBUG("OK - VAPI_detach_from_multicast()");
    g_stat.mg_num--;
    g_stat.last_mg_num--;
    return ox_return_ok;
}
