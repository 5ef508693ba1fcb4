/* adaptor-mlx: field-by-field translation between the generic ox_ records and the VAPI ones.
 *
 * Every entry point copies its records field by field, never by layout. The rules that hold for
 * all of them live here:
 *   - GIDs: a generic GID holds the 16 bytes in the reverse order of VAPI's (byte k of one is
 *     byte 15-k of the other), in both directions;
 *   - statuses: an entry point chooses its own ox_return_t; the status table filled at load is
 *     kept for diagnostics only (ox_mlx_status_to_ox says how it would be read).
 * Translations of whole records are declared here and defined in translate-<subject>.cpp, one
 * file per subject. Compiles as C and as C++. */
#ifndef AD_TAVOR_TRANSLATE_H
#define AD_TAVOR_TRANSLATE_H

#include <linux/types.h>
#include <linux/string.h>

#include <vapi.h>

#include "ox-types.h"

__BEGIN_KERNEL_DECLS

#define OX_GID_BYTES 16

/* VAPI GID -> generic GID (bytes reversed). */
static inline void ox_mlx_gid_from_vapi(ox_gid_t *ox_gid, const IB_gid_t vapi_gid) {
    int k;

    for (k = 0; k < OX_GID_BYTES; k++) ox_gid->gid[k] = vapi_gid[OX_GID_BYTES - 1 - k];
}

/* Generic GID -> VAPI GID (bytes reversed). */
static inline void ox_mlx_gid_to_vapi(IB_gid_t vapi_gid, const ox_gid_t *ox_gid) {
    int k;

    for (k = 0; k < OX_GID_BYTES; k++) vapi_gid[k] = ox_gid->gid[OX_GID_BYTES - 1 - k];
}

/* What the status translation table holds for a VAPI status. The table is indexed by the
 * status's magnitude (VAPI failures are negative); statuses beyond the table read as
 * ox_return_err. No entry point uses it to choose its result. */
ox_return_t ox_mlx_status_to_ox(VAPI_ret_t stat);

/* ---- HCA and ports (translate-hca.cpp) ---------------------------------------------------------- */

/* The node GUID folded as the generic record reports it: bytes 0 to 6 OR-ed together, shifted
 * left by 8, OR byte 7. Only the low 16 bits can be set; that is the value upper layers see. */
u64 ox_mlx_fold_node_guid(const IB_guid_t node_guid);

/* Capabilities and vendor record -> generic HCA attributes (port_attrib_list is not written). */
void ox_mlx_hca_cap_to_ox(const VAPI_hca_cap_t *cap, const VAPI_hca_vendor_t *vendor,
                          ox_hca_attrib_t *attrib);

/* Port properties -> generic port attributes, except port_message_size, which the port query
 * decides itself. */
void ox_mlx_port_to_ox(const VAPI_hca_port_t *port, ox_port_num_t port_num, ox_port_attrib_t *attrib);

/* The generic capability bits of a port, from VAPI's capability mask. */
u32 ox_mlx_port_capability_to_ox(IB_port_cap_mask_t capability_mask);

/* The VAPI attribute mask an HCA modify selects from the generic capability bits. */
VAPI_hca_attr_mask_t ox_mlx_port_capability_to_attr_mask(u32 port_capability_support);

/* The raw 32-bit value of an enumeration field as the caller or VAPI stored it. Any value can
 * arrive there, also none of the enumerators; reading it raw keeps the range check defined. */
static inline u32 ox_mlx_raw_enum(const void *field) {
    u32 value;

    memcpy(&value, field, sizeof(value));
    return value;
}

/* ---- QP paths and access (translate-qp.cpp) ----------------------------------------------------- */

/* Generic address vector -> VAPI address vector. The port is not written: each transition
 * decides it. */
void ox_mlx_add_vec_to_vapi(const ox_add_vec_t *add_vec, VAPI_ud_av_t *av);

/* VAPI address vector -> the generic fields it carries (service level, GRH, LID, rate, path
 * bits, global route with the GID reversed). The port, MTU, timeouts and retry counts are not
 * written: the caller takes them from the QP's attributes. */
void ox_mlx_add_vec_from_vapi(const VAPI_ud_av_t *av, ox_add_vec_t *add_vec);

/* Generic access bits -> VAPI remote_atomic_flags: remote atomic gives VAPI_EN_REM_ATOMIC_OP,
 * remote read VAPI_EN_REM_READ, remote write VAPI_EN_REM_WRITE; the local bits are dropped. */
VAPI_rdma_atom_acl_t ox_mlx_access_to_vapi(ox_access_con_bit_mask_t access);

/* VAPI remote_atomic_flags -> the generic remote access bits. */
ox_access_con_bit_mask_t ox_mlx_access_from_vapi(VAPI_rdma_atom_acl_t flags);

__END_KERNEL_DECLS

#endif
