// The verbs, named by an enumeration: call counting and fault injection index arrays by it
// instead of comparing or hashing names on every call.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

namespace marlix::softhca {

#define MARLIX_SOFTHCA_VERBS(X)   \
    X(EVAPI_alloc_fmr)            \
    X(EVAPI_alloc_pd)             \
    X(EVAPI_clear_comp_eventh)    \
    X(EVAPI_free_fmr)             \
    X(EVAPI_get_hca_hndl)         \
    X(EVAPI_list_hcas)            \
    X(EVAPI_map_fmr)              \
    X(EVAPI_peek_cq)              \
    X(EVAPI_post_gsi_sr)          \
    X(EVAPI_post_inline_sr)       \
    X(EVAPI_post_rr_list)         \
    X(EVAPI_post_sr_list)         \
    X(EVAPI_process_local_mad)    \
    X(EVAPI_req_ncomp_notif)      \
    X(EVAPI_release_hca_hndl)     \
    X(EVAPI_set_comp_eventh)      \
    X(EVAPI_unmap_fmr)            \
    X(VAPI_alloc_pd)              \
    X(VAPI_attach_to_multicast)   \
    X(VAPI_close_hca)             \
    X(VAPI_create_addr_hndl)      \
    X(VAPI_create_cq)             \
    X(VAPI_create_qp)             \
    X(VAPI_dealloc_pd)            \
    X(VAPI_deregister_mr)         \
    X(VAPI_destroy_addr_hndl)     \
    X(VAPI_destroy_cq)            \
    X(VAPI_destroy_qp)            \
    X(VAPI_detach_from_multicast) \
    X(VAPI_get_special_qp)        \
    X(VAPI_modify_addr_hndl)      \
    X(VAPI_modify_hca_attr)       \
    X(VAPI_modify_qp)             \
    X(VAPI_open_hca)              \
    X(VAPI_poll_cq)               \
    X(VAPI_post_rr)               \
    X(VAPI_post_sr)               \
    X(VAPI_query_addr_hndl)       \
    X(VAPI_query_cq)              \
    X(VAPI_query_hca_cap)         \
    X(VAPI_query_hca_gid_tbl)     \
    X(VAPI_query_hca_pkey_tbl)    \
    X(VAPI_query_hca_port_prop)   \
    X(VAPI_query_mr)              \
    X(VAPI_query_qp)              \
    X(VAPI_register_mr)           \
    X(VAPI_req_comp_notif)        \
    X(VAPI_resize_cq)             \
    X(VAPI_set_async_event_handler)

enum class Verb : uint16_t {
#define MARLIX_SOFTHCA_VERB_ENUM(name) name,
    MARLIX_SOFTHCA_VERBS(MARLIX_SOFTHCA_VERB_ENUM)
#undef MARLIX_SOFTHCA_VERB_ENUM
        Count
};
constexpr size_t kVerbCount = size_t(Verb::Count);

const char *verb_name(Verb verb);
std::optional<Verb> verb_by_name(std::string_view name);

}  // namespace marlix::softhca
