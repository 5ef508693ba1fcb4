#include <gtest/gtest.h>

#include "marlix/stack.hpp"
#include "ox-logger.h"

namespace {

class Logger : public ::testing::Test {
  protected:
    void SetUp() override { marlix::stack::boot(); }
    void TearDown() override { marlix::stack::halt(); }
};

TEST_F(Logger, StackWideLevelStartsAtFive) {
    EXPECT_EQ(logger_trace_level, 5);
    marlix::stack::set_logger_level(2);
    EXPECT_EQ(logger_trace_level, 2);
    EXPECT_EQ(marlix::stack::logger_level(), 2);
    marlix::stack::boot();
    EXPECT_EQ(logger_trace_level, 5);
}

TEST_F(Logger, CallbackStoresALongIntoTheContextInt) {
    int level = 1;
    long value = 4;
    trace_lvl_change_cb(&level, "debug-level", rep_value_long, &value, 8);
    EXPECT_EQ(level, 4);
    value = -1;
    trace_lvl_change_cb(&level, "debug-level", rep_value_long, &value, 8);
    EXPECT_EQ(level, -1);
}

TEST_F(Logger, CallbackIgnoresStringsAndNulls) {
    int level = 3;
    trace_lvl_change_cb(&level, "debug-level", rep_value_string, "5", 2);
    EXPECT_EQ(level, 3);
    long value = 5;
    trace_lvl_change_cb(nullptr, "debug-level", rep_value_long, &value, 8);
    trace_lvl_change_cb(&level, "debug-level", rep_value_long, nullptr, 8);
    EXPECT_EQ(level, 3);
}

TEST_F(Logger, RegisteredCallbackFollowsTheRepository) {
    rep_key_h_t root = nullptr, key = nullptr;
    ASSERT_EQ(rep_get_root(&root), 0);
    ASSERT_EQ(rep_open_key(root, marlix::stack::kAdaptorKey, &key), 0);
    int level = 0;
    rep_notifier_t notifier = nullptr;
    ASSERT_EQ(rep_notify_key_change(key, trace_lvl_change_cb, &level, &notifier), 0);
    ASSERT_EQ(rep_close_key(key), 0);
    ASSERT_EQ(marlix::stack::set_long(marlix::stack::kAdaptorKey, "debug-level", 5), 0);
    EXPECT_EQ(level, 5);
    ASSERT_EQ(rep_notify_del(notifier), 0);
    ASSERT_EQ(marlix::stack::set_long(marlix::stack::kAdaptorKey, "debug-level", 2), 0);
    EXPECT_EQ(level, 5);
}

}  // namespace
