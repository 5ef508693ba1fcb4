/* Loading and unloading the adaptor: provider registration, bookkeeping, trace level, version
 * record, proc files and the completion generator. */
#include <linux/kernel.h>
#include <linux/module.h>
#include <linux/moduleparam.h>
#include <linux/init.h>
#include <linux/slab.h>
#include <linux/string.h>
#include <linux/list.h>
#include <linux/proc_fs.h>

#include <vapi.h>
#include <evapi.h>

#include "ox-verbs-core.h"
#include "ox-logger.h"
#include "ox-repository.h"
#include "ox-timing.h"
#include "adaptor-tavor.h"
#include "completion-generator.h"
#include "module-version.h"
#include "provider-table.h"
#include "tavor-proc.h"

MODULE_DESCRIPTION("InfiniHost HCA adaptor (provider \"mlx\")");
MODULE_VERSION(AD_TAVOR_MODULE_VERSION);

int oxi_mlx_max_ah_per_pd = 2252;
module_param(oxi_mlx_max_ah_per_pd, int, 0644);
MODULE_PARM_DESC(oxi_mlx_max_ah_per_pd, "Max number of AH per PD.");

int hca_ix = 0;
module_param(hca_ix, int, 0644);

#define AD_TAVOR_MAX_HCAS OX_MAX_PROVIDER_DEVICES
#define AD_TAVOR_REP_KEY "marlix/modules/adaptor-mlx/"
#define AD_TAVOR_REP_VALUE "debug-level"

static char *devices_names[AD_TAVOR_MAX_HCAS];
static ox_hca_prov_t *oxi_prov = 0;

/* Lists the HCAs VAPI knows and registers the provider "mlx" with them. The verbs core copies
 * the names, so the identifier buffer is released right after. */
static void ox_mlx_register_provider(void) {
    VAPI_hca_id_t *hca_ids;
    u_int32_t num_of_hcas = 0;
    u_int32_t i;
    VAPI_ret_t stat;

    memset(devices_names, 0, sizeof(devices_names));
    hca_ids = (VAPI_hca_id_t *)kmalloc(AD_TAVOR_MAX_HCAS * sizeof(VAPI_hca_id_t), GFP_KERNEL);
    if (!hca_ids) {
        AD_TAVOR_ERROR("kmalloc(%d) failed", (int)(AD_TAVOR_MAX_HCAS * sizeof(VAPI_hca_id_t)));
    } else {
        stat = EVAPI_list_hcas(AD_TAVOR_MAX_HCAS, &num_of_hcas, hca_ids);
        if (stat != VAPI_OK) AD_TAVOR_ERROR("EVAPI_list_hcas() failed %d %d", stat, (int)num_of_hcas);
        /* Never trust a count beyond the room that was given. */
        if (num_of_hcas > AD_TAVOR_MAX_HCAS) num_of_hcas = AD_TAVOR_MAX_HCAS;
        AD_TAVOR_DEBUG("EVAPI_list_hcas() returned %d entries", (int)num_of_hcas);
        for (i = 0; i < num_of_hcas; i++) {
            AD_TAVOR_DEBUG("hca %d: %s", (int)i, hca_ids[i]);
            devices_names[i] = hca_ids[i];
        }
    }
    /* The result is not checked: a provider that failed to register simply serves nobody. */
    ox_provider_reg("mlx", &oxi_mlx_funcs, devices_names, &oxi_prov);
    if (hca_ids) kfree(hca_ids);
    /* The names pointed into the released buffer. */
    memset(devices_names, 0, sizeof(devices_names));
}

/* Reads the trace level from the repository and follows its changes. The three messages are
 * printed whatever the level, without the log prefix. */
static void ox_mlx_read_trace_level(void) {
    rep_key_h_t root = 0;
    rep_key_h_t key = 0;
    long trace_lvl = 0;

    if (rep_get_root(&root) != 0 || rep_open_key(root, AD_TAVOR_REP_KEY, &key) != 0) {
        printk("OD_LOGGER: rep_open_key failed for, %s -- disabling logging\n", AD_TAVOR_REP_KEY);
        trace_lvl = 0;
    } else {
        rep_value_type_t type = rep_value_long;

        /* A value that is not a long is no trace level: treated like a missing one. */
        if (rep_get_value(key, AD_TAVOR_REP_VALUE, &trace_lvl, sizeof(trace_lvl), &type) != 0 ||
            type != rep_value_long) {
            printk("OD_LOGGER: rep_get_value failed for, %s -- disabling logging\n", AD_TAVOR_REP_KEY);
            trace_lvl = 0;
        } else {
            printk("LOGGER: Added key %s, trace level %d\n", AD_TAVOR_REP_KEY, (int)trace_lvl);
            rep_notify_key_change(key, trace_lvl_change_cb, &AD_TAVOR_trace_level, &AD_TAVOR_log_rep_h);
        }
        rep_close_key(key);
    }
    AD_TAVOR_trace_level = (int)trace_lvl;
}

