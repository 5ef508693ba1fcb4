#include "background.hpp"

#include <chrono>
#include <cstdio>
#include <deque>
#include <functional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "marlix/kernel.hpp"
#include "marlix/softhca.hpp"
#include "queues.hpp"
#include "statistics_page.hpp"
#include "ulp_pair.hpp"

namespace stress {

namespace k = marlix::kernel;
namespace hca = marlix::softhca;
namespace pair = marlix::ulp_pair;

namespace {

constexpr const char *kControl = "/proc/marlix/adaptor-mlx/control";
constexpr const char *kLink = "/proc/marlix/adaptor-mlx/link";
constexpr const char *kCableDevice = "InfiniHost1";

// Sleeps about `ms` milliseconds, waking early when the rig stops.
void nap(Rig &rig, unsigned ms) {
    const auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
    while (!rig.stop && std::chrono::steady_clock::now() < until)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

std::string pointer_text(const void *p) {
    char buf[32];
    std::snprintf(buf, sizeof(buf), "%016lx", reinterpret_cast<unsigned long>(p));
    return buf;
}

// ---- Churn --------------------------------------------------------------------------------------

struct ChurnQueue {
    pair::Side side;
};

void destroy_churned(Rig &rig, ChurnQueue &q) {
    if (q.side.qp) {
        if (ulp_qp_destroy(rig.funcs, q.side.hca, q.side.qp) != 0) rig.fail("churn: QP destroy failed");
        rig.tally.qps_destroyed++;
    }
    if (ulp_cq_destroy(rig.funcs, q.side.hca, q.side.cq) != 0) rig.fail("churn: CQ destroy failed");
    rig.tally.cqs_destroyed++;
}

// One CQ and one QP on it, queried; false after a failure.
bool make_churned(Rig &rig, std::mt19937 &random, ChurnQueue &q) {
    static const char *const kTypes[] = {"rc", "uc", "ud"};
    q.side.funcs = rig.funcs;
    q.side.hca = rig.hca[random() % 2];
    if (ulp_get_gen_pd_h(rig.funcs, q.side.hca, &q.side.pd) != 0) {
        rig.fail("churn: generic PD query failed");
        return false;
    }
    const uint32_t entries = 4 + random() % 250;
    const char *type = kTypes[random() % 3];
    if (make_queues(q.side, type, entries, 1 + random() % 64, rig.tally) != 0) {
        rig.fail(std::string("churn: CQ or ") + type + " QP create failed");
        if (q.side.cq) destroy_churned(rig, q);
        return false;
    }
    uint32_t size = 0;
    void *context = nullptr;
    if (ulp_cq_query(rig.funcs, q.side.hca, q.side.cq, &size, &context) != 0 || size < entries)
        rig.fail("churn: CQ query failed or reports fewer entries than asked for");
    if (random() % 2) {
        // Some reach INIT, so destroy meets QPs in more than one state.
        pair::Modify init("init");
        init.set("p_key_indx", 0).set("phy_port_num", 1);
        if (std::string(type) == "ud")
            init.set("q_key", pair::kQkey);
        else
            init.set("access_control", 0x0e);
        if (init.apply(q.side) != 0) rig.fail(std::string("churn: ") + type + " QP to INIT failed");
    }
    std::vector<unsigned char> attr(ulp_sizeof_qp_attr(), 0);
    void *qp_context = nullptr;
    if (ulp_qp_query(rig.funcs, q.side.hca, q.side.qp, &qp_context, attr.data()) != 0)
        rig.fail(std::string("churn: ") + type + " QP query failed");
    return true;
}

}  // namespace

void run_churn(Rig &rig) {
    std::mt19937 random(7);
    std::deque<ChurnQueue> live;
    while (!rig.stop) {
        {
            std::lock_guard lock(rig.control);
            ChurnQueue q;
            if (make_churned(rig, random, q)) live.push_back(q);
            while (!live.empty() && (live.size() > 6 || random() % 2)) {
                destroy_churned(rig, live.front());
                live.pop_front();
            }
        }
        std::this_thread::sleep_for(std::chrono::microseconds(200 + random() % 800));
    }
    std::lock_guard lock(rig.control);
    for (ChurnQueue &q : live) destroy_churned(rig, q);
}

// ---- Statistics page -----------------------------------------------------------------------------

void run_statistics_reader(Rig &rig) {
    std::mt19937 random(13);
    long long receives = 0, segments = 0;
    while (!rig.stop) {
        std::string text;
        {
            std::lock_guard lock(rig.control);
            if (k::read_file(kControl, text) < 0)
                return rig.fail("statistics: the control file cannot be read");
        }
        rig.tally.statistics_reads++;
        StatisticsPage page;
        std::string why;
        if (!parse_statistics_page(text, page, &why)) return rig.fail("statistics: " + why + ":\n" + text);
        if (page.hca_lines != 2)
            return rig.fail("statistics: " + std::to_string(page.hca_lines) + " HCA lines:\n" + text);
        // Receive posts count under the adaptor lock and the gather count atomically: neither
        // loses an update, so neither may go back.
        const long long r = uint32_t(page.counter("receive WR", 0)) + uint32_t(page.counter("receive WR", 2));
        const long long s = uint32_t(page.counter("acc sg"));
        if (r < receives || s < segments)
            return rig.fail("statistics: receive WR or acc sg went back:\n" + text);
        receives = r;
        segments = s;
        nap(rig, 2 + random() % 15);
    }
}

// ---- Control file --------------------------------------------------------------------------------

namespace {

struct ControlCheck {
    std::string command;
    // Checks the lines the command printed; empty when they are right.
    std::function<std::string(const std::vector<std::string> &)> check;
};

bool has_line(const std::vector<std::string> &lines, const std::string &line) {
    for (const auto &l : lines)
        if (l == line) return true;
    return false;
}

bool has_line_starting(const std::vector<std::string> &lines, const std::string &start) {
    for (const auto &l : lines)
        if (l.rfind(start, 0) == 0) return true;
    return false;
}

std::function<std::string(const std::vector<std::string> &)> expect_line(std::string line) {
    return [line](const std::vector<std::string> &lines) {
        return has_line(lines, line) ? std::string() : "no line \"" + line + "\"";
    };
}

std::function<std::string(const std::vector<std::string> &)> expect_start(std::string start) {
    return [start](const std::vector<std::string> &lines) {
        return has_line_starting(lines, start) ? std::string() : "no line starting \"" + start + "\"";
    };
}

std::vector<ControlCheck> control_checks(void *probe_cq) {
    std::string zero_ring = "Last VAPI errors: ";
    for (int i = 0; i < 20; ++i) zero_ring += "0, ";
    const std::string probe = pointer_text(probe_cq);
    return {
        {"show_c", expect_line("support: inline, list send/receive")},
        // No VAPI call fails during the run, so the ring of last errors stays empty.
        {"show_err", expect_line(zero_ring)},
        {"show_mem", expect_line("ix) name                      size      slab    Number of allocations")},
        {"show_reg_mem", expect_start("Generic pd_h     : ")},
        {"comshow", expect_line("g_com_work_mode: 1")},
        {"event_show", expect_line("Working with events - interrupts")},
        {"comsett 25", expect_start("new_jiff_timer_num: 25, old value: ")},
        {"commode 1", expect_line("ERROR - new work mode == old work mode (1:1)")},
        {"pollcq 0x" + probe,
         [probe](const std::vector<std::string> &lines) {
             for (const auto &l : lines)
                 if (l.rfind("Empty CQ: cq_index: ", 0) == 0 &&
                     l.find("user: 0x" + probe) != std::string::npos)
                     return std::string();
             return "no \"Empty CQ\" line for the probe CQ " + probe;
         }},
        {"comaddcq 0x" + probe, expect_start("Didn't find cq_h: ")},
        {"  stress-probe   words\n", expect_line("gen /proc: unknown command: 'stress-probe' 'words'")},
    };
}

std::vector<std::string> log_texts() {
    std::vector<std::string> out;
    for (const auto &line : k::log_lines()) out.push_back(line.text);
    return out;
}

}  // namespace

void run_control_writer(Rig &rig, void *probe_cq) {
    const std::vector<ControlCheck> checks = control_checks(probe_cq);
    std::mt19937 random(17);
    for (size_t i = 0; !rig.stop; ++i) {
        const ControlCheck &c = checks[i % checks.size()];
        std::vector<std::string> lines;
        {
            // The commands that walk the CQ list do it without the adaptor lock, and the log is
            // shared with the statistics page's printout: one writer at a time.
            std::lock_guard lock(rig.control);
            k::log_clear();
            if (k::write_file(kControl, c.command) != long(c.command.size()))
                return rig.fail("control: the write of \"" + c.command + "\" was not consumed whole");
            lines = log_texts();
        }
        rig.tally.control_writes++;
        const std::string wrong = c.check(lines);
        if (!wrong.empty()) {
            std::string all;
            for (const auto &l : lines) all += "\n  " + l;
            return rig.fail("control: \"" + c.command + "\": " + wrong + "; it printed:" + all);
        }
        if (i % 4 == 0) {
            std::string link;
            if (k::read_file(kLink, link) < 0 || link != "PORT_ACTIVE\n")
                return rig.fail("control: the link file reads \"" + link + "\"");
            rig.tally.link_reads++;
        }
        nap(rig, 1 + random() % 8);
    }
}

// ---- Cable ---------------------------------------------------------------------------------------

namespace {

bool cable_port_active() {
    const auto status = hca::port_status(kCableDevice, 1);
    return status && status->state == PORT_ACTIVE && status->lid != 0;
}

}  // namespace

void run_cable(Rig &rig) {
    std::mt19937 random(11);
    nap(rig, 150);
    while (!rig.stop) {
        rig.cable.generation++;  // odd: out
        if (!hca::unplug(kCableDevice, 1)) return rig.fail("cable: unplug refused");
        // Out long enough for RC senders to give up (about 16 ms), sometimes much longer.
        std::this_thread::sleep_for(std::chrono::milliseconds(40 + random() % 120));
        if (!hca::plug(kCableDevice, 1)) return rig.fail("cable: plug refused");
        const auto start = std::chrono::steady_clock::now();
        while (!cable_port_active()) {
            if (std::chrono::steady_clock::now() - start > std::chrono::seconds(10))
                return rig.fail("cable: the port did not become active again");
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        rig.cable.generation++;  // even: in, and the port active
        rig.tally.cable_pulls++;
        nap(rig, 150 + random() % 350);
    }
}

}  // namespace stress
