// The verbs core: the list of registered providers (HCA adaptors), their function tables and
// the names of the devices they serve.
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>
#include <string>
#include <vector>

#include "internal.hpp"
#include "marlix/stack.hpp"
#include "ox-verbs-core.h"

#include <linux/kernel.h>  // last: it renames the formatting calls to the kernel's

namespace {

std::mutex g_lock;
ox_hca_prov_t *g_first = nullptr;  // registration order through next/prev
ox_hca_prov_t *g_last = nullptr;

char g_fallback_hca_name[] = "InfiniHost0";

const char *device_at(const ox_hca_prov_t *prov, size_t i) {
    if (i >= OX_MAX_PROVIDER_DEVICES) return nullptr;
    const char *name = prov->hp_devices[i];
    return name && *name ? name : nullptr;
}

void unlink_locked(ox_hca_prov_t *prov) {
    if (prov->prev)
        prov->prev->next = prov->next;
    else
        g_first = prov->next;
    if (prov->next)
        prov->next->prev = prov->prev;
    else
        g_last = prov->prev;
}

void destroy(ox_hca_prov_t *prov) {
    std::free(prov->hp_name);
    for (char *device : prov->hp_devices) std::free(device);
    delete prov;
}

bool registered_locked(const ox_hca_prov_t *prov) {
    for (ox_hca_prov_t *p = g_first; p; p = p->next)
        if (p == prov) return true;
    return false;
}

ox_hca_prov_t *find_provider_locked(const char *name) {
    for (ox_hca_prov_t *p = g_first; p; p = p->next)
        if (std::strcmp(p->hp_name, name) == 0) return p;
    return nullptr;
}

}  // namespace

extern "C" {

// A provider registering under a name already in the list replaces the old record, so that the
// name always leads to the newest table (a module that failed to load may have left one behind).
ox_return_t ox_provider_reg(const char *name, ox_hca_func_t *funcs, char **devices, ox_hca_prov_t **prov_p) {
    if (!name || !prov_p) return ox_return_err;
    size_t count = 0;
    while (devices && count < OX_MAX_PROVIDER_DEVICES && devices[count]) ++count;

    auto *prov = new (std::nothrow) ox_hca_prov_t{};
    if (!prov) return ox_return_err_alloc_mem;
    prov->hp_name = strdup(name);
    prov->hp_funcs = funcs;
    bool complete = prov->hp_name != nullptr;
    for (size_t i = 0; i < count; ++i) complete &= (prov->hp_devices[i] = strdup(devices[i])) != nullptr;
    if (!complete) {
        destroy(prov);
        return ox_return_err_alloc_mem;
    }

    std::lock_guard guard(g_lock);
    if (ox_hca_prov_t *old = find_provider_locked(prov->hp_name)) {
        unlink_locked(old);
        destroy(old);
    }
    prov->prev = g_last;
    prov->next = nullptr;
    if (g_last)
        g_last->next = prov;
    else
        g_first = prov;
    g_last = prov;
    *prov_p = prov;
    return ox_return_ok;
}

ox_return_t ox_provider_unreg(ox_hca_prov_t *prov) {
    if (!prov) return ox_return_ok;
    std::lock_guard guard(g_lock);
    if (!registered_locked(prov)) return ox_return_err;
    unlink_locked(prov);
    destroy(prov);
    return ox_return_ok;
}

void ox_hca_show_all(void) {
    std::lock_guard guard(g_lock);
    if (!g_first) {
        printk(KERN_INFO "verbs core: no providers registered\n");
        return;
    }
    for (ox_hca_prov_t *p = g_first; p; p = p->next) {
        size_t count = 0;
        while (device_at(p, count)) ++count;
        printk(KERN_INFO "verbs core: provider %s, %zu device(s)\n", p->hp_name, count);
        for (size_t i = 0; i < count; ++i) printk(KERN_INFO "verbs core:   %s\n", device_at(p, i));
    }
}

char *ox_default_hca_name(void) {
    std::lock_guard guard(g_lock);
    for (ox_hca_prov_t *p = g_first; p; p = p->next)
        if (device_at(p, 0)) return const_cast<char *>(device_at(p, 0));
    return g_fallback_hca_name;
}

ox_hca_func_t *ox_find_provider_funcs(const char *provider_name) {
    if (!provider_name) return nullptr;
    std::lock_guard guard(g_lock);
    ox_hca_prov_t *p = find_provider_locked(provider_name);
    return p ? p->hp_funcs : nullptr;
}

ox_hca_func_t *ox_find_hca_funcs(const char *hca_name) {
    if (!hca_name) return nullptr;
    std::lock_guard guard(g_lock);
    for (ox_hca_prov_t *p = g_first; p; p = p->next)
        for (size_t i = 0; device_at(p, i); ++i)
            if (std::strcmp(device_at(p, i), hca_name) == 0) return p->hp_funcs;
    return nullptr;
}

}  // extern "C"

namespace marlix::stack {

std::vector<ProviderInfo> providers() {
    std::lock_guard guard(g_lock);
    std::vector<ProviderInfo> out;
    for (ox_hca_prov_t *p = g_first; p; p = p->next) {
        ProviderInfo info;
        info.name = p->hp_name;
        for (size_t i = 0; device_at(p, i); ++i) info.devices.emplace_back(device_at(p, i));
        info.funcs = p->hp_funcs;
        out.push_back(std::move(info));
    }
    return out;
}

const ox_hca_func_st *provider_funcs(const std::string &provider_name) {
    return ox_find_provider_funcs(provider_name.c_str());
}

const ox_hca_func_st *device_funcs(const std::string &device_name) {
    return ox_find_hca_funcs(device_name.c_str());
}

}  // namespace marlix::stack

namespace marlix::stack::detail {

void verbs_core_reset() {
    std::lock_guard guard(g_lock);
    while (g_first) {
        ox_hca_prov_t *p = g_first;
        unlink_locked(p);
        destroy(p);
    }
}

}  // namespace marlix::stack::detail
