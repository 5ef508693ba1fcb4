// C++ side of the module's layouts (module_layout.h): named views on the module's records.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "module_layout.h"

namespace adaptor_test {

// A module constant; a name the module does not define fails the test.
inline long long module_const(const char *name) {
    int found = 0;
    long long value = adp_const(name, &found);
    EXPECT_TRUE(found) << "no module constant " << name;
    return value;
}
// The module's return codes (ox_return_t), read from its own header when the tests start.
inline int module_status(const char *name) {
    int found = 0;
    return static_cast<int>(adp_const(name, &found));
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
class RecordView {
  public:
    RecordView(const char *record, void *base) : record_(record), base_(static_cast<char *>(base)) {}
    long long operator[](const char *field) const {
        long long value = 0;
        EXPECT_EQ(0, adp_get(record_, base_, field, &value)) << record_ << "." << field;
        return value;
    }
    void set(const char *field, long long value) const {
        EXPECT_EQ(0, adp_set(record_, base_, field, value)) << record_ << "." << field;
    }
    // Address of a member (list heads, arrays).
    void *at(const char *field) const {
        long offset = adp_offset(record_, field);
        EXPECT_GE(offset, 0) << record_ << "." << field;
        return base_ + offset;
    }
    void *base() const { return base_; }
    // The i-th record of an array of such records.
    RecordView element(size_t i) const { return RecordView(record_, base_ + i * adp_sizeof(record_)); }

  private:
    const char *record_;
    char *base_;
};

}  // namespace adaptor_test
