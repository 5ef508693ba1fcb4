/* The module's records, constants and routine types, measured by the C compiler from the
 * module's own headers (see module_layout.h). */
#include <stddef.h>
#include <string.h>

#include <linux/slab.h>

#include "adaptor-tavor.h"
#include "ox-adaptor-common.h"
#include "ox-provider.h"
#include "ox-entry-points.h"
#include "async-events.h"
#include "completion-generator.h"
#include "completion-events.h"
#include "module-version.h"
#include "slot-names.h"
#include "translate.h"
#include "tracking-lookup.h"
#include "gather-address.h"

#include "layout-table.h"
#include "module_layout.h"

typedef struct tavor_stats tavor_stats;
typedef struct vapi_err_st vapi_err_st;

#define STAT(f) LAYOUT_INT(tavor_stats, f)

/* Fields of size 0 (list heads, arrays) are reached by offset only; "acc_sg" reads the atomic
 * counter's value. */
static const struct layout_field fields[] = {
    STAT(error_num),
    STAT(last_error_num),
    STAT(VAPI_error_num),
    STAT(last_VAPI_error_num),
    STAT(mem_alloc_error_num),
    STAT(last_mem_alloc_error_num),
    STAT(opend_device_num),
    STAT(pd_num),
    STAT(last_pd_num),
    STAT(cq_num),
    STAT(last_cq_num),
    STAT(qp_num),
    STAT(last_qp_num),
    STAT(ah_num),
    STAT(last_ah_num),
    STAT(mr_num),
    STAT(last_mr_num),
    STAT(mg_num),
    STAT(last_mg_num),
    STAT(post_s_num),
    STAT(last_post_s_num),
    STAT(inline_send_num),
    STAT(inline_send_num_last),
    STAT(post_s_list_num),
    STAT(last_post_s_list_num),
    STAT(post_vapi_s_num),
    {"tavor_stats", "acc_sg", offsetof(tavor_stats, acc_sg.counter), sizeof(int), 1, 0},
    STAT(post_r_num),
    STAT(last_post_r_num),
    STAT(post_r_list_num),
    STAT(last_post_r_list_num),
    STAT(rx_byte),
    STAT(last_rx_byte),
    STAT(tx_byte),
    STAT(last_tx_byte),
    STAT(com_notify_num),
    STAT(last_com_notify_num),
    STAT(poll_num),
    STAT(last_poll_num),
    STAT(poll_cq_empty_num),
    STAT(last_poll_cq_empty_num),
    STAT(ox_receive_error_status),
    STAT(ox_receive_last_error_status),
    STAT(ox_send_error_status),
    STAT(com_event_num),
    STAT(last_com_event_num),
    STAT(async_event_num),
    STAT(last_async_event_num),
    STAT(mem_reg_miss),
    STAT(mem_reg_hit),
    STAT(total_if_number),
    STAT(total_if_number_new),
    STAT(total_if_number_error),
    STAT(num_of_max_poll),
    STAT(last_num_of_max_poll),
    STAT(registered_async_event_cb_num),
    STAT(last_registered_async_event_cb_num),
    STAT(ox_send_last_error_status),
    STAT(poll_vapi_num),
    STAT(post_vapi_r_num),
    STAT(total_sort_if_number),
    LAYOUT_INT(vapi_err_st, func_ix_st),
    LAYOUT_INT(vapi_err_st, stat_st),
    LAYOUT_INT(alloc_mem_t, struct_size),
    LAYOUT_INT(alloc_mem_t, alloc_num),
    LAYOUT_AT(alloc_mem_t, name),
    LAYOUT_PTR(ox_opened_hca_t, next),
    LAYOUT_PTR(ox_opened_hca_t, prev),
    LAYOUT_INT(ox_opened_hca_t, hca_h),
    LAYOUT_PTR(ox_opened_hca_t, app_hca_h),
    LAYOUT_PTR(ox_opened_hca_t, opened_cq_array),
    LAYOUT_PTR(ox_opened_hca_t, opened_qp_array),
    LAYOUT_INT(ox_opened_hca_t, generic_pd_h),
    LAYOUT_PTR(ox_opened_hca_t, gen_mem_array_p),
    LAYOUT_INT(ox_opened_hca_t, num_of_gen_mem_reg),
    LAYOUT_INT(ox_opened_hca_t, hca_cap_query.port_num),
    LAYOUT_INT(ox_opened_hca_t, get_hca_h_by_open),
    LAYOUT_PTR(ox_opened_hca_t, events_lists.async_tasklet.func),
    LAYOUT_INT(ox_opened_hca_t, events_lists.async_tasklet.data),
    LAYOUT_AT(ox_opened_hca_t, opened_cq_list),
    LAYOUT_AT(ox_opened_hca_t, opened_qp_list),
    LAYOUT_AT(ox_opened_hca_t, generic_mem_reg_list),
    LAYOUT_AT(ox_opened_hca_t, events_lists.reg_for_async),
    LAYOUT_PTR(ox_gen_mr_element_t, next),
    LAYOUT_PTR(ox_gen_mr_element_t, prev),
    LAYOUT_PTR(ox_gen_mr_element_t, hca_h),
    LAYOUT_INT(ox_gen_mr_element_t, pd_h),
    LAYOUT_INT(ox_gen_mr_element_t, mr_h),
    LAYOUT_PTR(ox_gen_mr_element_t, start_mr),
    LAYOUT_INT(ox_gen_mr_element_t, length),
    LAYOUT_PTR(ox_gen_mr_element_t, end_mr),
    LAYOUT_INT(ox_gen_mr_element_t, access_con),
    LAYOUT_INT(ox_gen_mr_element_t, l_key),
    LAYOUT_INT(ox_gen_mr_element_t, r_key),
    LAYOUT_INT(ox_gen_mr_element_t, iova),
    LAYOUT_INT(ox_gen_mr_element_t, phy_length),
    LAYOUT_INT(ox_gen_mr_element_t, phy_offset),
    LAYOUT_PTR(ox_asy_ev_element_t, next),
    LAYOUT_PTR(ox_asy_ev_element_t, prev),
    LAYOUT_INT(ox_asy_ev_element_t, req_asy_ev.req_event_type),
    LAYOUT_PTR(ox_asy_ev_element_t, app_cb),
    LAYOUT_PTR(ox_asy_ev_element_t, req_asy_ev.type.qp_h),
    LAYOUT_RAW(ox_asy_ev_element_t, vend_h.qp_vend_h),
    LAYOUT_PTR(ox_opened_cq_t, next),
    LAYOUT_PTR(ox_opened_cq_t, prev),
    LAYOUT_PTR(ox_opened_cq_t, cq_h),
    LAYOUT_PTR(ox_opened_cq_t, cq_oxuser_context),
    LAYOUT_PTR(ox_opened_cq_t, app_com_callback),
    LAYOUT_PTR(ox_opened_cq_t, internal_p),
    LAYOUT_INT(ox_opened_cq_t, comp_handler_hndl),
    LAYOUT_PTR(ox_opened_qp_t, next),
    LAYOUT_PTR(ox_opened_qp_t, prev),
    LAYOUT_PTR(ox_opened_qp_t, qp_h),
    LAYOUT_INT(ox_opened_qp_t, qp_num),
    LAYOUT_PTR(ox_opened_qp_t, qp_oxuser_context),
    LAYOUT_INT(ox_opened_qp_t, type),
};

