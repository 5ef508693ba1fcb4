#include <cstring>

#include "softhca_fixture.hpp"
// Kernel headers last: their macros must not reach the C++ library headers.
#include <linux/hardirq.h>

namespace sh = marlix::softhca;

TEST_F(SoftHcaTest, ListHcasNamesEveryDevice) {
    VAPI_hca_id_t ids[4];
    u_int32_t n = 0;
    ASSERT_EQ(EVAPI_list_hcas(4, &n, ids), VAPI_OK);
    ASSERT_EQ(n, 2u);
    EXPECT_STREQ(ids[0], "InfiniHost0");
    EXPECT_STREQ(ids[1], "InfiniHost1");
}

TEST_F(SoftHcaTest, ListHcasWithSmallBufferReturnsEagainAndTheCount) {
    VAPI_hca_id_t ids[1];
    u_int32_t n = 0;
    EXPECT_EQ(EVAPI_list_hcas(1, &n, ids), VAPI_EAGAIN);
    EXPECT_EQ(n, 2u);
    EXPECT_STREQ(ids[0], "InfiniHost0");
    EXPECT_EQ(EVAPI_list_hcas(0, &n, nullptr), VAPI_EAGAIN);
    EXPECT_EQ(EVAPI_list_hcas(1, nullptr, ids), VAPI_EINVAL_PARAM);
}

TEST_F(SoftHcaTest, OpenTwiceIsRefusedButTheHandleCanBeBorrowed) {
    VAPI_hca_hndl_t h = open();
    VAPI_hca_hndl_t again = 99;
    EXPECT_EQ(VAPI_open_hca("InfiniHost0", &again), VAPI_EBUSY_HCA);
    VAPI_hca_hndl_t borrowed = 99;
    ASSERT_EQ(EVAPI_get_hca_hndl("InfiniHost0", &borrowed), VAPI_OK);
    EXPECT_EQ(borrowed, h);
    EXPECT_EQ(EVAPI_release_hca_hndl(borrowed), VAPI_OK);
    EXPECT_EQ(EVAPI_release_hca_hndl(borrowed), VAPI_EINVAL_HCA_HNDL);  // nothing left to release
    EXPECT_TRUE(sh::is_open("InfiniHost0"));
    EXPECT_EQ(VAPI_close_hca(h), VAPI_OK);
    EXPECT_FALSE(sh::is_open("InfiniHost0"));
}

TEST_F(SoftHcaTest, BorrowingAClosedDeviceFails) {
    VAPI_hca_hndl_t h = 7;
    EXPECT_EQ(EVAPI_get_hca_hndl("InfiniHost1", &h), VAPI_EINVAL_HCA_ID);
    EXPECT_EQ(h, 7u);
}

TEST_F(SoftHcaTest, UnknownNamesAndHandlesAreRefused) {
    VAPI_hca_hndl_t h = 0;
    EXPECT_EQ(VAPI_open_hca("InfiniHost9", &h), VAPI_EINVAL_HCA_ID);
    EXPECT_EQ(VAPI_close_hca(42), VAPI_EINVAL_HCA_HNDL);
    VAPI_hca_vendor_t v;
    VAPI_hca_cap_t c;
    EXPECT_EQ(VAPI_query_hca_cap(0, &v, &c), VAPI_EINVAL_HCA_HNDL);  // not open yet
}

TEST_F(SoftHcaTest, AThirtyTwoByteIdentifierWithoutTerminatorIsReadSafely) {
    VAPI_hca_id_t id;
    std::memset(id, 'X', sizeof id);
    VAPI_hca_hndl_t h = 0;
    EXPECT_EQ(VAPI_open_hca(id, &h), VAPI_EINVAL_HCA_ID);
}

TEST_F(SoftHcaTest, CloseReleasesEverythingAndTheDeviceCanBeReopened) {
    VAPI_hca_hndl_t h = open();
    VAPI_pd_hndl_t pd;
    ASSERT_EQ(EVAPI_alloc_pd(h, 10, &pd), VAPI_OK);
    static char buf[4096];
    VAPI_mrw_t req = virtual_region(pd, buf, sizeof buf, VAPI_EN_LOCAL_WRITE), rep{};
    VAPI_mr_hndl_t mr;
    ASSERT_EQ(VAPI_register_mr(h, &req, &mr, &rep), VAPI_OK);
    EXPECT_EQ(sh::resource_count("InfiniHost0"), 2u);
    ASSERT_EQ(VAPI_close_hca(h), VAPI_OK);
    EXPECT_EQ(sh::resource_count("InfiniHost0"), 0u);
    EXPECT_EQ(VAPI_dealloc_pd(h, pd), VAPI_EINVAL_HCA_HNDL);
    h = open();
    EXPECT_EQ(VAPI_dealloc_pd(h, pd), VAPI_EINVAL_PD_HNDL);
}

