/* Diagnostic dumps of the control file: build options, the generic memory registration, the
 * ring of last VAPI errors and the memory accounting table. */
#define TAVOR_PROC_SOURCE
#include <linux/kernel.h>
#include <linux/string.h>
#include <linux/mm.h>
#include <linux/version.h>
#include <asm/page.h>

#include "ox-adaptor-common.h"
#include "tavor-proc.h"
#include "opened-hcas.h"

/* The proc interface's own accounting table: only "show_mem" touches it, so its sizes and counts
 * stay 0 apart from the row that command fills in. The adaptor's live table is not shown. */
static alloc_mem_t g_alloc_mem_array[mem_last_ix] = {
    {"ox_opened_hca_t    ", 0, 0}, {"ox_gen_mr_element_t", 0, 0}, {"ox_opened_cq_t     ", 0, 0},
    {"tasklet_struct     ", 0, 0}, {"ox_opened_qp_t     ", 0, 0}, {"ox_asy_ev_element_t", 0, 0},
    {"mem_gen_mem_array_p", 0, 0}, {"mem_opened_cq_array", 0, 0}, {"mem_opened_qp_array", 0, 0},
    {"mem_g_com_cq_array ", 0, 0},
};
static u32 mem_statistic_err = 0;

static const char dashes_50[] = "--------------------------------------------------";
static const char dashes_59[] = "-----------------------------------------------------------";

void proc_show_compile_flags(int argc, char **argv) {
    (void)argc;
    (void)argv;
    printk("compile with: MLX_EVAPI_CQ_EH_CHANGES\n");
    printk("compile with: MLX_BUG_POST_SEND_NEED_LOCK - only UD, lock per QP\n");
    printk("compile with: MLX_BUG_POST_RECEIVE_NEED_LOCK\n");
    printk("compile with: OX_TAVOR_STACK_SAVE_FOR_POST_SEND_IN_OPENED_QP\n");
    printk("compile with: OX_TAVOR_STACK_SAVE_FOR_POST_RECEIVE_IN_OPENED_QP\n");
    printk("compile with: ADAPT_TAVOT_TIMER_CALL_COM\n");
    printk("compile with: ADAPTOR_TAVOR_NO_CQ_EVENTS\n");
    printk("compile with: ADAPT_ALLOC_MEM_STATISTIC\n");
    printk("compile with: OX_CQ_POLL_TEST\n");
    printk("compile with: REGISTER_RAM_IN_ONE_PHY_MR\n");
    printk("compile with: OX_ADAPT_COMPILE_WITHOUT_DEVMEM_CAP\n");
    printk("support: inline, list send/receive\n");
}

void proc_show_registration_mem_info(int argc, char **argv) {
    ox_opened_hca_t *hca;
    struct sysinfo si;
    unsigned long bytes_in_ram = (unsigned long)high_memory - PAGE_OFFSET;

    (void)argv;
    AD_TAVOR_DEBUG("argc: %d", argc);
    if (argc > 1) {
        printk("ERROR - to many args (args:%d)\n", argc);
        return;
    }

    /* The HCA-dependent block is left out while no HCA is open. */
    hca = ox_mlx_first_opened_hca();
    if (hca) {
        ox_gen_mr_element_t empty;
        ox_gen_mr_element_t *mr = ox_mlx_first_gen_mr(hca);

        if (!mr) {
            memset(&empty, 0, sizeof(empty));
            mr = &empty;
        }
        printk(
            "Generic pd_h     : %d\nNum of generic MR: %d\nMR Size          : All the RAM\n"
            "Max msg length   : Port limitation\nMR handle        : %d\nMR start add     : %p\n"
            "MR length        : %d\nMR l_key         : %d\nMR r_key         : %d\nMR IOVA          : %ld\n"
            "MR phy_length    : %ld\nMR phy_offset    : %ld\n------------------------------\n",
            (int)hca->generic_pd_h, (int)hca->num_of_gen_mem_reg, (int)mr->mr_h, mr->start_mr,
            (int)mr->length, (int)mr->l_key, (int)mr->r_key, (long)mr->iova, (long)mr->phy_length,
            (long)mr->phy_offset);
    }

    si_meminfo(&si);
    printk("\nSystem memory information (BUG information !!!):\n");
    printk(
        "\n      Total:    Used:    Free:  Shared: Buffers:\nMem:  %lu %lu %lu %lu %lu \nSwap: %lu %lu "
        "%lu\n\n",
        si.totalram * PAGE_SIZE, (si.totalram - si.freeram) * PAGE_SIZE, si.freeram * PAGE_SIZE,
        si.sharedram * PAGE_SIZE, si.bufferram * PAGE_SIZE, si.totalswap * PAGE_SIZE,
        (si.totalswap - si.freeswap) * PAGE_SIZE, si.freeswap * PAGE_SIZE);
    printk("\nNumber of pages: %8lu (calc: %8lu)\n", num_physpages, bytes_in_ram / PAGE_SIZE);
    printk("\nTotal Memory: %8lu Kb\n", si.totalram * (PAGE_SIZE / 1024));
    printk("%s\n", dashes_50);

    /* The generic registration is one physical region from address 0 covering all but the last
     * 16 KiB of the address space; these are the figures behind it. */
    printk(
        "\nAdaptor MR register defines:\nPAGE_SIZE: %d\nPAGE_OFFSET: %p\nhigh_memory: %p\nMax mr "
        "registeration: %d\n"
        "Offset of mem registration (from the start of RAM): %d\nStart of register addr: %p\nMR size (MB): "
        "%d\n"
        "MR size (byte): %d\nOverlap size between mr: %d\nNum of pages in MB: %d\nAdd to high_memory "
        "address: %d\n",
        (int)PAGE_SIZE, (void *)PAGE_OFFSET, high_memory, 1, 0, (void *)PAGE_OFFSET,
        (int)(bytes_in_ram >> 20), (int)bytes_in_ram, 0, (int)((1UL << 20) / PAGE_SIZE), 0);
    /* No newline of its own: the next block's leading "\n" ends this line. */
    printk("in: LINUX_VERSION_CODE - KERNEL_VERSION(2,4,9)");
    printk("\nAdaptor calculations:\n");
    printk("Num_of_byte_in_ram: %lu\nEnd_addr_of_ram: %p\nNum_of_byte_to_register: %lu\n", bytes_in_ram,
           high_memory, bytes_in_ram - 4096);
    printk("%s\n", dashes_50);
}

