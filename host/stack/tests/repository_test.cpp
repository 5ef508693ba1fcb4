#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <vector>

#include "marlix/stack.hpp"
#include "ox-repository.h"

namespace {

struct Change {
    void *context;
    std::string name;
    rep_value_type_t type;
    long number;
    std::string text;
    int len;
};
std::vector<Change> g_changes;

void record_change(void *context, const char *name, rep_value_type_t type, const void *value, int len) {
    Change c{context, name, type, 0, {}, len};
    if (type == rep_value_long)
        c.number = *static_cast<const long *>(value);
    else
        c.text = static_cast<const char *>(value);
    g_changes.push_back(c);
}

class Repository : public ::testing::Test {
  protected:
    void SetUp() override {
        marlix::stack::boot();
        g_changes.clear();
    }
    void TearDown() override { marlix::stack::halt(); }

    rep_key_h_t open(const char *path) {
        rep_key_h_t root = nullptr, key = nullptr;
        EXPECT_EQ(rep_get_root(&root), 0);
        EXPECT_EQ(rep_open_key(root, path, &key), 0);
        return key;
    }
};

TEST_F(Repository, BootCreatesTheAdaptorKeyWithDebugLevelOne) {
    rep_key_h_t key = open("marlix/modules/adaptor-mlx/");
    ASSERT_NE(key, nullptr);
    long level = -1;
    rep_value_type_t type = rep_value_string;
    EXPECT_EQ(rep_get_value(key, "debug-level", &level, 8, &type), 0);
    EXPECT_EQ(level, 1);
    EXPECT_EQ(type, rep_value_long);
    EXPECT_EQ(rep_close_key(key), 0);
}

TEST_F(Repository, PathsWithAndWithoutTrailingSlashOpenTheSameKey) {
    rep_key_h_t a = open("marlix/modules/adaptor-mlx/");
    rep_key_h_t b = open("marlix/modules/adaptor-mlx");
    rep_key_h_t modules = open("marlix/modules");
    rep_key_h_t c = nullptr;
    EXPECT_EQ(rep_open_key(modules, "adaptor-mlx/", &c), 0);
    EXPECT_EQ(a, b);
    EXPECT_EQ(a, c);
}

TEST_F(Repository, MissingKeyAndValueAreENOENT) {
    rep_key_h_t root = nullptr, key = reinterpret_cast<rep_key_h_t>(0x1);
    ASSERT_EQ(rep_get_root(&root), 0);
    EXPECT_EQ(rep_open_key(root, "marlix/modules/nothing/", &key), -ENOENT);
    EXPECT_EQ(key, reinterpret_cast<rep_key_h_t>(0x1)) << "a failed open leaves the handle alone";
    rep_key_h_t adaptor = open("marlix/modules/adaptor-mlx/");
    long v = 0;
    EXPECT_EQ(rep_get_value(adaptor, "no-such-value", &v, 8, nullptr), -ENOENT);
}

TEST_F(Repository, BadArgumentsAreEINVAL) {
    rep_key_h_t adaptor = open("marlix/modules/adaptor-mlx/");
    int small = 0;
    EXPECT_EQ(rep_get_value(adaptor, "debug-level", &small, 4, nullptr), -EINVAL) << "a long needs 8 bytes";
    EXPECT_EQ(rep_get_value(adaptor, nullptr, &small, 4, nullptr), -EINVAL);
    EXPECT_EQ(rep_get_root(nullptr), -EINVAL);
    long v = 3;
    EXPECT_EQ(rep_set_value(adaptor, "x", rep_value_long, &v, 4), -EINVAL);
    EXPECT_EQ(rep_set_value(adaptor, "x", static_cast<rep_value_type_t>(7), &v, 8), -EINVAL);
    rep_key_st *bogus = reinterpret_cast<rep_key_st *>(&v);
    EXPECT_EQ(rep_close_key(bogus), -EINVAL);
    EXPECT_EQ(rep_get_value(bogus, "x", &v, 8, nullptr), -EINVAL);
}

TEST_F(Repository, SetAndGetLongAndString) {
    rep_key_h_t root = nullptr, key = nullptr;
    ASSERT_EQ(rep_get_root(&root), 0);
    ASSERT_EQ(rep_create_key(root, "a/b/", &key), 0);
    long number = -42;
    ASSERT_EQ(rep_set_value(key, "n", rep_value_long, &number, 8), 0);
    ASSERT_EQ(rep_set_value(key, "s", rep_value_string, "hello", 6), 0);

    long got = 0;
    rep_value_type_t type{};
    EXPECT_EQ(rep_get_value(open("a/b"), "n", &got, 8, &type), 0);
    EXPECT_EQ(got, -42);
    EXPECT_EQ(type, rep_value_long);

    char buf[16];
    EXPECT_EQ(rep_get_value(key, "s", buf, sizeof buf, &type), 0);
    EXPECT_STREQ(buf, "hello");
    EXPECT_EQ(type, rep_value_string);

    char small[4];
    EXPECT_EQ(rep_get_value(key, "s", small, sizeof small, nullptr), 0);
    EXPECT_STREQ(small, "hel") << "truncated and terminated within the buffer";

    // A value may be replaced by one of the other type.
    ASSERT_EQ(rep_set_value(key, "n", rep_value_string, "text", -1), 0);
    EXPECT_EQ(rep_get_value(key, "n", buf, sizeof buf, &type), 0);
    EXPECT_STREQ(buf, "text");
}

TEST_F(Repository, SetValueCreatesAKeyPathInTheName) {
    rep_key_h_t root = nullptr;
    ASSERT_EQ(rep_get_root(&root), 0);
    long v = 9;
    ASSERT_EQ(rep_set_value(root, "x/y/level", rep_value_long, &v, 8), 0);
    long got = 0;
    EXPECT_EQ(rep_get_value(open("x/y/"), "level", &got, 8, nullptr), 0);
    EXPECT_EQ(got, 9);
}

TEST_F(Repository, NotificationDeliversTheNewValueUntilCancelled) {
    rep_key_h_t key = open("marlix/modules/adaptor-mlx/");
    int context = 0;
    rep_notifier_t notifier = nullptr;
    ASSERT_EQ(rep_notify_key_change(key, record_change, &context, &notifier), 0);
    ASSERT_NE(notifier, nullptr);

    long level = 4;
    ASSERT_EQ(rep_set_value(key, "debug-level", rep_value_long, &level, 8), 0);
    ASSERT_EQ(rep_set_value(key, "label", rep_value_string, "abc", -1), 0);
    ASSERT_EQ(g_changes.size(), 2u);
    EXPECT_EQ(g_changes[0].context, &context);
    EXPECT_EQ(g_changes[0].name, "debug-level");
    EXPECT_EQ(g_changes[0].type, rep_value_long);
    EXPECT_EQ(g_changes[0].number, 4);
    EXPECT_EQ(g_changes[0].len, 8);
    EXPECT_EQ(g_changes[1].name, "label");
    EXPECT_EQ(g_changes[1].type, rep_value_string);
    EXPECT_EQ(g_changes[1].text, "abc");
    EXPECT_EQ(g_changes[1].len, 4);

    // Another key's changes are not reported.
    ASSERT_EQ(marlix::stack::set_long("marlix/modules/other/", "debug-level", 3), 0);
    EXPECT_EQ(g_changes.size(), 2u);

    // The host-side setter notifies as well.
    ASSERT_EQ(marlix::stack::set_long(marlix::stack::kAdaptorKey, "debug-level", 2), 0);
    ASSERT_EQ(g_changes.size(), 3u);
    EXPECT_EQ(g_changes[2].number, 2);

    EXPECT_EQ(rep_notify_del(notifier), 0);
    level = 5;
    ASSERT_EQ(rep_set_value(key, "debug-level", rep_value_long, &level, 8), 0);
    EXPECT_EQ(g_changes.size(), 3u);
    EXPECT_EQ(rep_notify_del(notifier), -EINVAL) << "a cancelled registration is unknown";
}

TEST_F(Repository, NotifyDelOfNullIsHarmless) {
    EXPECT_EQ(rep_notify_del(nullptr), 0);
}

TEST_F(Repository, BootForgetsEverything) {
    ASSERT_EQ(marlix::stack::set_string("tmp/", "name", "value"), 0);
    rep_notifier_t notifier = nullptr;
    ASSERT_EQ(rep_notify_key_change(open("tmp"), record_change, nullptr, &notifier), 0);
    marlix::stack::boot();
    EXPECT_FALSE(marlix::stack::key_exists("tmp/"));
    EXPECT_EQ(rep_notify_del(notifier), -EINVAL);
    marlix::stack::Value value;
    ASSERT_EQ(marlix::stack::get_value(marlix::stack::kAdaptorKey, "debug-level", value), 0);
    EXPECT_TRUE(value.is_long);
    EXPECT_EQ(value.number, 1);
}

TEST_F(Repository, HostAccessorsReportMissingKeysAndValues) {
    marlix::stack::Value value;
    EXPECT_EQ(marlix::stack::get_value("no/such/", "x", value), -ENOENT);
    EXPECT_EQ(marlix::stack::get_value(marlix::stack::kAdaptorKey, "x", value), -ENOENT);
    ASSERT_EQ(marlix::stack::set_string("k/", "s", "some text"), 0);
    ASSERT_EQ(marlix::stack::get_value("k/", "s", value), 0);
    EXPECT_FALSE(value.is_long);
    EXPECT_EQ(value.text, "some text");
}

}  // namespace