TEST_F(SoftHcaTest, AsyncHandlerIsStoredAndCleared) {
    VAPI_hca_hndl_t h = open();
    auto handler = [](VAPI_hca_hndl_t, VAPI_event_record_t *, void *) {};
    ASSERT_EQ(VAPI_set_async_event_handler(h, handler, nullptr), VAPI_OK);
    EXPECT_TRUE(sh::has_async_handler("InfiniHost0"));
    ASSERT_EQ(VAPI_set_async_event_handler(h, nullptr, nullptr), VAPI_OK);
    EXPECT_FALSE(sh::has_async_handler("InfiniHost0"));
}

TEST_F(SoftHcaTest, RaisedAsyncEventReachesTheHandlerWithItsPrivateData) {
    VAPI_hca_hndl_t h = open("InfiniHost1");
    struct Seen {
        int calls = 0;
        VAPI_hca_hndl_t hca = 0;
        VAPI_event_record_type_t type{};
        IB_port_t port = 0;
    } seen;
    auto handler = [](VAPI_hca_hndl_t hca, VAPI_event_record_t *rec, void *priv) {
        auto *s = static_cast<Seen *>(priv);
        ++s->calls;
        s->hca = hca;
        s->type = rec->type;
        s->port = rec->modifier.port_num;
    };
    ASSERT_EQ(VAPI_set_async_event_handler(h, handler, &seen), VAPI_OK);
    VAPI_event_record_t rec{};
    rec.type = VAPI_LOCAL_CATASTROPHIC_ERROR;
    rec.modifier.port_num = 2;
    ASSERT_TRUE(sh::raise_async_event("InfiniHost1", rec));
    EXPECT_EQ(seen.calls, 1);
    EXPECT_EQ(seen.hca, h);
    EXPECT_EQ(seen.type, VAPI_LOCAL_CATASTROPHIC_ERROR);
    EXPECT_EQ(seen.port, 2);
}

TEST_F(SoftHcaTest, AsyncEventsRunInHardirqContextByDefault) {
    VAPI_hca_hndl_t h = open();
    static unsigned long irq_count_seen;
    irq_count_seen = 0;
    auto handler = [](VAPI_hca_hndl_t, VAPI_event_record_t *, void *) { irq_count_seen = in_irq(); };
    ASSERT_EQ(VAPI_set_async_event_handler(h, handler, nullptr), VAPI_OK);
    VAPI_event_record_t rec{};
    rec.type = VAPI_PORT_ACTIVE;
    ASSERT_TRUE(sh::raise_async_event("InfiniHost0", rec));
    EXPECT_NE(irq_count_seen, 0u);
    EXPECT_EQ(in_irq(), 0u);
}

TEST_F(SoftHcaTest, AnyAsyncEventTypeAndModifierCanBeRaised) {
    VAPI_hca_hndl_t h = open();
    static uint32_t type_seen, syndrome_seen;
    static uint64_t modifier_seen;
    auto handler = [](VAPI_hca_hndl_t, VAPI_event_record_t *rec, void *) {
        std::memcpy(&type_seen, &rec->type, sizeof type_seen);
        std::memcpy(&syndrome_seen, &rec->syndrome, sizeof syndrome_seen);
        std::memcpy(&modifier_seen, &rec->modifier, sizeof modifier_seen);
    };
    ASSERT_EQ(VAPI_set_async_event_handler(h, handler, nullptr), VAPI_OK);
    // A type no adapter knows, with a 64-bit modifier.
    ASSERT_TRUE(sh::raise_async_event("InfiniHost0", 77u, 0x1122334455667788ull, 5u));
    EXPECT_EQ(type_seen, 77u);
    EXPECT_EQ(modifier_seen, 0x1122334455667788ull);
    EXPECT_EQ(syndrome_seen, 5u);
    ASSERT_TRUE(sh::raise_async_event("InfiniHost0", uint32_t(VAPI_QP_PATH_MIGRATED), 1001u));
    EXPECT_EQ(type_seen, uint32_t(VAPI_QP_PATH_MIGRATED));
    EXPECT_EQ(modifier_seen, 1001u);
    EXPECT_FALSE(sh::raise_async_event("InfiniHost9", 1u, 0u));
}
