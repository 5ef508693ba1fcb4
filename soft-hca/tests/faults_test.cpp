#include "device/device.hpp"
#include "softhca_fixture.hpp"

namespace sh = marlix::softhca;

TEST_F(SoftHcaTest, FaultOnceFailsOnlyTheNextCall) {
    VAPI_hca_hndl_t h = open();
    sh::inject_fault("EVAPI_alloc_pd", "InfiniHost0", VAPI_EAGAIN);
    VAPI_pd_hndl_t pd;
    EXPECT_EQ(EVAPI_alloc_pd(h, 1, &pd), VAPI_EAGAIN);
    EXPECT_EQ(sh::pd_count("InfiniHost0"), 0u);
    EXPECT_EQ(EVAPI_alloc_pd(h, 1, &pd), VAPI_OK);
    EXPECT_EQ(sh::injected_fault_count(), 1u);
}

TEST_F(SoftHcaTest, FaultOnTheNthCallAndOnlyThere) {
    VAPI_hca_hndl_t h = open();
    sh::inject_fault("VAPI_alloc_pd", "*", VAPI_EOL, sh::FaultMode::Nth, 3);
    VAPI_pd_hndl_t pd;
    EXPECT_EQ(VAPI_alloc_pd(h, &pd), VAPI_OK);
    EXPECT_EQ(VAPI_alloc_pd(h, &pd), VAPI_OK);
    EXPECT_EQ(VAPI_alloc_pd(h, &pd), VAPI_EOL);
    EXPECT_EQ(VAPI_alloc_pd(h, &pd), VAPI_OK);
}

TEST_F(SoftHcaTest, FaultAlwaysUntilClearedAndOnlyForItsDevice) {
    VAPI_hca_hndl_t h0 = open("InfiniHost0"), h1 = open("InfiniHost1");
    int id = sh::inject_fault("VAPI_query_hca_cap", "InfiniHost1", VAPI_EGEN, sh::FaultMode::Always);
    VAPI_hca_vendor_t v;
    VAPI_hca_cap_t c;
    EXPECT_EQ(VAPI_query_hca_cap(h1, &v, &c), VAPI_EGEN);
    EXPECT_EQ(VAPI_query_hca_cap(h1, &v, &c), VAPI_EGEN);
    EXPECT_EQ(VAPI_query_hca_cap(h0, &v, &c), VAPI_OK);
    sh::clear_fault(id);
    EXPECT_EQ(VAPI_query_hca_cap(h1, &v, &c), VAPI_OK);
}

TEST_F(SoftHcaTest, NameAddressedCallsMatchTheDeviceTheyName) {
    sh::inject_fault("VAPI_open_hca", "InfiniHost1", VAPI_EAGAIN, sh::FaultMode::Always);
    VAPI_hca_hndl_t h;
    EXPECT_EQ(VAPI_open_hca("InfiniHost1", &h), VAPI_EAGAIN);
    EXPECT_FALSE(sh::is_open("InfiniHost1"));
    EXPECT_EQ(VAPI_open_hca("InfiniHost0", &h), VAPI_OK);
    sh::inject_fault("EVAPI_list_hcas", "*", VAPI_EGEN);
    u_int32_t n = 0;
    VAPI_hca_id_t ids[2];
    EXPECT_EQ(EVAPI_list_hcas(2, &n, ids), VAPI_EGEN);
    EXPECT_EQ(EVAPI_list_hcas(2, &n, ids), VAPI_OK);
}

TEST_F(SoftHcaTest, CallsAreCountedPerVerbAndDevice) {
    EXPECT_EQ(sh::call_count("VAPI_open_hca"), 0u);
    VAPI_hca_hndl_t h = open("InfiniHost1");
    VAPI_hca_hndl_t dummy;
    VAPI_open_hca("InfiniHost1", &dummy);
    EXPECT_EQ(sh::call_count("VAPI_open_hca"), 2u);
    EXPECT_EQ(sh::call_count("VAPI_open_hca", "InfiniHost1"), 2u);
    EXPECT_EQ(sh::call_count("VAPI_open_hca", "InfiniHost0"), 0u);
    VAPI_close_hca(h);
    EXPECT_EQ(sh::call_count("VAPI_close_hca"), 1u);
    sh::reset_call_counts();
    EXPECT_EQ(sh::call_count("VAPI_open_hca"), 0u);
}

TEST(HandlePool, LowestFirstReuseAndInjectedValues) {
    sh::HandlePool pool(1);
    EXPECT_EQ(pool.allocate(), 1u);
    EXPECT_EQ(pool.allocate(), 2u);
    EXPECT_EQ(pool.allocate(), 3u);
    pool.release(2);
    EXPECT_EQ(pool.allocate(), 2u);
    pool.inject_next(1000);
    EXPECT_EQ(pool.allocate(), 1000u);
    EXPECT_EQ(pool.allocate(), 4u);
    pool.inject_next(3);  // in use: the pool goes on lowest-first
    EXPECT_EQ(pool.allocate(), 5u);
    pool.inject_next(0x100000000ull);
    EXPECT_EQ(pool.allocate(), 0x100000000ull);
}

TEST(HandlePool, ValuesInjectedAheadAreSkippedAndFreedLikeAnyOther) {
    sh::HandlePool pool(1);
    pool.inject_next(3);
    EXPECT_EQ(pool.allocate(), 3u);
    pool.inject_next(5);
    EXPECT_EQ(pool.allocate(), 5u);
    EXPECT_EQ(pool.allocate(), 1u);
    EXPECT_EQ(pool.allocate(), 2u);
    EXPECT_EQ(pool.allocate(), 4u);  // past 3, taken
    pool.release(5);                 // before the pool reached it
    EXPECT_EQ(pool.allocate(), 5u);
    EXPECT_EQ(pool.allocate(), 6u);
    pool.inject_next(0);  // below the first value: handed out once, never again when released
    EXPECT_EQ(pool.allocate(), 0u);
    pool.release(0);
    EXPECT_FALSE(pool.in_use(0));
    EXPECT_EQ(pool.allocate(), 7u);
    pool.release(2);
    pool.inject_next(2);  // a released value injected back
    EXPECT_EQ(pool.allocate(), 2u);
    EXPECT_EQ(pool.allocate(), 8u);
    EXPECT_EQ(pool.size(), 8u);
    pool.clear();
    EXPECT_EQ(pool.size(), 0u);
    EXPECT_EQ(pool.allocate(), 1u);
}

TEST(HandlePool, TensOfThousandsOfValuesReuseTheLowestReleasedFirst) {
    sh::HandlePool pool(1);
    constexpr uint64_t kCount = 60000;
    for (uint64_t i = 1; i <= kCount; ++i) ASSERT_EQ(pool.allocate(), i);
    for (uint64_t i = kCount; i >= 1; i -= 3) pool.release(i);  // 60000, 59997, ..., 3
    for (uint64_t i = 3; i <= kCount; i += 3) ASSERT_EQ(pool.allocate(), i);
    EXPECT_EQ(pool.allocate(), kCount + 1);
    EXPECT_EQ(pool.size(), kCount + 1);
}
