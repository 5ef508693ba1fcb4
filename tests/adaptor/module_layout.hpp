// C++ side of the module's layouts (module_layout.h): named views on the module's records.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "layout_view.hpp"
#include "module_layout.h"

namespace adaptor_test {

// A module constant; a name the module does not define fails the test.
inline long long module_const(const char *name) {
    return layout_constant(adp_layout(), name);
}
// The module's return codes (ox_return_t), read from its own header when the tests start.
inline int module_status(const char *name) {
    int found = 0;
    return static_cast<int>(layout_const(adp_layout(), name, &found));
}
inline const int kOk = module_status("ox_return_ok"), kErr = module_status("ox_return_err"),
                 kAllocMem = module_status("ox_return_err_alloc_mem"),
                 kNotImplemented = module_status("ox_return_err_not_implemented"),
                 kHcaName = module_status("ox_return_err_hca_name"),
                 kInsufficient = module_status("ox_return_err_insufficient_resources"),
                 kInvalidState = module_status("ox_return_err_invalid_state"),
                 kInvalidVendRet = module_status("ox_return_err_invalid_vend_ret"),
                 kInvalidParameter = module_status("ox_return_err_invalid_parameter"),
                 kCqEmpty = module_status("ox_return_err_cq_empty");

inline int mem_ix(const char *name) {
    return static_cast<int>(module_const(name));
}

// One record of the module, read and written by field name.
class RecordView : public LayoutView {
  public:
    RecordView(const char *record, void *base) : LayoutView(adp_layout(), record, base) {}
    // The i-th record of an array of such records.
    RecordView element(size_t i) const {
        return RecordView(record(), static_cast<char *>(base()) + i * layout_sizeof(adp_layout(), record()));
    }
};

}  // namespace adaptor_test
