#include "container/StoredName.hpp"

#include "filestore/RootedFile.hpp"
#include "support/zk/RootDirectory.hpp"

#include <algorithm>
#include <string>

namespace Kelvane {

namespace {

// Two characters and the separator.
constexpr CFIndex kDirectoryPrefixLength = 3;

bool hasSeparator(const std::string &name) {
    return name.find_first_of("/\\") != std::string::npos;
}

} // namespace

bool IsMetadataName(CFStringRef name) {
    const std::string text = CF::String::GetUTF8(name);
    return std::find(kMetadataNames.begin(), kMetadataNames.end(), text) != kMetadataNames.end();
}

bool UsesManifestDatabase(KVManifestDataVersion version) noexcept {
    return version >= kKVManifestDataVersion30 && version <= kKVManifestDataVersion33;
}

CF::String ExternalFilePath(const CF::String &name, KVManifestDataVersion version) {
    if (IsMetadataName(name.get())) {
        return name;
    }
    if (version == kKVManifestDataVersion24 || version == kKVManifestDataVersionNone) {
        return name;
    }
    if (!UsesManifestDatabase(version) || name.GetLength() < 2) {
        return CF::String("");
    }
    const auto directory = CF::String::Adopt(
        CF::Made(CFStringCreateWithSubstring(kCFAllocatorDefault, name.get(), CFRangeMake(0, 2))));
    return CF::String::Format(CFSTR("%@/%@"), directory.get(), name.get());
}

CF::String FileIDForStoredName(const CF::String &storedName, KVManifestDataVersion version) {
    if (IsMetadataName(storedName.get()) || !hasSeparator(storedName.GetUTF8())) {
        return storedName;
    }
    if (version == kKVManifestDataVersion24 || version == kKVManifestDataVersionNone) {
        return storedName;
    }
    if (!UsesManifestDatabase(version)) {
        return {};
    }
    const CFIndex length = storedName.GetLength();
    const CFIndex skipped = std::min(kDirectoryPrefixLength, length);
    return CF::String::Adopt(CF::Made(CFStringCreateWithSubstring(
        kCFAllocatorDefault, storedName.get(), CFRangeMake(skipped, length - skipped))));
}

bool IsSafeFileID(const CF::String &fileID, KVManifestDataVersion version) {
    const CFIndex shortest = UsesManifestDatabase(version) ? 2 : 1;
    if (fileID.GetLength() < shortest) {
        return false;
    }
    const std::string text = fileID.GetUTF8();
    return text != "." && text.find('/') == std::string::npos &&
           text.find("..") == std::string::npos && text.find('\0') == std::string::npos;
}

bool IsSafeStoredName(const CF::String &storedName) {
    return ZK::file::is_safe_name(storedName.GetUTF8());
}

void ThrowUnsafeStoredName(const CF::String &name) { throw UnsafeStoredName(name); }

} // namespace Kelvane
