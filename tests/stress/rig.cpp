#include "rig.hpp"

#include <gtest/gtest.h>

#include <vector>

namespace stress {

void Rig::fail(const std::string &what) {
    stop = true;
    const int n = ++failure_count;
    std::lock_guard lock(failure_mutex);
    if (n <= 20) {
        failure_texts.push_back(what);
        ADD_FAILURE() << what;
    }
}

std::vector<std::string> Rig::failures() {
    std::lock_guard lock(failure_mutex);
    return failure_texts;
}

bool Rig::port_active(int dev) {
    std::vector<unsigned char> port(ulp_sizeof_port_attrib(), 0);
    if (ulp_port_query(funcs, hca[dev], 1, port.data()) != 0) return false;
    uint64_t state = 0, lid = 0;
    ulp_port_attrib_field(port.data(), "port_state", &state);
    ulp_port_attrib_field(port.data(), "port_base_lid", &lid);
    return state == port_active_state && lid != 0;
}

}  // namespace stress
