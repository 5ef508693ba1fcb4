// The fabric: one switch, cables from ports to it, and the built-in subnet manager.
#pragma once

#include "device/device.hpp"

namespace marlix::softhca {

// Cables the ports the options ask for and runs the first sweep (called by boot()).
void fabric_boot(const Options &options);
// Forgets the devices (called by halt()).
void fabric_halt();

}  // namespace marlix::softhca
