// C++ side of the layout tables (layout-table.h): a record read and written by field name, and
// constants by name, each failing the test on a name the table does not know.
#pragma once

#include <gtest/gtest.h>

#include "layout-table.h"

namespace adaptor_test {

// A constant of a layout table; a name the table does not define fails the test.
inline long long layout_constant(const layout_table *table, const char *name) {
    int found = 0;
    long long value = layout_const(table, name, &found);
    EXPECT_TRUE(found) << "no constant " << name;
    return value;
}

// One record of a layout table at `base`.
class LayoutView {
  public:
    LayoutView(const layout_table *table, const char *record, void *base)
        : table_(table), record_(record), base_(static_cast<char *>(base)) {}
    long long operator[](const char *field) const {
        long long value = 0;
        EXPECT_EQ(0, layout_get(table_, record_, base_, field, &value)) << record_ << "." << field;
        return value;
    }
    const LayoutView &set(const char *field, long long value) const {
        EXPECT_EQ(0, layout_set(table_, record_, base_, field, value)) << record_ << "." << field;
        return *this;
    }
    // Address of a member (list heads, arrays, embedded records).
    void *at(const char *field) const {
        long offset = layout_offset(table_, record_, field);
        EXPECT_GE(offset, 0) << record_ << "." << field;
        return base_ + offset;
    }
    void *base() const { return base_; }
    const char *record() const { return record_; }

  private:
    const layout_table *table_;
    const char *record_;
    char *base_;
};

}  // namespace adaptor_test
