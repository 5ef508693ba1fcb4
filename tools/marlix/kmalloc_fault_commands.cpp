// The kmalloc part of the `fault` command: makes chosen kernel allocations return null, so that
// an operator (or a console test) reaches a module's allocation-failure paths the way `fault
// DEVICE CALL STATUS` reaches its failed verbs. The command itself is registered with the HCA
// commands; it hands `fault kmalloc ...` over to this file.
#include <charconv>

#include "console.hpp"
#include "kmalloc_fault.hpp"
#include "marlix/kernel.hpp"

namespace marlix::console {
namespace {

template <typename T>
bool parse_number(const std::string &text, T &value) {
    auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    return ec == std::errc() && end == text.data() + text.size();
}

}  // namespace

int fault_kmalloc(Console &c, const std::vector<std::string> &args) {
    if (args.size() == 3 && args[2] == "clear") {
        kernel::clear_alloc_faults();
        return 0;
    }
    if (args.size() == 3 && args[2] == "status") {
        c.out() << "kmalloc failures injected: " << kernel::injected_alloc_failures() << "\n";
        return 0;
    }
    kernel::AllocFault fault;
    bool mode_given = false;
    for (size_t i = 2; i < args.size(); ++i) {
        const std::string &word = args[i];
        if ((word == "once" || word == "always") && !mode_given) {
            fault.always = word == "always";
            mode_given = true;
            continue;
        }
        if (i + 1 >= args.size()) return c.usage();
        const std::string &value = args[++i];
        if (word == "nth" && !fault.nth) {
            unsigned long nth = 0;
            if (!parse_number(value, nth) || nth == 0) {
                c.err() << "fault: kmalloc: not a count (1, 2, ...): " << value << "\n";
                return 1;
            }
            fault.nth = nth;
        } else if (word == "size" && !fault.size) {
            size_t size = 0;
            if (!parse_number(value, size)) {
                c.err() << "fault: kmalloc: not a size in bytes: " << value << "\n";
                return 1;
            }
            fault.size = size;
        } else if (word == "site" && fault.site.empty() && !value.empty()) {
            fault.site = value;
        } else {
            return c.usage();
        }
    }
    kernel::add_alloc_fault(fault);
    return 0;
}

void clear_kmalloc_faults() {
    kernel::clear_alloc_faults();
}

}  // namespace marlix::console
