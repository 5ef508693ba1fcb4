// The kernel's reports of misuse, triggered on purpose by the marlix-guards module: sleeping in
// atomic context, a spinlock taken twice by its holder, a spinlock released that is not held or
// that another task holds. Each is reported in the log and leaves the caller's context usable.
#include <gtest/gtest.h>

#include <fstream>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "marlix/kernel.hpp"

namespace k = marlix::kernel;

namespace {

constexpr const char *kTrigger = "/proc/marlix-guards/trigger";

// The line of marlix-guards.c that carries `marker` in a comment.
int marker_line(const std::string &marker) {
    std::ifstream in(MARLIX_GUARDS_SOURCE);
    std::string line;
    for (int n = 1; std::getline(in, line); ++n)
        if (line.find(marker) != std::string::npos) return n;
    ADD_FAILURE() << "no line with " << marker;
    return -1;
}

std::string sleep_report(const std::string &marker) {
    return "BUG: sleeping function called from invalid context at tests/modules/marlix-guards.c:" +
           std::to_string(marker_line(marker));
}

// A preemption count and interrupt state read in the calling thread's kernel context.
struct ContextState {
    unsigned long preempt;
    bool irqs_off;
};

class Guards : public ::testing::Test {
  protected:
    void SetUp() override {
        k::boot({});
        ASSERT_EQ(0, k::insmod("marlix-guards"));
        k::log_clear();
    }
    void TearDown() override {
        EXPECT_EQ(0, k::rmmod("marlix_guards"));
        k::halt(true);
    }

    static void trigger(const std::string &word) {
        ASSERT_EQ(static_cast<long>(word.size()), k::write_file(kTrigger, word)) << word;
    }
    static std::string state() {
        std::string out;
        EXPECT_GE(k::read_file(kTrigger, out), 0);
        return out;
    }
    static std::vector<std::string> texts() {
        std::vector<std::string> out;
        for (auto &l : k::log_lines()) out.push_back(l.text);
        return out;
    }
    static std::vector<int> levels() {
        std::vector<int> out;
        for (auto &l : k::log_lines()) out.push_back(l.level);
        return out;
    }

