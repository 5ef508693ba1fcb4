// Enumerator values, mask bits and sizes of the interface; where a value is handed to the vendor
// unchanged it must equal the vendor's constant.
#include <gtest/gtest.h>

#include "probes.h"

namespace {

TEST(Constants, EveryConstantHasItsValue) {
    ASSERT_GT(ox_cpp_value_count, 150u);
    for (unsigned long i = 0; i < ox_cpp_value_count; ++i)
        EXPECT_EQ(ox_cpp_values[i].value, ox_cpp_values[i].expected) << ox_cpp_values[i].what;
}

}  // namespace
