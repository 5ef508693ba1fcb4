// Host-side control of the software HCA: what a test, the marlix console or the machine's operator
// does from outside the verbs (boot the adapters, pull cables, inject faults, look inside).
// Module code never includes this header.
#pragma once

#include <evapi.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace marlix::softhca {

// ---- Boot -------------------------------------------------------------------------------------

// What runs the devices' work (see "Engines" below).
enum class EngineKind {
    Threaded,  // the work runs on host threads of its own, as on an adapter: realistic
    Stepped,   // work and event delivery happen only when step() / run_until_idle() is called
};

struct Options {
    EngineKind engine = EngineKind::Threaded;
    int device_count = 2;     // "InfiniHost0", "InfiniHost1", ...
    int ports = 2;            // ports per device
    bool cable_port1 = true;  // port 1 of every device is cabled to the switch
    bool cable_all_ports = false;
    bool subnet_manager = true;  // the built-in SM brings cabled ports to ACTIVE
    // Threaded engine: a post whose send CQ holds completions nobody asked an event for is left
    // for the poll that finds that CQ empty, so that a window of posts shares one pass; the
    // engine carries it through itself when nobody has after this long.
    uint32_t engine_look_us = 100;
};

// Creates the devices (closed, no resources) and the fabric. Booting a booted system reboots it.
// A verb called before boot() boots with the default options.
void boot(const Options &options = {});
// Drops every device and everything allocated on it; no callback runs afterwards.
void halt();
bool booted();

std::vector<std::string> device_names();

// ---- Fabric --------------------------------------------------------------------------------------

// Cable between a port and the switch. Unplugging takes the port DOWN (physical state Polling) and
// raises VAPI_PORT_ERROR on the device; plugging brings it back to ACTIVE through the subnet manager
// (same LID as before) and raises VAPI_PORT_ACTIVE. Return false for an unknown device or port.
bool unplug(const std::string &device, int port);
bool plug(const std::string &device, int port);
// Administrative disable (physical state Disabled) / enable.
bool set_port_disabled(const std::string &device, int port, bool disabled);
// Runs a subnet manager sweep now (assign LIDs from 1, set SM LID/SL, DOWN -> INIT -> ARMED -> ACTIVE).
void sweep();

struct PortStatus {
    IB_port_state_t state;
    IB_port_phys_state_t phys_state;
    IB_lid_t lid;
    IB_lid_t sm_lid;
    IB_sl_t sm_sl;
    IB_port_cap_mask_t capability_mask;
    uint64_t guid;
    bool cabled;
};
std::optional<PortStatus> port_status(const std::string &device, int port);

// The text of the `ibstat` tool for every device.
std::string ibstat_text();

// ---- Engines ------------------------------------------------------------------------------------

// A post returns before its work is done. With the threaded engine the work runs on the engine's
// threads; with the stepped engine it runs only inside step() and run_until_idle(), on the calling
// thread, so a test sees exactly the same packets, completions and events on every run. Events
// (completion and asynchronous) are raised as hardirqs of the emulated kernel in both cases.
EngineKind engine_kind();
// Stepped engine: one round over every device (each QP with work sends what its window allows,
// every packet on the wire is delivered, due timers fire). Returns the number of things done; 0
// means idle. Threaded engine: does nothing and returns 0.
size_t step();
// Stepped engine: steps until idle or `max_rounds`; returns the rounds that did something.
// Threaded engine: waits until the engine has nothing left to do now (timers may still be armed).
size_t run_until_idle(size_t max_rounds = 1000000);
// Moves the emulated kernel's virtual clock forward by `ms` milliseconds, one millisecond at a
// time, letting the devices run after each (timers of the data path: RNR waits, retransmissions,
// delayed packets). With a real clock it sleeps as long.
void advance_clock(unsigned long ms);

// ---- Controls for tests: making the device misbehave as real adapters can --------------------------

// Which work queue of a QP a control acts on.
enum class WorkQueue { Send, Receive };
// The next request of the QP's queue that completes does so with `status` (and `syndrome` as the
// vendor syndrome) instead of its real outcome. A send is not transmitted; a receive is consumed
// by the next message that arrives. An error status then moves the QP to the error state as a real
// error would, flushing what is behind it. False when the device or QP is unknown.
bool complete_next_with_status(const std::string &device, VAPI_qp_hndl_t qp, WorkQueue queue,
                               VAPI_wc_status_t status, uint32_t syndrome = 0);
// Writes `wc` into the CQ's ring as the adapter writes a completion entry, byte for byte, and
// raises the CQ's completion event when it is armed for it (`solicited` as a solicited receive
// would). The status, opcode and remote address type may hold any 32-bit value, none of the
// enumerators included (store such values with std::memcpy). A full ring drops the entry and marks
// the CQ overrun, as a completion of the data path would. False when the device or CQ is unknown.
bool push_completion(const std::string &device, VAPI_cq_hndl_t cq, const VAPI_wc_desc_t &wc,
                     bool solicited = false);
