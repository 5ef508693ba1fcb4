/* The data path's records as the module's headers define them, for the tests: a layout table
 * (field offsets, sizes and signedness by name, constants by name), and tracking records for QPs and CQs a
 * test created through VAPI itself (see module_layout.h for why this is C).
 *
 * Records known: "ox_wr_t", "ox_scatgat_t", "ox_wc_t", "ox_add_vec_t", "ox_fmr_t", "ox_fmr_map_t",
 * "ox_opened_qp_t" (qp_h, qp_num, type, s_sl.acquisitions, and the descriptors sr_desc,
 * mlx_sg_array_s, rr_desc, mlx_sg_array_r by offset), "ox_opened_cq_t". Nested fields with dots,
 * as in C ("type.send.send_qp_type.rc_type.r_addr", "addres_info.slid"). */
#ifndef ADAPTOR_TEST_DATAPATH_LAYOUT_H
#define ADAPTOR_TEST_DATAPATH_LAYOUT_H

#include <stddef.h>

#include "layout-table.h"

#ifdef __cplusplus
extern "C" {
#endif

/* The data path's layout table (layout-table.h). */
const struct layout_table *dpl_layout(void);

/* A QP tracking record for a VAPI QP, linked on the HCA as QP creation links it, its descriptors
 * filled with the byte 0x5a and its s_sl unlocked. */
void *dpl_make_qp_record(void *hca, unsigned long vapi_handle, unsigned qp_num, int type);
/* A CQ tracking record for a VAPI CQ, linked on the HCA. */
void *dpl_make_cq_record(void *hca, unsigned long vapi_handle);

#ifdef __cplusplus
}
#endif

#endif
