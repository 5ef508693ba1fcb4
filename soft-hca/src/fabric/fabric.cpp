// The fabric and its subnet manager. Every cabled, enabled port trains its link (INIT); the subnet
// manager then gives it a LID (the same one again after a replug), tells it where the SM is and
// moves it through ARMED to ACTIVE. The SM lives on the first port that comes up, normally port 1
// of InfiniHost0, which therefore carries the IsSM capability bit.
#include <array>
#include <atomic>
#include <cstdio>
#include <map>
#include <mutex>

#include "device/path_migration.hpp"
#include "engine/engine.hpp"
#include "fabric/fabric.hpp"
#include "marlix/softhca.hpp"

namespace marlix::softhca {

// Mirrors the LID table below; a plain global, so that reading it checks no static's guard.
constinit std::array<std::atomic<uint32_t>, 0x10000> registry::lid_route{};

namespace {

struct Fabric {
    std::mutex mu;  // serialises sweeps and cable changes; taken before any device mutex
    bool sm_enabled = true;
    std::map<uint64_t, IB_lid_t> lid_of_guid;  // LIDs handed out, kept across replugs
    IB_lid_t next_lid = 1;
};

Fabric &fab() {
    static Fabric f;
    return f;
}

using registry::lid_route;

// LID -> (device, port) of active ports. Sweeps and halt write it under its leaf lock; the data
// path reads `lid_route`, which mirrors `map`, without any lock.
struct LidTable {
    std::mutex mu;
    std::map<IB_lid_t, std::pair<Device *, IB_port_t>> map;

