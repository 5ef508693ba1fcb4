#include "stress_params.hpp"

#include <cstdlib>
#include <sstream>

namespace stress {

bool parse_byte_count(const std::string &text, uint64_t &out) {
    if (text.empty()) return false;
    char *end = nullptr;
    const unsigned long long value = std::strtoull(text.c_str(), &end, 10);
    if (end == text.c_str()) return false;
    std::string suffix(end);
    unsigned shift = 0;
    if (suffix == "K" || suffix == "k")
        shift = 10;
    else if (suffix == "M" || suffix == "m")
        shift = 20;
    else if (suffix == "G" || suffix == "g")
        shift = 30;
    else if (!suffix.empty())
        return false;
    out = uint64_t(value) << shift;
    return true;
}

namespace {

const char *env(const char *name) {
    const char *value = std::getenv(name);
    return value && *value ? value : nullptr;
}

int positive_int(const char *name, int fallback) {
    const char *value = env(name);
    if (!value) return fallback;
    const int n = std::atoi(value);
    return n > 0 ? n : fallback;
}

}  // namespace

StressParams StressParams::from_environment() {
    StressParams p;
    if (const char *b = env("MARLIX_STRESS_BYTES")) {
        uint64_t n = 0;
        if (parse_byte_count(b, n) && n > 0) {
            p.bytes = n;
            p.bytes_required = true;
        }
    }
    if (const char *s = env("MARLIX_STRESS_SECONDS")) {
        const double v = std::atof(s);
        if (v > 0) p.seconds = v;
    }
    p.threads = positive_int("MARLIX_STRESS_THREADS", p.threads);
    p.flows_per_thread = positive_int("MARLIX_STRESS_FLOWS", p.flows_per_thread);
    return p;
}

std::string StressParams::describe() const {
    std::ostringstream out;
    out << bytes << " bytes" << (bytes_required ? " (required)" : "") << ", at most " << seconds << " s, "
        << threads << " traffic threads x " << flows_per_thread << " flows";
    return out.str();
}

}  // namespace stress
