/* The slots of ox_hca_func_t as the provider table defines them: index and name (the member is
 * ox_<name>, the entry point oxi_mlx_<name>). */
#ifndef HEADERS_TEST_SLOT_NAMES_H
#define HEADERS_TEST_SLOT_NAMES_H

#define OX_HCA_FUNC_SLOTS_LIST(X)          \
    X(0, hca_open)                         \
    X(1, hca_query)                        \
    X(2, port_query)                       \
    X(3, get_port_gid_tbl)                 \
    X(4, get_port_partition_tbl)           \
    X(5, hca_modify)                       \
    X(6, hca_close)                        \
    X(7, pd_allocate)                      \
    X(8, pd_deallocate)                    \
    X(9, rdd_allocate)                     \
    X(10, rdd_deallocate)                  \
    X(11, address_hndl_create)             \
    X(12, address_hndl_modify)             \
    X(13, address_hndl_query)              \
    X(14, address_hndl_destroy)            \
    X(15, cq_create)                       \
    X(16, cq_query)                        \
    X(17, cq_resize)                       \
    X(18, cq_destroy)                      \
    X(19, cq_modify_attrib)                \
    X(20, qp_create)                       \
    X(21, qp_modify)                       \
    X(22, qp_query)                        \
    X(23, qp_destroy)                      \
    X(24, qp_get_special)                  \
    X(25, qp_context_set)                  \
    X(26, eec_create)                      \
    X(27, eec_modify)                      \
    X(28, eec_query)                       \
    X(29, eec_destroy)                     \
    X(30, mem_region_register)             \
    X(31, phy_mem_region_register)         \
    X(32, mem_region_query)                \
    X(33, mem_region_destroy)              \
    X(34, mem_region_re_register)          \
    X(35, phy_mem_region_re_register)      \
    X(36, shared_mem_region_register)      \
    X(37, mem_win_allocate)                \
    X(38, mem_win_query)                   \
    X(39, mem_win_bind)                    \
    X(40, mem_win_deallocate)              \
    X(41, qp_attach_to_multicast)          \
    X(42, qp_detach_from_multicast)        \
    X(43, post_send_vapi)                  \
    X(44, post_send)                       \
    X(45, post_gsi_send_on_pkey)           \
    X(46, post_receive_vapi)               \
    X(47, post_receive)                    \
    X(48, poll_for_completion_vapi)        \
    X(49, poll_for_completion)             \
    X(50, request_completion_notification) \
    X(51, set_completion_event_handler)    \
    X(52, set_async_event_cb)              \
    X(53, dell_async_event_cb)             \
    X(54, instant_send)                    \
    X(55, get_gen_pd_h)                    \
    X(56, get_gen_mr_attrib)               \
    X(57, va2advertise_addr)               \
    X(58, alloc_fmr)                       \
    X(59, map_fmr)                         \
    X(60, unmap_fmr)                       \
    X(61, free_fmr)                        \
    X(62, inline_post_send)                \
    X(63, post_send_list)                  \
    X(64, post_receive_list_vapi)          \
    X(65, post_receive_list)               \
    X(66, peek_cq)                         \
    X(67, alloc_dev_mem)                   \
    X(68, free_dev_mem)                    \
    X(69, post_send_nop)                   \
    X(70, process_local_mad)               \
    X(71, qp_add_h)                        \
    X(72, qp_rem_h)

#endif
