/* HCA open: an HCA name becomes an opened-HCA record, the handle of every later call on it.
 *
 * Open gets a VAPI handle (opening the device, or borrowing the handle of a device that is open
 * already), builds the per-HCA tracking state, links the record into g_opened_mlx_hcas_list,
 * registers the asynchronous event handler, allocates the generic PD, registers all of physical
 * memory as one region in it, reads the port count, and arms the completion generator's timer
 * when no tick is pending. The module stays referenced while the HCA is open.
 *
 * Failures before the record is linked unwind by hand; failures after the handler is registered
 * go through HCA close, which tears everything down. Two kept behaviours matter to callers: a
 * failed handler registration ends the call with ox_return_ok and no handle, and a failed
 * capability query releases the record while it is still on the global list. */
#include <linux/kernel.h>
#include <linux/module.h>
#include <linux/slab.h>
#include <linux/string.h>
#include <linux/list.h>
#include <linux/mm.h>
#include <linux/interrupt.h>
#include <linux/jiffies.h>
#include <asm/page.h>
#include <asm/atomic.h>

#include <vapi.h>
#include <evapi.h>

#include "adaptor-tavor.h"
#include "async-events.h"
#include "completion-generator.h"
#include "ox-entry-points.h"
#include "ox-timing.h"

/* The generic registration: one physical buffer from address 0 covering the whole physical
 * address space but its last 16 KiB, with local write, remote write and remote read. */
#define OX_GEN_MR_PHY_SIZE 0xFFFFFFFFFFFFC000ULL
#define OX_GEN_MR_ACCESS 7
/* The size logged as "Phyical registration size": 64 GiB, or the RAM count plus 512 MiB on a
 * host with more. The count is in pages and the constants in bytes; the value is only logged. */
#define OX_GEN_MR_INFO_SIZE 0x1000000000UL
#define OX_GEN_MR_INFO_BIG_RAM 0xFFFFFFFFFUL
#define OX_GEN_MR_INFO_EXTRA 0x20000000UL

/* Registers all of physical memory in the HCA's generic PD and appends the element that remembers
 * it to the HCA's generic registration list. */
static ox_return_t ox_mlx_gen_mr_register(ox_opened_hca_t *opened_hca_p) {
    unsigned long ram_bytes = (unsigned long)high_memory - PAGE_OFFSET;
    unsigned long info_size;
    struct sysinfo si;
    ox_phy_buf_t phy_buf;
    ox_phy_list_t phy_list;
    ox_mem_reg_h_t mr_h = 0;
    ox_iova_t iova = 0;
    ox_l_key_t l_key = 0;
    ox_r_key_t r_key = 0;
    ox_gen_mr_element_t *element;
    unsigned long flags;
    int i;

    AD_TAVOR_DEBUG("\nNum_of_byte_in_ram: %lu\nEnd_addr_of_ram: %p\nNum_of_byte_to_register: %lu\n\n",
                   ram_bytes, high_memory, ram_bytes - 4096);
    AD_TAVOR_DEBUG("Doing Physical RAM registration in 1 MR");

    si_meminfo(&si);
    info_size = OX_GEN_MR_INFO_SIZE;
    if (si.totalram > OX_GEN_MR_INFO_BIG_RAM) info_size = si.totalram + OX_GEN_MR_INFO_EXTRA;
    AD_TAVOR_DEBUG("Phyical registration size: %lu", info_size);

    /* One region; the loop form numbers it in the messages. */
    for (i = 0; i < 1; i++) {
        phy_buf.start = 0;
        phy_buf.size = OX_GEN_MR_PHY_SIZE;
        phy_list.number_of_buff = 1;
        phy_list.phy_list = &phy_buf;
        if (oxi_mlx_phy_mem_region_register(opened_hca_p, &phy_list, 0, (unsigned long)OX_GEN_MR_PHY_SIZE, 0,
                                            opened_hca_p->generic_pd_h, OX_GEN_MR_ACCESS, &mr_h, &iova,
                                            &l_key, &r_key) != ox_return_ok) {
            AD_TAVOR_ERROR("ERROR: in register Physical MR number: %d", i);
            ox_mlx_count_error();
            return ox_return_err;
        }

        element = (ox_gen_mr_element_t *)kmalloc(sizeof(ox_gen_mr_element_t), GFP_ATOMIC);
        if (!element) {
            AD_TAVOR_ERROR("Fail to allocate memory: ox_gen_mr_element_t");
            ox_mlx_count_alloc_failure();
            if (oxi_mlx_mem_region_destroy(opened_hca_p, mr_h) != ox_return_ok)
                AD_TAVOR_ERROR("Fail to deregister MR (Physical): %d", (int)mr_h);
            return ox_return_err;
        }
        mem_alloc_add(mem_mr_ix);
        AD_TAVOR_DEBUG("%d. temp_gen_mr_element_p: %p", i + 1, (void *)element);
        element->hca_h = (ox_hca_h_t)(unsigned long)opened_hca_p->hca_h;
        element->pd_h = opened_hca_p->generic_pd_h;
        element->mr_h = mr_h;
        element->start_mr = 0;
        element->length = 0;
        element->end_mr = 0;
        element->access_con = OX_GEN_MR_ACCESS;
        element->l_key = l_key;
        element->r_key = r_key;
        element->iova = iova;
        element->phy_length = (unsigned long)OX_GEN_MR_PHY_SIZE;
        element->phy_offset = 0;
        OX_MLX_LOCK(flags);
        list_add_tail(&element->list, &opened_hca_p->generic_mem_reg_list);
        OX_MLX_UNLOCK(flags);
        AD_TAVOR_DEBUG("\n\n     OK Physical Register the RAM in 1 MR\n\n\n\n");
    }
    return ox_return_ok;
}

