// Entries and manifests for tests, and what they look like from outside.
#pragma once

#include "KVManifest.h"
#include "KVManifestEntry.h"
#include "manifest/KVManifestClass.hpp"
#include "manifest/KVManifestEntryClass.hpp"
#include "support/cf/CF.hpp"
#include "tests/support/RunCommand.hpp"
#include "tests/support/TemporaryDirectory.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

namespace manifest_test {

using ManifestPointer = CF::Pointer<KVManifestClass *>;
using Lines = std::vector<std::string>;
using Octets = std::vector<std::uint8_t>;

constexpr std::uint16_t kFileMode = 0100644;
constexpr std::uint16_t kDirectoryMode = 040755;
constexpr std::uint16_t kLinkMode = 0120755;

inline CF::String Text(std::string_view utf8) { return CF::String::FromUTF8(utf8); }
inline std::string Plain(CFStringRef text) { return CF::String::GetUTF8(text); }

// A plain entry as a reader makes it: its file ID follows from domain and path.
inline Kelvane::EntryPointer MakeEntry(std::string_view domain, std::string_view path,
                                       std::uint16_t mode = kFileMode, std::int64_t size = 0) {
    auto entry = Kelvane::AllocateEntry(kCFAllocatorDefault);
    Kelvane::SetEntryPath(*entry.get(), Text(domain), Text(path));
    entry.get()->fileID = CF::Adopt(KVManifestEntryCopyFileIDForPath(Text(domain), Text(path)));
    entry.get()->mode = mode;
    entry.get()->size = size;
    return entry;
}

inline CF::Array ArrayOf(const std::vector<Kelvane::EntryPointer> &entries) {
    auto array = CF::Array::Mutable();
    for (const auto &entry : entries) {
        array.Append(entry.get());
    }
    return array;
}

inline ManifestPointer MakeManifest(const std::vector<Kelvane::EntryPointer> &entries) {
    auto manifest = CF::Adopt(KVManifestCreateEmpty(kCFAllocatorDefault));
    KVManifestUpdateEntries(manifest.get(), ArrayOf(entries));
    return manifest;
}

// Files of one domain, "D", one for each path.
inline ManifestPointer ManifestOfPaths(const Lines &paths) {
    std::vector<Kelvane::EntryPointer> entries;
    for (const auto &path : paths) {
        entries.push_back(MakeEntry("D", path));
    }
    return MakeManifest(entries);
}

inline const KVManifestEntryClass *EntryAt(CFArrayRef entries, CFIndex index) {
    return static_cast<const KVManifestEntryClass *>(CFArrayGetValueAtIndex(entries, index));
}

inline Lines PathsOf(CFArrayRef entries) {
    Lines paths;
    for (CFIndex i = 0; i < CFArrayGetCount(entries); ++i) {
        paths.push_back(Plain(KVManifestEntryGetPath(EntryAt(entries, i))));
    }
    return paths;
}

inline Lines TextsOf(CFArrayRef strings) {
    Lines texts;
    for (CFIndex i = 0; i < CFArrayGetCount(strings); ++i) {
        texts.push_back(Plain(static_cast<CFStringRef>(CFArrayGetValueAtIndex(strings, i))));
    }
    return texts;
}

inline Octets BytesOf(CFDataRef data) { return CF::Data(data).GetVector(); }
inline CF::Data DataOf(const Octets &bytes) { return CF::Data(bytes); }

inline Lines SplitLines(const std::string &text) {
    Lines lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    return lines;
}

// The oracle in tests/tools; fails the test when it fails.
inline Lines Oracle(const std::string &command, const ZK::filesystem::path &path,
                    const std::string &document = {}) {
    const auto result = testing_support::RunCommand(
        {"/usr/bin/python3", KELVANE_SOURCE_DIR "/tests/tools/manifest_oracle.py", command,
         path.string()},
        document);
    EXPECT_EQ(result.status, 0) << result.errors;
    return SplitLines(result.output);
}

// What an error says: domain, code and reason, and so on for the causes beneath it.
inline std::string Describe(const CF::Error &error) {
    if (!error) {
        return "none";
    }
    std::string text = Plain(error.GetDomain()) + " " + std::to_string(error.GetCode());
    if (const auto reason = error.GetFailureReason()) {
        text += ": " + reason.GetUTF8();
    }
    const auto underlying = error.GetUnderlying();
    return underlying ? text + " < " + Describe(underlying) : text;
}

// Runs the body and describes the CF::Error that it throws.
template <class Body>
std::string ThrownError(Body body) {
    try {
        body();
    } catch (const CF::Error &error) {
        return Describe(error);
    }
    return "nothing thrown";
}

// What the library prints to standard output during the body.
template <class Body>
std::string Printed(Body body) {
    testing::internal::CaptureStdout();
    body();
    std::fflush(stdout);
    return testing::internal::GetCapturedStdout();
}

} // namespace manifest_test
