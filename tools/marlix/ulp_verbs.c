/* The upper-layer verbs shim: provider look-up, HCA open/close and queries, protection domains,
 * the generic region and memory regions, all through the provider's function table. */
#include <stddef.h>
#include <stdio.h>
#include <string.h>

#include "layout-table.h"

#include "ox-types.h"
#include "ox-provider.h"
#include "ox-verbs-core.h"

#include "ulp_verbs.h"

/* ---- Provider and status --------------------------------------------------------------------- */

const ulp_funcs_t *ulp_find_provider(const char *provider_name) {
    return ox_find_provider_funcs(provider_name);
}

const char *ulp_default_hca_name(void) {
    return ox_default_hca_name();
}

const char *ulp_status_name(int status) {
    static const char *const names[] = {
        "ox_return_ok",
        "ox_return_err",
        "ox_return_err_alloc_mem",
        "ox_return_err_not_implemented",
        "ox_return_err_hca_name",
        "ox_return_err_insufficient_resources",
        "ox_return_err_invalid_state",
        "ox_return_err_invalid_vend_ret",
        "ox_return_err_invalid_parameter",
        "ox_return_err_cq_empty",
        "ox_return_err_invalid_handle",
        "ox_return_err_busy",
    };
    if (status < 0 || (size_t)status >= sizeof(names) / sizeof(names[0])) return "ox_return_?";
    return names[status];
}

const void *ulp_slot(const ulp_funcs_t *funcs, int slot) {
    typedef void (*any_fn)(void);
    const any_fn *slots = (const any_fn *)(const void *)funcs;

    if (!funcs || slot < 0 || slot >= OX_HCA_FUNC_SLOTS) return NULL;
    return (const void *)slots[slot];
}

/* ---- HCA ------------------------------------------------------------------------------------- */

int ulp_hca_open(const ulp_funcs_t *funcs, const char *name, void *context, void **hca) {
    return funcs->ox_hca_open(name, context, (ox_opened_hca_t **)hca);
}

int ulp_hca_close(const ulp_funcs_t *funcs, void *hca) {
    return funcs->ox_hca_close((ox_opened_hca_t *)hca);
}

size_t ulp_sizeof_hca_attrib(void) {
    return sizeof(ox_hca_attrib_t);
}

size_t ulp_sizeof_port_attrib(void) {
    return sizeof(ox_port_attrib_t);
}

int ulp_hca_query(const ulp_funcs_t *funcs, void *hca, void *hca_attrib) {
    return funcs->ox_hca_query((ox_opened_hca_t *)hca, (ox_hca_attrib_t *)hca_attrib);
}

int ulp_port_query(const ulp_funcs_t *funcs, void *hca, unsigned port, void *port_attrib) {
    return funcs->ox_port_query((ox_opened_hca_t *)hca, (ox_port_num_t)port, (ox_port_attrib_t *)port_attrib);
}

int ulp_get_port_gid_tbl(const ulp_funcs_t *funcs, void *hca, unsigned port, uint32_t *size, uint8_t *gids) {
    return funcs->ox_get_port_gid_tbl((ox_opened_hca_t *)hca, (ox_port_num_t)port, size, (ox_gid_t *)gids);
}

int ulp_get_port_partition_tbl(const ulp_funcs_t *funcs, void *hca, unsigned port, uint32_t *size,
                               uint16_t *pkeys) {
    return funcs->ox_get_port_partition_tbl((ox_opened_hca_t *)hca, (ox_port_num_t)port, size, pkeys);
}

int ulp_hca_modify(const ulp_funcs_t *funcs, void *hca, unsigned port, uint32_t port_capability_support,
                   int bad_p_key_count_f, int bad_q_key_count_f) {
    ox_hca_attrib_t attrib;
    ox_port_attrib_t port_attrib;

    memset(&attrib, 0, sizeof(attrib));
    memset(&port_attrib, 0, sizeof(port_attrib));
    attrib.port_num = (ox_port_num_t)port;
    attrib.bad_p_key_count_f = (u8)(bad_p_key_count_f != 0);
    attrib.bad_q_key_count_f = (u8)(bad_q_key_count_f != 0);
    port_attrib.port_num = (ox_port_num_t)port;
    port_attrib.port_capability_support = port_capability_support;
    attrib.port_attrib_list = &port_attrib;
    return funcs->ox_hca_modify((ox_opened_hca_t *)hca, &attrib);
}

/* The attribute records' fields that scripts and tests read by name: the records' own layout,
 * measured by this compiler. */
