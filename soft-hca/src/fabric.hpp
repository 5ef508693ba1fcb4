// The fabric: one switch, cables from ports to it, and the built-in subnet manager.
#pragma once

#include "device.hpp"

namespace marlix::softhca {

// PortInfo.CapabilityMask of every port; the port that hosts the subnet manager adds IsSM.
constexpr IB_port_cap_mask_t kDefaultPortCapMask = 0x02510a68;

// Cables the ports the options ask for and runs the first sweep (called by boot()).
void fabric_boot(const Options &options);
// Forgets the devices (called by halt()).
void fabric_halt();

}  // namespace marlix::softhca