static const struct layout_size sizes[] = {
    LAYOUT_SIZE(tavor_stats),     LAYOUT_SIZE(vapi_err_st),         LAYOUT_SIZE(alloc_mem_t),
    LAYOUT_SIZE(ox_opened_hca_t), LAYOUT_SIZE(ox_gen_mr_element_t), LAYOUT_SIZE(ox_asy_ev_element_t),
    LAYOUT_SIZE(ox_opened_cq_t),  LAYOUT_SIZE(ox_opened_qp_t),
};

static const struct layout_constant constants[] = {
    LAYOUT_CONST(ox_return_ok),
    LAYOUT_CONST(ox_return_err),
    LAYOUT_CONST(ox_return_err_alloc_mem),
    LAYOUT_CONST(ox_return_err_not_implemented),
    LAYOUT_CONST(ox_return_err_hca_name),
    LAYOUT_CONST(ox_return_err_insufficient_resources),
    LAYOUT_CONST(ox_return_err_invalid_state),
    LAYOUT_CONST(ox_return_err_invalid_vend_ret),
    LAYOUT_CONST(ox_return_err_invalid_parameter),
    LAYOUT_CONST(ox_return_err_cq_empty),
    LAYOUT_CONST(mem_hca_ix),
    LAYOUT_CONST(mem_mr_ix),
    LAYOUT_CONST(mem_cq_ix),
    LAYOUT_CONST(mem_tasklet_ix),
    LAYOUT_CONST(mem_qp_ix),
    LAYOUT_CONST(mem_async_ix),
    LAYOUT_CONST(mem_gen_mem_array_p_ix),
    LAYOUT_CONST(mem_opened_cq_array_ix),
    LAYOUT_CONST(mem_g_com_cq_array_ix),
    LAYOUT_CONST(mem_last_ix),
    LAYOUT_CONST(LAST_VAPI_ERR_NUM),
    LAYOUT_CONST(OX_OPENED_ARRAY_SLOTS),
    LAYOUT_CONST(OX_OPENED_ARRAY_MAX_IX),
    LAYOUT_CONST(AD_TAVOR_G_COM_CQ_ARRAY_SIZE),
    LAYOUT_CONST(hca_query_indx),
    LAYOUT_CONST(port_query_indx),
    LAYOUT_CONST(get_port_gid_tbl_indx),
    LAYOUT_CONST(hca_modify_indx),
    LAYOUT_CONST(hca_close_indx),
    LAYOUT_CONST(pd_allocate_indx),
    LAYOUT_CONST(pd_deallocate_indx),
    LAYOUT_CONST(mem_region_register_indx),
    LAYOUT_CONST(mem_region_query_indx),
    LAYOUT_CONST(mem_region_destroy_indx),
    LAYOUT_CONST(cq_create_indx),
    LAYOUT_CONST(qp_create_indx),
    LAYOUT_CONST(tavor_free_dev_mem_indx),
    LAYOUT_CONST(cq_destroy_indx),
    LAYOUT_CONST(qp_modify_indx),
    LAYOUT_CONST(qp_query_indx),
    LAYOUT_CONST(qp_destroy_indx),
    LAYOUT_CONST(req_comp_cq_indx),
    LAYOUT_CONST(del_comp_cq_indx),
    LAYOUT_CONST(ox_qp_type_not_valid),
    LAYOUT_CONST(OX_QP_AT_STATE),
    LAYOUT_CONST(OX_QP_AT_S_MAX_OUT_WR),
    LAYOUT_CONST(OX_QP_AT_R_MAX_OUT_WR),
    LAYOUT_CONST(OX_QP_AT_S_PSN),
    LAYOUT_CONST(OX_QP_AT_R_PSN),
    LAYOUT_CONST(OX_QP_AT_ACCESS_CON_F),
    LAYOUT_CONST(OX_QP_AT_PHY_PORT_NUM),
    LAYOUT_CONST(OX_QP_AT_Q_KEY),
    LAYOUT_CONST(OX_QP_AT_DEST_QP),
    LAYOUT_CONST(OX_QP_AT_DEST_RDMA_ATOM_OUT_NUM),
    LAYOUT_CONST(OX_QP_AT_MIN_RNR_NAK_T),
    LAYOUT_CONST(OX_QP_AT_ADD_VEC),
    LAYOUT_CONST(OX_QP_AT_PATH_MIG_STATE),
    LAYOUT_CONST(OX_QP_AT_ALT_PATH),
    LAYOUT_CONST(OX_QP_AT_L_ACK_T),
    LAYOUT_CONST(OX_QP_AT_RETRY_NUM),
    LAYOUT_CONST(OX_QP_AT_RNR_NUM),
    LAYOUT_CONST(OX_QP_AT_SQD_NOTIFY),
    LAYOUT_CONST(OX_QP_AT_OPTIONAL),
    LAYOUT_CONST(AD_TAVOR_OPENED_ARRAY_ACCOUNTED_SIZE),
    LAYOUT_CONST(OX_QP_AT_P_KEY_IX),
    LAYOUT_CONST(OX_QP_AT_RESP_RDMA_ATOM_OUT_NUM),
    LAYOUT_CONST(get_port_partition_tbl_indx),
    LAYOUT_CONST(mem_opened_qp_array_ix),
    LAYOUT_CONST(phy_mem_region_register_indx),
    LAYOUT_CONST(post_send_indx),
    LAYOUT_CONST(qp_get_special_indx),
};

