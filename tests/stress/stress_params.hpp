// The size of a stress run, taken from the environment so that CI runs a short one and anyone can
// start a long one without rebuilding.
#pragma once

#include <cstdint>
#include <string>

namespace stress {

struct StressParams {
    // The run ends once this many message bytes have arrived and been checked...
    uint64_t bytes = 96ull << 20;
    // ...or after this many seconds, whichever comes first.
    double seconds = 20;
    // When the byte count was asked for explicitly, running out of time first is a failure.
    bool bytes_required = false;
    // Traffic threads, and the flows (one QP pair each) every one of them drives.
    int threads = 3;
    int flows_per_thread = 4;

    // MARLIX_STRESS_BYTES (a number with an optional K, M or G suffix, powers of 1024),
    // MARLIX_STRESS_SECONDS, MARLIX_STRESS_THREADS, MARLIX_STRESS_FLOWS.
    static StressParams from_environment();
    std::string describe() const;
};

// "10G" -> 10 << 30; false when the text is not a count.
bool parse_byte_count(const std::string &text, uint64_t &out);

}  // namespace stress
