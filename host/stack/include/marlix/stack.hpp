// Host-side control of the stack's services: what an operator, a test or the marlix console does
// from outside kernel code. Kernel code uses the C headers (ox-repository.h, ox-logger.h,
// ox-timing.h, ox-verbs-core.h) instead.
#pragma once

#include <string>
#include <vector>

struct ox_hca_func_st;

namespace marlix::stack {

// Resets every service to its boot state: a repository holding only the key
// "marlix/modules/adaptor-mlx/" with the long "debug-level" = 1 (errors, no debug noise), the
// stack-wide trace level 5, no providers. Halt empties everything; both may be called at any time.
void boot();
void halt();
bool booted();

// ---- Repository -------------------------------------------------------------------------------

inline constexpr const char *kAdaptorKey = "marlix/modules/adaptor-mlx/";

struct Value {
    bool is_long = true;
    long number = 0;   // when is_long
    std::string text;  // otherwise
};

// `key` is a path below the root ("a/b/"); set creates it. Both return 0 or a negative errno
// (-ENOENT: no such key or value).
int set_long(const std::string &key, const std::string &name, long value);
int set_string(const std::string &key, const std::string &name, const std::string &value);
int get_value(const std::string &key, const std::string &name, Value &out);
bool key_exists(const std::string &key);

// ---- Logger -----------------------------------------------------------------------------------

int logger_level();
void set_logger_level(int level);

// ---- Verbs core -------------------------------------------------------------------------------

struct ProviderInfo {
    std::string name;
    std::vector<std::string> devices;
    const ox_hca_func_st *funcs = nullptr;
};
std::vector<ProviderInfo> providers();  // in registration order
// The provider's function table (null when no such provider is registered).
const ox_hca_func_st *provider_funcs(const std::string &provider_name);
const ox_hca_func_st *device_funcs(const std::string &device_name);

}  // namespace marlix::stack
