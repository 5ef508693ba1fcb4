// ibstat, cable and fault: the software HCA's fabric and fault injection from the console
// (`fault kmalloc ...`, the kernel's allocation faults, lives in kmalloc_fault_commands.cpp).
#include <charconv>

#include "console.hpp"
#include "kmalloc_fault.hpp"
#include "marlix/kernel.hpp"
#include "marlix/softhca.hpp"

namespace marlix::console {
namespace {

bool known_device(const std::string &name) {
    for (const std::string &d : softhca::device_names())
        if (d == name) return true;
    return false;
}

int cmd_ibstat(Console &c, const std::vector<std::string> &args) {
    if (args.size() != 1) return c.usage();
    c.out() << softhca::ibstat_text();
    return 0;
}

int cmd_cable(Console &c, const std::vector<std::string> &args) {
    if (args.size() != 4 || (args[3] != "unplug" && args[3] != "plug")) return c.usage();
    if (!known_device(args[1])) {
        c.err() << "cable: no such device: " << args[1] << "\n";
        return 1;
    }
    int port = 0;
    auto [end, ec] = std::from_chars(args[2].data(), args[2].data() + args[2].size(), port);
    bool ok = ec == std::errc() && end == args[2].data() + args[2].size();
    ok = ok && (args[3] == "plug" ? softhca::plug(args[1], port) : softhca::unplug(args[1], port));
    if (!ok) {
        c.err() << "cable: no such port: " << args[1] << " " << args[2] << "\n";
        return 1;
    }
    // The port events the cable raised are handled before the command ends, so what they print
    // belongs to this command.
    kernel::irq_sync();
    return 0;
}

// fault DEVICE CALL STATUS [once|nth N|always]   or   fault kmalloc ...   or   fault clear
int cmd_fault(Console &c, const std::vector<std::string> &args) {
    if (args.size() >= 2 && args[1] == "kmalloc") return fault_kmalloc(c, args);
    if (args.size() == 2 && args[1] == "clear") {
        softhca::clear_faults();
        clear_kmalloc_faults();
        return 0;
    }
    if (args.size() < 4 || args.size() > 6) return c.usage();
    const std::string &device = args[1], &call = args[2];
    if (device != "*" && !known_device(device)) {
        c.err() << "fault: no such device: " << device << "\n";
        return 1;
    }
    std::optional<VAPI_ret_t> status = softhca::parse_status(args[3]);
    if (!status) {
        c.err() << "fault: not a status: " << args[3] << "\n";
        return 1;
    }
    softhca::FaultMode mode = softhca::FaultMode::Once;
    unsigned long nth = 1;
    if (args.size() == 5 && args[4] == "always") {
        mode = softhca::FaultMode::Always;
    } else if (args.size() == 6 && args[4] == "nth") {
        auto [end, ec] = std::from_chars(args[5].data(), args[5].data() + args[5].size(), nth);
        if (ec != std::errc() || end != args[5].data() + args[5].size() || nth == 0) return c.usage();
        mode = softhca::FaultMode::Nth;
    } else if (args.size() != 4 && !(args.size() == 5 && args[4] == "once")) {
        return c.usage();
    }
    softhca::inject_fault(call, device, *status, mode, nth);
    return 0;
}

MARLIX_CONSOLE_COMMAND(ibstat, "ibstat", "ibstat", "Show the adapters and the state of their ports.",
                       cmd_ibstat)
MARLIX_CONSOLE_COMMAND(cable, "cable", "cable DEVICE PORT unplug|plug",
                       "Pull or plug the cable between a port and the switch.", cmd_cable)
MARLIX_CONSOLE_COMMAND(
    fault, "fault",
    "fault DEVICE|* CALL|* STATUS [once|nth N|always] | fault kmalloc [nth N] [size BYTES] "
    "[site FUNCTION|FILE:LINE] [once|always] | fault kmalloc clear|status | fault clear",
    "Make a verb fail with STATUS (a number or a VAPI_ symbol), or kernel allocations return null; "
    "or clear every such fault.",
    cmd_fault)

}  // namespace
}  // namespace marlix::console
