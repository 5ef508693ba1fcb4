/* The table of entry points handed to the verbs core as provider "mlx", and the kernel symbols
 * under which upper layers may call the entry points directly. */
#include <linux/module.h>

#include "ox-provider.h"
#include "ox-entry-points.h"
#include "ox-async-type-i.h"
#include "async-events.h"
#include "adaptor-tavor.h"
#include "provider-table.h"

/* Slot order is fixed by ox_hca_func_t; the designators make the compiler check it. */
ox_hca_func_t oxi_mlx_funcs = {
    .ox_hca_open = oxi_mlx_hca_open,
    .ox_hca_query = oxi_mlx_hca_query,
    .ox_port_query = oxi_mlx_port_query,
    .ox_get_port_gid_tbl = oxi_mlx_get_port_gid_tbl,
    .ox_get_port_partition_tbl = oxi_mlx_get_port_partition_tbl,
    .ox_hca_modify = oxi_mlx_hca_modify,
    .ox_hca_close = oxi_mlx_hca_close,
    .ox_pd_allocate = oxi_mlx_pd_allocate,
    .ox_pd_deallocate = oxi_mlx_pd_deallocate,
    .ox_rdd_allocate = oxi_mlx_rdd_allocate,
    .ox_rdd_deallocate = oxi_mlx_rdd_deallocate,
    .ox_address_hndl_create = oxi_mlx_address_hndl_create,
    .ox_address_hndl_modify = oxi_mlx_address_hndl_modify,
    .ox_address_hndl_query = oxi_mlx_address_hndl_query,
    .ox_address_hndl_destroy = oxi_mlx_address_hndl_destroy,
    .ox_cq_create = oxi_mlx_cq_create,
    .ox_cq_query = oxi_mlx_cq_query,
    .ox_cq_resize = oxi_mlx_cq_resize,
    .ox_cq_destroy = oxi_mlx_cq_destroy,
    .ox_cq_modify_attrib = oxi_mlx_cq_modify_attrib,
    .ox_qp_create = oxi_mlx_qp_create,
    .ox_qp_modify = oxi_mlx_qp_modify,
    .ox_qp_query = oxi_mlx_qp_query,
    .ox_qp_destroy = oxi_mlx_qp_destroy,
    .ox_qp_get_special = oxi_mlx_qp_get_special,
    .ox_qp_context_set = oxi_mlx_qp_context_set,
    .ox_eec_create = oxi_mlx_eec_create,
    .ox_eec_modify = oxi_mlx_eec_modify,
    .ox_eec_query = oxi_mlx_eec_query,
    .ox_eec_destroy = oxi_mlx_eec_destroy,
    .ox_mem_region_register = oxi_mlx_mem_region_register,
    .ox_phy_mem_region_register = oxi_mlx_phy_mem_region_register,
    .ox_mem_region_query = oxi_mlx_mem_region_query,
    .ox_mem_region_destroy = oxi_mlx_mem_region_destroy,
    .ox_mem_region_re_register = oxi_mlx_mem_region_re_register,
    .ox_phy_mem_region_re_register = oxi_mlx_phy_mem_region_re_register,
    .ox_shared_mem_region_register = oxi_mlx_shared_mem_region_register,
    .ox_mem_win_allocate = oxi_mlx_mem_win_allocate,
    .ox_mem_win_query = oxi_mlx_mem_win_query,
    .ox_mem_win_bind = oxi_mlx_mem_win_bind,
    .ox_mem_win_deallocate = oxi_mlx_mem_win_deallocate,
    .ox_qp_attach_to_multicast = oxi_mlx_qp_attach_to_multicast,
    .ox_qp_detach_from_multicast = oxi_mlx_qp_detach_from_multicast,
    .ox_post_send_vapi = oxi_mlx_post_send_vapi,
    .ox_post_send = oxi_mlx_post_send,
    .ox_post_gsi_send_on_pkey = oxi_mlx_post_gsi_send_on_pkey,
    .ox_post_receive_vapi = oxi_mlx_post_receive_vapi,
    .ox_post_receive = oxi_mlx_post_receive,
    .ox_poll_for_completion_vapi = oxi_mlx_poll_for_completion_vapi,
    .ox_poll_for_completion = oxi_mlx_poll_for_completion,
    .ox_request_completion_notification = oxi_mlx_request_completion_notification,
    .ox_set_completion_event_handler = oxi_mlx_set_completion_event_handler,
    .ox_set_async_event_cb = oxi_mlx_set_async_event_cb,
    .ox_dell_async_event_cb = oxi_mlx_dell_async_event_cb,
    .ox_instant_send = oxi_mlx_instant_send,
    .ox_get_gen_pd_h = oxi_mlx_get_gen_pd_h,
    .ox_get_gen_mr_attrib = oxi_mlx_get_gen_mr_attrib,
    .ox_va2advertise_addr = oxi_mlx_va2advertise_addr,
    .ox_alloc_fmr = oxi_mlx_alloc_fmr,
    .ox_map_fmr = oxi_mlx_map_fmr,
    .ox_unmap_fmr = oxi_mlx_unmap_fmr,
    .ox_free_fmr = oxi_mlx_free_fmr,
    .ox_inline_post_send = oxi_mlx_inline_post_send,
    .ox_post_send_list = oxi_mlx_post_send_list,
    .ox_post_receive_list_vapi = oxi_mlx_post_receive_list_vapi,
    .ox_post_receive_list = oxi_mlx_post_receive_list,
    .ox_peek_cq = oxi_mlx_peek_cq,
    .ox_alloc_dev_mem = oxi_mlx_alloc_dev_mem,
    .ox_free_dev_mem = oxi_mlx_free_dev_mem,
    .ox_post_send_nop = oxi_mlx_post_send_nop,
    .ox_process_local_mad = oxi_mlx_process_local_mad,
    .ox_qp_add_h = oxi_mlx_qp_add_h,
    .ox_qp_rem_h = oxi_mlx_qp_rem_h,
};

