/* The sizes, offsets and field orders the probe translation units measure, listed once for the
 * C and the C++ probe. Include after the interface headers. */
#ifndef HEADERS_TEST_PROBE_LISTS_H
#define HEADERS_TEST_PROBE_LISTS_H

#include <stddef.h>

#define OX_LAYOUT_PROBES(P)                                      \
    P(sizeof(ox_hca_func_t))                                     \
    P(sizeof(ox_hca_prov_t))                                     \
    P(sizeof(ox_gid_t))                                          \
    P(sizeof(ox_add_vec_t))                                      \
    P(sizeof(ox_hca_attrib_t))                                   \
    P(sizeof(ox_port_attrib_t))                                  \
    P(sizeof(ox_qp_attr_t))                                      \
    P(sizeof(ox_qp_query_t))                                     \
    P(sizeof(ox_wr_t))                                           \
    P(sizeof(ox_wc_t))                                           \
    P(sizeof(ox_phy_buf_t))                                      \
    P(sizeof(ox_phy_list_t))                                     \
    P(sizeof(ox_fmr_t))                                          \
    P(sizeof(ox_fmr_map_t))                                      \
    P(sizeof(ox_event_record_t))                                 \
    P(sizeof(ox_request_event_record_t))                         \
    P(sizeof(ox_opened_hca_t))                                   \
    P(sizeof(ox_gen_mr_element_t))                               \
    P(sizeof(ox_opened_cq_t))                                    \
    P(sizeof(ox_opened_qp_t))                                    \
    P(sizeof(ox_asy_ev_element_t))                               \
    P(sizeof(ox_async_event_t))                                  \
    P(sizeof(ox_async_eve_cb_element_t))                         \
    P(sizeof(ox_async_list_anchor_t))                            \
    P(sizeof(union element_h))                                   \
    P(offsetof(ox_opened_hca_t, list))                           \
    P(offsetof(ox_opened_cq_t, list))                            \
    P(offsetof(ox_opened_qp_t, list))                            \
    P(offsetof(ox_gen_mr_element_t, list))                       \
    P(offsetof(ox_asy_ev_element_t, list))                       \
    P(offsetof(ox_async_eve_cb_element_t, list))                 \
    P(offsetof(ox_wr_t, type.send.send_qp_type.ud_type.r_q_key)) \
    P(offsetof(ox_event_record_t, type.qp.context))

