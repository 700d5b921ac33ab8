// Runs the scripts in tests/tools and turns hexadecimal text into bytes.
#pragma once

#include "tests/support/RunCommand.hpp"

#include <gtest/gtest.h>

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace oracle {

using Bytes = std::vector<std::uint8_t>;

inline Bytes bytesOf(std::string_view text) { return {text.begin(), text.end()}; }

// "-" stands for no bytes.
inline Bytes fromHex(const std::string &text) {
    Bytes bytes;
    if (text == "-") {
        return bytes;
    }
    for (std::size_t i = 0; i + 1 < text.size(); i += 2) {
        bytes.push_back(static_cast<std::uint8_t>(std::stoul(text.substr(i, 2), nullptr, 16)));
    }
    return bytes;
}

inline std::string toHex(std::span<const std::uint8_t> bytes) {
    std::string text;
    for (const std::uint8_t byte : bytes) {
        constexpr char digits[] = "0123456789abcdef";
        text += digits[byte >> 4];
        text += digits[byte & 0xF];
    }
    return text;
}

// What a command prints; a test failure when it does not exit with 0.
inline std::string outputOf(const std::vector<std::string> &command) {
    const auto result = testing_support::RunCommand(command);
    EXPECT_EQ(result.status, 0) << command.front() << ": " << result.errors;
    return result.output;
}

// Runs a script of tests/tools with the system's Python, which has the packages needed.
inline std::string outputOfTool(const std::string &script,
                                const std::vector<std::string> &arguments) {
    std::vector<std::string> command = {"/usr/bin/python3",
                                        KELVANE_SOURCE_DIR "/tests/tools/" + script};
    command.insert(command.end(), arguments.begin(), arguments.end());
    return outputOf(command);
}

} // namespace oracle
