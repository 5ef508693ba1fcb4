// A CQ's pollers have a lock of their own: polling never waits for the device mutex, which the
// passes that deliver into the device hold (and which serialises the CQ's producer side), and a
// poller and the completer on two threads share only the slots of the ring: every completion
// arrives once, in order, none lost to a false overrun, also while the ring is resized.
#include <atomic>
#include <chrono>
#include <mutex>
#include <thread>

#include "datapath_fixture.hpp"
#include "device/device.hpp"

namespace {

using namespace dp;

class CqLock : public DataPathTest {};

TEST_F(CqLock, PollingDoesNotWaitForTheDeviceMutex) {
    auto [a, b] = pair(VAPI_TS_RC, s0, s1);
    Buffer &src = buffer(s0, 64), &dst = buffer(s1, 64);
    post_message(a, b, {src.sg(0, 16)}, {dst.sg(0, 64)}, 4, 3);
    run();
    std::atomic<bool> polled{false};
    VAPI_wc_desc_t wc{};
    VAPI_ret_t rc = VAPI_EGEN;
    std::thread poller;
    {
        sh::Device *dev = sh::device_by_handle(s1.hca);
        std::lock_guard held(dev->mu);  // as a pass delivering into the device would
        poller = std::thread([&] {
            rc = VAPI_poll_cq(s1.hca, s1.cq, &wc);
            polled = true;
        });
        const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(5);
        while (!polled && std::chrono::steady_clock::now() < until) std::this_thread::yield();
        EXPECT_TRUE(polled.load()) << "the poll waited for the device mutex";
    }
    poller.join();
    EXPECT_EQ(rc, VAPI_OK);
    EXPECT_EQ(wc.id, 3u);
    EXPECT_EQ(wc.byte_len, 16u);
}

// Pushes `n` completions (the i-th with id i and i * 7 bytes) into `cq` of `side` from a thread
// of its own, never more than `window` ahead of the polls, while the calling thread polls them.
// Returns how many arrived once and in order before the first that did not (or 30 s passed);
// sets `failed` then, and stops when something else sets it.
uint64_t push_while_polling(const Side &side, VAPI_cq_hndl_t cq, uint64_t n, uint32_t window,
                            std::atomic<bool> &failed) {
    std::atomic<uint64_t> polled{0};
    std::thread producer([&] {
        VAPI_wc_desc_t wc{};
        wc.status = VAPI_SUCCESS;
        wc.opcode = VAPI_CQE_RQ_SEND_DATA;
        for (uint64_t i = 0; i < n && !failed; ++i) {
            // Never more than the ring holds: a full ring would drop the entry.
            while (i - polled.load() >= window && !failed) std::this_thread::yield();
            wc.id = i;
            wc.byte_len = uint32_t(i * 7);
            if (!sh::push_completion(side.name, cq, wc)) failed = true;
        }
    });
    VAPI_wc_desc_t wc{};
    const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (polled.load() < n && !failed && std::chrono::steady_clock::now() < until) {
        const VAPI_ret_t rc = VAPI_poll_cq(side.hca, cq, &wc);
        if (rc == VAPI_CQ_EMPTY) continue;
        const uint64_t want = polled.load();
        if (rc != VAPI_OK || wc.id != want || wc.byte_len != uint32_t(want * 7)) {
            ADD_FAILURE() << "completion " << want << ": status " << rc << ", id " << wc.id;
            failed = true;
            break;
        }
        polled.store(want + 1);
    }
    if (polled.load() < n) failed = true;
    producer.join();
    return polled.load();
}

TEST_F(CqLock, CompletionsPushedWhileAnotherThreadPollsArriveOnceInOrder) {
    VAPI_cq_hndl_t cq = 0;
    VAPI_cqe_num_t size = 0;
    ASSERT_EQ(VAPI_create_cq(s0.hca, 15, &cq, &size), VAPI_OK);
    ASSERT_EQ(size, 15u);
    constexpr uint64_t kCompletions = 20000;
    std::atomic<bool> failed{false};
    EXPECT_EQ(push_while_polling(s0, cq, kCompletions, size, failed), kCompletions);
    EXPECT_FALSE(failed.load());
    VAPI_wc_desc_t wc{};
    EXPECT_EQ(VAPI_poll_cq(s0.hca, cq, &wc), VAPI_CQ_EMPTY);
    EXPECT_EQ(VAPI_destroy_cq(s0.hca, cq), VAPI_OK);
}

std::atomic<int> g_armed_events{0};
void count_armed_event(VAPI_hca_hndl_t, VAPI_cq_hndl_t, void *) {
    g_armed_events.fetch_add(1);
}

// Arming, the handler and pushes all belong to the CQ's producer side, which the device mutex
// serialises: arming from one thread while another pushes raises one event per arming that a
// completion follows, never two and never none.
TEST_F(CqLock, ArmingWhileAnotherThreadPushesRaisesOneEventPerArming) {
    VAPI_cq_hndl_t cq = 0;
    VAPI_cqe_num_t size = 0;
    ASSERT_EQ(VAPI_create_cq(s0.hca, 15, &cq, &size), VAPI_OK);
    EVAPI_compl_handler_hndl_t handler = 0;
    g_armed_events = 0;
    ASSERT_EQ(EVAPI_set_comp_eventh(s0.hca, cq, count_armed_event, nullptr, &handler), VAPI_OK);
    constexpr int kArmings = 300;
    std::atomic<uint64_t> polled{0};
    std::atomic<bool> done{false}, failed{false};
    std::thread producer([&] {
        VAPI_wc_desc_t wc{};
        wc.status = VAPI_SUCCESS;
        for (uint64_t i = 0; !done && !failed; ++i) {
            while (i - polled.load() >= size && !done) std::this_thread::yield();
            wc.id = i;
            if (!sh::push_completion(s0.name, cq, wc)) failed = true;
        }
    });
    VAPI_wc_desc_t wc{};
    const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    int armings = 0;
    while (armings < kArmings && std::chrono::steady_clock::now() < until) {
        const int before = g_armed_events.load();
        if (armings % 2 == 0)
            ASSERT_EQ(VAPI_req_comp_notif(s0.hca, cq, VAPI_NEXT_COMP), VAPI_OK);
        else
            ASSERT_EQ(EVAPI_req_ncomp_notif(s0.hca, cq, 1), VAPI_OK);
        ++armings;
        // Keep the ring moving until the arming has raised its event.
        while (g_armed_events.load() == before && std::chrono::steady_clock::now() < until) {
            if (VAPI_poll_cq(s0.hca, cq, &wc) == VAPI_OK) polled.fetch_add(1);
        }
    }
    done = true;
    producer.join();
    EXPECT_FALSE(failed.load());
    EXPECT_EQ(armings, kArmings);
    EXPECT_EQ(g_armed_events.load(), kArmings);
    EXPECT_EQ(EVAPI_clear_comp_eventh(s0.hca, handler), VAPI_OK);
    while (VAPI_poll_cq(s0.hca, cq, &wc) == VAPI_OK) {
    }
    EXPECT_EQ(VAPI_destroy_cq(s0.hca, cq), VAPI_OK);
}

// A resize moves the ring under a poller that reads its head slot without a lock: every
// completion still arrives once, in order.
TEST_F(CqLock, ResizingWhileOneThreadPushesAndAnotherPollsLosesNothing) {
    VAPI_cq_hndl_t cq = 0;
    VAPI_cqe_num_t size = 0;
    ASSERT_EQ(VAPI_create_cq(s0.hca, 15, &cq, &size), VAPI_OK);
    constexpr uint64_t kCompletions = 20000;
    std::atomic<bool> done{false}, failed{false};
    std::atomic<int> resizes{0};
    std::thread resizer([&] {
        const VAPI_cqe_num_t sizes[] = {63, 15, 31, 15};
        for (int i = 0; !done && !failed; ++i) {
            VAPI_cqe_num_t actual = 0;
            if (VAPI_resize_cq(s0.hca, cq, sizes[i % 4], &actual) != VAPI_OK) failed = true;
            resizes.fetch_add(1);
            std::this_thread::yield();
        }
    });
    // Never more queued than the smallest ring holds.
    EXPECT_EQ(push_while_polling(s0, cq, kCompletions, size, failed), kCompletions);
    done = true;
    resizer.join();
    EXPECT_FALSE(failed.load());
    EXPECT_GT(resizes.load(), 0);
    VAPI_wc_desc_t wc{};
    EXPECT_EQ(VAPI_poll_cq(s0.hca, cq, &wc), VAPI_CQ_EMPTY);
    EXPECT_EQ(VAPI_destroy_cq(s0.hca, cq), VAPI_OK);
}

TEST_F(CqLock, ADestroyedCqAnswersAnInvalidHandle) {
    VAPI_cq_hndl_t cq = 0;
    VAPI_cqe_num_t n = 0;
    ASSERT_EQ(VAPI_create_cq(s0.hca, 15, &cq, &n), VAPI_OK);
    ASSERT_EQ(VAPI_destroy_cq(s0.hca, cq), VAPI_OK);
    VAPI_wc_desc_t wc{};
    EXPECT_EQ(VAPI_poll_cq(s0.hca, cq, &wc), VAPI_EINVAL_CQ_HNDL);
}

}  // namespace
