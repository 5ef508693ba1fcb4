// QPs created outside the adaptor, registered and unregistered on an HCA's QP list by handle and
// QP number.
#include "queues_fixture.hpp"

namespace adaptor_test {
namespace {

class QpRegistry : public QueuesFixture {};

TEST_F(QpRegistry, AddListsARecordWithoutAccounting) {
    set_debug_level(4);
    open();
    void *outside = reinterpret_cast<void *>(0xabc0);
    k::log_clear();
    ASSERT_EQ(kQOk, ulp_qp_add_h(provider(), hca_, outside, 77));
    auto lines = log();
    EXPECT_EQ((std::vector<std::string>{
                  ad_debug("oxi_mlx_qp_add_h", "New user qp h: " + kptr(outside) + ", qp num: 77")}),
              without_lock_trace(lines));
    EXPECT_EQ(3u, lines.size() - without_lock_trace(lines).size());
    void *rec_p = qp_list_first(hca_);
    ASSERT_NE(nullptr, rec_p);
    auto rec = qp_record(rec_p);
    EXPECT_EQ(reinterpret_cast<long long>(outside), rec["qp_h"]);
    EXPECT_EQ(77, rec["qp_num"]);
    EXPECT_EQ(0, rec["qp_oxuser_context"]);
    EXPECT_EQ(module_const("ox_qp_type_not_valid"), rec["type"]);
    EXPECT_EQ(1, stats()["qp_num"]);
    EXPECT_EQ(1, stats()["last_qp_num"]);
    EXPECT_EQ(0, alloc_num("mem_qp_ix"));
    // A handle value that would have an array slot does not get one.
    ASSERT_EQ(kQOk, ulp_qp_add_h(exported_table(), hca_, reinterpret_cast<void *>(5), 78));
    EXPECT_EQ(nullptr, qp_slot(hca_, 5));
    EXPECT_EQ(2, qp_list_count(hca_));
    EXPECT_EQ(2, stats()["qp_num"]);

    // Removing needs both the handle and the QP number.
    k::log_clear();
    EXPECT_EQ(1, ulp_qp_rem_h(provider(), hca_, outside, 78));
    EXPECT_EQ(2, qp_list_count(hca_));
    EXPECT_EQ(2, stats()["qp_num"]);
    EXPECT_EQ((std::vector<std::string>{
                  ad_debug("oxi_mlx_qp_rem_h", "Destroy qp_h: 43968, hca_h: 0, will free adaptor data"),
                  ad_debug("oxi_mlx_qp_rem_h", "Find hca_h, Look for QP element in the list"),
              }),
              without_lock_trace(log()));
    EXPECT_EQ(1, ulp_qp_rem_h(provider(), hca_, reinterpret_cast<void *>(0xabc1), 77));

    k::log_clear();
    EXPECT_EQ(0, ulp_qp_rem_h(provider(), hca_, outside, 77));
    lines = log();
    EXPECT_EQ(
        (std::vector<std::string>{
            ad_debug("oxi_mlx_qp_rem_h", "Destroy qp_h: 43968, hca_h: 0, will free adaptor data"),
            ad_debug("oxi_mlx_qp_rem_h", "Find hca_h, Look for QP element in the list"),
            ad_debug("oxi_mlx_qp_rem_h", "Free opened_qp_p for qp_h: " + kptr(outside) + ", qp_num: 77"),
        }),
        without_lock_trace(lines));
    // The walk and the removal run under the adaptor lock.
    EXPECT_EQ(3u, lines.size() - without_lock_trace(lines).size());
    EXPECT_EQ(1, qp_list_count(hca_));
    EXPECT_EQ(1, stats()["qp_num"]);
    EXPECT_EQ(1, stats()["last_qp_num"]);
    EXPECT_EQ(0, alloc_num("mem_qp_ix"));
    // Gone: a second removal finds nothing.
    EXPECT_EQ(1, ulp_qp_rem_h(provider(), hca_, outside, 77));
    EXPECT_EQ(0, ulp_qp_rem_h(exported_table(), hca_, reinterpret_cast<void *>(5), 78));
    EXPECT_EQ(0, qp_list_count(hca_));
    EXPECT_EQ(0, stats()["qp_num"]);
    EXPECT_EQ((std::vector<long long>{0, 0, 0, 0, 0, 0}), error_counters());
    close_hca(hca_);
}

TEST_F(QpRegistry, AddAllocationFailure) {
    open();
    k::AllocFault fault;
    fault.site = "oxi_mlx_qp_add_h";
    k::add_alloc_fault(fault);
    k::log_clear();
    EXPECT_EQ(kQErrAllocMem, ulp_qp_add_h(provider(), hca_, reinterpret_cast<void *>(0x10), 3));
    EXPECT_EQ(
        (std::vector<std::string>{ad_error("oxi_mlx_qp_add_h", "Fail to allocate memory: ox_opened_qp_t")}),
        log());
    EXPECT_EQ((std::vector<long long>{1, 1, 0, 0, 1, 1}), error_counters());
    EXPECT_EQ(0, qp_list_count(hca_));
    EXPECT_EQ(0, stats()["qp_num"]);
    close_hca(hca_);
}

TEST_F(QpRegistry, HcaCloseFreesWhatIsLeftRegistered) {
    open();
    const size_t before = module_allocations();
    ASSERT_EQ(kQOk, ulp_qp_add_h(provider(), hca_, reinterpret_cast<void *>(0x10), 3));
    EXPECT_EQ(before + 1, module_allocations());
    close_hca(hca_);
    EXPECT_EQ(0, stats()["qp_num"]);
}

}  // namespace
}  // namespace adaptor_test
