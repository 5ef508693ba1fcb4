// The threads that run beside the traffic: CQ and QP churn on both devices, a reader of the
// statistics page, a writer of control commands, and the hand that pulls InfiniHost1's cable.
// Each runs until the rig is told to stop and reports what is wrong to the rig.
#pragma once

#include "rig.hpp"

namespace stress {

// Makes and destroys CQs and QPs of every type on both devices, keeping a few alive at a time, and
// queries them; everything it made is gone when it returns.
void run_churn(Rig &rig);

// Reads the statistics page again and again and checks its shape and that the counters that only
// grow did not shrink.
void run_statistics_reader(Rig &rig);

// Writes the control commands in turn and checks what each printed; reads the link file. `probe_cq`
// is a CQ on the HCA whose CQ list the commands walk, never used for traffic ("pollcq" polls it).
void run_control_writer(Rig &rig, void *probe_cq);

// Pulls InfiniHost1's cable out and plugs it back in, again and again; the cable is in when it
// returns. The rig's cable generation is odd from just before the pull until the port is active
// again.
void run_cable(Rig &rig);

}  // namespace stress