ox_return_t oxi_mlx_hca_open(const char *name, void *context, ox_opened_hca_t **base_opened_hca_p) {
    VAPI_hca_id_t hca_id;
    ox_opened_hca_t *opened_hca_p = 0;
    ox_hca_attrib_t hca_attrib;
    ox_return_t ret = ox_return_ok;
    int vapi_failed = 0;
    unsigned long flags;
    VAPI_hca_hndl_t hca_h;
    VAPI_ret_t stat;

    /* Held while the HCA stays open; dropped by the failure tail below or by HCA close. The
     * try-get can only fail while the module is being unloaded, when nobody may open. */
    (void)try_module_get(THIS_MODULE);

    /* A missing name is refused like one that does not fit. */
    if (!name || strnlen(name, sizeof(VAPI_hca_id_t)) >= sizeof(VAPI_hca_id_t)) {
        ret = ox_return_err_hca_name;
        goto fail;
    }
    memset(hca_id, 0, sizeof(hca_id));
    strcpy(hca_id, name);

    if (hca_ix) {
        sprintf(hca_id, "InfiniHost%d", hca_ix);
        printk("oxi_mlx_hca_open: ipoib-ud will work with HCA: %s\n", hca_id);
    }

    opened_hca_p = (ox_opened_hca_t *)kmalloc(sizeof(ox_opened_hca_t), GFP_ATOMIC);
    if (!opened_hca_p) {
        AD_TAVOR_ERROR("Fail to allocate memory: ox_opened_hca_t, size: %ld", (long)sizeof(ox_opened_hca_t));
        ox_mlx_count_alloc_failure();
        ret = ox_return_err_alloc_mem;
        goto fail;
    }
    memset(opened_hca_p, 0, sizeof(*opened_hca_p));
    opened_hca_p->next = 0;
    AD_TAVOR_DEBUG("opened_hca_p: %p", (void *)opened_hca_p);
    mem_alloc_add(mem_hca_ix);
    INIT_LIST_HEAD(&opened_hca_p->opened_cq_list);
    INIT_LIST_HEAD(&opened_hca_p->opened_qp_list);
    INIT_LIST_HEAD(&opened_hca_p->generic_mem_reg_list);
    INIT_LIST_HEAD(&opened_hca_p->events_lists.reg_for_async);

    /* Slot 1000 exists too: handles 0 to 1000 are looked up in the arrays. */
    opened_hca_p->opened_cq_array = (ox_opened_cq_t **)kmalloc(OX_OPENED_ARRAY_ALLOC_SIZE, GFP_ATOMIC);
    if (!opened_hca_p->opened_cq_array) {
        AD_TAVOR_ERROR("Fail to allocate memory: opened_hca_p->opened_cq_array");
        ox_mlx_count_alloc_failure();
        ret = ox_return_err_alloc_mem;
        goto free_record;
    }
    memset(opened_hca_p->opened_cq_array, 0, OX_OPENED_ARRAY_ALLOC_SIZE);
    AD_TAVOR_DEBUG("opened_hca_p->opened_cq_array: %p", (void *)opened_hca_p->opened_cq_array);
    mem_alloc_add(mem_opened_cq_array_ix);

    opened_hca_p->opened_qp_array = (ox_opened_qp_t **)kmalloc(OX_OPENED_ARRAY_ALLOC_SIZE, GFP_ATOMIC);
    if (!opened_hca_p->opened_qp_array) {
        AD_TAVOR_ERROR("Fail to allocate memory: opened_hca_p->opened_qp_array");
        ox_mlx_count_alloc_failure();
        ret = ox_return_err_alloc_mem;
        goto free_cq_array;
    }
    memset(opened_hca_p->opened_qp_array, 0, OX_OPENED_ARRAY_ALLOC_SIZE);
    AD_TAVOR_DEBUG("opened_hca_p->opened_qp_array: %p", (void *)opened_hca_p->opened_qp_array);
    mem_alloc_add(mem_opened_qp_array_ix);

    /* A device that is open already (by VAPI's own users or an earlier open here) lends its
     * handle: two opens of one HCA are two records sharing one VAPI handle. */
    AD_TAVOR_DEBUG("device name: %s", hca_id);
    stat = VAPI_open_hca(hca_id, &opened_hca_p->hca_h);
    AD_TAVOR_DEBUG("after VAPI_open_hca() stat: %d (%s)", stat, AD_TAVOR_MLX_STR);
    if (stat == VAPI_OK) {
        AD_TAVOR_DEBUG("get the hca_h by VAPI_open_hca (get_hca_h_by_open = true)");
        opened_hca_p->get_hca_h_by_open = TRUE;
    } else {
        AD_TAVOR_DEBUG("Will try to get HCA handle (if Device is alredy open)");
        stat = EVAPI_get_hca_hndl(hca_id, &opened_hca_p->hca_h);
        if (stat != VAPI_OK) {
            AD_TAVOR_ERROR("ERROR EVAPI_get_hca_hndl(): %s (mlx:%d, %s)", name, stat, AD_TAVOR_MLX_STR);
            vapi_failed = 1;
            goto free_qp_array;
        }
        AD_TAVOR_DEBUG("get the hca_h by EVAPI_get_hca_hndl (get_hca_h_by_open = false)");
        opened_hca_p->get_hca_h_by_open = FALSE;
    }

    AD_TAVOR_DEBUG("New hca_h: %d", (int)opened_hca_p->hca_h);
    opened_hca_p->app_hca_h = context;
    opened_hca_p->gen_mem_array_p = 0;
    opened_hca_p->num_of_gen_mem_reg = 0;
    opened_hca_p->generic_pd_h = 0;
    AD_TAVOR_DEBUG("ox_opened_hca_t struct: hca_h: %d, app_hca_h: %p", (int)opened_hca_p->hca_h,
                   opened_hca_p->app_hca_h);
    OX_MLX_LOCK(flags);
    list_add(&opened_hca_p->list, &g_opened_mlx_hcas_list);
    OX_MLX_UNLOCK(flags);
    g_stat.opend_device_num++;

    AD_TAVOR_DEBUG("set commpletion event handler for hca_h: %d", (int)opened_hca_p->hca_h);
    stat = VAPI_set_async_event_handler(opened_hca_p->hca_h, ox_mlx_async_event_callback, opened_hca_p);
    if (stat != VAPI_OK) {
        /* Kept as it is: the HCA is closed again, and the caller gets ox_return_ok without a
         * handle. */
        AD_TAVOR_ERROR("MLXAD_ERR: VAPI Fail to set async event callback for device handle: %d (mlx:%d, %s)",
                       (int)opened_hca_p->hca_h, stat, AD_TAVOR_MLX_STR);
        goto close_hca;
    }

    tasklet_init(&opened_hca_p->events_lists.async_tasklet, ox_call_app_async_event_cb, 0);
    ret = oxi_mlx_pd_allocate(opened_hca_p, &opened_hca_p->generic_pd_h);
    if (ret != ox_return_ok) {
        AD_TAVOR_ERROR("Fail to allocate pd can't register the RAM, hca_h: %d", (int)opened_hca_p->hca_h);
        goto close_hca;
    }
    AD_TAVOR_DEBUG("generic pd_h: %d  for hca_h: %d", (int)opened_hca_p->generic_pd_h,
                   (int)opened_hca_p->hca_h);

    ret = ox_mlx_gen_mr_register(opened_hca_p);
    if (ret != ox_return_ok) {
        AD_TAVOR_ERROR("Fail to register the RAM, hca_h: %d", (int)opened_hca_p->hca_h);
        goto close_hca;
    }

    memset(&hca_attrib, 0, sizeof(hca_attrib));
    ret = oxi_mlx_hca_query(opened_hca_p, &hca_attrib);
    if (ret != ox_return_ok) {
        /* Kept as it is: the record is released below while it is still on the global list,
         * with its VAPI handle, PD, region and handler in place. */
        AD_TAVOR_ERROR("Fail to query HCA and fill HCA cap, hca_h: %d", (int)opened_hca_p->hca_h);
        goto free_qp_array;
    }
    AD_TAVOR_DEBUG("after hca query hca_attrib.port_num: %d", (int)hca_attrib.port_num);
    opened_hca_p->hca_cap_query.port_num = hca_attrib.port_num;

    /* The completion generator ticks while an HCA is open: the open that finds no tick pending
     * arms it, one interval from now. */
    if (atomic_dec_and_test(&g_com_add_timer_is_on)) {
        AD_TAVOR_DEBUG("ADAPT_TAVOT_TIMER_CALL_COM - will init the timer");
        g_com_timer.expires = jiffies + g_com_num_jiff_intervals;
        add_timing(&g_com_timer);
    } else {
        atomic_inc(&g_com_add_timer_is_on);
    }
    *base_opened_hca_p = opened_hca_p;
    AD_TAVOR_DEBUG("opened_hca_p: %p", (void *)opened_hca_p);
    return ox_return_ok;

close_hca:
    /* HCA close tears everything down, the module reference included, and frees the record. */
    hca_h = opened_hca_p->hca_h;
    AD_TAVOR_ERROR("error4: Will close mlx device with handle: %d", (int)hca_h);
    if (oxi_mlx_hca_close(opened_hca_p) != ox_return_ok)
        AD_TAVOR_ERROR("Fail to close mlx device with handle: %d", (int)hca_h);
    return ret;

free_qp_array:
    AD_TAVOR_ERROR("error3: V_FREE(opened_hca_p->opened_qp_array)");
    kfree(opened_hca_p->opened_qp_array);
    mem_alloc_del(mem_opened_qp_array_ix);
free_cq_array:
    AD_TAVOR_ERROR("error2: V_FREE(opened_hca_p->opened_cq_array)");
    kfree(opened_hca_p->opened_cq_array);
    mem_alloc_del(mem_opened_cq_array_ix);
free_record:
    AD_TAVOR_ERROR("error1: V_FREE(opened_hca_p)");
    kfree(opened_hca_p);
    mem_alloc_del(mem_hca_ix);
fail:
    AD_TAVOR_ERROR("error:");
    ox_mlx_count_error();
    module_put(THIS_MODULE);
    if (vapi_failed) {
        ox_mlx_count_vapi_error();
        return ox_return_err;
    }
    return ret;
}
