#include "completion_codes.hpp"

#include <cstring>

#include "module_layout.hpp"
#include "ulp_datapath.h"

namespace stress {
namespace {

template <typename Name>
int value_named(Name name_of, const char *name) {
    for (int v = 0; v < 256; ++v)
        if (std::strcmp(name_of(v), name) == 0) return v;
    return -1;
}

CompletionCodes find_codes() {
    CompletionCodes c;
    c.success = value_named(ulp_comp_status_name, "ox_comp_status_success");
    c.flush = value_named(ulp_comp_status_name, "ox_comp_status_wr_flush_err");
    c.retry_exc = value_named(ulp_comp_status_name, "ox_comp_status_retry_exc_err");
    c.send_sq = value_named(ulp_wc_operation_name, "ox_wc_send_sq");
    c.send_rq = value_named(ulp_wc_operation_name, "ox_wc_send_rq");
    c.rdma_read_sq = value_named(ulp_wc_operation_name, "ox_wc_rdma_read_sq");
    c.cq_empty = adaptor_test::module_status("ox_return_err_cq_empty");
    return c;
}

}  // namespace

const CompletionCodes &completion_codes() {
    static const CompletionCodes codes = find_codes();
    return codes;
}

}  // namespace stress
