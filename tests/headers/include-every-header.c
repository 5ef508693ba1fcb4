/* Every interface header compiled as C, and the C compiler's view of the records. */
#include "ox-types.h"
#include "ox-async-type-i.h"
#include "ox-provider.h"
#include "ox-entry-points.h"
#include "ox-adaptor-common.h"
#include "ox-mlx-tavor-common.h"
#include "ox-verbs-core.h"
#include "ox-repository.h"
#include "ox-logger.h"
#include "ox-timing.h"

#include "probes.h"
#include "probe-lists.h"
#include "slot-names.h"

#define LAYOUT_ROW(expr) {#expr, (unsigned long)(expr)},
#define FIELD_ROW(record, field) {#record, #field, (unsigned long)offsetof(record, field)},
#define SLOT_ROW(index, name) \
    {"ox_hca_func_t", "ox_" #name, (unsigned long)offsetof(ox_hca_func_t, ox_##name)},

const struct ox_layout_probe ox_c_layout[] = {OX_LAYOUT_PROBES(LAYOUT_ROW)};
const unsigned long ox_c_layout_count = sizeof(ox_c_layout) / sizeof(ox_c_layout[0]);

const struct ox_field_probe ox_c_fields[] = {OX_FIELD_PROBES(FIELD_ROW)};
const unsigned long ox_c_field_count = sizeof(ox_c_fields) / sizeof(ox_c_fields[0]);

const struct ox_field_probe ox_c_slots[] = {OX_HCA_FUNC_SLOTS_LIST(SLOT_ROW)};
const unsigned long ox_c_slot_count = sizeof(ox_c_slots) / sizeof(ox_c_slots[0]);

/* Each entry point has exactly the type of its slot (checked unevaluated: nothing is linked). */
#define SLOT_TYPE_MATCHES(index, name)                                                        \
    _Static_assert(__builtin_types_compatible_p(__typeof__(&oxi_mlx_##name),                  \
                                                __typeof__(((ox_hca_func_t *)0)->ox_##name)), \
                   "slot " #index " ox_" #name " and oxi_mlx_" #name " differ");
OX_HCA_FUNC_SLOTS_LIST(SLOT_TYPE_MATCHES)
