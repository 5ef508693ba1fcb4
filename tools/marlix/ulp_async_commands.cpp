// ulp async: an upper layer's asynchronous event callback on an open HCA. While it is on, every
// event the provider delivers to it is printed as one line, between commands:
//
//   ulp: async event on hca1: ox_async_r_port, port_num 1
//   ulp: async event on hca1: ox_async_r_l_wq_err, qp_h 0x..., qp_num 0x..., context 0x...
//   ulp: async event on hca1: ox_async_r_cq_err, cq_h 0x..., context 0x...
//
// The callback is registered for every kind of event (ox_async_even_all); the provider delivers
// an HCA's events to its newest registration only.
#include <array>
#include <atomic>
#include <cstdio>
#include <ostream>

#include "ulp_events.h"
#include "ulp_session.hpp"

namespace marlix::console {
namespace {

// One registration per shim slot: the console that prints its events and the HCA's name.
struct Slot {
    std::atomic<Console *> console{nullptr};
    std::string hca;  // written only while console is null
};
std::array<Slot, ULP_ASYNC_SINKS> g_slots;

std::string hex(const void *p) {
    char buf[32];
    std::snprintf(buf, sizeof(buf), "0x%lx", reinterpret_cast<unsigned long>(p));
    return buf;
}

// Runs in the provider's event context: the line is handed to the console, which holds lines
// from other threads until it is between commands.
void print_event(const ulp_async_event *ev) {
    if (ev->slot >= g_slots.size()) return;
    Console *console = g_slots[ev->slot].console.load(std::memory_order_acquire);
    if (!console) return;
    std::string line =
        "ulp: async event on " + g_slots[ev->slot].hca + ": " + ulp_async_event_name(ev->event_type);
    char buf[96];
    if (ulp_async_event_is_qp(ev->event_type)) {
        std::snprintf(buf, sizeof(buf), ", qp_num 0x%x", ev->qp_num);
        line += ", qp_h " + hex(ev->object) + buf + ", context " + hex(ev->context);
    } else if (ulp_async_event_is_cq(ev->event_type)) {
        line += ", cq_h " + hex(ev->object) + ", context " + hex(ev->context);
    } else {
        line += ", port_num " + std::to_string(ev->port_num);
    }
    console->kernel_console_line(line);
}

int slot_of(const std::string &hca) {
    for (size_t i = 0; i < g_slots.size(); ++i)
        if (g_slots[i].console.load() && g_slots[i].hca == hca) return static_cast<int>(i);
    return -1;
}

void clear_slot(int slot) {
    g_slots[slot].console.store(nullptr, std::memory_order_release);
    g_slots[slot].hca.clear();
}

// ulp async on|off [HCA]
int ulp_async(Console &c, ulp::Session &s, const std::vector<std::string> &args) {
    if (args.size() < 2 || args.size() > 3 || (args[1] != "on" && args[1] != "off"))
        return ulp::usage(c, "async");
    std::string error;
    ulp::Object *hca = s.find("hca", args.size() == 3 ? args[2] : "", error);
    if (!hca) return ulp::refused(c, "async: " + error);
    ulp_async_set_receiver(&print_event);
    int slot = slot_of(hca->name);

    if (args[1] == "off") {
        if (slot < 0) return ulp::refused(c, "async: not on for " + hca->name);
        int status = ulp_async_unregister(hca->funcs, hca->ptr, static_cast<unsigned>(slot));
        clear_slot(slot);
        if (status != 0) return ulp::failed(c, "async off on " + hca->name, status);
        c.out() << hca->name << ": asynchronous events off\n";
        return 0;
    }

    if (slot >= 0) return ulp::refused(c, "async: already on for " + hca->name);
    for (size_t i = 0; i < g_slots.size() && slot < 0; ++i)
        if (!g_slots[i].console.load()) slot = static_cast<int>(i);
    if (slot < 0)
        return ulp::refused(c, "async: no free callback (at most " + std::to_string(ULP_ASYNC_SINKS) + ")");
    g_slots[slot].hca = hca->name;
    g_slots[slot].console.store(&c, std::memory_order_release);
    int status =
        ulp_async_register(hca->funcs, hca->ptr, static_cast<unsigned>(slot),
                           static_cast<uint32_t>(ulp_async_request_value("ox_async_even_all")), nullptr);
    if (status != 0) {
        clear_slot(slot);
        return ulp::failed(c, "async on on " + hca->name, status);
    }
    // Closing the HCA discards its registrations: the slot is free again when the HCA is forgotten.
    auto previous = hca->release;
    hca->release = [previous, slot](ulp::Object &o) {
        if (g_slots[slot].console.load() && g_slots[slot].hca == o.name) clear_slot(slot);
        if (previous) previous(o);
    };
    c.out() << hca->name << ": asynchronous events on (" << hca->device << ")\n";
    return 0;
}

}  // namespace

MARLIX_ULP_SUBCOMMAND(async, "async", "ulp async on|off [HCA]",
                      "Register (on) or remove (off) a callback that prints each asynchronous event the HCA "
                      "delivers, by its generic type and modifier.",
                      ulp_async)

}  // namespace marlix::console
