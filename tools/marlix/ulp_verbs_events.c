/* The upper-layer verbs shim, asynchronous events: one callback per slot, each converting the
 * generic record for the receiver. */
#include <stddef.h>
#include <string.h>

#include "ox-types.h"
#include "ox-provider.h"
#include "ox-async-type-i.h"

#include "ulp_events.h"

#define HCA(h) ((ox_opened_hca_t *)(h))

static ulp_async_receiver g_receiver;

void ulp_async_set_receiver(ulp_async_receiver receiver) {
    __atomic_store_n(&g_receiver, receiver, __ATOMIC_RELEASE);
}

int ulp_async_event_is_qp(uint32_t t) {
    return t == ox_async_r_path_migrated_ev || t == ox_async_r_com_est_ev ||
           t == ox_async_r_send_q_drained_ev || t == ox_async_r_l_wq_err || t == ox_async_r_path_migrated_err;
}
int ulp_async_event_is_cq(uint32_t t) {
    return t == ox_async_r_cq_err;
}

static void deliver(unsigned slot, ox_event_record_t rec) {
    ulp_async_receiver receiver = __atomic_load_n(&g_receiver, __ATOMIC_ACQUIRE);
    ulp_async_event ev;

    memset(&ev, 0, sizeof(ev));
    ev.slot = slot;
    ev.event_type = (uint32_t)rec.event_type;
    ev.hca_app_h = (void *)rec.hca_app_h;
    if (ulp_async_event_is_qp(ev.event_type)) {
        ev.object = (void *)rec.type.qp.qp_h;
        ev.qp_num = (uint32_t)rec.type.qp.qp_num;
        ev.context = rec.type.qp.context;
    } else if (ulp_async_event_is_cq(ev.event_type)) {
        ev.object = (void *)rec.type.cq.cq_h;
        ev.context = rec.type.cq.context;
    }
    ev.port_num = rec.port_num;
    if (receiver) receiver(&ev);
}

#define SINK(n)                                   \
    static void sink_##n(ox_event_record_t rec) { \
        deliver(n, rec);                          \
    }
SINK(0)
SINK(1)
SINK(2)
SINK(3)
SINK(4)
SINK(5)
SINK(6)
SINK(7)

static const ox_app_async_event_callback_t g_sinks[ULP_ASYNC_SINKS] = {sink_0, sink_1, sink_2, sink_3,
                                                                       sink_4, sink_5, sink_6, sink_7};

const void *ulp_async_sink(unsigned slot) {
    return slot < ULP_ASYNC_SINKS ? (const void *)g_sinks[slot] : NULL;
}

int ulp_async_register(const ulp_funcs_t *funcs, void *hca, unsigned slot, uint32_t req_event_type,
                       void *object) {
    ox_request_event_record_t req;

    if (slot >= ULP_ASYNC_SINKS) return -1;
    memset(&req, 0, sizeof(req));
    req.req_event_type = (ox_request_async_record_t)req_event_type;
    if (req_event_type == ox_async_even_qp)
        req.type.qp_h = (ox_qp_h_t)object;
    else if (req_event_type == ox_async_even_cq)
        req.type.cq_h = (ox_cq_h_t)object;
    else
        req.type.hca_h = (ox_hca_h_t)object;
    return funcs->ox_set_async_event_cb(HCA(hca), req, g_sinks[slot]);
}

int ulp_async_unregister(const ulp_funcs_t *funcs, void *hca, unsigned slot) {
    if (slot >= ULP_ASYNC_SINKS) return -1;
    return funcs->ox_dell_async_event_cb(HCA(hca), g_sinks[slot]);
}

static const struct {
    uint32_t value;
    const char *name;
} g_event_names[] = {
    {ox_async_r_path_migrated_ev, "ox_async_r_path_migrated_ev"},
    {ox_async_r_com_est_ev, "ox_async_r_com_est_ev"},
    {ox_async_r_send_q_drained_ev, "ox_async_r_send_q_drained_ev"},
    {ox_async_r_l_wq_err, "ox_async_r_l_wq_err"},
    {ox_async_r_path_migrated_err, "ox_async_r_path_migrated_err"},
    {ox_async_r_eec_path_migrated_ev, "ox_async_r_eec_path_migrated_ev"},
    {ox_async_r_eec_com_est_ev, "ox_async_r_eec_com_est_ev"},
    {ox_async_r_l_eec_err, "ox_async_r_l_eec_err"},
    {ox_async_r_cq_err, "ox_async_r_cq_err"},
    {ox_async_r_l_err, "ox_async_r_l_err"},
    {ox_async_r_port, "ox_async_r_port"},
    {ox_async_r_port_link, "ox_async_r_port_link"},
    {ox_async_r_port_mtu, "ox_async_r_port_mtu"},
    {ox_async_r_port_lid, "ox_async_r_port_lid"},
    {ox_async_r_port_pkey_in, "ox_async_r_port_pkey_in"},
    {ox_async_r_port_pkey_out, "ox_async_r_port_pkey_out"},
    {ox_async_r_port_link_up, "ox_async_r_port_link_up"},
    {ox_async_r_port_link_down, "ox_async_r_port_link_down"},
    {ox_async_r_port_sm_change, "ox_async_r_port_sm_change"},
    {ox_async_r_gid_in, "ox_async_r_gid_in"},
    {ox_async_r_gid_out, "ox_async_r_gid_out"},
    {ox_async_r_mc_group_create, "ox_async_r_mc_group_create"},
    {ox_async_r_mc_group_delete, "ox_async_r_mc_group_delete"},
};

const char *ulp_async_event_name(uint32_t event_type) {
    size_t i;

    for (i = 0; i < sizeof(g_event_names) / sizeof(g_event_names[0]); i++)
        if (g_event_names[i].value == event_type) return g_event_names[i].name;
    return "ox_async_r_?";
}

static const struct {
    long value;
    const char *name;
} g_request_names[] = {
    {ox_async_even_all_qp, "ox_async_even_all_qp"},   {ox_async_even_all_cq, "ox_async_even_all_cq"},
    {ox_async_even_all_eec, "ox_async_even_all_eec"}, {ox_async_even_all_hca, "ox_async_even_all_hca"},
    {ox_async_even_all, "ox_async_even_all"},         {ox_async_even_qp, "ox_async_even_qp"},
    {ox_async_even_cq, "ox_async_even_cq"},           {ox_async_even_eec, "ox_async_even_eec"},
    {ox_async_even_hca, "ox_async_even_hca"},         {ox_async_even_port, "ox_async_even_port"},
};

long ulp_async_request_value(const char *name) {
    size_t i;

    for (i = 0; i < sizeof(g_request_names) / sizeof(g_request_names[0]); i++)
        if (strcmp(g_request_names[i].name, name) == 0) return g_request_names[i].value;
    return -1;
}
