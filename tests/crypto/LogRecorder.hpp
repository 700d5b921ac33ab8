// Catches what the library logs.
#pragma once

#include "KVLog.h"
#include "support/cf/CF.hpp"

#include <string>
#include <utility>
#include <vector>

namespace log_recorder {

// While it lives, keeps the messages of at least the level.
class LogRecorder {
  public:
    explicit LogRecorder(int minimumLevel) {
        KelvaneLogSetSink(
            [](CFStringRef, int level, CFStringRef text, CFErrorRef, void *self) {
                static_cast<LogRecorder *>(self)->messages_.emplace_back(level,
                                                                         CF::String::GetUTF8(text));
            },
            this, minimumLevel);
    }
    LogRecorder(const LogRecorder &) = delete;
    LogRecorder &operator=(const LogRecorder &) = delete;
    ~LogRecorder() { KelvaneLogSetSink(nullptr, nullptr, 0); }

    // Level and text, in order; every address in the texts is replaced by "PTR".
    std::vector<std::pair<int, std::string>> messages() const {
        auto result = messages_;
        for (auto &message : result) {
            hideAddress(message.second);
        }
        return result;
    }

  private:
    static void hideAddress(std::string &text) {
        const auto start = text.find("0x");
        if (start != std::string::npos) {
            const auto end = text.find_first_not_of("0123456789abcdef", start + 2);
            text.replace(start, (end == std::string::npos ? text.size() : end) - start, "PTR");
        }
    }

    std::vector<std::pair<int, std::string>> messages_;
};

} // namespace log_recorder
