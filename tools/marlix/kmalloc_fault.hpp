// The kernel's allocation faults as the console's `fault kmalloc ...` arms them.
#pragma once

#include <string>
#include <vector>

namespace marlix::console {

class Console;

// fault kmalloc [nth N] [size BYTES] [site FUNCTION|FILE:LINE] [once|always]
// fault kmalloc clear | fault kmalloc status
// args[0] is "fault", args[1] "kmalloc".
int fault_kmalloc(Console &c, const std::vector<std::string> &args);

// Disarms every allocation fault (part of `fault clear`).
void clear_kmalloc_faults();

}  // namespace marlix::console