static const struct layout_field attrib_fields[] = {
    LAYOUT_RAW(ox_hca_attrib_t, max_qp_num),
    LAYOUT_RAW(ox_hca_attrib_t, max_outstand_wr_on_qp),
    LAYOUT_RAW(ox_hca_attrib_t, support_modify_outstand_wr),
    LAYOUT_RAW(ox_hca_attrib_t, bad_p_key_count_f),
    LAYOUT_RAW(ox_hca_attrib_t, bad_q_key_count_f),
    LAYOUT_RAW(ox_hca_attrib_t, support_raw_multicast),
    LAYOUT_RAW(ox_hca_attrib_t, support_path_migration),
    LAYOUT_RAW(ox_hca_attrib_t, ability_change_prim_phy_port),
    LAYOUT_RAW(ox_hca_attrib_t, max_scatgat_per_wr),
    LAYOUT_RAW(ox_hca_attrib_t, max_rd_scatgat_per_wr),
    LAYOUT_RAW(ox_hca_attrib_t, max_cq_num),
    LAYOUT_RAW(ox_hca_attrib_t, max_cq_entries),
    LAYOUT_RAW(ox_hca_attrib_t, max_mem_region_num),
    LAYOUT_RAW(ox_hca_attrib_t, max_block_size_byte),
    LAYOUT_RAW(ox_hca_attrib_t, max_pd_num),
    LAYOUT_RAW(ox_hca_attrib_t, page_size),
    LAYOUT_RAW(ox_hca_attrib_t, port_num),
    LAYOUT_RAW(ox_hca_attrib_t, max_partition_num),
    LAYOUT_RAW(ox_hca_attrib_t, guid),
    LAYOUT_RAW(ox_hca_attrib_t, ack_delay),
    LAYOUT_RAW(ox_hca_attrib_t, max_read_atom_eec_outstanding),
    LAYOUT_RAW(ox_hca_attrib_t, max_read_atom_resources),
    LAYOUT_RAW(ox_hca_attrib_t, max_qp_depth_for_init_read_atom),
    LAYOUT_RAW(ox_hca_attrib_t, max_eec_depth_for_init_read_atom),
    LAYOUT_RAW(ox_hca_attrib_t, atom_suport),
    LAYOUT_RAW(ox_hca_attrib_t, max_eec_num),
    LAYOUT_RAW(ox_hca_attrib_t, max_rdd_num),
    LAYOUT_RAW(ox_hca_attrib_t, max_mem_win_num),
    LAYOUT_RAW(ox_hca_attrib_t, max_raw_ipv6_qp_num),
    LAYOUT_RAW(ox_hca_attrib_t, max_raw_eter_qp_num),
    LAYOUT_RAW(ox_hca_attrib_t, max_multicast_group),
    LAYOUT_RAW(ox_hca_attrib_t, max_qp_num_per_multicast_group),
    LAYOUT_RAW(ox_hca_attrib_t, max_add_handle),
    LAYOUT_RAW(ox_hca_attrib_t, max_fmr_num),
    LAYOUT_RAW(ox_hca_attrib_t, max_maps_per_fmr),
    LAYOUT_RAW(ox_hca_attrib_t, vendor_attrib.vendor_id),
    LAYOUT_RAW(ox_hca_attrib_t, vendor_attrib.part_id),
    LAYOUT_RAW(ox_hca_attrib_t, vendor_attrib.hw_version),
    LAYOUT_RAW(ox_port_attrib_t, port_num),
    LAYOUT_RAW(ox_port_attrib_t, port_mtu),
    LAYOUT_RAW(ox_port_attrib_t, port_message_size),
    LAYOUT_RAW(ox_port_attrib_t, port_state),
    LAYOUT_RAW(ox_port_attrib_t, port_base_lid),
    LAYOUT_RAW(ox_port_attrib_t, port_lmc),
    LAYOUT_RAW(ox_port_attrib_t, port_sgid_table_size),
    LAYOUT_RAW(ox_port_attrib_t, port_parti_table_size),
    LAYOUT_RAW(ox_port_attrib_t, port_max_vl_num),
    LAYOUT_RAW(ox_port_attrib_t, port_bad_p_key_count),
    LAYOUT_RAW(ox_port_attrib_t, port_bad_q_key_count),
    LAYOUT_RAW(ox_port_attrib_t, port_sma_address_info.sm_lid),
    LAYOUT_RAW(ox_port_attrib_t, port_sma_address_info.service_level),
    LAYOUT_RAW(ox_port_attrib_t, port_capability_support),
};
static const struct layout_table attrib_table = LAYOUT_FIELDS_TABLE(attrib_fields);

static int read_field(const char *record, const void *base, const char *field, uint64_t *value) {
    long long loaded;

    if (layout_get(&attrib_table, record, base, field, &loaded)) return -1;
    *value = (uint64_t)loaded;
    return 0;
}

int ulp_hca_attrib_field(const void *hca_attrib, const char *field, uint64_t *value) {
    return read_field("ox_hca_attrib_t", hca_attrib, field, value);
}

int ulp_port_attrib_field(const void *port_attrib, const char *field, uint64_t *value) {
    return read_field("ox_port_attrib_t", port_attrib, field, value);
}

