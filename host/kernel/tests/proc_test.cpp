// The proc filesystem: paths, missing directories, removal, creation faults, the read loop
// with handlers that page (correctly and not), and writes.
#include "kernel_fixture.hpp"

#include <cstring>

#include <linux/errno.h>
#include <linux/kernel.h>
#include <linux/proc_fs.h>
#include <asm/uaccess.h>

namespace mk = marlix::kernel;
using Lines = std::vector<std::string>;

namespace {

// 100 numbered records of 50 bytes, served a page at a time with *start = page + offset-in-page.
std::string record(int i) {
    char buf[64];
    snprintf(buf, sizeof buf, "record %03d %038d\n", i, i);
    return buf;
}

std::string all_records() {
    std::string s;
    for (int i = 0; i < 100; ++i) s += record(i);
    return s;
}

int paging_read(char *page, char **start, off_t off, int count, int *eof, void *) {
    // Produce the records that cover [off, off + count) and point *start at off.
    const std::string all = all_records();
    if (off >= (off_t)all.size()) {
        *eof = 1;
        return 0;
    }
    int n = std::min<int>(count, (int)all.size() - (int)off);
    std::memcpy(page, all.data() + off, n);
    *start = page;
    if (off + n >= (off_t)all.size()) *eof = 1;
    return n;
}

// A classic bug: ignores the offset and count and writes everything from the page start
// without setting *start, so a file larger than a page overflows and a second read repeats.
int buggy_read(char *page, char **, off_t, int, int *eof, void *) {
    const std::string all = all_records();  // 5000 bytes: more than the page
    std::memcpy(page, all.data(), 4096);
    *eof = 1;
    return (int)all.size();
}

// The record-count form of *start: each call returns one record and advances the position by 1.
int counting_read(char *page, char **start, off_t off, int, int *eof, void *) {
    if (off >= 3) {
        *eof = 1;
        return 0;
    }
    int n = sprintf(page, "line %ld\n", (long)off);
    *start = (char *)1;
    return n;
}

int calls;
int simple_read(char *page, char **, off_t off, int count, int *eof, void *data) {
    ++calls;
    int len = sprintf(page, "%s\n", (const char *)data);
    if (off >= len) {
        *eof = 1;
        return 0;
    }
    *eof = 1;
    return std::min(len, count);
}

std::string written;
int capture_write(struct file *, const char *buffer, unsigned long count, void *) {
    char tmp[64] = {0};
    if (copy_from_user(tmp, buffer, std::min<unsigned long>(count, 63))) return -EFAULT;
    written = tmp;
    return (int)count;
}

TEST_F(KernelTest, ProcPathsNeedExistingDirectories) {
    EXPECT_EQ(create_proc_entry("marlix/a/file", 0644, nullptr), nullptr);
    proc_dir_entry *dir = proc_mkdir("marlix", nullptr);
    ASSERT_NE(dir, nullptr);
    EXPECT_EQ(create_proc_entry("marlix/a/file", 0644, nullptr), nullptr);
    ASSERT_NE(proc_mkdir("marlix/a", nullptr), nullptr);
    proc_dir_entry *f = create_proc_entry("marlix/a/file", 0644, nullptr);
    ASSERT_NE(f, nullptr);
    EXPECT_STREQ(f->name, "file");
    EXPECT_TRUE(S_ISREG(f->mode));
    proc_dir_entry *g = create_proc_entry("a/other", 0, dir);  // relative to a parent
    ASSERT_NE(g, nullptr);
    EXPECT_EQ(g->mode, (mode_t)(S_IFREG | S_IRUGO));
    std::vector<std::string> names;
    ASSERT_EQ(mk::list_dir("/proc/marlix/a", names), 0);
    EXPECT_EQ(names, (Lines{"other", "file"}));  // newest first
    ASSERT_EQ(mk::list_dir("/proc", names), 0);
    EXPECT_EQ(names, (Lines{"marlix/"}));
    EXPECT_EQ(mk::list_dir("/proc/nothing", names), -ENOENT);
}

TEST_F(KernelTest, ProcDuplicatesAndRemoval) {
    proc_dir_entry *a = create_proc_read_entry("dup", 0, nullptr, simple_read, (void *)"first");
    proc_dir_entry *b = create_proc_read_entry("dup", 0, nullptr, simple_read, (void *)"second");
    ASSERT_NE(a, nullptr);
    ASSERT_NE(b, nullptr);  // 2.6 does not refuse a second entry of the same name
    std::string out;
    ASSERT_EQ(mk::read_file("/proc/dup", out), 0);
    EXPECT_EQ(out, "second\n");
    remove_proc_entry("dup", nullptr);
    ASSERT_EQ(mk::read_file("/proc/dup", out), 0);
    EXPECT_EQ(out, "first\n");
    remove_proc_entry("dup", nullptr);
    EXPECT_EQ(mk::read_file("/proc/dup", out), -ENOENT);
    remove_proc_entry("dup", nullptr);  // nothing left: harmless
    remove_proc_entry("x/y", nullptr);
}

TEST_F(KernelTest, ProcCreationFaults) {
    mk::add_proc_create_fault("/control");
    EXPECT_EQ(create_proc_entry("control", 0644, nullptr), nullptr);
    EXPECT_NE(create_proc_entry("control", 0644, nullptr), nullptr);  // once
    mk::add_proc_create_fault("dir", true);
    EXPECT_EQ(proc_mkdir("dir", nullptr), nullptr);
    EXPECT_EQ(proc_mkdir("dir", nullptr), nullptr);
    mk::clear_proc_faults();
    EXPECT_NE(proc_mkdir("dir", nullptr), nullptr);
}

TEST_F(KernelTest, ProcReadLoopServesPagingHandler) {
    create_proc_read_entry("records", 0, nullptr, paging_read, nullptr);
    std::string out;
    ASSERT_EQ(mk::read_file("/proc/records", out), 0);
    EXPECT_EQ(out.size(), 5000u);
    EXPECT_EQ(out, all_records());
    EXPECT_TRUE(texts().empty());
}

TEST_F(KernelTest, ProcReadLoopShowsPagingBug) {
    create_proc_read_entry("buggy", 0, nullptr, buggy_read, nullptr);
    std::string out;
    ASSERT_EQ(mk::read_file("/proc/buggy", out), 0);
    // Every read() call overflows: the first serves 3072 bytes, the second the rest of the
    // page from offset 3072, the third finds the position at the page end and stops. The
    // last 904 bytes are never seen.
    EXPECT_EQ(texts(),
              (Lines{"proc_file_read: Apparent buffer overflow!", "proc_file_read: Apparent buffer overflow!",
                     "proc_file_read: Apparent buffer overflow!"}));
    EXPECT_EQ(out, all_records().substr(0, 4096));
}

TEST_F(KernelTest, ProcReadRecordCountStart) {
    create_proc_read_entry("count", 0, nullptr, counting_read, nullptr);
    std::string out;
    ASSERT_EQ(mk::read_file("/proc/count", out), 0);
    EXPECT_EQ(out, "line 0\nline 1\nline 2\n");
}

TEST_F(KernelTest, ProcReadOfSmallFileCallsHandlerUntilEnd) {
    calls = 0;
    create_proc_read_entry("small", 0, nullptr, simple_read, (void *)"hi");
    std::string out;
    ASSERT_EQ(mk::read_file("/proc/small", out), 0);
    EXPECT_EQ(out, "hi\n");
    EXPECT_EQ(calls, 2);  // the data, then the read that finds the end
}

TEST_F(KernelTest, ProcWriteGetsWholeBuffer) {
    proc_dir_entry *e = create_proc_entry("ctl", 0644, nullptr);
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(mk::write_file("/proc/ctl", "x"), -EIO);  // no handler yet
    e->write_proc = capture_write;
    EXPECT_EQ(mk::write_file("/proc/ctl", "show_c 1\n"), 9);
    EXPECT_EQ(written, "show_c 1\n");
    std::string out;
    EXPECT_EQ(mk::read_file("/proc/ctl", out), 0);  // no read handler: empty
    EXPECT_EQ(out, "");
    proc_mkdir("d", nullptr);
    EXPECT_EQ(mk::read_file("/proc/d", out), -EISDIR);
}

TEST_F(KernelTest, CopyFromUserReportsWhatWasNotCopied) {
    char dst[8] = {0};
    EXPECT_EQ(copy_from_user(dst, "abcdefg", 8), 0u);
    EXPECT_STREQ(dst, "abcdefg");
    EXPECT_EQ(copy_from_user(dst, nullptr, 4), 4u);
    EXPECT_EQ(dst[0], 0);
    char back[4];
    EXPECT_EQ(copy_to_user(back, "xyz", 4), 0u);
    EXPECT_STREQ(back, "xyz");
    EXPECT_EQ(copy_to_user((void *)8, "xyz", 4), 4u);
}

}  // namespace
