// A console session over a freshly booted host, with its output and errors captured.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "console.hpp"

// The adaptor's control file: written with commands, read for the statistics page.
inline constexpr const char *kControl = "/proc/marlix/adaptor-mlx/control";

// The lines of a command's output, without their newlines.
inline std::vector<std::string> lines_of(const std::string &text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

// Whether the output holds `line` as one whole line.
inline bool has_line(const std::string &text, const std::string &line) {
    return ("\n" + text).find("\n" + line + "\n") != std::string::npos;
}

class ConsoleTest : public ::testing::Test {
  protected:
    void SetUp() override { start({}); }
    void TearDown() override { stop(); }

    void start(marlix::console::Options options) {
        console_ = std::make_unique<marlix::console::Console>(out_, err_, options);
        host_ = std::make_unique<marlix::console::Host>(*console_);
    }
    void stop() {
        host_.reset();
        console_.reset();
    }
    void restart(marlix::console::Options options) {
        stop();
        start(options);
    }

    // Runs text and returns its status; out() and err() then hold only this run's output.
    int run(const std::string &text) {
        out_.str("");
        err_.str("");
        return console_->run_text(text);
    }
    std::string out() const { return out_.str(); }
    std::string err() const { return err_.str(); }
    marlix::console::Console &console() { return *console_; }

  private:
    std::ostringstream out_, err_;
    std::unique_ptr<marlix::console::Console> console_;
    std::unique_ptr<marlix::console::Host> host_;
};

// The adaptor module loaded at trace level 1 (errors only: the log holds what the commands print
// and nothing of their trace), for the upper-layer tests.
class ModuleConsoleTest : public ConsoleTest {
  protected:
    void SetUp() override {
        ConsoleTest::SetUp();
        ASSERT_EQ(0, run("rep set marlix/modules/adaptor-mlx/ debug-level 1; insmod adaptor-mlx")) << err();
    }
    // The statistics page (which also clears the "(n)" companions).
    std::string page() {
        EXPECT_EQ(0, run(std::string("cat ") + kControl)) << err();
        return out();
    }
};

// The module loaded and both HCAs opened through the upper layer (hca1, hca2).
class TwoHcaConsoleTest : public ModuleConsoleTest {
  protected:
    void SetUp() override {
        ModuleConsoleTest::SetUp();
        if (HasFatalFailure()) return;
        ASSERT_EQ(0, run("ulp open InfiniHost0; ulp open InfiniHost1")) << err();
    }
};
