// A freshly booted kernel for each test, halted again afterwards.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "marlix/kernel.hpp"

class KernelTest : public ::testing::Test {
  protected:
    void SetUp() override { marlix::kernel::boot(options()); }
    void TearDown() override { marlix::kernel::halt(true); }
    virtual marlix::kernel::BootOptions options() { return {}; }

    static std::vector<std::string> texts() {
        std::vector<std::string> out;
        for (auto &l : marlix::kernel::log_lines()) out.push_back(l.text);
        return out;
    }
    static std::vector<int> levels() {
        std::vector<int> out;
        for (auto &l : marlix::kernel::log_lines()) out.push_back(l.level);
        return out;
    }
};
