// The unsupported entry points refuse at once with ox_return_err_not_implemented (3), whatever
// they are given, and leave every output they are pointed at as it was.
#include <gtest/gtest.h>

#include "probes.h"

namespace {

TEST(NotSupported, EveryUnsupportedEntryPointRefusesAndTouchesNothing) {
    int results[32];
    const int n = ox_probe_not_supported(results, 32);
    ASSERT_EQ(n, 15);  // -1 would mean an output was written
    for (int i = 0; i < n; ++i) EXPECT_EQ(results[i], 3) << "call " << i;
}

}  // namespace