/* Every entry point but the nop send and local MAD processing is exported. */
EXPORT_SYMBOL(oxi_mlx_hca_open);
EXPORT_SYMBOL(oxi_mlx_hca_query);
EXPORT_SYMBOL(oxi_mlx_port_query);
EXPORT_SYMBOL(oxi_mlx_get_port_gid_tbl);
EXPORT_SYMBOL(oxi_mlx_get_port_partition_tbl);
EXPORT_SYMBOL(oxi_mlx_hca_modify);
EXPORT_SYMBOL(oxi_mlx_hca_close);
EXPORT_SYMBOL(oxi_mlx_pd_allocate);
EXPORT_SYMBOL(oxi_mlx_pd_deallocate);
EXPORT_SYMBOL(oxi_mlx_rdd_allocate);
EXPORT_SYMBOL(oxi_mlx_rdd_deallocate);
EXPORT_SYMBOL(oxi_mlx_address_hndl_create);
EXPORT_SYMBOL(oxi_mlx_address_hndl_modify);
EXPORT_SYMBOL(oxi_mlx_address_hndl_query);
EXPORT_SYMBOL(oxi_mlx_address_hndl_destroy);
EXPORT_SYMBOL(oxi_mlx_cq_create);
EXPORT_SYMBOL(oxi_mlx_cq_query);
EXPORT_SYMBOL(oxi_mlx_cq_resize);
EXPORT_SYMBOL(oxi_mlx_cq_destroy);
EXPORT_SYMBOL(oxi_mlx_cq_modify_attrib);
EXPORT_SYMBOL(oxi_mlx_qp_create);
EXPORT_SYMBOL(oxi_mlx_qp_modify);
EXPORT_SYMBOL(oxi_mlx_qp_query);
EXPORT_SYMBOL(oxi_mlx_qp_destroy);
EXPORT_SYMBOL(oxi_mlx_qp_get_special);
EXPORT_SYMBOL(oxi_mlx_qp_context_set);
EXPORT_SYMBOL(oxi_mlx_eec_create);
EXPORT_SYMBOL(oxi_mlx_eec_modify);
EXPORT_SYMBOL(oxi_mlx_eec_query);
EXPORT_SYMBOL(oxi_mlx_eec_destroy);
EXPORT_SYMBOL(oxi_mlx_mem_region_register);
EXPORT_SYMBOL(oxi_mlx_phy_mem_region_register);
EXPORT_SYMBOL(oxi_mlx_mem_region_query);
EXPORT_SYMBOL(oxi_mlx_mem_region_destroy);
EXPORT_SYMBOL(oxi_mlx_mem_region_re_register);
EXPORT_SYMBOL(oxi_mlx_phy_mem_region_re_register);
EXPORT_SYMBOL(oxi_mlx_shared_mem_region_register);
EXPORT_SYMBOL(oxi_mlx_mem_win_allocate);
EXPORT_SYMBOL(oxi_mlx_mem_win_query);
EXPORT_SYMBOL(oxi_mlx_mem_win_bind);
EXPORT_SYMBOL(oxi_mlx_mem_win_deallocate);
EXPORT_SYMBOL(oxi_mlx_qp_attach_to_multicast);
EXPORT_SYMBOL(oxi_mlx_qp_detach_from_multicast);
EXPORT_SYMBOL(oxi_mlx_post_send_vapi);
EXPORT_SYMBOL(oxi_mlx_post_send);
EXPORT_SYMBOL(oxi_mlx_post_gsi_send_on_pkey);
EXPORT_SYMBOL(oxi_mlx_post_receive_vapi);
EXPORT_SYMBOL(oxi_mlx_post_receive);
EXPORT_SYMBOL(oxi_mlx_poll_for_completion_vapi);
EXPORT_SYMBOL(oxi_mlx_poll_for_completion);
EXPORT_SYMBOL(oxi_mlx_request_completion_notification);
EXPORT_SYMBOL(oxi_mlx_set_completion_event_handler);
EXPORT_SYMBOL(oxi_mlx_set_async_event_cb);
EXPORT_SYMBOL(oxi_mlx_dell_async_event_cb);
EXPORT_SYMBOL(oxi_mlx_instant_send);
EXPORT_SYMBOL(oxi_mlx_get_gen_pd_h);
EXPORT_SYMBOL(oxi_mlx_get_gen_mr_attrib);
EXPORT_SYMBOL(oxi_mlx_va2advertise_addr);
EXPORT_SYMBOL(oxi_mlx_alloc_fmr);
EXPORT_SYMBOL(oxi_mlx_map_fmr);
EXPORT_SYMBOL(oxi_mlx_unmap_fmr);
EXPORT_SYMBOL(oxi_mlx_free_fmr);
EXPORT_SYMBOL(oxi_mlx_inline_post_send);
EXPORT_SYMBOL(oxi_mlx_post_send_list);
EXPORT_SYMBOL(oxi_mlx_post_receive_list_vapi);
EXPORT_SYMBOL(oxi_mlx_post_receive_list);
EXPORT_SYMBOL(oxi_mlx_peek_cq);
EXPORT_SYMBOL(oxi_mlx_alloc_dev_mem);
EXPORT_SYMBOL(oxi_mlx_free_dev_mem);
EXPORT_SYMBOL(oxi_mlx_qp_add_h);
EXPORT_SYMBOL(oxi_mlx_qp_rem_h);
EXPORT_SYMBOL(ox_mlx_destroy_async_events);
