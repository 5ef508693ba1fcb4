/* Port properties and the port's GID and partition (P_Key) tables.
 *
 * The table reads size their buffer by the port's own table length, ask VAPI for the whole table,
 * and copy as many entries as the caller has room for; the buffer is released on every path. */
#include <linux/slab.h>
#include <linux/string.h>

#include <vapi.h>

#include "adaptor-tavor.h"
#include "ox-entry-points.h"
#include "translate.h"

/* The message size upper layers are told while the HCA has no single generic region. */
#define AD_TAVOR_ADAPTED_MESSAGE_SIZE 0x10000

ox_return_t oxi_mlx_port_query(ox_opened_hca_t *opened_hca_p, ox_port_num_t port_num,
                               ox_port_attrib_t *port_attrib) {
    VAPI_hca_port_t port;
    VAPI_ret_t stat;

    memset(&port, 0, sizeof(port));
    stat = VAPI_query_hca_port_prop(opened_hca_p->hca_h, (IB_port_t)(port_num & 0xff), &port);
    if (stat != VAPI_OK) {
        AD_TAVOR_ERROR("MLXAD_ERR: VAPI Fail to query mlx device (hca_h: %d) port number %d",
                       (int)opened_hca_p->hca_h, (int)port_num);
        ox_mlx_count_vapi_failure(port_query_indx, stat);
        return ox_return_err;
    }
    ox_mlx_port_to_ox(&port, port_num, port_attrib);
    /* HCA open leaves num_of_gen_mem_reg at 0, so callers see the adapted size. */
    if (opened_hca_p->num_of_gen_mem_reg != 1) {
        AD_TAVOR_FUNC("adapt message size considerations");
        port_attrib->port_message_size = AD_TAVOR_ADAPTED_MESSAGE_SIZE;
    } else {
        AD_TAVOR_FUNC("1 gen MR - no adapt message size considerations");
        port_attrib->port_message_size = port.max_msg_sz;
    }
    return ox_return_ok;
}

ox_return_t oxi_mlx_get_port_gid_tbl(ox_opened_hca_t *opened_hca_p, ox_port_num_t port_num,
                                     u32 *port_sgid_table_size, ox_gid_t *gid_tbl_p) {
    ox_port_attrib_t port_attrib;
    ox_return_t ret;
    IB_gid_t *gid_array_p;
    u_int16_t tbl_len_out = 0;
    u32 n, i;
    VAPI_ret_t stat;

    AD_TAVOR_FUNC("port_num: %d, port_sgid_table_size: %d, gid_tbl_p: %p", (int)port_num,
                  (int)*port_sgid_table_size, (void *)gid_tbl_p);
    memset(&port_attrib, 0, sizeof(port_attrib));
    ret = oxi_mlx_port_query(opened_hca_p, port_num, &port_attrib);
    if (ret != ox_return_ok) {
        AD_TAVOR_ERROR("MLXAD_ERR: VAPI Fail to query mlx device (hca_h: %d) port number %d",
                       (int)opened_hca_p->hca_h, (int)port_num);
        /* Reported again, and recorded a second time under the port query's own index with the
         * ox_return_t it answered. */
        ox_mlx_count_vapi_failure(port_query_indx, (VAPI_ret_t)ret);
        return ox_return_err;
    }

    AD_TAVOR_FUNC("port_attrib.port_sgid_table_size: %d", (int)port_attrib.port_sgid_table_size);
    gid_array_p = (IB_gid_t *)kmalloc(port_attrib.port_sgid_table_size * sizeof(IB_gid_t), GFP_ATOMIC);
    if (!gid_array_p) {
        AD_TAVOR_ERROR("Fail to allocate memory: gid_array_p, size: %d",
                       (int)(port_attrib.port_sgid_table_size * sizeof(IB_gid_t)));
        ox_mlx_count_alloc_failure();
        return ox_return_err_alloc_mem;
    }
    memset(gid_array_p, 0, port_attrib.port_sgid_table_size * sizeof(IB_gid_t));
    AD_TAVOR_FUNC("gid_array_p: %p", (void *)gid_array_p);

    stat = VAPI_query_hca_gid_tbl(opened_hca_p->hca_h, (IB_port_t)port_num,
                                  (u_int16_t)port_attrib.port_sgid_table_size, &tbl_len_out, gid_array_p);
    if (stat != VAPI_OK) {
        AD_TAVOR_ERROR("MLXAD_ERR: VAPI Fail to VAPI_query_hca_gid_tbl for port: %d (mlx:%d, %s)",
                       (int)port_num, stat, AD_TAVOR_MLX_STR);
        ox_mlx_count_vapi_failure(get_port_gid_tbl_indx, stat);
        kfree(gid_array_p);
        if (stat == VAPI_EAGAIN) {
            printk("The actual gid table sieze needed is: %d\n", (int)tbl_len_out);
            return ox_return_err_insufficient_resources;
        }
        return ox_return_err;
    }

    n = tbl_len_out < *port_sgid_table_size ? tbl_len_out : *port_sgid_table_size;
    AD_TAVOR_FUNC("tbl_len_out: %d, port_sgid_table_size: %d, min: %d", (int)tbl_len_out,
                  (int)*port_sgid_table_size, (int)n);
    for (i = 0; i < n; i++) ox_mlx_gid_from_vapi(&gid_tbl_p[i], gid_array_p[i]);
    *port_sgid_table_size = n;
    AD_TAVOR_FUNC("OUT port_sgid_table_size: %d", (int)*port_sgid_table_size);
    kfree(gid_array_p);
    return ox_return_ok;
}

