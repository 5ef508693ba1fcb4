/* The upper-layer verbs shim: what an upper-layer protocol does to use an HCA provider, callable
 * from C++ without the kernel-side headers.
 *
 * The generic verbs headers sit on the emulated kernel's C headers, which do not share a
 * translation unit with the C++ library; so the calls are made here, in C, and this header
 * speaks plain C types. Records the entry points fill (HCA and port attributes) travel as opaque
 * buffers of ulp_sizeof_*() bytes; ulp_format_*() describes them in one line.
 *
 * Every call goes through a provider's function table (ox_hca_func_t), found through the stack's
 * verbs core, never around it. Results are the entry point's ox_return_t value; ulp_status_name()
 * names it. One file per subject: ulp_verbs.c (provider, HCA, queries, PDs, memory regions);
 * later subjects add ulp_verbs_<subject>.c and declare their calls below. */
#ifndef MARLIX_ULP_VERBS_H
#define MARLIX_ULP_VERBS_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* A provider's function table (ox_hca_func_t), opaque here. */
typedef struct ox_hca_func_st ulp_funcs_t;

/* ---- Provider and status --------------------------------------------------------------------- */

/* The table of the provider registered under `provider_name`, or null. */
const ulp_funcs_t *ulp_find_provider(const char *provider_name);
/* The verbs core's default HCA name. */
const char *ulp_default_hca_name(void);
/* "ox_return_ok", "ox_return_err", ...; "ox_return_?" for a value outside the enumeration. */
const char *ulp_status_name(int status);
/* The entry point in table slot `slot` (0 .. 72), as an address. */
const void *ulp_slot(const ulp_funcs_t *funcs, int slot);

/* ---- HCA ------------------------------------------------------------------------------------- */

int ulp_hca_open(const ulp_funcs_t *funcs, const char *name, void *context, void **hca);
int ulp_hca_close(const ulp_funcs_t *funcs, void *hca);

size_t ulp_sizeof_hca_attrib(void);
size_t ulp_sizeof_port_attrib(void);
int ulp_hca_query(const ulp_funcs_t *funcs, void *hca, void *hca_attrib);
int ulp_port_query(const ulp_funcs_t *funcs, void *hca, unsigned port, void *port_attrib);
/* `gids` holds room for *size GIDs of 16 bytes each, in the generic byte order. */
int ulp_get_port_gid_tbl(const ulp_funcs_t *funcs, void *hca, unsigned port, uint32_t *size, uint8_t *gids);
int ulp_get_port_partition_tbl(const ulp_funcs_t *funcs, void *hca, unsigned port, uint32_t *size,
                               uint16_t *pkeys);
/* HCA modify with the given port (0: none) and capability bits for the first port record. */
int ulp_hca_modify(const ulp_funcs_t *funcs, void *hca, unsigned port, uint32_t port_capability_support,
                   int bad_p_key_count_f, int bad_q_key_count_f);

/* One line: "ports 2, max qp 64512, max cq 65408, max mr 131056, max pd 32764, guid 0x..., vendor 0x2c9
 * part 0x5a44 hw 0xa1". */
int ulp_format_hca_attrib(const void *hca_attrib, char *buf, size_t len);
/* One line: "port 1: state 4, lid 1, lmc 0, mtu 4, msg size 65536, gid table 32, pkey table 64, sm lid 1". */
int ulp_format_port_attrib(const void *port_attrib, char *buf, size_t len);
/* Fields of the attribute records that scripts and tests read by name ("port_state", "port_num",
 * ...); returns 0 and stores the value, or -1 for an unknown field. */
int ulp_port_attrib_field(const void *port_attrib, const char *field, uint64_t *value);
int ulp_hca_attrib_field(const void *hca_attrib, const char *field, uint64_t *value);

/* ---- Protection domains and the generic region ----------------------------------------------- */

int ulp_pd_allocate(const ulp_funcs_t *funcs, void *hca, uint32_t *pd);
int ulp_pd_deallocate(const ulp_funcs_t *funcs, void *hca, uint32_t pd);
int ulp_get_gen_pd_h(const ulp_funcs_t *funcs, void *hca, uint32_t *pd);
int ulp_get_gen_mr_attrib(const ulp_funcs_t *funcs, void *hca, void *addr, unsigned long length, uint64_t *mr,
                          uint32_t *l_key, uint32_t *r_key);
int ulp_va2advertise_addr(const ulp_funcs_t *funcs, void *hca, unsigned long v_addr, unsigned long *adv_addr);

/* ---- Memory regions ---------------------------------------------------------------------------- */

int ulp_mr_register(const ulp_funcs_t *funcs, void *hca, void *addr, unsigned long length, uint32_t pd,
                    uint32_t access, uint64_t *mr, uint32_t *l_key, uint32_t *r_key);
/* A physical region of `count` buffers (start, size pairs). */
int ulp_phy_mr_register(const ulp_funcs_t *funcs, void *hca, unsigned count, const uint64_t *starts,
                        const uint64_t *sizes, uint64_t iova_request, unsigned long length,
                        unsigned long offset, uint32_t pd, uint32_t access, uint64_t *mr, uint64_t *iova,
                        uint32_t *l_key, uint32_t *r_key);

struct ulp_mr_attrib {
    void *local_addr;
    unsigned long local_length;
    void *remote_addr;
    unsigned long remote_length;
    uint32_t pd;
    uint32_t access;
    uint32_t l_key;
    uint32_t r_key;
};
int ulp_mr_query(const ulp_funcs_t *funcs, void *hca, uint64_t mr, struct ulp_mr_attrib *attrib);
int ulp_mr_destroy(const ulp_funcs_t *funcs, void *hca, uint64_t mr);

/* ---- Kernel memory (ulp_verbs_memory.c) ------------------------------------------------------- */

/* A zeroed kernel buffer (kmalloc), or null. */
void *ulp_kmalloc(size_t size);
void ulp_kfree(void *buffer);

#ifdef __cplusplus
}
#endif

#endif