static const struct layout_table table = LAYOUT_TABLE(fields, sizes, constants);

const struct layout_table *adp_layout(void) {
    return &table;
}

const char *adp_alloc_row_name(const void *table, int index) {
    return ((const alloc_mem_t *)table)[index].name;
}

void *adp_list_first(const void *head) {
    const struct list_head *h = (const struct list_head *)head;
    return h->next == h ? 0 : (void *)h->next;
}

int adp_list_count(const void *head) {
    const struct list_head *h = (const struct list_head *)head;
    const struct list_head *pos;
    int n = 0;

    for (pos = h->next; pos != h; pos = pos->next) n++;
    return n;
}

void adp_list_reset(void *head) {
    INIT_LIST_HEAD((struct list_head *)head);
}

void adp_call_record_vapi_err(const void *fn, unsigned func_ix, int stat) {
    ((__typeof__(&ox_mlx_record_vapi_err))fn)(func_ix, stat);
}

void adp_call_mem_alloc(const void *fn, int index) {
    ((__typeof__(&mem_alloc_add))fn)((alloc_mem_indx_t)index);
}

int adp_call_version_init(const void *fn, char *name, char *version, char *tag) {
    return ((__typeof__(&module_version_init))fn)(name, version, tag);
}

void adp_call_version_exit(const void *fn, char *name) {
    ((__typeof__(&module_version_exit))fn)(name);
}

