// An entry's fields in the forms that listings show.
#pragma once

#include "KVManifestEntry.h"
#include "support/cf/Date.hpp"

#include <cstdint>
#include <optional>
#include <string>

namespace tool {

enum class EntryType { File, Directory, Symlink, Other };

struct EntryRecord {
    std::string fileID;
    std::string domain;
    std::string path;
    EntryType type = EntryType::Other;
    std::string target;
    std::uint16_t mode = 0;
    // Signed, as devices mean them: -2 is nobody.
    std::int32_t uid = 0;
    std::int32_t gid = 0;
    // Unix seconds.
    std::int64_t birth = 0;
    std::int64_t modified = 0;
    std::int64_t changed = 0;
    std::int64_t size = 0;
    std::uint32_t protectionClass = 0;
    bool hasKey = false;
    std::optional<std::string> digest; // hexadecimal
};

std::int64_t UnixSeconds(const CF::Date &date);

EntryType TypeOf(const KVManifestEntryClass *entry);
// "file", "directory", "symlink" or "other".
const char *NameOf(EntryType type);
EntryRecord Describe(const KVManifestEntryClass *entry);
// "DOMAIN/PATH", or the domain alone for its root.
std::string FullPath(const KVManifestEntryClass *entry);

// One line of JSON, without the line end.
std::string ToJSON(const EntryRecord &record);
// Like "-rw-r--r--"; the first character tells the type.
std::string ModeText(const EntryRecord &record);

} // namespace tool