    // Replaces the table; called with `mu` held.
    void assign(std::map<IB_lid_t, std::pair<Device *, IB_port_t>> &&table) {
        for (auto &[lid, where] : map)
            if (!table.count(lid)) lid_route[lid].store(0, std::memory_order_release);
        for (auto &[lid, where] : table)
            lid_route[lid].store(uint32_t(where.first->index + 1) << 8 | where.second,
                                 std::memory_order_release);
        map = std::move(table);
    }
};

LidTable &lids() {
    static LidTable t;
    return t;
}

struct PendingEvent {
    Device *dev;
    VAPI_event_record_t rec;
};

// A port that went down in a sweep, with the LID it had.
struct LostPort {
    Device *dev;
    IB_port_t port;
    IB_lid_t lid;
};

// Every armed connected QP whose primary path used a lost port, on either end, moves to its
// alternate path. Called with fab().mu held and no device mutex held.
void migrate_lost_paths(const std::vector<LostPort> &lost) {
    if (lost.empty()) return;
    for (Device *d : devices()) {
        PendingEvents events;
        {
            std::lock_guard lk(d->mu);
            if (!d->open) continue;
            for (const LostPort &l : lost) migrate_paths_through(*d, l.dev, l.port, l.lid, events);
        }
        events.deliver(*d);
    }
    engine_kick();
}

// One sweep; called with fab().mu held and no device mutex held.
void sweep_locked() {
    Fabric &f = fab();
    std::vector<PendingEvent> events;
    std::map<IB_lid_t, std::pair<Device *, IB_port_t>> table;
    IB_lid_t sm_lid = 0;
    Device *sm_dev = nullptr;
    IB_port_t sm_port = 0;

    std::vector<LostPort> lost;

    // First pass: link state and LIDs.
    for (Device *d : devices()) {
        std::lock_guard lk(d->mu);
        for (Port &p : d->ports) {
            IB_port_state_t before = p.state;
            if (!p.cabled || p.disabled) {
                if (before != PORT_DOWN) lost.push_back({d, p.num, p.lid});
                p.phys_state = p.disabled ? PORT_PHYS_DISABLED : PORT_PHYS_POLLING;
                p.state = PORT_DOWN;
                p.lid = 0;
                p.sm_lid = 0;
                p.sm_sl = 0;
                p.capability_mask &= ~IB_CAP_MASK_IS_SM;
                if (before != PORT_DOWN) {
                    if (p.link_downed != 0xFF) ++p.link_downed;
                    VAPI_event_record_t rec{};
                    rec.type = VAPI_PORT_ERROR;
                    rec.modifier.port_num = p.num;
                    events.push_back({d, rec});
                }
                continue;
            }
            p.phys_state = PORT_PHYS_LINKUP;
            if (p.state == PORT_DOWN) p.state = PORT_INITIALIZE;
            if (!f.sm_enabled) continue;
            auto it = f.lid_of_guid.find(p.guid);
            if (it == f.lid_of_guid.end()) it = f.lid_of_guid.emplace(p.guid, f.next_lid++).first;
            p.lid = it->second;
            p.lmc = 0;
            if (!sm_dev) {
                sm_dev = d;
                sm_port = p.num;
                sm_lid = p.lid;
            }
            table[p.lid] = {d, p.num};
        }
    }
    // Second pass: SM location, ARMED -> ACTIVE.
    if (f.sm_enabled) {
        for (Device *d : devices()) {
            std::lock_guard lk(d->mu);
            for (Port &p : d->ports) {
                if (p.state == PORT_DOWN) continue;
                p.sm_lid = sm_lid;
                p.sm_sl = 0;
                if (d == sm_dev && p.num == sm_port)
                    p.capability_mask |= IB_CAP_MASK_IS_SM;
                else
                    p.capability_mask &= ~IB_CAP_MASK_IS_SM;
                if (p.state != PORT_ACTIVE) {
                    p.state = PORT_ARMED;
                    p.state = PORT_ACTIVE;  // the SM's PortInfo Set to ACTIVE follows at once
                    VAPI_event_record_t rec{};
                    rec.type = VAPI_PORT_ACTIVE;
                    rec.modifier.port_num = p.num;
                    events.push_back({d, rec});
                }
            }
        }
    }
    {
        std::lock_guard lk(lids().mu);
        lids().assign(std::move(table));
    }
    for (PendingEvent &e : events) e.dev->raise_async_event(e.rec);
    migrate_lost_paths(lost);
}

// Changes one port's physical condition under the fabric lock, then lets the subnet manager
// sweep. False when the device or port does not exist.
template <typename Change>
bool change_port(const std::string &device, int port, Change change) {
    std::lock_guard lk(fab().mu);
    Device *d = device_by_name(device);
    if (!d) return false;
    {
        std::lock_guard dl(d->mu);
        Port *p = d->port(IB_port_t(port));
        if (!p || port < 1 || port > 255) return false;
        change(*p);
    }
    sweep_locked();
    return true;
}

bool set_cable(const std::string &device, int port, bool cabled) {
    return change_port(device, port, [cabled](Port &p) { p.cabled = cabled; });
}

const char *state_name(IB_port_state_t s) {
    switch (s) {
        case PORT_DOWN:
            return "Down";
        case PORT_INITIALIZE:
            return "Initializing";
        case PORT_ARMED:
            return "Armed";
        case PORT_ACTIVE:
            return "Active";
        default:
            return "Unknown";
    }
}

const char *phys_state_name(IB_port_phys_state_t s) {
    switch (s) {
        case PORT_PHYS_SLEEP:
            return "Sleep";
        case PORT_PHYS_POLLING:
            return "Polling";
        case PORT_PHYS_DISABLED:
            return "Disabled";
        case PORT_PHYS_TRAINING:
            return "PortConfigurationTraining";
        case PORT_PHYS_LINKUP:
            return "LinkUp";
        case PORT_PHYS_ERROR_RECOVERY:
            return "LinkErrorRecovery";
        default:
            return "Unknown";
    }
}

}  // namespace

void fabric_boot(const Options &options) {
    std::lock_guard lk(fab().mu);
    fab().sm_enabled = options.subnet_manager;
    fab().lid_of_guid.clear();
    fab().next_lid = 1;
    for (Device *d : devices()) {
        std::lock_guard dl(d->mu);
        for (Port &p : d->ports) p.cabled = options.cable_all_ports || (options.cable_port1 && p.num == 1);
    }
    sweep_locked();
}

void fabric_halt() {
    std::lock_guard lk(lids().mu);
    lids().assign({});
}

void sweep() {
    std::lock_guard lk(fab().mu);
    sweep_locked();
}

bool unplug(const std::string &device, int port) {
    return set_cable(device, port, false);
}
bool plug(const std::string &device, int port) {
    return set_cable(device, port, true);
}

bool set_port_disabled(const std::string &device, int port, bool disabled) {
    return change_port(device, port, [disabled](Port &p) { p.disabled = disabled; });
}

std::optional<PortStatus> port_status(const std::string &device, int port) {
    Device *d = device_by_name(device);
    if (!d || port < 1 || port > 255) return std::nullopt;
    std::lock_guard lk(d->mu);
    Port *p = d->port(IB_port_t(port));
    if (!p) return std::nullopt;
    return PortStatus{p->state, p->phys_state,      p->lid,  p->sm_lid,
                      p->sm_sl, p->capability_mask, p->guid, p->cabled};
}

std::string ibstat_text() {
    std::string out;
    char line[128];
    for (Device *d : devices()) {
        std::lock_guard lk(d->mu);
        std::snprintf(line, sizeof line, "CA '%s'\n", d->name.c_str());
        out += line;
        std::snprintf(line, sizeof line, "\tCA type: MT%u\n", d->vendor.vendor_part_id);
        out += line;
        std::snprintf(line, sizeof line, "\tNumber of ports: %zu\n", d->ports.size());
        out += line;
        std::snprintf(line, sizeof line, "\tFirmware version: %u.%u.%u\n", unsigned(d->vendor.fw_ver >> 32),
                      unsigned((d->vendor.fw_ver >> 16) & 0xFFFF), unsigned(d->vendor.fw_ver & 0xFFFF));
        out += line;
        std::snprintf(line, sizeof line, "\tHardware version: %x\n", d->vendor.hw_ver);
        out += line;
        std::snprintf(line, sizeof line, "\tNode GUID: 0x%016llx\n", (unsigned long long)d->node_guid);
        out += line;
        std::snprintf(line, sizeof line, "\tSystem image GUID: 0x%016llx\n",
                      (unsigned long long)d->node_guid);
        out += line;
        for (const Port &p : d->ports) {
            std::snprintf(line, sizeof line, "\tPort %u:\n", unsigned(p.num));
            out += line;
            std::snprintf(line, sizeof line, "\t\tState: %s\n", state_name(p.state));
            out += line;
            std::snprintf(line, sizeof line, "\t\tPhysical state: %s\n", phys_state_name(p.phys_state));
            out += line;
            out += "\t\tRate: 10\n";  // 4x SDR
            std::snprintf(line, sizeof line, "\t\tBase lid: %u\n", unsigned(p.lid));
            out += line;
            std::snprintf(line, sizeof line, "\t\tLMC: %u\n", unsigned(p.lmc));
            out += line;
            std::snprintf(line, sizeof line, "\t\tSM lid: %u\n", unsigned(p.sm_lid));
            out += line;
            std::snprintf(line, sizeof line, "\t\tCapability mask: 0x%08x\n", p.capability_mask);
            out += line;
            std::snprintf(line, sizeof line, "\t\tPort GUID: 0x%016llx\n", (unsigned long long)p.guid);
            out += line;
            out += "\t\tLink layer: InfiniBand\n";
        }
    }
    return out;
}

}  // namespace marlix::softhca
