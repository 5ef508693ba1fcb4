// Names of the VAPI status codes.
#include <cerrno>
#include <cstdlib>

#include "device/device.hpp"
#include "marlix/softhca.hpp"

namespace {

struct StatusName {
    VAPI_ret_t code;
    const char *sym;
    const char *text;
};

#define S(code, text) \
    { code, #code, text }
constexpr StatusName kNames[] = {
    S(VAPI_OK, "Operation completed successfully"),
    S(VAPI_EGEN, "General error"),
    S(VAPI_EFATAL, "Fatal error (HCA catastrophic error)"),
    S(VAPI_EAGAIN, "Not enough room in the buffer (size returned)"),
    S(VAPI_ENOMEM, "Out of memory"),
    S(VAPI_EBUSY, "Resource is busy (still in use)"),
    S(VAPI_ETIMEDOUT, "Operation timed out"),
    S(VAPI_EINTR, "Operation interrupted"),
    S(VAPI_EPERM, "Not enough permissions"),
    S(VAPI_ENOSYS, "Not supported"),
    S(VAPI_ESYSCALL, "Error in an underlying O/S call"),
    S(VAPI_EINVAL_PARAM, "Invalid parameter"),
    S(VAPI_EINVAL_HCA_HNDL, "Invalid HCA handle"),
    S(VAPI_EINVAL_HCA_ID, "Invalid HCA identifier (or HCA not open)"),
    S(VAPI_EINVAL_PORT, "Invalid port number"),
    S(VAPI_EINVAL_PD_HNDL, "Invalid protection domain handle"),
    S(VAPI_EINVAL_CQ_HNDL, "Invalid CQ handle"),
    S(VAPI_EINVAL_QP_HNDL, "Invalid QP handle"),
    S(VAPI_EINVAL_MR_HNDL, "Invalid memory region handle"),
    S(VAPI_EINVAL_AV_HNDL, "Invalid address handle"),
    S(VAPI_EINVAL_FMR_HNDL, "Invalid FMR handle"),
    S(VAPI_EINVAL_L_KEY, "Invalid L_Key"),
    S(VAPI_EINVAL_R_KEY, "Invalid R_Key"),
    S(VAPI_EINVAL_QP_STATE, "Invalid QP state (or illegal state transition)"),
    S(VAPI_EINVAL_ATTR, "Invalid attribute mask for the transition"),
    S(VAPI_E2BIG_WR_NUM, "Too many outstanding work requests"),
    S(VAPI_E2BIG_SG_NUM, "Too many scatter/gather entries"),
    S(VAPI_E2BIG_CQ_NUM, "Invalid number of CQ entries"),
    S(VAPI_EINVAL_SERVICE_TYPE, "Invalid or unsupported transport service type"),
    S(VAPI_EINVAL_ACL, "Invalid access rights"),
    S(VAPI_EINVAL_LEN, "Invalid length"),
    S(VAPI_EINVAL_VA, "Invalid address"),
    S(VAPI_EINVAL_OP, "Invalid operation for this QP"),
    S(VAPI_EINVAL_NOTIF_TYPE, "Invalid completion notification type"),
    S(VAPI_EINVAL_MTU, "Invalid MTU"),
    S(VAPI_EINVAL_SPECIAL_QP, "Invalid special QP type (or already in use)"),
    S(VAPI_EBUSY_HCA, "HCA is already open"),
    S(VAPI_EOL, "Out of HCA resources"),
    S(VAPI_EINVAL_RDD_HNDL, "Invalid RD domain handle"),
    S(VAPI_EINVAL_SRQ_HNDL, "Invalid SRQ handle"),
    S(VAPI_EINVAL_COMPL_HNDL, "Invalid completion handler handle"),
    S(VAPI_EINVAL_MCG_GID, "Invalid multicast group GID"),
    S(VAPI_EINVAL_MCG_LID, "Invalid multicast group LID"),
    S(VAPI_E2BIG_MCG_SIZE, "Too many QPs attached to the multicast group"),
    S(VAPI_CQ_EMPTY, "CQ is empty"),
    S(VAPI_EINVAL_PKEY_IX, "Invalid P_Key index"),
    S(VAPI_EINVAL_GID_IX, "Invalid GID index"),
    S(VAPI_EINVAL_MIG_STATE, "Invalid path migration state"),
    S(VAPI_EINVAL_SG_FMT, "Invalid scatter/gather list"),
    S(VAPI_EINVAL_AH, "Invalid address vector"),
    S(VAPI_EINVAL_EEC_HNDL, "Invalid EE context handle"),
    S(VAPI_E2BIG_INLINE, "Inline data larger than the QP allows"),
    S(VAPI_EINVAL_MAD, "MAD not handled by the local agents"),
};
#undef S

const StatusName *find(VAPI_ret_t code) {
    for (const StatusName &n : kNames)
        if (n.code == code) return &n;
    return nullptr;
}

}  // namespace

extern "C" const char *VAPI_strerror(VAPI_ret_t ret) {
    const StatusName *n = find(ret);
    return n ? n->text : "Unknown VAPI error";
}

extern "C" const char *VAPI_strerror_sym(VAPI_ret_t ret) {
    const StatusName *n = find(ret);
    return n ? n->sym : "VAPI_EUNKNOWN";
}

namespace marlix::softhca {

std::optional<VAPI_ret_t> parse_status(const std::string &text) {
    for (const StatusName &n : kNames)
        if (text == n.sym) return n.code;
    if (text.empty()) return std::nullopt;
    char *end = nullptr;
    errno = 0;
    long v = std::strtol(text.c_str(), &end, 0);
    if (errno != 0 || *end != '\0' || v < INT32_MIN || v > INT32_MAX) return std::nullopt;
    return VAPI_ret_t(v);
}

}  // namespace marlix::softhca
