// What a clean unload looks like from outside the module: the kernel printed no leak report and
// no misuse report, and no allocation made by the module's sources is still live.
#pragma once

#include <string>
#include <vector>

#include "marlix/kernel.hpp"

namespace reliability {

namespace k = marlix::kernel;

// Unloads `module` and returns what was wrong with it, one line per problem (empty: clean). The
// kernel log is cleared before the unload so that only the unload's own lines are looked at.
// `source_part` picks the module's allocations by the file that made them.
inline std::vector<std::string> unload_problems(const std::string &module, const std::string &source_part) {
    std::vector<std::string> problems;
    k::log_clear();
    int rc = k::rmmod(module);
    if (rc != 0) problems.push_back("rmmod " + module + " returned " + std::to_string(rc));
    for (const auto &line : k::log_lines())
        if (line.text.find("kmemleak") != std::string::npos || line.text.find("unreferenced object") == 0 ||
            line.text.find("  allocated at ") == 0 || line.text.find("BUG:") == 0)
            problems.push_back(line.text);
    for (const auto &a : k::live_allocations(nullptr, true))
        if (a.file.find(source_part) != std::string::npos)
            problems.push_back("live: " + std::to_string(a.size) + " bytes from " + a.func + " (" + a.file +
                               ":" + std::to_string(a.line) + ")");
    return problems;
}

}  // namespace reliability