/* F(record, field), each record's fields in declaration order. */
#define OX_FIELD_PROBES(F)                               \
    F(ox_hca_prov_t, next)                               \
    F(ox_hca_prov_t, prev)                               \
    F(ox_hca_prov_t, hp_name)                            \
    F(ox_hca_prov_t, hp_funcs)                           \
    F(ox_hca_prov_t, hp_devices)                         \
    F(ox_hca_prov_t, hp_open_hcas)                       \
    F(ox_wr_t, wr_id)                                    \
    F(ox_wr_t, completion_notification)                  \
    F(ox_wr_t, scatgat_list)                             \
    F(ox_wr_t, num_of_data_segments)                     \
    F(ox_wr_t, user_define_p)                            \
    F(ox_wr_t, wr_type)                                  \
    F(ox_wr_t, type)                                     \
    F(ox_scatgat_t, v_address)                           \
    F(ox_scatgat_t, length)                              \
    F(ox_scatgat_t, l_key)                               \
    F(ox_send_wr_t, immidiate_data_indicator)            \
    F(ox_send_wr_t, immidiate_data)                      \
    F(ox_send_wr_t, solicited_event)                     \
    F(ox_send_wr_t, send_qp_type)                        \
    F(ox_rc_type_t, fance_indicator)                     \
    F(ox_rc_type_t, r_addr)                              \
    F(ox_rc_type_t, r_r_key)                             \
    F(ox_rc_type_t, atomic)                              \
    F(ox_rc_type_t, atomic_operands)                     \
    F(ox_uc_type_t, r_addr)                              \
    F(ox_uc_type_t, r_r_key)                             \
    F(ox_uc_type_t, atomic)                              \
    F(ox_uc_type_t, atomic_operands)                     \
    F(ox_rd_type_t, fance_indicator)                     \
    F(ox_rd_type_t, r_addr)                              \
    F(ox_rd_type_t, r_r_key)                             \
    F(ox_rd_type_t, r_qp_num)                            \
    F(ox_rd_type_t, r_q_key)                             \
    F(ox_rd_type_t, eec_number)                          \
    F(ox_ud_type_t, r_add_h)                             \
    F(ox_ud_type_t, p_add_vec)                           \
    F(ox_ud_type_t, r_qp_num)                            \
    F(ox_ud_type_t, r_q_key)                             \
    F(ox_atomic_operands_t, atom_first_operand)          \
    F(ox_atomic_operands_t, atom_second_operand)         \
    F(ox_atomic_operands_t, atom_return_operand)         \
    F(ox_send_raw_t, etertype)                           \
    F(ox_send_raw_t, static_rate)                        \
    F(ox_send_raw_t, r_qp_num)                           \
    F(ox_send_raw_t, dlid)                               \
    F(ox_send_raw_t, source_path_bit)                    \
    F(ox_send_raw_t, service_level)                      \
    F(ox_bind_wr_t, mem_win_h)                           \
    F(ox_bind_wr_t, current_r_key)                       \
    F(ox_bind_wr_t, new_r_key)                           \
    F(ox_bind_wr_t, mem_region)                          \
    F(ox_bind_wr_t, address)                             \
    F(ox_bind_wr_t, opt_access_control)                  \
    F(ox_wc_t, wr_id)                                    \
    F(ox_wc_t, operation_type)                           \
    F(ox_wc_t, num_bytes_transfered)                     \
    F(ox_wc_t, immidiate_data_indicator)                 \
    F(ox_wc_t, immidiate_data)                           \
    F(ox_wc_t, addres_info)                              \
    F(ox_wc_t, grh_indicator)                            \
    F(ox_wc_t, p_key_index)                              \
    F(ox_wc_t, completion_status)                        \
    F(ox_wc_t, freed_resource)                           \
    F(ox_datag_addr_info_t, slid)                        \
    F(ox_datag_addr_info_t, sl)                          \
    F(ox_datag_addr_info_t, source_qp)                   \
    F(ox_datag_addr_info_t, etertype)                    \
    F(ox_datag_addr_info_t, eec_number)                  \
    F(ox_datag_addr_info_t, dlid_path_bits)              \
    F(ox_datag_addr_info_t, remote_qp_type)              \
    F(ox_add_vec_t, phy_port_num)                        \
    F(ox_add_vec_t, service_level)                       \
    F(ox_add_vec_t, grh_flag)                            \
    F(ox_add_vec_t, dlid)                                \
    F(ox_add_vec_t, pmtu)                                \
    F(ox_add_vec_t, max_static_rate)                     \
    F(ox_add_vec_t, l_ack_timeout)                       \
    F(ox_add_vec_t, retry_count)                         \
    F(ox_add_vec_t, rnr_retry_count)                     \
    F(ox_add_vec_t, source_path_bit)                     \
    F(ox_add_vec_t, global_dest)                         \
    F(ox_add_vec_global_d_t, flow_lable)                 \
    F(ox_add_vec_global_d_t, hope_limit)                 \
    F(ox_add_vec_global_d_t, traffic_class)              \
    F(ox_add_vec_global_d_t, s_gid_index)                \
    F(ox_add_vec_global_d_t, d_gid)                      \
    F(ox_alternate_path_t, al_path_p_key_indx)           \
    F(ox_alternate_path_t, al_path_port_num)             \
    F(ox_alternate_path_t, al_path_add_vec)              \
    F(ox_qp_create_t, qp_type)                           \
    F(ox_qp_create_t, cq_send_h)                         \
    F(ox_qp_create_t, cq_receive_h)                      \
    F(ox_qp_create_t, send_max_outstand_wr)              \
    F(ox_qp_create_t, receive_max_outstand_wr)           \
    F(ox_qp_create_t, max_scatgat_per_send_wr)           \
    F(ox_qp_create_t, max_scatgat_per_receive_wr)        \
    F(ox_qp_create_t, rdd_h)                             \
    F(ox_qp_create_t, signaling_type)                    \
    F(ox_qp_create_t, pd_h)                              \
    F(ox_qp_create_t, recv_solicited_events)             \
    F(ox_qp_creat_ret_t, qp_num)                         \
    F(ox_qp_creat_ret_t, send_max_outstand_wr)           \
    F(ox_qp_creat_ret_t, receive_max_outstand_wr)        \
    F(ox_qp_creat_ret_t, max_scatgat_per_send_wr)        \
    F(ox_qp_creat_ret_t, max_scatgat_per_receive_wr)     \
    F(ox_qp_modify_t, qp_modify_into_state)              \
    F(ox_qp_modify_t, ox_qp_attr_mask)                   \
    F(ox_qp_modify_t, qp_type)                           \
    F(ox_qp_modify_t, params)                            \
    F(ox_qp_modify_init_t, p_key_indx)                   \
    F(ox_qp_modify_init_t, phy_port_num)                 \
    F(ox_qp_modify_init_t, q_key)                        \
    F(ox_qp_modify_init_t, access_control)               \
    F(ox_qp_modify_rtr_t, remote_add_vec)                \
    F(ox_qp_modify_rtr_t, destanation_qp)                \
    F(ox_qp_modify_rtr_t, receive_psn)                   \
    F(ox_qp_modify_rtr_t, responder_rdma_r_atom_num)     \
    F(ox_qp_modify_rtr_t, opt_access_control)            \
    F(ox_qp_modify_rtr_t, opt_alternate_path)            \
    F(ox_qp_modify_rtr_t, opt_q_key)                     \
    F(ox_qp_modify_rtr_t, opt_p_key_indx)                \
    F(ox_qp_modify_rtr_t, opt_send_max_outstand_wr)      \
    F(ox_qp_modify_rtr_t, opt_receive_max_outstand_wr)   \
    F(ox_qp_modify_rtr_t, opt_min_rnr_nak_timer)         \
    F(ox_qp_modify_rts_t, local_ack_timeout)             \
    F(ox_qp_modify_rts_t, retry_num)                     \
    F(ox_qp_modify_rts_t, rnr_num)                       \
    F(ox_qp_modify_rts_t, send_psn)                      \
    F(ox_qp_modify_rts_t, dest_out_rdma_r_atom_num)      \
    F(ox_qp_modify_rts_t, flow_control)                  \
    F(ox_qp_modify_rts_t, opt_access_control)            \
    F(ox_qp_modify_rts_t, opt_q_key)                     \
    F(ox_qp_modify_rts_t, opt_alternate_path)            \
    F(ox_qp_modify_rts_t, opt_path_migrate_state)        \
    F(ox_qp_modify_rts_t, opt_send_max_outstand_wr)      \
    F(ox_qp_modify_rts_t, opt_receive_max_outstand_wr)   \
    F(ox_qp_modify_rts_t, opt_min_rnr_nak_timer)         \
    F(ox_qp_modify_rts_t, sqd_state)                     \
    F(ox_qp_modify_ret_t, send_max_outstand_wr)          \
    F(ox_qp_modify_ret_t, receive_max_outstand_wr)       \
    F(ox_qp_query_t, ox_qp_attr_mask)                    \
    F(ox_qp_query_t, qp_num)                             \
    F(ox_qp_query_t, qp_type)                            \
    F(ox_qp_query_t, qp_state)                           \
    F(ox_qp_query_t, cq_send_h)                          \
    F(ox_qp_query_t, cq_receive_h)                       \
    F(ox_qp_query_t, send_max_outstand_wr)               \
    F(ox_qp_query_t, receive_max_outstand_wr)            \
    F(ox_qp_query_t, max_scatgat_per_send_wr)            \
    F(ox_qp_query_t, max_scatgat_per_receive_wr)         \
    F(ox_qp_query_t, send_psn)                           \
    F(ox_qp_query_t, receve_psn)                         \
    F(ox_qp_query_t, access_control)                     \
    F(ox_qp_query_t, phy_port_num)                       \
    F(ox_qp_query_t, primary_p_key_indx)                 \
    F(ox_qp_query_t, q_key)                              \
    F(ox_qp_query_t, rdd_h)                              \
    F(ox_qp_query_t, destanation_qp)                     \
    F(ox_qp_query_t, rdma_r_atom_outstand_num)           \
    F(ox_qp_query_t, responder_rdma_r_atom_num)          \
    F(ox_qp_query_t, min_rnr_nak_timer)                  \
    F(ox_qp_query_t, primary_add_vec)                    \
    F(ox_qp_query_t, path_migrate_state)                 \
    F(ox_qp_query_t, alternate_path)                     \
    F(ox_qp_query_t, max_send_inline_data)               \
    F(ox_qp_query_t, pd_h)                               \
    F(ox_qp_query_t, recv_solicited_events)              \
    F(ox_qp_query_t, send_signaled_comp)                 \
    F(ox_qp_query_t, flow_control)                       \
    F(ox_hca_attrib_t, max_qp_num)                       \
    F(ox_hca_attrib_t, max_outstand_wr_on_qp)            \
    F(ox_hca_attrib_t, support_modify_outstand_wr)       \
    F(ox_hca_attrib_t, bad_p_key_count_f)                \
    F(ox_hca_attrib_t, bad_q_key_count_f)                \
    F(ox_hca_attrib_t, support_raw_multicast)            \
    F(ox_hca_attrib_t, support_path_migration)           \
    F(ox_hca_attrib_t, ability_change_prim_phy_port)     \
    F(ox_hca_attrib_t, max_scatgat_per_wr)               \
    F(ox_hca_attrib_t, max_rd_scatgat_per_wr)            \
    F(ox_hca_attrib_t, max_cq_num)                       \
    F(ox_hca_attrib_t, max_cq_entries)                   \
    F(ox_hca_attrib_t, max_mem_region_num)               \
    F(ox_hca_attrib_t, max_block_size_byte)              \
    F(ox_hca_attrib_t, max_pd_num)                       \
    F(ox_hca_attrib_t, page_size)                        \
    F(ox_hca_attrib_t, port_num)                         \
    F(ox_hca_attrib_t, max_partition_num)                \
    F(ox_hca_attrib_t, guid)                             \
    F(ox_hca_attrib_t, ack_delay)                        \
    F(ox_hca_attrib_t, max_read_atom_eec_outstanding)    \
    F(ox_hca_attrib_t, max_read_atom_resources)          \
    F(ox_hca_attrib_t, max_qp_depth_for_init_read_atom)  \
    F(ox_hca_attrib_t, max_eec_depth_for_init_read_atom) \
    F(ox_hca_attrib_t, atom_suport)                      \
    F(ox_hca_attrib_t, max_eec_num)                      \
    F(ox_hca_attrib_t, max_rdd_num)                      \
    F(ox_hca_attrib_t, max_mem_win_num)                  \
    F(ox_hca_attrib_t, max_raw_ipv6_qp_num)              \
    F(ox_hca_attrib_t, max_raw_eter_qp_num)              \
    F(ox_hca_attrib_t, max_multicast_group)              \
    F(ox_hca_attrib_t, max_qp_num_per_multicast_group)   \
    F(ox_hca_attrib_t, max_add_handle)                   \
    F(ox_hca_attrib_t, max_fmr_num)                      \
    F(ox_hca_attrib_t, max_maps_per_fmr)                 \
    F(ox_hca_attrib_t, vendor_attrib)                    \
    F(ox_hca_attrib_t, port_attrib_list)                 \
    F(ox_vendor_attrib_t, vendor_id)                     \
    F(ox_vendor_attrib_t, part_id)                       \
    F(ox_vendor_attrib_t, hw_version)                    \
    F(ox_port_attrib_t, port_num)                        \
    F(ox_port_attrib_t, port_mtu)                        \
    F(ox_port_attrib_t, port_message_size)               \
    F(ox_port_attrib_t, port_state)                      \
    F(ox_port_attrib_t, port_base_lid)                   \
    F(ox_port_attrib_t, port_lmc)                        \
    F(ox_port_attrib_t, port_sgid_table_size)            \
    F(ox_port_attrib_t, port_parti_table_size)           \
    F(ox_port_attrib_t, port_max_vl_num)                 \
    F(ox_port_attrib_t, port_bad_p_key_count)            \
    F(ox_port_attrib_t, port_bad_q_key_count)            \
    F(ox_port_attrib_t, port_sma_address_info)           \
    F(ox_port_attrib_t, port_capability_support)         \
    F(ox_sma_address_info_t, sm_lid)                     \
    F(ox_sma_address_info_t, service_level)              \
    F(ox_phy_buf_t, start)                               \
    F(ox_phy_buf_t, size)                                \
    F(ox_phy_list_t, number_of_buff)                     \
    F(ox_phy_list_t, phy_list)                           \
    F(ox_fmr_t, pd_hndl)                                 \
    F(ox_fmr_t, acl)                                     \
    F(ox_fmr_t, max_pages)                               \
    F(ox_fmr_t, log2_page_sz)                            \
    F(ox_fmr_t, max_outstanding_maps)                    \
    F(ox_fmr_map_t, start)                               \
    F(ox_fmr_map_t, size)                                \
    F(ox_fmr_map_t, page_array_len)                      \
    F(ox_fmr_map_t, page_array)                          \
    F(ox_event_record_t, event_type)                     \
    F(ox_event_record_t, hca_app_h)                      \
    F(ox_event_record_t, type)                           \
    F(ox_event_record_t, port_num)                       \
    F(ox_request_event_record_t, req_event_type)         \
    F(ox_request_event_record_t, type)                   \
    F(ox_opened_hca_t, next)                             \
    F(ox_opened_hca_t, prev)                             \
    F(ox_opened_hca_t, hca_h)                            \
    F(ox_opened_hca_t, app_hca_h)                        \
    F(ox_opened_hca_t, opened_cq_list)                   \
    F(ox_opened_hca_t, opened_cq_array)                  \
    F(ox_opened_hca_t, opened_qp_list)                   \
    F(ox_opened_hca_t, opened_qp_array)                  \
    F(ox_opened_hca_t, events_lists)                     \
    F(ox_opened_hca_t, generic_pd_h)                     \
    F(ox_opened_hca_t, generic_mem_reg_list)             \
    F(ox_opened_hca_t, gen_mem_array_p)                  \
    F(ox_opened_hca_t, num_of_gen_mem_reg)               \
    F(ox_opened_hca_t, generic_mem_reg_param)            \
    F(ox_opened_hca_t, hca_cap_query)                    \
    F(ox_opened_hca_t, get_hca_h_by_open)                \
    F(ox_gen_mr_element_t, next)                         \
    F(ox_gen_mr_element_t, prev)                         \
    F(ox_gen_mr_element_t, hca_h)                        \
    F(ox_gen_mr_element_t, pd_h)                         \
    F(ox_gen_mr_element_t, mr_h)                         \
    F(ox_gen_mr_element_t, start_mr)                     \
    F(ox_gen_mr_element_t, length)                       \
    F(ox_gen_mr_element_t, end_mr)                       \
    F(ox_gen_mr_element_t, access_con)                   \
    F(ox_gen_mr_element_t, l_key)                        \
    F(ox_gen_mr_element_t, r_key)                        \
    F(ox_gen_mr_element_t, iova)                         \
    F(ox_gen_mr_element_t, phy_length)                   \
    F(ox_gen_mr_element_t, phy_offset)                   \
    F(ox_async_event_t, async_tasklet)                   \
    F(ox_async_event_t, reg_for_async)                   \
    F(ox_opened_cq_t, next)                              \
    F(ox_opened_cq_t, prev)                              \
    F(ox_opened_cq_t, cq_h)                              \
    F(ox_opened_cq_t, cq_oxuser_context)                 \
    F(ox_opened_cq_t, app_com_callback)                  \
    F(ox_opened_cq_t, internal_p)                        \
    F(ox_opened_cq_t, comp_handler_hndl)                 \
    F(ox_opened_qp_t, next)                              \
    F(ox_opened_qp_t, prev)                              \
    F(ox_opened_qp_t, qp_h)                              \
    F(ox_opened_qp_t, qp_num)                            \
    F(ox_opened_qp_t, qp_oxuser_context)                 \
    F(ox_opened_qp_t, type)                              \
    F(ox_opened_qp_t, s_sl)                              \
    F(ox_opened_qp_t, sr_desc)                           \
    F(ox_opened_qp_t, mlx_sg_array_s)                    \
    F(ox_opened_qp_t, rr_desc)                           \
    F(ox_opened_qp_t, mlx_sg_array_r)                    \
    F(ox_asy_ev_element_t, next)                         \
    F(ox_asy_ev_element_t, prev)                         \
    F(ox_asy_ev_element_t, req_asy_ev)                   \
    F(ox_asy_ev_element_t, vend_h)                       \
    F(ox_asy_ev_element_t, app_cb)                       \
    F(ox_async_eve_cb_element_t, next)                   \
    F(ox_async_eve_cb_element_t, prev)                   \
    F(ox_async_eve_cb_element_t, app_cb)                 \
    F(ox_async_list_anchor_t, cb_list)                   \
    F(ox_async_list_anchor_t, event_rec)

#endif
