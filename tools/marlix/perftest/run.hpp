// The entry points of the traffic tools, for the console's commands.
#pragma once

#include <iosfwd>
#include <string>
#include <vector>

#include "perftest/options.hpp"

namespace marlix::perftest {

// Runs one of the eight tools; returns its exit status (0 success, 1 failure, 2 bad command line,
// 130 stopped by Ctrl-C after a partial report).
int run_tool(const TestKind &test, const std::vector<std::string> &args, std::ostream &out,
             std::ostream &err);

// memcpy_bw: the bandwidth of memcpy over the same sizes, the floor the tools are plotted against.
int run_memcpy(const std::vector<std::string> &args, std::ostream &out, std::ostream &err);
std::string memcpy_usage();

}  // namespace marlix::perftest
