// The provider table: 73 pointer slots in a fixed order, named ox_<entry point>, slot N at
// N * 8, as both compilers see it. (Each slot's type equals its entry point's: checked at compile
// time by the probes.)
#include <gtest/gtest.h>

#include <set>
#include <string>

#include "probes.h"
#include "slot-names.h"

namespace {

#define OX_SLOT_NAME(index, name) #name,
const char *const kSlotOrder[] = {OX_HCA_FUNC_SLOTS_LIST(OX_SLOT_NAME)};
#undef OX_SLOT_NAME

TEST(FunctionTable, HasSeventyThreeSlots) {
    EXPECT_EQ(sizeof(kSlotOrder) / sizeof(kSlotOrder[0]), 73u);
    EXPECT_EQ(ox_c_slot_count, 73u);
    EXPECT_EQ(ox_cpp_slot_count, 73u);
}

TEST(FunctionTable, SlotNIsAtNTimesEightBytesWithItsName) {
    ASSERT_EQ(ox_cpp_slot_count, 73u);
    ASSERT_EQ(ox_c_slot_count, 73u);
    for (unsigned long n = 0; n < 73; ++n) {
        EXPECT_EQ(std::string(ox_cpp_slots[n].field), std::string("ox_") + kSlotOrder[n]) << "slot " << n;
        EXPECT_EQ(ox_cpp_slots[n].offset, n * 8) << "slot " << n << " " << ox_cpp_slots[n].field;
        EXPECT_EQ(ox_c_slots[n].offset, n * 8) << "slot " << n << " " << ox_c_slots[n].field << " (C)";
    }
}

TEST(FunctionTable, SlotNamesAreUnique) {
    std::set<std::string> names;
    for (unsigned long n = 0; n < ox_cpp_slot_count; ++n) names.insert(ox_cpp_slots[n].field);
    EXPECT_EQ(names.size(), 73u);
}

}  // namespace
