// The generic completion codes a stress flow looks at, found once by their names (the shim names
// the module's enumerators), and the module's empty-CQ return code from its own header.
#pragma once

namespace stress {

struct CompletionCodes {
    int success = -1, flush = -1, retry_exc = -1;       // ox_comp_status_t
    int send_sq = -1, send_rq = -1, rdma_read_sq = -1;  // ox_wc_operation_t
    int cq_empty = -1;                                  // ox_return_t
};

const CompletionCodes &completion_codes();

}  // namespace stress