int ulp_format_hca_attrib(const void *hca_attrib, char *buf, size_t len) {
    const ox_hca_attrib_t *a = (const ox_hca_attrib_t *)hca_attrib;

    return snprintf(
        buf, len,
        "ports %u, max qp %u, max cq %u, max mr %u, max pd %u, guid 0x%llx, vendor 0x%x part 0x%x "
        "hw 0x%x",
        (unsigned)a->port_num, (unsigned)a->max_qp_num, (unsigned)a->max_cq_num,
        (unsigned)a->max_mem_region_num, (unsigned)a->max_pd_num, (unsigned long long)a->guid,
        (unsigned)a->vendor_attrib.vendor_id, (unsigned)a->vendor_attrib.part_id,
        (unsigned)a->vendor_attrib.hw_version);
}

int ulp_format_port_attrib(const void *port_attrib, char *buf, size_t len) {
    const ox_port_attrib_t *a = (const ox_port_attrib_t *)port_attrib;

    return snprintf(buf, len,
                    "port %u: state %u, lid %u, lmc %u, mtu %u, msg size %u, gid table %u, pkey table %u, "
                    "sm lid %u",
                    (unsigned)a->port_num, (unsigned)a->port_state, (unsigned)a->port_base_lid,
                    (unsigned)a->port_lmc, (unsigned)a->port_mtu, (unsigned)a->port_message_size,
                    (unsigned)a->port_sgid_table_size, (unsigned)a->port_parti_table_size,
                    (unsigned)a->port_sma_address_info.sm_lid);
}

/* ---- Protection domains and the generic region ----------------------------------------------- */

int ulp_pd_allocate(const ulp_funcs_t *funcs, void *hca, uint32_t *pd) {
    return funcs->ox_pd_allocate((ox_opened_hca_t *)hca, pd);
}

int ulp_pd_deallocate(const ulp_funcs_t *funcs, void *hca, uint32_t pd) {
    return funcs->ox_pd_deallocate((ox_opened_hca_t *)hca, pd);
}

int ulp_get_gen_pd_h(const ulp_funcs_t *funcs, void *hca, uint32_t *pd) {
    return funcs->ox_get_gen_pd_h((ox_opened_hca_t *)hca, pd);
}

int ulp_get_gen_mr_attrib(const ulp_funcs_t *funcs, void *hca, void *addr, unsigned long length, uint64_t *mr,
                          uint32_t *l_key, uint32_t *r_key) {
    return funcs->ox_get_gen_mr_attrib((ox_opened_hca_t *)hca, addr, length, mr, l_key, r_key);
}

int ulp_va2advertise_addr(const ulp_funcs_t *funcs, void *hca, unsigned long v_addr,
                          unsigned long *adv_addr) {
    return funcs->ox_va2advertise_addr((ox_opened_hca_t *)hca, v_addr, adv_addr);
}

/* ---- Memory regions ---------------------------------------------------------------------------- */

int ulp_mr_register(const ulp_funcs_t *funcs, void *hca, void *addr, unsigned long length, uint32_t pd,
                    uint32_t access, uint64_t *mr, uint32_t *l_key, uint32_t *r_key) {
    return funcs->ox_mem_region_register((ox_opened_hca_t *)hca, addr, length, pd, access, mr, l_key, r_key);
}

/* Room for the buffers of one physical registration; the entry point hands the array to VAPI
 * as it is, so it is built here in the interface's own layout. */
#define ULP_MAX_PHY_BUFS 255

int ulp_phy_mr_register(const ulp_funcs_t *funcs, void *hca, unsigned count, const uint64_t *starts,
                        const uint64_t *sizes, uint64_t iova_request, unsigned long length,
                        unsigned long offset, uint32_t pd, uint32_t access, uint64_t *mr, uint64_t *iova,
                        uint32_t *l_key, uint32_t *r_key) {
    ox_phy_buf_t bufs[ULP_MAX_PHY_BUFS];
    ox_phy_list_t list;
    unsigned i;

    if (count > ULP_MAX_PHY_BUFS) return ox_return_err_invalid_parameter;
    for (i = 0; i < count; i++) {
        bufs[i].start = starts[i];
        bufs[i].size = sizes[i];
    }
    list.number_of_buff = (u8)count;
    list.phy_list = bufs;
    return funcs->ox_phy_mem_region_register((ox_opened_hca_t *)hca, &list, iova_request, length, offset, pd,
                                             access, mr, iova, l_key, r_key);
}

int ulp_mr_query(const ulp_funcs_t *funcs, void *hca, uint64_t mr, struct ulp_mr_attrib *attrib) {
    ox_pd_h_t pd = 0;
    ox_access_con_bit_mask_t access = 0;
    ox_l_key_t l_key = 0;
    ox_r_key_t r_key = 0;
    int status = funcs->ox_mem_region_query((ox_opened_hca_t *)hca, mr, &attrib->local_addr,
                                            &attrib->local_length, &attrib->remote_addr,
                                            &attrib->remote_length, &pd, &access, &l_key, &r_key);

    if (status == ox_return_ok) {
        attrib->pd = pd;
        attrib->access = access;
        attrib->l_key = l_key;
        attrib->r_key = r_key;
    }
    return status;
}

int ulp_mr_destroy(const ulp_funcs_t *funcs, void *hca, uint64_t mr) {
    return funcs->ox_mem_region_destroy((ox_opened_hca_t *)hca, mr);
}
