// Boot and halt of the stack, and the host-side accessors of its repository and logger.
#include "marlix/stack.hpp"

#include <atomic>
#include <cerrno>

#include "internal.hpp"
#include "ox-logger.h"
#include "ox-repository.h"

namespace marlix::stack {

namespace {
std::atomic<bool> g_booted{false};
}

void boot() {
    detail::repository_reset();
    detail::logger_reset();
    detail::verbs_core_reset();
    set_long(kAdaptorKey, "debug-level", 1);
    g_booted = true;
}

void halt() {
    detail::verbs_core_reset();
    detail::repository_reset();
    detail::logger_reset();
    g_booted = false;
}

bool booted() {
    return g_booted;
}

int set_long(const std::string &key, const std::string &name, long value) {
    rep_key_h_t k = nullptr;
    int rc = rep_create_key(nullptr, key.c_str(), &k);
    if (rc) return rc;
    return rep_set_value(k, name.c_str(), rep_value_long, &value, sizeof value);
}

int set_string(const std::string &key, const std::string &name, const std::string &value) {
    rep_key_h_t k = nullptr;
    int rc = rep_create_key(nullptr, key.c_str(), &k);
    if (rc) return rc;
    return rep_set_value(k, name.c_str(), rep_value_string, value.c_str(),
                         static_cast<int>(value.size() + 1));
}

int get_value(const std::string &key, const std::string &name, Value &out) {
    rep_key_h_t k = nullptr;
    int rc = rep_open_key(nullptr, key.c_str(), &k);
    if (rc) return rc;
    // Large enough for any value an operator types; longer strings come back truncated.
    std::string buf(4096, '\0');
    rep_value_type_t type = rep_value_long;
    rc = rep_get_value(k, name.c_str(), buf.data(), static_cast<int>(buf.size()), &type);
    rep_close_key(k);
    if (rc) return rc;
    out = Value{};
    if (type == rep_value_long) {
        long number = 0;
        __builtin_memcpy(&number, buf.data(), sizeof number);
        out.number = number;
    } else {
        out.is_long = false;
        out.text = buf.c_str();
    }
    return 0;
}

bool key_exists(const std::string &key) {
    rep_key_h_t k = nullptr;
    if (rep_open_key(nullptr, key.c_str(), &k)) return false;
    rep_close_key(k);
    return true;
}

int logger_level() {
    return logger_trace_level;
}
void set_logger_level(int level) {
    logger_trace_level = level;
}

}  // namespace marlix::stack