// VAPI_query_qp reports `raw_state` as the QP's state (any 32-bit value, also none of the known
// states) until cleared with nullopt; the QP's real state is unchanged. False when unknown.
bool set_reported_qp_state(const std::string &device, VAPI_qp_hndl_t qp, std::optional<uint32_t> raw_state);

// The QP loses its primary path, as when a link on it fails: a reliable or unreliable connected
// QP in RTS whose migration state is ARMED (with an alternate path loaded) moves to its alternate
// path (address vector, port, P_Key index, timeout), reports VAPI_MIGRATED and raises
// VAPI_QP_PATH_MIGRATED with its handle. Returns whether it migrated: false for a QP that is not
// armed (it keeps its path), an unknown device or QP. Pulling the cable of a port does the same
// for every QP whose primary path leaves from, or leads to, that port.
bool migrate_path(const std::string &device, VAPI_qp_hndl_t qp);

// The device fails as on a local catastrophic error: every QP enters the error state (queued
// requests are flushed), VAPI_LOCAL_CATASTROPHIC_ERROR is raised, and the device does no more
// work until it is closed and opened again. False when the device is unknown or closed.
bool inject_catastrophic_error(const std::string &device);

// Packet loss and delay on the link of a port (both directions). `drop_next` packets are lost, then
// `drop_all` loses every packet until cleared; surviving packets arrive `delay_ms` late.
struct LinkFaults {
    uint32_t drop_next = 0;
    bool drop_all = false;
    uint32_t delay_ms = 0;
};
bool set_link_faults(const std::string &device, int port, const LinkFaults &faults);
// Packets lost on the port's link so far (by the faults above).
uint64_t link_dropped_packets(const std::string &device, int port);

// ---- Fault injection and call counts -------------------------------------------------------------

enum class FaultMode {
    Once,    // the next matching call fails
    Nth,     // the nth matching call from now fails, once
    Always,  // every matching call fails until cleared
};
// `call`: a verb's name ("VAPI_create_cq") or "*"; `device`: a device name or "*". Calls not tied to a
// handle match by the device name they address (EVAPI_list_hcas matches "*" only). Returns an id.
int inject_fault(const std::string &call, const std::string &device, VAPI_ret_t status,
                 FaultMode mode = FaultMode::Once, unsigned long nth = 1);
void clear_fault(int id);
void clear_faults();
unsigned long injected_fault_count();  // failures produced so far

// Calls per verb (all devices with "*"), counted before faults are applied. Counting starts with
// the first reset_call_counts(): until a test asks for counts, verbs do not pay for them.
unsigned long call_count(const std::string &call, const std::string &device = "*");
// Zeroes the call counts and injected_fault_count(), and starts counting.
void reset_call_counts();

// A status from its symbol ("VAPI_EAGAIN") or a number ("-253"); nullopt if neither.
std::optional<VAPI_ret_t> parse_status(const std::string &text);

// ---- Handle values ------------------------------------------------------------------------------

// The next CQ / QP created on the device gets exactly this handle value.
bool set_next_cq_handle(const std::string &device, uint64_t value);
bool set_next_qp_handle(const std::string &device, uint64_t value);

// ---- Inspection ---------------------------------------------------------------------------------

bool is_open(const std::string &device);
size_t pd_count(const std::string &device);
size_t mr_count(const std::string &device);
size_t fmr_count(const std::string &device);
size_t cq_count(const std::string &device);
size_t qp_count(const std::string &device);
size_t ah_count(const std::string &device);
// Objects still allocated on the device (PDs, MRs, FMRs, CQs, QPs, AHs).
size_t resource_count(const std::string &device);
bool has_async_handler(const std::string &device);

// Raises an asynchronous event on the device as the hardware would (delivered to the handler set
// with VAPI_set_async_event_handler). Returns false when the device is unknown.
bool raise_async_event(const std::string &device, const VAPI_event_record_t &record);
// The same from raw values: any event type (also none of the known ones) and any modifier (the
// 64 bits of the modifier union: a QP, CQ or EEC handle, or a port number in the low byte).
bool raise_async_event(const std::string &device, uint32_t type, uint64_t modifier, uint32_t syndrome = 0);

// Completion and asynchronous callbacks run through this dispatcher. Without one (the default, or
// after passing null) they run as a hardirq of the emulated kernel: queued on its interrupt thread
// when the kernel is booted (kernel::irq_sync() waits for them), at once when it is not.
void set_event_dispatcher(std::function<void(std::function<void()>)> dispatcher);

}  // namespace marlix::softhca
