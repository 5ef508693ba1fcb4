/* HCA capabilities and port properties, VAPI -> generic, field by field. */
#include "adaptor-tavor.h"
#include "translate.h"

/* Capability bits of VAPI's port capability mask that the generic record reports. */
#define VAPI_PORT_CAP_IS_SM 0x2
#define VAPI_PORT_CAP_IS_SNMP_TUNNEL 0x20000
#define VAPI_PORT_CAP_IS_DEVICE_MGT 0x80000
#define VAPI_PORT_CAP_IS_VENDOR_CLASS 0x100000

u64 ox_mlx_fold_node_guid(const IB_guid_t node_guid) {
    u64 high = 0;
    int k;

    for (k = 0; k < 7; k++) high |= node_guid[k];
    return (high << 8) | node_guid[7];
}

void ox_mlx_hca_cap_to_ox(const VAPI_hca_cap_t *cap, const VAPI_hca_vendor_t *vendor,
                          ox_hca_attrib_t *attrib) {
    attrib->max_qp_num = cap->max_num_qp;
    attrib->max_outstand_wr_on_qp = cap->max_qp_ous_wr;
    attrib->support_modify_outstand_wr = (u8)(cap->flags & VAPI_RESIZE_OUS_WQE_CAP);
    attrib->bad_p_key_count_f = (u8)(cap->flags & VAPI_BAD_PKEY_COUNT_CAP);
    attrib->bad_q_key_count_f = (u8)(cap->flags & VAPI_BAD_QKEY_COUNT_CAP);
    attrib->support_raw_multicast = (u8)(cap->flags & VAPI_RAW_MULTI_CAP);
    attrib->support_path_migration = (u8)(cap->flags & VAPI_AUTO_PATH_MIG_CAP);
    attrib->ability_change_prim_phy_port = (u8)(cap->flags & VAPI_CHANGE_PHY_PORT_CAP);
    attrib->max_scatgat_per_wr = cap->max_num_sg_ent;
    attrib->max_rd_scatgat_per_wr = cap->max_num_sg_ent_rd;
    attrib->max_cq_num = cap->max_num_cq;
    attrib->max_cq_entries = cap->max_num_ent_cq;
    attrib->max_mem_region_num = cap->max_num_mr;
    attrib->max_block_size_byte = cap->max_mr_size;
    attrib->max_pd_num = cap->max_pd_num;
    attrib->page_size = cap->page_size_cap;
    attrib->port_num = cap->phys_port_num;
    attrib->max_partition_num = cap->max_pkeys;
    attrib->guid = ox_mlx_fold_node_guid(cap->node_guid);
    attrib->ack_delay = cap->local_ca_ack_delay;
    attrib->max_read_atom_eec_outstanding = cap->max_ee_ous_rd_atom;
    attrib->max_read_atom_resources = cap->max_res_rd_atom;
    attrib->max_qp_depth_for_init_read_atom = cap->max_qp_init_rd_atom;
    attrib->max_eec_depth_for_init_read_atom = cap->max_ee_init_rd_atom;
    attrib->atom_suport = (u32)cap->atomic_cap;
    attrib->max_eec_num = cap->max_ee_num;
    attrib->max_rdd_num = cap->max_rdd_num;
    attrib->max_mem_win_num = cap->max_mw_num;
    attrib->max_raw_ipv6_qp_num = cap->max_raw_ipv6_qp;
    attrib->max_raw_eter_qp_num = cap->max_raw_ethy_qp;
    attrib->max_multicast_group = cap->max_mcast_grp_num;
    attrib->max_qp_num_per_multicast_group = cap->max_mcast_qp_attach_num;
    attrib->max_add_handle = cap->max_ah_num;
    attrib->max_fmr_num = cap->max_num_fmr;
    attrib->max_maps_per_fmr = cap->max_num_map_per_fmr;
    attrib->vendor_attrib.vendor_id = vendor->vendor_id;
    attrib->vendor_attrib.part_id = vendor->vendor_part_id;
    attrib->vendor_attrib.hw_version = vendor->hw_ver;
}

u32 ox_mlx_port_capability_to_ox(IB_port_cap_mask_t capability_mask) {
    u32 bits = 0;

    if (capability_mask & VAPI_PORT_CAP_IS_SM) bits |= ox_port_cap_sm;
    if (capability_mask & VAPI_PORT_CAP_IS_SNMP_TUNNEL) bits |= ox_port_cap_snmp_tunnel;
    if (capability_mask & VAPI_PORT_CAP_IS_DEVICE_MGT) bits |= ox_port_cap_dev_mgt;
    if (capability_mask & VAPI_PORT_CAP_IS_VENDOR_CLASS) bits |= ox_port_cap_vendor_class;
    return bits;
}

void ox_mlx_port_to_ox(const VAPI_hca_port_t *port, ox_port_num_t port_num, ox_port_attrib_t *attrib) {
    attrib->port_num = port_num;
    attrib->port_mtu = (ox_mtu_t)port->max_mtu;
    attrib->port_state = (ox_port_state_t)port->state;
    attrib->port_base_lid = port->lid;
    attrib->port_lmc = port->lmc;
    attrib->port_sgid_table_size = port->gid_tbl_len;
    attrib->port_parti_table_size = port->pkey_tbl_len;
    attrib->port_max_vl_num = port->max_vl_num;
    attrib->port_bad_p_key_count = port->bad_pkey_counter;
    attrib->port_bad_q_key_count = port->qkey_viol_counter;
    attrib->port_sma_address_info.sm_lid = port->sm_lid;
    attrib->port_sma_address_info.service_level = port->sm_sl;
    attrib->port_capability_support = ox_mlx_port_capability_to_ox(port->capability_mask);
}

VAPI_hca_attr_mask_t ox_mlx_port_capability_to_attr_mask(u32 port_capability_support) {
    VAPI_hca_attr_mask_t mask = 0;

    if (port_capability_support & ox_port_cap_sm) mask |= HCA_ATTR_IS_SM;
    if (port_capability_support & ox_port_cap_snmp_tunnel) mask |= HCA_ATTR_IS_SNMP_TUN_SUP;
    if (port_capability_support & ox_port_cap_dev_mgt) mask |= HCA_ATTR_IS_DEV_MGT_SUP;
    if (port_capability_support & ox_port_cap_vendor_class) mask |= HCA_ATTR_IS_VENDOR_CLS_SUP;
    return mask;
}
