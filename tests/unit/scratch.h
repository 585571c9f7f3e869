// SPDX-License-Identifier: Apache-2.0
// A folder of the test's own, which goes with it, and whole files.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <string_view>

class scratch : public testing::Test {
  protected:
    scratch() {
        if (mkdtemp(folder) == nullptr) {
            abort();
        }
    }
    ~scratch() override { std::filesystem::remove_all(folder); }

    [[nodiscard]] std::string in(const std::string& name) const {
        return std::string(folder) + "/" + name;
    }
    static void write_file(const std::string& path, std::string_view text) {
        std::ofstream(path, std::ios::binary) << text;
    }
    [[nodiscard]] static std::string read_file(const std::string& path) {
        std::ifstream file(path, std::ios::binary);
        return {std::istreambuf_iterator<char>(file), {}};
    }

    char folder[32] = "/tmp/unit_test.XXXXXX";
};