ox_return_t oxi_mlx_get_port_partition_tbl(ox_opened_hca_t *opened_hca_p, ox_port_num_t port_num,
                                           u32 *port_parti_table_size, ox_p_key_t *pkey_tbl_p) {
    ox_port_attrib_t port_attrib;
    ox_return_t ret;
    VAPI_pkey_t *pkey_array_p;
    u_int16_t tbl_len_out = 0;
    u32 n, i;
    VAPI_ret_t stat;

    AD_TAVOR_FUNC("port_num: %d, port_parti_table_size: %d, pkey_tbl_p: %p", (int)port_num,
                  (int)*port_parti_table_size, (void *)pkey_tbl_p);
    memset(&port_attrib, 0, sizeof(port_attrib));
    ret = oxi_mlx_port_query(opened_hca_p, port_num, &port_attrib);
    if (ret != ox_return_ok) {
        AD_TAVOR_ERROR("MLXAD_ERR: VAPI Fail to query mlx device (hca_h: %d) port number %d",
                       (int)opened_hca_p->hca_h, (int)port_num);
        ox_mlx_count_vapi_failure(port_query_indx, (VAPI_ret_t)ret);
        return ox_return_err;
    }

    AD_TAVOR_FUNC("port_attrib.port_parti_table_size: %d", (int)port_attrib.port_parti_table_size);
    pkey_array_p =
        (VAPI_pkey_t *)kmalloc(port_attrib.port_parti_table_size * sizeof(VAPI_pkey_t), GFP_ATOMIC);
    if (!pkey_array_p) {
        AD_TAVOR_ERROR("Fail to allocate memory: pkey_array_p, size: %d",
                       (int)(port_attrib.port_parti_table_size * sizeof(VAPI_pkey_t)));
        ox_mlx_count_alloc_failure();
        return ox_return_err_alloc_mem;
    }
    memset(pkey_array_p, 0, port_attrib.port_parti_table_size * sizeof(VAPI_pkey_t));
    AD_TAVOR_FUNC("pkey_array_p: %p", (void *)pkey_array_p);

    stat = VAPI_query_hca_pkey_tbl(opened_hca_p->hca_h, (IB_port_t)port_num,
                                   (u_int16_t)port_attrib.port_parti_table_size, &tbl_len_out, pkey_array_p);
    if (stat != VAPI_OK) {
        AD_TAVOR_ERROR("MLXAD_ERR: VAPI Fail to VAPI_query_hca_pkey_tbl for port: %d (mlx:%d, %s)",
                       (int)port_num, stat, AD_TAVOR_MLX_STR);
        ox_mlx_count_vapi_failure(get_port_partition_tbl_indx, stat);
        kfree(pkey_array_p);
        if (stat == VAPI_EAGAIN) {
            AD_TAVOR_ERROR("ERROR - The actual p_key table sieze needed is: %d", (int)tbl_len_out);
            return ox_return_err_insufficient_resources;
        }
        return ox_return_err;
    }

    n = tbl_len_out < *port_parti_table_size ? tbl_len_out : *port_parti_table_size;
    AD_TAVOR_FUNC("tbl_len_out: %d, port_parti_table_size: %d, min: %d", (int)tbl_len_out,
                  (int)*port_parti_table_size, (int)n);
    /* P_Keys keep their order and value: only GIDs are reversed. */
    for (i = 0; i < n; i++) {
        pkey_tbl_p[i] = pkey_array_p[i];
        AD_TAVOR_FUNC("%d) MLX pkey: %d, OX pkey: %d", (int)i, (int)pkey_array_p[i], (int)pkey_tbl_p[i]);
    }
    *port_parti_table_size = n;
    AD_TAVOR_FUNC("OUT port_parti_table_size: %d", (int)*port_parti_table_size);
    kfree(pkey_array_p);
    return ox_return_ok;
}