void adp_call_timer(const void *fn, unsigned long data) {
    ((__typeof__(&ox_com_timer_generator))fn)(data);
}

unsigned long long adp_call_fold_node_guid(const void *fn, const unsigned char node_guid[8]) {
    IB_guid_t guid;

    memcpy(guid, node_guid, sizeof(guid));
    return ((__typeof__(&ox_mlx_fold_node_guid))fn)(guid);
}

int adp_call_status_to_ox(const void *fn, int vapi_status) {
    return (int)((__typeof__(&ox_mlx_status_to_ox))fn)(vapi_status);
}

void *adp_link_cq_record(void *hca, unsigned long vapi_handle) {
    ox_opened_hca_t *h = (ox_opened_hca_t *)hca;
    ox_opened_cq_t *cq = (ox_opened_cq_t *)kzalloc(sizeof(*cq), GFP_KERNEL);

    cq->cq_h = (ox_cq_h_t)vapi_handle;
    list_add(&cq->list, &h->opened_cq_list);
    if (vapi_handle <= OX_OPENED_ARRAY_MAX_IX) h->opened_cq_array[vapi_handle] = cq;
    return cq;
}

void *adp_link_qp_record(void *hca, unsigned long vapi_handle) {
    ox_opened_hca_t *h = (ox_opened_hca_t *)hca;
    ox_opened_qp_t *qp = (ox_opened_qp_t *)kzalloc(sizeof(*qp), GFP_KERNEL);

    qp->qp_h = (ox_qp_h_t)vapi_handle;
    list_add(&qp->list, &h->opened_qp_list);
    if (vapi_handle <= OX_OPENED_ARRAY_MAX_IX) h->opened_qp_array[vapi_handle] = qp;
    return qp;
}

void *adp_kmalloc(size_t size) {
    return kzalloc(size, GFP_KERNEL);
}

void *adp_link_async_registration(void *hca) {
    ox_opened_hca_t *h = (ox_opened_hca_t *)hca;
    ox_asy_ev_element_t *element = (ox_asy_ev_element_t *)kzalloc(sizeof(*element), GFP_KERNEL);

    element->req_asy_ev.req_event_type = ox_async_even_all;
    list_add(&element->list, &h->events_lists.reg_for_async);
    return element;
}

void *adp_find_cq(void *hca, unsigned long long vapi_handle) {
    return ox_mlx_find_cq((ox_opened_hca_t *)hca, vapi_handle);
}

void *adp_find_qp(void *hca, unsigned long long vapi_handle) {
    return ox_mlx_find_qp((ox_opened_hca_t *)hca, vapi_handle);
}

void *adp_cq_in_list(void *hca, unsigned long long vapi_handle, void **last_seen) {
    ox_opened_cq_t *last = 0;
    ox_opened_cq_t *found = ox_mlx_cq_in_list((ox_opened_hca_t *)hca, vapi_handle, last_seen ? &last : 0);

    if (last_seen) *last_seen = last;
    return found;
}

void *adp_qp_in_list(void *hca, unsigned long long vapi_handle, void **last_seen) {
    ox_opened_qp_t *last = 0;
    ox_opened_qp_t *found = ox_mlx_qp_in_list((ox_opened_hca_t *)hca, vapi_handle, last_seen ? &last : 0);

    if (last_seen) *last_seen = last;
    return found;
}

int adp_handle_has_slot(unsigned long long vapi_handle) {
    return ox_mlx_handle_has_slot(vapi_handle);
}

unsigned long long adp_gather_address(void *hca, unsigned long v_addr) {
    return ox_mlx_gather_address((ox_opened_hca_t *)hca, v_addr);
}

