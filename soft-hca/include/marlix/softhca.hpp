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

struct Options {
    int device_count = 2;     // "InfiniHost0", "InfiniHost1", ...
    int ports = 2;            // ports per device
    bool cable_port1 = true;  // port 1 of every device is cabled to the switch
    bool cable_all_ports = false;
    bool subnet_manager = true;  // the built-in SM brings cabled ports to ACTIVE
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

// Calls per verb (all devices with "*"), counted before faults are applied.
unsigned long call_count(const std::string &call, const std::string &device = "*");
// Zeroes the call counts and injected_fault_count().
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

// Completion and asynchronous callbacks run through this dispatcher. Without one (the default, or
// after passing null) they run as a hardirq of the emulated kernel: queued on its interrupt thread
// when the kernel is booted (kernel::irq_sync() waits for them), at once when it is not.
void set_event_dispatcher(std::function<void(std::function<void()>)> dispatcher);

}  // namespace marlix::softhca
