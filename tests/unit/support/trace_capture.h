// A test fixture that points the trace at a private directory for the test
// and hands back the text of each line written, without its prefix.
#pragma once

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "foundation/trace.h"

namespace kv::testing {

class TraceCapture : public ::testing::Test {
protected:
    void SetUp() override {
        char pattern[] = "/tmp/kvtraceXXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        dir_ = pattern;
        chmod(dir_.c_str(), 0700);
        TraceSetDirectoryForTesting(dir_.c_str());
    }
    void TearDown() override {
        TraceSetDirectoryForTesting(nullptr);
        std::filesystem::remove_all(dir_);
    }
    // The lines written since the last call; the file starts afresh.
    std::vector<std::string> Lines() {
        std::ifstream in(dir_ + "/korvane_debug.txt", std::ios::binary);
        std::vector<std::string> out;
        std::string line;
        while (std::getline(in, line)) {
            if (!line.empty() && line.back() == '\r') line.pop_back();
            size_t tab = line.find('\t');
            out.push_back(tab == std::string::npos ? line : line.substr(tab + 1));
        }
        std::filesystem::remove(dir_ + "/korvane_debug.txt");
        return out;
    }
    std::string dir_;
};

}  // namespace kv::testing
