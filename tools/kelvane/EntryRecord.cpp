#include "EntryRecord.hpp"

#include "JSON.hpp"
#include "support/cf/Data.hpp"
#include "support/cf/String.hpp"

#include <array>
#include <cmath>

namespace tool {

namespace {

std::string toHex(const CF::Data &data) {
    constexpr char kDigits[] = "0123456789abcdef";
    std::string text;
    for (const std::uint8_t byte : data.GetBytes()) {
        text += kDigits[byte >> 4];
        text += kDigits[byte & 15];
    }
    return text;
}

void readAttributes(const KVManifestEntryClass *entry, EntryRecord &record) {
    CFDateRef birth = nullptr;
    CFDateRef modified = nullptr;
    CFDateRef changed = nullptr;
    std::uint32_t uid = 0;
    std::uint32_t gid = 0;
    KVManifestEntryCopyFilesystemAttributes(entry, &record.mode, &uid, &gid, &birth, &modified,
                                            &changed);
    record.uid = static_cast<std::int32_t>(uid);
    record.gid = static_cast<std::int32_t>(gid);
    record.birth = UnixSeconds(CF::Date::Adopt(birth));
    record.modified = UnixSeconds(CF::Date::Adopt(modified));
    record.changed = UnixSeconds(CF::Date::Adopt(changed));
}

} // namespace

std::int64_t UnixSeconds(const CF::Date &date) {
    return std::llround(std::floor(date.GetAbsoluteTime() + kCFAbsoluteTimeIntervalSince1970));
}

EntryType TypeOf(const KVManifestEntryClass *entry) {
    if (KVManifestEntryIsFile(entry)) {
        return EntryType::File;
    }
    if (KVManifestEntryIsDirectory(entry)) {
        return EntryType::Directory;
    }
    return KVManifestEntryIsSymlink(entry) ? EntryType::Symlink : EntryType::Other;
}

const char *NameOf(EntryType type) {
    switch (type) {
    case EntryType::File:
        return "file";
    case EntryType::Directory:
        return "directory";
    case EntryType::Symlink:
        return "symlink";
    case EntryType::Other:
        break;
    }
    return "other";
}

EntryRecord Describe(const KVManifestEntryClass *entry) {
    EntryRecord record;
    record.fileID = CF::String::GetUTF8(KVManifestEntryGetFileID(entry));
    record.domain = CF::String::GetUTF8(KVManifestEntryGetDomain(entry));
    record.path = CF::String::GetUTF8(KVManifestEntryGetPath(entry));
    record.type = TypeOf(entry);
    record.target = CF::String::GetUTF8(KVManifestEntryGetTarget(entry));
    readAttributes(entry, record);
    record.size = KVManifestEntryGetFileSize(entry);
    record.protectionClass = KVManifestEntryGetProtectionClass(entry);
    record.hasKey = !CF::Data(KVManifestEntryGetEncryptionData(entry)).IsEmpty();
    const CF::Data digest(KVManifestEntryGetDataHash(entry));
    if (!digest.IsEmpty()) {
        record.digest = toHex(digest);
    }
    return record;
}

std::string FullPath(const KVManifestEntryClass *entry) {
    const std::string path = CF::String::GetUTF8(KVManifestEntryGetPath(entry));
    const std::string domain = CF::String::GetUTF8(KVManifestEntryGetDomain(entry));
    return path.empty() ? domain : domain + "/" + path;
}

std::string ToJSON(const EntryRecord &record) {
    JSON json;
    json["fileID"] = record.fileID;
    json["domain"] = record.domain;
    json["path"] = record.path;
    json["type"] = NameOf(record.type);
    json["target"] = record.target;
    json["mode"] = record.mode;
    json["uid"] = record.uid;
    json["gid"] = record.gid;
    json["birth"] = record.birth;
    json["modified"] = record.modified;
    json["changed"] = record.changed;
    json["size"] = record.size;
    json["protectionClass"] = record.protectionClass;
    json["hasKey"] = record.hasKey;
    json["digest"] = record.digest ? JSON(*record.digest) : nullptr;
    return Serialize(json);
}

std::string ModeText(const EntryRecord &record) {
    constexpr std::array<char, 4> kTypes = {'-', 'd', 'l', '?'};
    std::string text(1, kTypes[static_cast<std::size_t>(record.type)]);
    constexpr char kLetters[] = "rwxrwxrwx";
    for (int bit = 8; bit >= 0; --bit) {
        text += (record.mode & (1 << bit)) != 0 ? kLetters[8 - bit] : '-';
    }
    const auto mark = [&](int mask, std::size_t place, char withX, char without) {
        if ((record.mode & mask) != 0) {
            text[place] = text[place] == 'x' ? withX : without;
        }
    };
    mark(04000, 3, 's', 'S');
    mark(02000, 6, 's', 'S');
    mark(01000, 9, 't', 'T');
    return text;
}

} // namespace tool