    // The four lines of a spinlock report: the BUG line, the lock's holder, the call trace.
    static void expect_spin_bug(const std::vector<std::string> &lines, size_t at, const std::string &bug,
                                const std::string &owner) {
        ASSERT_GE(lines.size(), at + 4);
        EXPECT_EQ(lines[at], "BUG: spinlock " + bug);
        EXPECT_TRUE(std::regex_match(lines[at + 1], std::regex(" lock: [0-9a-f]{16}, \\.owner: " + owner)))
            << lines[at + 1];
        EXPECT_EQ(lines[at + 2], "Call Trace:");
        EXPECT_TRUE(std::regex_match(lines[at + 3], std::regex(" \\[<[0-9a-f]{16}>\\] .+"))) << lines[at + 3];
    }
};

// The running thread's preemption count and interrupt state, as kernel code sees them.
extern "C" unsigned long *__marlix_preempt_count_ptr(void);
extern "C" int __marlix_irqs_disabled(void);

void expect_balanced_context() {
    EXPECT_EQ(0u, *__marlix_preempt_count_ptr());
    EXPECT_EQ(0, __marlix_irqs_disabled());
}

TEST_F(Guards, CorrectLockingReportsNothing) {
    trigger("clean");
    trigger("hold");
    trigger("release");
    EXPECT_EQ(std::vector<std::string>{}, texts());
    EXPECT_EQ(0u, k::spinlock_bug_count());
    EXPECT_EQ(0u, k::sleeping_in_atomic_count());
    EXPECT_EQ("locked: 0, acquisitions: 3\n", state());
    expect_balanced_context();
}

TEST_F(Guards, SleepingWithInterruptsOffUnderALock) {
    trigger("sleep-in-atomic");
    EXPECT_EQ((std::vector<std::string>{sleep_report("marker: sleeps while atomic"),
                                        "in_atomic(): 1, irqs_disabled(): 1, pid: 1000, name: marlix"}),
              texts());
    EXPECT_EQ((std::vector<int>{3, 3}), levels());
    EXPECT_EQ(1u, k::sleeping_in_atomic_count());
    EXPECT_EQ("locked: 0, acquisitions: 1\n", state());
    expect_balanced_context();
}

TEST_F(Guards, SleepingAllocationUnderALock) {
    trigger("kmalloc-in-atomic");
    EXPECT_EQ((std::vector<std::string>{sleep_report("marker: allocates while atomic"),
                                        "in_atomic(): 1, irqs_disabled(): 0, pid: 1000, name: marlix"}),
              texts());
    EXPECT_EQ(1u, k::sleeping_in_atomic_count());
    expect_balanced_context();
}

TEST_F(Guards, SleepingWithBottomHalvesOff) {
    trigger("sleep-in-bh");
    EXPECT_EQ((std::vector<std::string>{sleep_report("marker: sleeps with bottom halves off"),
                                        "in_atomic(): 1, irqs_disabled(): 0, pid: 1000, name: marlix"}),
              texts());
    expect_balanced_context();
}

TEST_F(Guards, SleepingFromAnInterruptHandler) {
    k::raise_irq([] { trigger("clean"); }, true);  // a lock in hardirq context is fine
    EXPECT_EQ(std::vector<std::string>{}, texts());
    k::raise_irq([] { trigger("kmalloc-in-atomic"); }, true);
    EXPECT_EQ((std::vector<std::string>{sleep_report("marker: allocates while atomic"),
                                        "in_atomic(): 1, irqs_disabled(): 0, pid: 4, name: irq/1"}),
              texts());
}

TEST_F(Guards, LockTakenTwiceByItsHolderIsReportedNotHung) {
    trigger("lock-twice");
    auto lines = texts();
    ASSERT_EQ(4u, lines.size());
    expect_spin_bug(lines, 0, "recursion on CPU#0, marlix/1000", "marlix/1000, \\.owner_cpu: 0");
    EXPECT_EQ(0, levels()[0]);
    EXPECT_EQ(1u, k::spinlock_bug_count());
    // The inner unlock undid only the re-take: the outer one released the lock, once.
    EXPECT_EQ("locked: 0, acquisitions: 1\n", state());
    expect_balanced_context();
    k::log_clear();
    trigger("clean");  // the lock works as before
    EXPECT_EQ(std::vector<std::string>{}, texts());
}

TEST_F(Guards, LockTakenTwiceWithInterruptsSaved) {
    k::set_current_cpu(1);
    trigger("lock-twice-irqsave");
    auto lines = texts();
    ASSERT_EQ(4u, lines.size());
    expect_spin_bug(lines, 0, "recursion on CPU#1, marlix/1000", "marlix/1000, \\.owner_cpu: 1");
    EXPECT_EQ("locked: 0, acquisitions: 1\n", state());
    expect_balanced_context();  // interrupts are enabled again
}

TEST_F(Guards, UnlockOfALockThatIsNotHeld) {
    trigger("unlock-unheld");
    auto lines = texts();
    ASSERT_EQ(4u, lines.size());
    expect_spin_bug(lines, 0, "already unlocked on CPU#0, marlix/1000", "<none>/-1, \\.owner_cpu: -1");
    EXPECT_EQ(1u, k::spinlock_bug_count());
    expect_balanced_context();  // the stray unlock did not lower the preemption count
    EXPECT_EQ("locked: 0, acquisitions: 0\n", state());
}

TEST_F(Guards, UnlockTwice) {
    trigger("unlock-twice");
    auto lines = texts();
    ASSERT_EQ(4u, lines.size());
    expect_spin_bug(lines, 0, "already unlocked on CPU#0, marlix/1000", "<none>/-1, \\.owner_cpu: -1");
    expect_balanced_context();
    EXPECT_EQ("locked: 0, acquisitions: 1\n", state());
}

TEST_F(Guards, UnlockByAnotherTask) {
    trigger("hold");  // this task (pid 1000) now holds the lock
    std::thread other([] { trigger("release"); });
    other.join();
    auto lines = texts();
    ASSERT_EQ(4u, lines.size());
    expect_spin_bug(lines, 0, "wrong owner on CPU#0, marlix/1001", "marlix/1000, \\.owner_cpu: 0");
    EXPECT_EQ("locked: 0, acquisitions: 1\n", state());  // released all the same
    // The holder's own preemption count is still raised: it never released the lock itself.
    EXPECT_EQ(1u, *__marlix_preempt_count_ptr());
    *__marlix_preempt_count_ptr() = 0;
}

TEST_F(Guards, HolderThatEndedIsStillNamed) {
    trigger("clean");                             // this task takes pid 1000
    std::thread holder([] { trigger("hold"); });  // pid 1001 ends holding the lock
    holder.join();
    k::log_clear();
    trigger("release");
    auto lines = texts();
    ASSERT_EQ(4u, lines.size());
    expect_spin_bug(lines, 0, "wrong owner on CPU#0, marlix/1000", "marlix/1001, \\.owner_cpu: 0");
    expect_balanced_context();
}

TEST_F(Guards, UnknownWordIsRefused) {
    EXPECT_EQ(-22, k::write_file(kTrigger, "nothing"));
}

}  // namespace
