// Automatic path migration of connected QPs. A reliable or unreliable connected QP may carry an
// alternate path beside its primary one (loaded with QP_ATTR_ALT_PATH). Once the QP is in RTS
// with its migration state ARMED, losing the primary path makes it switch to the alternate one:
// the alternate address vector, port, P_Key index and ack timeout become the QP's path, the
// migration state becomes MIGRATED and VAPI_QP_PATH_MIGRATED is raised with the QP's handle.
// A QP that is not ARMED keeps its path, and its requests run into their retry limit as on any
// lost path.
#pragma once

#include "device/qp.hpp"

namespace marlix::softhca {

// True when the QP would move to its alternate path if its primary one failed now.
bool migration_armed(const Qp &qp);

// Makes the alternate path the QP's path (no checks, no event): what both the automatic and the
// software-requested migration do.
void switch_to_alternate_path(Device &dev, Qp &qp);

// The QP lost its primary path: migrates it if it is armed, collecting the event. Returns whether
// it migrated. Called with the device mutex held.
bool migrate_on_path_loss(Device &dev, Qp &qp, PendingEvents &events);

// A port went down: migrates every armed QP of the device whose primary path left through that
// port, and every armed QP whose primary path led to `lost_lid` (the LID the port had), whichever
// device it is on. Called with this device's mutex held; returns the QPs migrated.
size_t migrate_paths_through(Device &dev, Device *port_owner, IB_port_t port, IB_lid_t lost_lid,
                             PendingEvents &events);

}  // namespace marlix::softhca
