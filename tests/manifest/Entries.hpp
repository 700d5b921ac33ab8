// Entries and what they are made of, for tests.
#pragma once

#include "KVFile.h"
#include "KVManifestEntry.h"
#include "manifest/KVManifestEntryClass.hpp"
#include "support/cf/CF.hpp"
#include "support/zk/Log.hpp"
#include "tests/support/TemporaryDirectory.hpp"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace EntryTest {

using Entry = CF::Pointer<KVManifestEntryClass *>;
using File = CF::Pointer<KVFileClass *>;

inline std::string textOf(CFStringRef string) { return CF::String::GetUTF8(string); }
inline std::vector<std::uint8_t> bytesOf(CFDataRef data) { return CF::Data(data).GetVector(); }

inline Entry makeDirectory(const char *domain, const char *path) {
    return CF::Adopt(
        KVManifestEntryCreateForDirectory(nullptr, CF::String(domain), CF::String(path)));
}
inline Entry makeSymlink(const char *domain, const char *path, const char *target) {
    return CF::Adopt(KVManifestEntryCreateForSymlink(nullptr, CF::String(domain), CF::String(path),
                                                     CF::String(target)));
}
// A file of the library's store.
inline File makeFile(const std::string &content) {
    (void)testing_support::LibraryTemporaryPath();
    const CF::Data data(std::vector<std::uint8_t>(content.begin(), content.end()));
    return CF::Adopt(KVFileCreateFromData(data.get(), nullptr));
}

// What an error says; empty for null. The error is released.
struct Failure {
    std::string domain;
    CFIndex code = 0;
    std::string reason;
    CFIndex causeCode = 0;
};
class ErrorOut {
  public:
    ~ErrorOut() {
        if (error_ != nullptr) {
            CFRelease(error_);
        }
    }
    CFErrorRef *out() { return &error_; }
    bool isSet() const { return error_ != nullptr; }
    Failure get() const {
        const CF::Error error(error_);
        return {textOf(error.GetDomain()), error.GetCode(), error.GetFailureReason().GetUTF8(),
                error.GetUnderlying().GetCode()};
    }

  private:
    CFErrorRef error_ = nullptr;
};

// Collects the messages of at least a level while it lives.
class LogCapture {
  public:
    using Message = std::pair<int, std::string>;
    explicit LogCapture(int level) { ZLLogSetSink(&LogCapture::receive, this, level); }
    ~LogCapture() { ZLLogSetSink(nullptr, nullptr, 0); }
    LogCapture(const LogCapture &) = delete;
    LogCapture &operator=(const LogCapture &) = delete;
    const std::vector<Message> &messages() const { return messages_; }

  private:
    static void receive(CFStringRef, int level, CFStringRef text, CFErrorRef, void *context) {
        static_cast<LogCapture *>(context)->messages_.emplace_back(level, textOf(text));
    }
    std::vector<Message> messages_;
};

} // namespace EntryTest