/* Name of a function index as the dump prints it. Index 0 (an empty slot), the unnamed 61 and
 * anything above 64 print as "unknown error". Index 4's name carries its own newline. */
static const char *func_indx_name(u32 ix) {
    switch (ix) {
        case hca_query_indx:
            return "  hca_query_indx";
        case port_query_indx:
            return "  port_query_indx";
        case get_port_gid_tbl_indx:
            return "  get_port_gid_tbl_indx";
        case get_port_partition_tbl_indx:
            return "  get_port_partition_tbl_indx\n";
        case hca_modify_indx:
            return "  hca_modify_indx";
        case hca_close_indx:
            return "  hca_close_indx";
        case pd_allocate_indx:
            return "  pd_allocate_indx";
        case pd_deallocate_indx:
            return "  pd_deallocate_indx";
        case rdd_allocate_indx:
            return "  rdd_allocate_indx";
        case rdd_deallocate_indx:
            return "  rdd_deallocate_indx";
        case address_hndl_create_indx:
            return "  address_hndl_create_indx";
        case address_hndl_modify_indx:
            return "  address_hndl_modify_indx";
        case address_hndl_query_indx:
            return "  address_hndl_query_indx";
        case address_hndl_destroy_indx:
            return "  address_hndl_destroy_indx";
        case cq_create_indx:
            return "  cq_create_indx";
        case cq_query_indx:
            return "  cq_query_indx";
        case cq_resize_indx:
            return "  cq_resize_indx";
        case cq_destroy_indx:
            return "  cq_destroy_indx";
        case cq_modify_attrib_indx:
            return "  cq_modify_attrib_indx";
        case qp_create_indx:
            return "  qp_create_indx";
        case qp_modify_indx:
            return "  qp_modify_indx";
        case qp_query_indx:
            return "  qp_query_indx";
        case qp_destroy_indx:
            return "  qp_destroy_indx";
        case qp_get_special_indx:
            return "  qp_get_special_indx";
        case qp_context_set_indx:
            return "  qp_context_set_indx";
        case eec_create_indx:
            return "  eec_create_indx";
        case eec_modify_indx:
            return "  eec_modify_indx";
        case eec_query_indx:
            return "  eec_query_indx";
        case eec_destroy_indx:
            return "  eec_destroy_indx";
        case mem_region_register_indx:
            return "  mem_region_register_indx";
        case phy_mem_region_register_indx:
            return "  phy_mem_region_register_indx";
        case mem_region_query_indx:
            return "  mem_region_query_indx";
        case mem_region_destroy_indx:
            return "  mem_region_destroy_indx";
        case mem_region_re_register_indx:
            return "  mem_region_re_register_indx";
        case phy_mem_region_re_register_indx:
            return "  phy_mem_region_re_register_indx";
        case shared_mem_region_register_indx:
            return "  shared_mem_region_register_indx";
        case mem_win_allocate_indx:
            return "  mem_win_allocate_indx";
        case mem_win_query_indx:
            return "  mem_win_query_indx";
        case mem_win_bind_indx:
            return "  mem_win_bind_indx";
        case mem_win_deallocate_indx:
            return "  mem_win_deallocate_indx";
        case qp_attach_to_multicast_indx:
            return "  qp_attach_to_multicast_indx";
        case qp_detach_from_multicast_indx:
            return "  qp_detach_from_multicast_indx";
        case post_send_indx:
            return "  post_send_indx";
        case post_receive_indx:
            return "  post_receive_indx";
        case poll_for_completion_indx:
            return "  poll_for_completion_indx";
        case request_completion_notification_indx:
            return "  request_completion_notification_indx";
        case set_completion_event_handler_indx:
            return "  set_completion_event_handler_indx";
        case set_async_event_cb_indx:
            return "  set_async_event_cb_indx";
        case dell_async_event_cb_indx:
            return "  dell_async_event_cb_indx";
        case instant_send_indx:
            return "  instant_send_indx";
        case get_gen_pd_h_indx:
            return "  get_gen_pd_h_indx";
        case get_gen_mr_attri_indx:
            return "  get_gen_mr_attri_indx";
        case req_comp_cq_indx:
            return "  req_comp_cq_indx";
        case del_comp_cq_indx:
            return "  del_comp_cq_indx";
        case tavor_alloc_fmr_indx:
            return "  tavor_alloc_fmr_indx";
        case tavor_map_fmr_indx:
            return "  tavor_map_fmr_indx";
        case tavor_unmap_fmr_indx:
            return "  tavor_unmap_fmr_indx";
        case tavor_free_fmr_indx:
            return "  tavor_free_fmr_indx";
        case tavor_inline_post_send_indx:
            return "  tavor_inline_post_send_indx";
        case tavor_post_send_list_indx:
            return "  tavor_post_send_list_indx";
        case tavor_peek_cq_indx:
            return "  tavor_peek_cq_indx";
        case tavor_alloc_dev_mem_indx:
            return "  tavor_alloc_dev_mem_indx";
        case tavor_free_dev_mem_indx:
            return "  tavor_free_dev_mem_indx";
        default:
            return "  unknown error";
    }
}

