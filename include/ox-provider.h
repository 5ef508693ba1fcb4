/* The provider side of the generic verbs interface: the table of entry points an HCA provider
 * hands to the verbs core, and the core's record of a registered provider.
 *
 * The slot order of ox_hca_func_t is fixed: upper layers and providers are built separately and
 * meet only through this table. Every slot but ox_hca_open takes the provider's opened-HCA record
 * (what ox_hca_open returned) as its first argument. */
#ifndef OX_PROVIDER_H
#define OX_PROVIDER_H

#include "ox-types.h"
#include "ox-async-type-i.h"

__BEGIN_KERNEL_DECLS

/* A provider serves at most this many devices. */
#define OX_MAX_PROVIDER_DEVICES 90

/* Number of entry points in ox_hca_func_t. */
#define OX_HCA_FUNC_SLOTS 73

typedef struct ox_hca_func_st {
    /* 0 */ ox_return_t (*ox_hca_open)(const char *name, void *context, ox_opened_hca_t **base_opened_hca_p);
    /* 1 */ ox_return_t (*ox_hca_query)(ox_opened_hca_t *opened_hca_p, ox_hca_attrib_t *hca_attrib);
    /* 2 */ ox_return_t (*ox_port_query)(ox_opened_hca_t *opened_hca_p, ox_port_num_t port_num,
                                         ox_port_attrib_t *port_attrib);
    /* 3 */ ox_return_t (*ox_get_port_gid_tbl)(ox_opened_hca_t *opened_hca_p, ox_port_num_t port_num,
                                               u32 *port_sgid_table_size, ox_gid_t *gid_tbl_p);
    /* 4 */ ox_return_t (*ox_get_port_partition_tbl)(ox_opened_hca_t *opened_hca_p, ox_port_num_t port_num,
                                                     u32 *port_parti_table_size, ox_p_key_t *pkey_tbl_p);
    /* 5 */ ox_return_t (*ox_hca_modify)(ox_opened_hca_t *opened_hca_p, ox_hca_attrib_t *hca_attrib);
    /* 6 */ ox_return_t (*ox_hca_close)(ox_opened_hca_t *opened_hca_p);
    /* 7 */ ox_return_t (*ox_pd_allocate)(ox_opened_hca_t *opened_hca_p, ox_pd_h_t *pd_h);
    /* 8 */ ox_return_t (*ox_pd_deallocate)(ox_opened_hca_t *opened_hca_p, ox_pd_h_t pd_h);
    /* 9 */ ox_return_t (*ox_rdd_allocate)(ox_opened_hca_t *opened_hca_p, ox_rdd_h_t *rdd_h);
    /* 10 */ ox_return_t (*ox_rdd_deallocate)(ox_opened_hca_t *opened_hca_p, ox_rdd_h_t rdd_h);
    /* 11 */ ox_return_t (*ox_address_hndl_create)(ox_opened_hca_t *opened_hca_p, ox_pd_h_t pd_h,
                                                   ox_add_vec_t *add_vec, ox_add_h_t *add_h);
    /* 12 */ ox_return_t (*ox_address_hndl_modify)(ox_opened_hca_t *opened_hca_p, ox_add_h_t add_h,
                                                   ox_add_vec_t *add_vec);
    /* 13 */ ox_return_t (*ox_address_hndl_query)(ox_opened_hca_t *opened_hca_p, ox_add_h_t add_h,
                                                  ox_add_vec_t *add_vec, ox_pd_h_t *pd_h);
    /* 14 */ ox_return_t (*ox_address_hndl_destroy)(ox_opened_hca_t *opened_hca_p, ox_add_h_t add_h);
    /* 15 */ ox_return_t (*ox_cq_create)(ox_opened_hca_t *opened_hca_p, u32 cq_req_size,
                                         ox_app_com_event_callback_t com_event_callback, void *cq_context,
                                         ox_cq_h_t *cq_h, u32 *cq_act_size);
    /* 16 */ ox_return_t (*ox_cq_query)(ox_opened_hca_t *opened_hca_p, ox_cq_h_t cq_h, u32 *cq_size,
                                        void **cq_context_p);
    /* 17 */ ox_return_t (*ox_cq_resize)(ox_opened_hca_t *opened_hca_p, ox_cq_h_t cq_h, u32 cq_req_size,
                                         u32 *cq_act_size);
    /* 18 */ ox_return_t (*ox_cq_destroy)(ox_opened_hca_t *opened_hca_p, ox_cq_h_t cq_h);
    /* 19 */ ox_return_t (*ox_cq_modify_attrib)(ox_opened_hca_t *opened_hca_p, ox_cq_h_t cq_h,
                                                void *cq_context,
                                                ox_app_com_event_callback_t com_event_callback);
    /* 20 */ ox_return_t (*ox_qp_create)(ox_opened_hca_t *opened_hca_p, ox_qp_attr_t *qp_attr_req,
                                         void *qp_context, ox_qp_h_t *qp_h, ox_qp_attr_t *qp_attr);
    /* 21 */ ox_return_t (*ox_qp_modify)(ox_opened_hca_t *opened_hca_p, ox_qp_h_t qp_h,
                                         ox_qp_attr_t *qp_attr_req, ox_qp_attr_t *qp_attr);
    /* 22 */ ox_return_t (*ox_qp_query)(ox_opened_hca_t *opened_hca_p, ox_qp_h_t qp_h, void **qp_context_p,
                                        ox_qp_attr_t *qp_attr_p);
    /* 23 */ ox_return_t (*ox_qp_destroy)(ox_opened_hca_t *opened_hca_p, ox_qp_h_t qp_h);
    /* 24 */ ox_return_t (*ox_qp_get_special)(ox_opened_hca_t *opened_hca_p, u32 port_num,
                                              ox_qp_attr_t *qp_attr_req, void *qp_context, ox_qp_h_t *qp_h,
                                              ox_qp_attr_t *qp_attr);
    /* 25 */ ox_return_t (*ox_qp_context_set)(ox_opened_hca_t *opened_hca_p, ox_qp_h_t qp_h,
                                              void *qp_context);
    /* 26 */ ox_return_t (*ox_eec_create)(ox_opened_hca_t *opened_hca_p, ox_rdd_h_t rdd_h, void *eec_context,
                                          ox_eec_h_t *eec_h);
    /* 27 */ ox_return_t (*ox_eec_modify)(ox_opened_hca_t *opened_hca_p, ox_eec_h_t eec_h, void *eec_attr_req,
                                          void *eec_attr);
    /* 28 */ ox_return_t (*ox_eec_query)(ox_opened_hca_t *opened_hca_p, ox_eec_h_t eec_h,
                                         void **eec_context_p, void *eec_attr_p);
    /* 29 */ ox_return_t (*ox_eec_destroy)(ox_opened_hca_t *opened_hca_p, ox_eec_h_t eec_h);
    /* 30 */ ox_return_t (*ox_mem_region_register)(ox_opened_hca_t *opened_hca_p, void *v_addr,
                                                   unsigned long length, ox_pd_h_t pd_h,
                                                   ox_access_con_bit_mask_t access_con,
                                                   ox_mem_reg_h_t *v_mem_h, ox_l_key_t *l_key,
                                                   ox_r_key_t *r_key);
    /* 31 */ ox_return_t (*ox_phy_mem_region_register)(ox_opened_hca_t *opened_hca_p, ox_phy_list_t *phy_list,
                                                       ox_iova_t iova_request, unsigned long length,
                                                       unsigned long offset, ox_pd_h_t pd_h,
                                                       ox_access_con_bit_mask_t access_con,
                                                       ox_mem_reg_h_t *p_mem_h, ox_iova_t *iova_assign,
                                                       ox_l_key_t *l_key, ox_r_key_t *r_key);
    /* 32 */ ox_return_t (*ox_mem_region_query)(ox_opened_hca_t *opened_hca_p, ox_mem_reg_h_t v_mem_h,
                                                void **local_v_addr, unsigned long *local_length,
                                                void **remote_v_addr, unsigned long *remote_length,
                                                ox_pd_h_t *pd_h, ox_access_con_bit_mask_t *access_con,
                                                ox_l_key_t *l_key, ox_r_key_t *r_key);
    /* 33 */ ox_return_t (*ox_mem_region_destroy)(ox_opened_hca_t *opened_hca_p, ox_mem_reg_h_t v_mem_h);
    /* 34 */ ox_return_t (*ox_mem_region_re_register)(ox_opened_hca_t *opened_hca_p, ox_mem_reg_h_t v_mem_h,
                                                      u32 change_mask, void *v_addr, unsigned long length,
                                                      ox_pd_h_t pd_h, ox_access_con_bit_mask_t access_con,
                                                      ox_mem_reg_h_t *new_v_mem_h, ox_l_key_t *l_key,
                                                      ox_r_key_t *r_key);
    /* 35 */ ox_return_t (*ox_phy_mem_region_re_register)(ox_opened_hca_t *opened_hca_p,
                                                          ox_mem_reg_h_t p_mem_h, u32 change_mask,
                                                          ox_phy_list_t *phy_list, ox_iova_t iova_request,
                                                          unsigned long length, unsigned long offset,
                                                          ox_pd_h_t pd_h, ox_access_con_bit_mask_t access_con,
                                                          ox_mem_reg_h_t *new_p_mem_h, ox_iova_t *iova_assign,
                                                          ox_l_key_t *l_key, ox_r_key_t *r_key);
    /* 36 */ ox_return_t (*ox_shared_mem_region_register)(ox_opened_hca_t *opened_hca_p, ox_mem_reg_h_t mem_h,
                                                          void *v_addr, ox_pd_h_t pd_h,
                                                          ox_access_con_bit_mask_t access_con,
                                                          ox_mem_reg_h_t *shared_mem_h, ox_l_key_t *l_key,
                                                          ox_r_key_t *r_key);
    /* 37 */ ox_return_t (*ox_mem_win_allocate)(ox_opened_hca_t *opened_hca_p, ox_pd_h_t pd_h,
                                                ox_mem_win_h_t *mem_win_h, ox_r_key_t *r_key);
    /* 38 */ ox_return_t (*ox_mem_win_query)(ox_opened_hca_t *opened_hca_p, ox_mem_win_h_t mem_win_h,
                                             ox_pd_h_t *pd_h);
    /* 39 */ ox_return_t (*ox_mem_win_bind)(ox_opened_hca_t *opened_hca_p, ox_qp_h_t qp_h,
                                            ox_mem_win_h_t mem_win_h, ox_wr_t *bind_req,
                                            ox_r_key_t *new_r_key);
    /* 40 */ ox_return_t (*ox_mem_win_deallocate)(ox_opened_hca_t *opened_hca_p, ox_mem_win_h_t mem_win_h);
    /* 41 */ ox_return_t (*ox_qp_attach_to_multicast)(ox_opened_hca_t *opened_hca_p, ox_lid_t mg_dlid,
                                                      ox_gid_t mg_gid_address, ox_qp_h_t qp_h);
    /* 42 */ ox_return_t (*ox_qp_detach_from_multicast)(ox_opened_hca_t *opened_hca_p, ox_lid_t mg_dlid,
                                                        ox_gid_t mg_gid_address, u32 port_num,
                                                        ox_qp_h_t qp_h);
    /* 43 */ ox_return_t (*ox_post_send_vapi)(ox_opened_hca_t *opened_hca_p, ox_qp_h_t qp_h, void *work_req);
    /* 44 */ ox_return_t (*ox_post_send)(ox_opened_hca_t *opened_hca_p, ox_qp_h_t qp_h, ox_wr_t *work_req,
                                         ox_wr_operation_type_t operation_type);
    /* 45 */ ox_return_t (*ox_post_gsi_send_on_pkey)(ox_opened_hca_t *opened_hca_p, ox_qp_h_t qp_h,
                                                     ox_wr_t *work_req, ox_wr_operation_type_t operation_type,
                                                     int pkey_index);
    /* 46 */ ox_return_t (*ox_post_receive_vapi)(ox_opened_hca_t *opened_hca_p, ox_qp_h_t qp_h,
                                                 void *work_req);
    /* 47 */ ox_return_t (*ox_post_receive)(ox_opened_hca_t *opened_hca_p, ox_qp_h_t qp_h, ox_wr_t *work_req);
    /* 48 */ ox_return_t (*ox_poll_for_completion_vapi)(ox_opened_hca_t *opened_hca_p, ox_cq_h_t cq_h,
                                                        void *wc);
    /* 49 */ ox_return_t (*ox_poll_for_completion)(ox_opened_hca_t *opened_hca_p, ox_cq_h_t cq_h,
                                                   ox_wc_t *work_completion);
    /* 50 */ ox_return_t (*ox_request_completion_notification)(ox_opened_hca_t *opened_hca_p, ox_cq_h_t cq_h,
                                                               ox_request_comp_notify_t comp_notify);
    /* 51 */ ox_return_t (*ox_set_completion_event_handler)(ox_opened_hca_t *opened_hca_p,
                                                            ox_com_event_callback_t *com_callback);
    /* 52 */ ox_return_t (*ox_set_async_event_cb)(ox_opened_hca_t *opened_hca_p,
                                                  ox_request_event_record_t req_er,
                                                  ox_app_async_event_callback_t async_event_callback);
    /* 53 */ ox_return_t (*ox_dell_async_event_cb)(ox_opened_hca_t *opened_hca_p,
                                                   ox_app_async_event_callback_t async_event_callback);
    /* 54 */ ox_return_t (*ox_instant_send)(ox_opened_hca_t *opened_hca_p, ox_qp_h_t qp_h,
                                            void *complete_packet, u32 length);
    /* 55 */ ox_return_t (*ox_get_gen_pd_h)(ox_opened_hca_t *opened_hca_p, ox_pd_h_t *find_pd_h_p);
    /* 56 */ ox_return_t (*ox_get_gen_mr_attrib)(ox_opened_hca_t *opened_hca_p, void *addr,
                                                 unsigned long length, ox_mem_reg_h_t *mr_h,
                                                 ox_l_key_t *l_key, ox_r_key_t *r_key);
    /* 57 */ ox_return_t (*ox_va2advertise_addr)(ox_opened_hca_t *opened_hca_p, unsigned long v_addr,
                                                 unsigned long *adv_addr);
    /* 58 */ ox_return_t (*ox_alloc_fmr)(ox_opened_hca_t *opened_hca_p, ox_fmr_t *fmr_props,
                                         ox_fmr_h_t *fmr_h);
    /* 59 */ ox_return_t (*ox_map_fmr)(ox_opened_hca_t *opened_hca_p, ox_fmr_h_t fmr_h, ox_fmr_map_t *map,
                                       ox_l_key_t *l_key, ox_r_key_t *r_key);
    /* 60 */ ox_return_t (*ox_unmap_fmr)(ox_opened_hca_t *opened_hca_p, u32 num_to_unmap,
                                         ox_fmr_h_t *fmr_h_array_p);
    /* 61 */ ox_return_t (*ox_free_fmr)(ox_opened_hca_t *opened_hca_p, ox_fmr_h_t fmr_h);
    /* 62 */ ox_return_t (*ox_inline_post_send)(ox_opened_hca_t *opened_hca_p, ox_qp_h_t qp_h,
                                                ox_wr_t *work_req, ox_wr_operation_type_t operation_type);
    /* 63 */ ox_return_t (*ox_post_send_list)(ox_opened_hca_t *opened_hca_p, ox_qp_h_t qp_h,
                                              u32 num_of_requests, ox_wr_t *work_req,
                                              ox_wr_operation_type_t operation_type);
    /* 64 */ ox_return_t (*ox_post_receive_list_vapi)(ox_opened_hca_t *opened_hca_p, ox_qp_h_t qp_h,
                                                      u32 num_of_requests, void *work_req);
    /* 65 */ ox_return_t (*ox_post_receive_list)(ox_opened_hca_t *opened_hca_p, ox_qp_h_t qp_h,
                                                 u32 num_of_requests, ox_wr_t *work_req);
    /* 66 */ ox_return_t (*ox_peek_cq)(ox_opened_hca_t *opened_hca_p, int NOT_IMPLEMETED);
    /* 67 */ ox_return_t (*ox_alloc_dev_mem)(ox_opened_hca_t *opened_hca_p, int NOT_IMPLEMETED);
    /* 68 */ ox_return_t (*ox_free_dev_mem)(ox_opened_hca_t *opened_hca_p, int NOT_IMPLEMETED);
    /* 69 */ ox_return_t (*ox_post_send_nop)(ox_opened_hca_t *opened_hca_p, ox_qp_h_t qp_h, ox_wr_t *work_req,
                                             ox_wr_operation_type_t operation_type);
    /* 70 */ ox_return_t (*ox_process_local_mad)(ox_opened_hca_t *opened_hca_p, ox_port_num_t port,
                                                 ox_lid_t slid, const void *mad_in_p, void *mad_out_p);
    /* 71 */ ox_return_t (*ox_qp_add_h)(ox_opened_hca_t *opened_hca_p, ox_qp_h_t qp_h, int qpn);
    /* 72 */ ox_return_t (*ox_qp_rem_h)(ox_opened_hca_t *opened_hca_p, ox_qp_h_t qp_h, int qpn);
} ox_hca_func_t;

/* The verbs core's record of a registered provider. */
typedef struct ox_hca_prov_st {
    struct ox_hca_prov_st *next;
    struct ox_hca_prov_st *prev;
    char *hp_name;           /* provider name, owned by the core ("mlx") */
    ox_hca_func_t *hp_funcs; /* the provider's table, owned by the provider */
    /* Device names, copies owned by the core; unused entries are null. */
    char *hp_devices[OX_MAX_PROVIDER_DEVICES];
    int hp_open_hcas; /* HCAs opened through the core and not yet closed */
} ox_hca_prov_t;

__END_KERNEL_DECLS

#endif