/* The two proc files of the operator interface. A control file created before the link file
 * failed is left in place (the caller fails the load). */
static int ox_mlx_create_proc_files(void) {
    struct proc_dir_entry *entry;

    entry = create_proc_entry(PROC_CONTROL_PATH, S_IFREG | 0644, 0);
    if (!entry) return -1;
    entry->data = 0;
    entry->read_proc = print_mlx_adaptor_statistic;
    entry->write_proc = proc_write;

    entry = create_proc_entry(PROC_LINK_PATH, S_IFREG | 0644, 0);
    if (!entry) return -1;
    entry->data = 0;
    entry->read_proc = proc_read_link;
    entry->write_proc = 0;
    return 0;
}

/* Allocates the generator's CQ selection and prepares (does not arm) its timer. */
static void ox_mlx_prepare_generator(void) {
    g_com_cq_array = (ox_opened_cq_t **)kmalloc(AD_TAVOR_G_COM_CQ_ARRAY_SIZE, GFP_ATOMIC);
    if (g_com_cq_array) {
        mem_alloc_add(mem_g_com_cq_array_ix);
        AD_TAVOR_DEBUG("g_com_cq_array: %p", (void *)g_com_cq_array);
        memset(g_com_cq_array, 0, AD_TAVOR_G_COM_CQ_ARRAY_SIZE);
    } else {
        AD_TAVOR_ERROR("Fail to allocate memory: g_com_cq_array");
        ox_mlx_count_alloc_failure();
        AD_TAVOR_ERROR("the completion generator work mode can be 1 only !!!");
        g_com_work_mode = OX_COM_WA_WORK_MODE_ALL;
    }

    atomic_set(&g_com_add_timer_is_on, 1);
    init_timing(&g_com_timer);
    g_com_timer.data = 1;
    g_com_timer.function = ox_com_timer_generator;
}

static int __init ox_mlx_init(void) {
    g_com_num_jiff_intervals = OX_COM_DEFAULT_JIFF_INTERVALS;

    ox_mlx_register_provider();
    ox_hca_show_all();

    ox_mlx_bookkeeping_init();
    INIT_LIST_HEAD(&g_opened_mlx_hcas_list);

    ox_mlx_read_trace_level();

    if (module_version_init((char *)AD_TAVOR_MODULE_NAME, (char *)AD_TAVOR_MODULE_VERSION,
                            (char *)AD_TAVOR_MODULE_TAG) != 0) {
        AD_TAVOR_ERROR("Could not init module version!");
        goto fail;
    }
    if (ox_mlx_create_proc_files() != 0) {
        AD_TAVOR_ERROR("Could not create proc entry!");
        module_version_exit((char *)AD_TAVOR_MODULE_NAME);
        goto fail;
    }

    ox_mlx_prepare_generator();
    return 0;

fail:
    /* The provider registration stays as it is on this path. */
    rep_notify_del(AD_TAVOR_log_rep_h);
    AD_TAVOR_log_rep_h = 0;
    return -12;
}

static void __exit ox_mlx_exit(void) {
    if (g_com_cq_array) {
        AD_TAVOR_DEBUG("free g_com_cq_array: %p", (void *)g_com_cq_array);
        kfree(g_com_cq_array);
        g_com_cq_array = 0;
        mem_alloc_del(mem_g_com_cq_array_ix);
    }
    AD_TAVOR_DEBUG("stop g_com_timer");
    del_timing(&g_com_timer);

    ox_provider_unreg(oxi_prov);
    oxi_prov = 0;

    remove_proc_entry(PROC_CONTROL_PATH, 0);
    remove_proc_entry(PROC_LINK_PATH, 0);
    module_version_exit((char *)AD_TAVOR_MODULE_NAME);
    rep_notify_del(AD_TAVOR_log_rep_h);
    AD_TAVOR_log_rep_h = 0;
}

module_init(ox_mlx_init);
module_exit(ox_mlx_exit);
