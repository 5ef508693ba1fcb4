// Fault injection and call counting. Every verb passes its name and the device it addresses
// through check_faults() (device.hpp) before doing anything else.
#include <atomic>
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
    // Calls that reach no device (unknown handle, a name that is no device, "*").
    std::map<std::pair<Verb, std::string>, unsigned long> other_counts;
};

State &st() {
    static State s;
    return s;
}

bool matches(const std::string &pattern, const std::string &value) {
    return pattern == "*" || pattern == value;
}

// Sets or clears the "faults armed" bit after the rules changed; called with the lock held.
void rules_changed(State &s) {
    if (s.rules.empty())
        call_watch::state.fetch_and(~call_watch::kFaults, std::memory_order_relaxed);
    else
        call_watch::state.fetch_or(call_watch::kFaults, std::memory_order_relaxed);
}

}  // namespace

std::atomic<uint32_t> call_watch::state{0};

const char *verb_name(Verb verb) {
    static constexpr const char *kNames[] = {
#define MARLIX_SOFTHCA_VERB_NAME(name) #name,
        MARLIX_SOFTHCA_VERBS(MARLIX_SOFTHCA_VERB_NAME)
#undef MARLIX_SOFTHCA_VERB_NAME
    };
    return size_t(verb) < kVerbCount ? kNames[size_t(verb)] : "?";
}

std::optional<Verb> verb_by_name(std::string_view name) {
    for (size_t i = 0; i < kVerbCount; ++i)
        if (name == verb_name(Verb(i))) return Verb(i);
    return std::nullopt;
}

VAPI_ret_t check_faults_watched(Verb verb, Device *dev, const std::string &device_name) {
    State &s = st();
    const uint32_t watch = call_watch::state.load(std::memory_order_relaxed);
    // A call to a device by name counts on that device, like a call by handle.
    if (!dev) dev = device_by_name(device_name);
    if (watch & call_watch::kCounting) {
        if (dev) {
            dev->call_counts[size_t(verb)].fetch_add(1, std::memory_order_relaxed);
        } else {
            std::lock_guard lk(s.mu);
            ++s.other_counts[{verb, device_name}];
        }
    }
    if (!(watch & call_watch::kFaults)) return VAPI_OK;
    const char *call = verb_name(verb);
    const std::string &device = dev ? dev->name : device_name;
    std::lock_guard lk(s.mu);
    for (auto it = s.rules.begin(); it != s.rules.end(); ++it) {
        if (!matches(it->call, call) || !matches(it->device, device)) continue;
        VAPI_ret_t status = it->status;
        switch (it->mode) {
            case FaultMode::Always:
                ++s.injected;
                return status;
            case FaultMode::Once:
                s.rules.erase(it);
                rules_changed(s);
                ++s.injected;
                return status;
            case FaultMode::Nth:
                if (--it->remaining > 0) continue;
                s.rules.erase(it);
                rules_changed(s);
                ++s.injected;
                return status;
        }
    }
    return VAPI_OK;
}

int inject_fault(const std::string &call, const std::string &device, VAPI_ret_t status, FaultMode mode,
                 unsigned long nth) {
    State &s = st();
    std::lock_guard lk(s.mu);
    int id = s.next_id++;
    s.rules.push_back({id, call, device, status, mode, mode == FaultMode::Nth ? (nth ? nth : 1) : 1});
    rules_changed(s);
    return id;
}

void clear_fault(int id) {
    State &s = st();
    std::lock_guard lk(s.mu);
    std::erase_if(s.rules, [id](const Rule &r) { return r.id == id; });
    rules_changed(s);
}

void clear_faults() {
    State &s = st();
    std::lock_guard lk(s.mu);
    s.rules.clear();
    rules_changed(s);
}

unsigned long injected_fault_count() {
    std::lock_guard lk(st().mu);
    return st().injected;
}

unsigned long call_count(const std::string &call, const std::string &device) {
    std::optional<Verb> verb = verb_by_name(call);
    if (!verb) return 0;
    unsigned long n = 0;
    for (size_t i = 0, count = device_count(); i < count; ++i) {
        Device *d = device_at(i);
        if (d && matches(device, d->name)) n += d->call_counts[size_t(*verb)].load(std::memory_order_relaxed);
    }
    State &s = st();
    std::lock_guard lk(s.mu);
    for (auto &[key, c] : s.other_counts)
        if (key.first == *verb && matches(device, key.second)) n += c;
    return n;
}

void reset_call_counts() {
    for (size_t i = 0, count = device_count(); i < count; ++i)
        if (Device *d = device_at(i))
            for (auto &c : d->call_counts) c.store(0, std::memory_order_relaxed);
    std::lock_guard lk(st().mu);
    st().other_counts.clear();
    st().injected = 0;
    call_watch::state.fetch_or(call_watch::kCounting, std::memory_order_relaxed);
}

}  // namespace marlix::softhca
