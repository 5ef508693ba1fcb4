// Work-queue rings: fixed-stride entries, and receive entries whose gather lists (the first entry
// inside the entry, the rest in the ring's gather area) and send entries (gather list and length)
// survive a wrap and a resize.
#include <gtest/gtest.h>

#include "datapath/wq.hpp"

namespace sh = marlix::softhca;

namespace {

void post(sh::RecvRing &ring, VAPI_wr_id_t id, const VAPI_sg_lst_entry_t *sg, uint32_t n) {
    sh::RecvEntry &e = ring.next_free();
    e.desc.id = id;
    e.set_gather(sg, n);
    ring.push();
}

void expect_gather(const sh::RecvEntry &e, VAPI_wr_id_t id, const VAPI_sg_lst_entry_t *sg, uint32_t n) {
    EXPECT_EQ(e.desc.id, id);
    ASSERT_EQ(e.sg_count, n);
    for (uint32_t i = 0; i < n; ++i) {
        EXPECT_EQ(e.sge(i).addr, sg[i].addr) << "entry " << i;
        EXPECT_EQ(e.sge(i).len, sg[i].len) << "entry " << i;
        EXPECT_EQ(e.sge(i).lkey, sg[i].lkey) << "entry " << i;
    }
}

}  // namespace

TEST(RecvRing, GatherListsOfOneAndSeveralEntriesSurviveAWrapAndAResize) {
    sh::RecvRing ring;
    ASSERT_TRUE(ring.resize(4, 4, 0));
    const VAPI_sg_lst_entry_t one[1] = {{0x1000, 10, 1}};
    const VAPI_sg_lst_entry_t two[2] = {{0x2000, 20, 2}, {0x2100, 21, 3}};
    const VAPI_sg_lst_entry_t four[4] = {{0x4000, 40, 4}, {0x4100, 41, 5}, {0x4200, 42, 6}, {0x4300, 43, 7}};
    // Three round the ring first, so that the next ones wrap.
    for (VAPI_wr_id_t id = 1; id <= 3; ++id) {
        post(ring, id, four, 4);
        ring.pop();
    }
    post(ring, 10, one, 1);
    post(ring, 11, four, 4);
    post(ring, 12, two, 2);
    post(ring, 13, nullptr, 0);
    expect_gather(ring.at(ring.head()), 10, one, 1);
    expect_gather(ring.at(ring.head() + 1), 11, four, 4);
    expect_gather(ring.at(ring.head() + 2), 12, two, 2);
    EXPECT_EQ(ring.at(ring.head() + 3).sg_count, 0u);
    // A deeper ring keeps every entry at its position, with its whole gather list.
    EXPECT_FALSE(ring.resize(2, 4, 0));
    ASSERT_TRUE(ring.resize(16, 4, 0));
    ASSERT_EQ(ring.count(), 4u);
    expect_gather(ring.at(ring.head()), 10, one, 1);
    expect_gather(ring.at(ring.head() + 1), 11, four, 4);
    expect_gather(ring.at(ring.head() + 2), 12, two, 2);
    EXPECT_EQ(ring.at(ring.head() + 3).sg_count, 0u);
    // The old ring's gather area is gone: nothing points into it any more.
    post(ring, 14, four, 4);
    expect_gather(ring.at(ring.head() + 4), 14, four, 4);
    expect_gather(ring.at(ring.head() + 1), 11, four, 4);
}

TEST(RecvRing, AOneEntryGatherListNeedsNoGatherArea) {
    sh::RecvRing ring;
    ASSERT_TRUE(ring.resize(2, 1, 0));
    const VAPI_sg_lst_entry_t one[1] = {{0xabc0, 64, 9}};
    post(ring, 1, one, 1);
    expect_gather(ring.front(), 1, one, 1);
    EXPECT_EQ(sizeof(sh::RecvEntry), 64u);
}

// A send entry keeps what the poster wrote (the descriptor, the gather list in the ring's gather
// area, the message's length summed at post time) through a wrap and a resize, which is all the
// requester reads again when it (re)transmits the request.
TEST(SendRing, AnEntryKeepsItsGatherListAndLengthThroughAWrapAndAResize) {
    sh::SendRing ring;
    ASSERT_TRUE(ring.resize(2, 3, 0));
    const VAPI_sg_lst_entry_t three[3] = {{0x3000, 30, 1}, {0x3100, 31, 2}, {0x3200, 32, 3}};
    auto post = [&](VAPI_wr_id_t id) {
        sh::SendEntry &e = ring.next_free();
        e.desc.id = id;
        e.sg_count = 3;
        for (uint32_t i = 0; i < 3; ++i) e.sg[i] = three[i];
        e.bytes = 30 + 31 + 32;
        ring.push();
    };
    post(1);
    ring.pop();
    post(2);  // wraps
    ASSERT_TRUE(ring.resize(8, 3, 0));
    const sh::SendEntry &e = ring.front();
    EXPECT_EQ(e.desc.id, 2u);
    EXPECT_EQ(e.bytes, 93u);
    ASSERT_EQ(e.sg_count, 3u);
    for (uint32_t i = 0; i < 3; ++i) {
        EXPECT_EQ(e.sg[i].addr, three[i].addr) << "entry " << i;
        EXPECT_EQ(e.sg[i].len, three[i].len) << "entry " << i;
        EXPECT_EQ(e.sg[i].lkey, three[i].lkey) << "entry " << i;
    }
}

// The producer reads its own copy of the tail; the consumer reads the published one. Both must
// agree after pushes, pops, a resize and a clear: a clear that left the producer's copy behind
// would have the next post write a slot the consumer does not read next.
TEST(RecvRing, ThePostersTailAndThePublishedOneAgreeThroughPopsAResizeAndAClear) {
    sh::RecvRing ring;
    ASSERT_TRUE(ring.resize(4, 1, 0));
    const VAPI_sg_lst_entry_t one[1] = {{0x1000, 8, 1}};
    for (VAPI_wr_id_t id = 1; id <= 4; ++id) {
        ASSERT_TRUE(ring.room_for(0, 4)) << "post " << id;
        post(ring, id, one, 1);
    }
    EXPECT_EQ(ring.tail(), 4u);
    EXPECT_FALSE(ring.room_for(0, 4));  // four outstanding: the limit
    ring.pop();
    EXPECT_TRUE(ring.room_for(0, 4));  // looks at the consumer's position again
    post(ring, 5, one, 1);             // wraps into the slot just freed
    EXPECT_EQ(ring.tail(), 5u);
    EXPECT_EQ(&ring.at(4), &ring.at(0));
    EXPECT_EQ(ring.at(4).desc.id, 5u);
    ASSERT_TRUE(ring.resize(8, 1, 0));
    post(ring, 6, one, 1);
    EXPECT_EQ(ring.tail(), 6u);
    EXPECT_EQ(ring.at(5).desc.id, 6u);
    EXPECT_EQ(ring.front().desc.id, 2u);
    ring.clear();
    EXPECT_TRUE(ring.empty());
    EXPECT_EQ(ring.tail(), 0u);
    post(ring, 7, one, 1);
    EXPECT_EQ(ring.tail(), 1u);
    EXPECT_EQ(ring.front().desc.id, 7u);
    EXPECT_EQ(&ring.next_free(), &ring.at(1));
}
