// The provider table: 73 pointer slots in a fixed order, named ox_<entry point>, slot N at
// N * 8, as both compilers see it. (Each slot's type equals its entry point's: checked at compile
// time by the probes.)
#include <gtest/gtest.h>

#include <set>
#include <string>

#include "probes.h"

namespace {

const char *const kSlotOrder[] = {"hca_open",
                                  "hca_query",
                                  "port_query",
                                  "get_port_gid_tbl",
                                  "get_port_partition_tbl",
                                  "hca_modify",
                                  "hca_close",
                                  "pd_allocate",
                                  "pd_deallocate",
                                  "rdd_allocate",
                                  "rdd_deallocate",
                                  "address_hndl_create",
                                  "address_hndl_modify",
                                  "address_hndl_query",
                                  "address_hndl_destroy",
                                  "cq_create",
                                  "cq_query",
                                  "cq_resize",
                                  "cq_destroy",
                                  "cq_modify_attrib",
                                  "qp_create",
                                  "qp_modify",
                                  "qp_query",
                                  "qp_destroy",
                                  "qp_get_special",
                                  "qp_context_set",
                                  "eec_create",
                                  "eec_modify",
                                  "eec_query",
                                  "eec_destroy",
                                  "mem_region_register",
                                  "phy_mem_region_register",
                                  "mem_region_query",
                                  "mem_region_destroy",
                                  "mem_region_re_register",
                                  "phy_mem_region_re_register",
                                  "shared_mem_region_register",
                                  "mem_win_allocate",
                                  "mem_win_query",
                                  "mem_win_bind",
                                  "mem_win_deallocate",
                                  "qp_attach_to_multicast",
                                  "qp_detach_from_multicast",
                                  "post_send_vapi",
                                  "post_send",
                                  "post_gsi_send_on_pkey",
                                  "post_receive_vapi",
                                  "post_receive",
                                  "poll_for_completion_vapi",
                                  "poll_for_completion",
                                  "request_completion_notification",
                                  "set_completion_event_handler",
                                  "set_async_event_cb",
                                  "dell_async_event_cb",
                                  "instant_send",
                                  "get_gen_pd_h",
                                  "get_gen_mr_attrib",
                                  "va2advertise_addr",
                                  "alloc_fmr",
                                  "map_fmr",
                                  "unmap_fmr",
                                  "free_fmr",
                                  "inline_post_send",
                                  "post_send_list",
                                  "post_receive_list_vapi",
                                  "post_receive_list",
                                  "peek_cq",
                                  "alloc_dev_mem",
                                  "free_dev_mem",
                                  "post_send_nop",
                                  "process_local_mad",
                                  "qp_add_h",
                                  "qp_rem_h"};

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