int adp_call_unsupported_memory(const void *funcs, void *hca, int *results) {
    const ox_hca_func_t *f = (const ox_hca_func_t *)funcs;
    ox_opened_hca_t *h = (ox_opened_hca_t *)hca;
    ox_phy_buf_t buf = {0x1000, 0x1000};
    ox_phy_list_t list = {1, &buf};
    ox_mem_reg_h_t mem_h = 0x5a5a;
    ox_mem_win_h_t win_h = 0x5a5a;
    ox_iova_t iova = 0x5a5a;
    ox_l_key_t l_key = 0x5a5a;
    ox_r_key_t r_key = 0x5a5a;
    ox_pd_h_t pd_h = 0x5a5a;
    ox_wr_t wr;
    char area[64];
    int n = 0;

    memset(&wr, 0x5a, sizeof(wr));
    results[n++] = f->ox_mem_region_re_register(h, 7, 0xff, area, sizeof(area), 3, 7, &mem_h, &l_key, &r_key);
    results[n++] = f->ox_phy_mem_region_re_register(h, 7, 0xff, &list, 0x1000, 0x1000, 0, 3, 7, &mem_h, &iova,
                                                    &l_key, &r_key);
    results[n++] = f->ox_shared_mem_region_register(h, 7, area, 3, 7, &mem_h, &l_key, &r_key);
    results[n++] = f->ox_mem_win_allocate(h, 3, &win_h, &r_key);
    results[n++] = f->ox_mem_win_query(h, win_h, &pd_h);
    results[n++] = f->ox_mem_win_bind(h, (ox_qp_h_t)area, win_h, &wr, &r_key);
    results[n++] = f->ox_mem_win_deallocate(h, win_h);
    /* Nothing was written through the outputs. */
    if (mem_h != 0x5a5a || win_h != 0x5a5a || iova != 0x5a5a || l_key != 0x5a5a || r_key != 0x5a5a ||
        pd_h != 0x5a5a)
        return -1;
    return n;
}

const void *adp_table_of_exported_symbols(const void *(*lookup)(const char *name)) {
    static ox_hca_func_t table;

#define FILL_SLOT(index, name) table.ox_##name = (__typeof__(table.ox_##name))lookup("oxi_mlx_" #name);
    OX_HCA_FUNC_SLOTS_LIST(FILL_SLOT)
#undef FILL_SLOT
    return &table;
}

int adp_call_get_user_cq_h(const void *fn, void *hca, unsigned long vapi_handle, void **user_cq) {
    return ((__typeof__(&ox_mlx_get_user_cq_h))fn)((ox_opened_hca_t *)hca, (ox_cq_h_t)vapi_handle,
                                                   (ox_opened_cq_t **)user_cq);
}

void adp_call_completion_handler(const void *fn, unsigned hca_hndl, unsigned long cq_hndl,
                                 void *private_data) {
    ((__typeof__(&ox_mlx_cq_completion_event_handler))fn)((VAPI_hca_hndl_t)hca_hndl, (VAPI_cq_hndl_t)cq_hndl,
                                                          private_data);
}

void *adp_make_async_anchor(unsigned event_type, void *hca_app_h, const void *const *callbacks, int n) {
    ox_async_list_anchor_t *anchor = (ox_async_list_anchor_t *)kzalloc(sizeof(*anchor), GFP_KERNEL);
    int i;

    INIT_LIST_HEAD(&anchor->cb_list);
    anchor->event_rec.event_type = (ox_async_record_t)event_type;
    anchor->event_rec.hca_app_h = (ox_hca_h_t)hca_app_h;
    for (i = 0; i < n; i++) {
        ox_async_eve_cb_element_t *element =
            (ox_async_eve_cb_element_t *)kzalloc(sizeof(*element), GFP_KERNEL);

        element->app_cb = (ox_app_async_event_callback_t)callbacks[i];
        list_add_tail(&element->list, &anchor->cb_list);
    }
    return anchor;
}

void adp_call_async_tasklet(const void *fn, unsigned long data) {
    ((__typeof__(&ox_call_app_async_event_cb))fn)(data);
}

void adp_call_async_handler(const void *fn, unsigned hca_hndl, unsigned type, unsigned long modifier,
                            void *private_data) {
    VAPI_event_record_t rec;

    memset(&rec, 0, sizeof(rec));
    rec.type = (VAPI_event_record_type_t)type;
    rec.modifier.qp_hndl = (VAPI_qp_hndl_t)modifier;
    ((__typeof__(&ox_mlx_async_event_callback))fn)((VAPI_hca_hndl_t)hca_hndl, &rec, private_data);
}
