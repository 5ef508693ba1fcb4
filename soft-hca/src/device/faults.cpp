// Fault injection and call counting. Every verb passes its name and the device it addresses
// through Faults::check() before doing anything else.
#include <map>
#include <mutex>

#include "device/device.hpp"
#include "marlix/softhca.hpp"

namespace marlix::softhca {

namespace {

struct Rule {
    int id;
    std::string call;    // verb name or "*"
    std::string device;  // device name or "*"
    VAPI_ret_t status;
    FaultMode mode;
    unsigned long remaining;  // Nth: matching calls still to let through, plus one
};

struct State {
    std::mutex mu;
    std::vector<Rule> rules;
    int next_id = 1;
    unsigned long injected = 0;
    std::map<std::pair<std::string, std::string>, unsigned long> counts;  // (call, device)
};

State &st() {
    static State s;
    return s;
}

bool matches(const std::string &pattern, const std::string &value) {
    return pattern == "*" || pattern == value;
}

}  // namespace

VAPI_ret_t Faults::check(const char *call, const std::string &device) {
    State &s = st();
    std::lock_guard lk(s.mu);
    ++s.counts[{call, device}];
    for (auto it = s.rules.begin(); it != s.rules.end(); ++it) {
        if (!matches(it->call, call) || !matches(it->device, device)) continue;
        VAPI_ret_t status = it->status;
        switch (it->mode) {
            case FaultMode::Always:
                ++s.injected;
                return status;
            case FaultMode::Once:
                s.rules.erase(it);
                ++s.injected;
                return status;
            case FaultMode::Nth:
                if (--it->remaining > 0) continue;
                s.rules.erase(it);
                ++s.injected;
                return status;
        }
    }
    return VAPI_OK;
}

Faults &faults() {
    static Faults f;
    return f;
}

int inject_fault(const std::string &call, const std::string &device, VAPI_ret_t status, FaultMode mode,
                 unsigned long nth) {
    State &s = st();
    std::lock_guard lk(s.mu);
    int id = s.next_id++;
    s.rules.push_back({id, call, device, status, mode, mode == FaultMode::Nth ? (nth ? nth : 1) : 1});
    return id;
}

void clear_fault(int id) {
    State &s = st();
    std::lock_guard lk(s.mu);
    std::erase_if(s.rules, [id](const Rule &r) { return r.id == id; });
}

void clear_faults() {
    State &s = st();
    std::lock_guard lk(s.mu);
    s.rules.clear();
}

unsigned long injected_fault_count() {
    std::lock_guard lk(st().mu);
    return st().injected;
}

unsigned long call_count(const std::string &call, const std::string &device) {
    State &s = st();
    std::lock_guard lk(s.mu);
    unsigned long n = 0;
    for (auto &[key, count] : s.counts)
        if (key.first == call && matches(device, key.second)) n += count;
    return n;
}

void reset_call_counts() {
    std::lock_guard lk(st().mu);
    st().counts.clear();
    st().injected = 0;
}

}  // namespace marlix::softhca