/* Ring slot i steps back from the newest entry, wrapping from -1 to 19. */
static int ring_slot(int back) {
    int ix = (int)(current_avail_ix % LAST_VAPI_ERR_NUM) - 1 - back;

    while (ix < 0) ix += LAST_VAPI_ERR_NUM;
    return ix;
}

void proc_show_last_err(int argc, char **argv) {
    int i;

    printk("Last VAPI errors: ");
    for (i = 0; i < LAST_VAPI_ERR_NUM; i++)
        printk("%d, ", (int)g_last_vapi_err_array[ring_slot(i)].func_ix_st);
    printk("\n");

    printk("Last VAPI errors symbols: \n");
    for (i = 0; i < LAST_VAPI_ERR_NUM; i++) {
        const struct vapi_err_st *e = &g_last_vapi_err_array[ring_slot(i)];

        printk("%s (%d)\n", func_indx_name(e->func_ix_st), (int)e->stat_st);
    }

    if (argc > 1 && simple_strtoul(argv[1], 0, 0) == 9) {
        printk("Empty the VAPI error logger..\n");
        for (i = 0; i < LAST_VAPI_ERR_NUM; i++) {
            g_last_vapi_err_array[i].func_ix_st = 0;
            g_last_vapi_err_array[i].stat_st = 0;
        }
    }
}

static u32 slab_size(u32 size) {
    u32 slab;

    for (slab = 32; slab <= 65536; slab <<= 1)
        if (slab >= size) return slab;
    return 131072;
}

void proc_show_mem_alloc(int argc, char **argv) {
    ox_opened_hca_t *hca = ox_mlx_first_opened_hca();
    u32 total = 0, total_slab = 0;
    int i;

    (void)argc;
    (void)argv;
    /* Left as it is while no HCA is open. */
    if (hca) g_alloc_mem_array[mem_gen_mem_array_p_ix].struct_size = 8 * hca->num_of_gen_mem_reg;
    if (mem_statistic_err) printk("mem_statistic_err: %d\n", (int)mem_statistic_err);

    printk("%s\n", dashes_59);
    printk("ix) name                      size      slab    Number of allocations\n");
    for (i = 0; i < mem_last_ix; i++) {
        u32 slab = slab_size(g_alloc_mem_array[i].struct_size);

        printk(" %d) %15s: %8d  %8d  %8d\n", i, g_alloc_mem_array[i].name,
               (int)g_alloc_mem_array[i].struct_size, (int)slab, (int)g_alloc_mem_array[i].alloc_num);
        total += g_alloc_mem_array[i].struct_size;
        total_slab += slab;
    }
    /* One element per row, not multiplied by the counts. */
    printk("total_mem_alloc: %d, total_slab_mem_alloc: %d\n", (int)total, (int)total_slab);
    printk("%s\n", dashes_59);
}
