#include "KVManifest.h"
#include "manifest/KVManifestClass.hpp"
#include "manifest/MbdbRecord.hpp"
#include "support/cf/Data.hpp"
#include "support/cf/Error.hpp"

#include <algorithm>
#include <array>
#include <cstdio>
#include <optional>
#include <stdexcept>
#include <string_view>

namespace Kelvane {

namespace {

constexpr std::array<std::uint8_t, 4> kMagic = {'m', 'b', 'd', 'b'};
// The magic and two version bytes, which readers pass over.
constexpr CFIndex kHeaderSize = 6;
// From mode to protection class.
constexpr std::size_t kFixedSize = 39;
constexpr const char *kReaderName = "KVManifestCreateFromManifestData";

std::string_view AsText(std::span<const std::uint8_t> bytes) {
    return {reinterpret_cast<const char *>(bytes.data()), bytes.size()};
}

StringPointer ReadText(ByteCursor &cursor) {
    const auto bytes = cursor.ByteString();
    return bytes ? TextFromUTF8(AsText(*bytes)) : StringPointer();
}

CF::Pointer<CFDataRef> ReadData(ByteCursor &cursor) {
    const auto bytes = cursor.ByteString();
    if (!bytes) {
        return nullptr;
    }
    if (bytes->empty()) {
        return EmptyData();
    }
    return CF::Adopt(CF::Made(
        CFDataCreate(kCFAllocatorDefault, bytes->data(), static_cast<CFIndex>(bytes->size()))));
}

bool ReadNames(KVManifestEntryClass &entry, ByteCursor &cursor, TextCache &domains) {
    const auto domainBytes = cursor.ByteString();
    if (!domainBytes) {
        return false;
    }
    const StringPointer domain = domains.Get(AsText(*domainBytes));
    const StringPointer path = ReadText(cursor);
    if (!domain || !path) {
        return false;
    }
    SetEntryPath(entry, domain.get(), path.get());
    SetFileID(entry, CF::Adopt(KVManifestEntryCopyFileIDForPath(domain.get(), path.get())));
    entry.target = ReadText(cursor);
    if (!entry.target) {
        return false;
    }
    entry.dataHash = ReadData(cursor);
    if (!entry.dataHash) {
        return false;
    }
    entry.encryptionData = ReadData(cursor);
    return static_cast<bool>(entry.encryptionData);
}

CFAbsoluteTime ReadTime(ByteCursor &cursor) {
    return AbsoluteTimeFromUnix(cursor.Integer<std::uint32_t>().value());
}

// Throws std::invalid_argument for an unknown protection class.
bool ReadFixedBlock(KVManifestEntryClass &entry, ByteCursor &cursor) {
    if (cursor.Remaining() < kFixedSize) {
        return false;
    }
    entry.mode = cursor.Integer<std::uint16_t>().value();
    entry.inode = cursor.Integer<std::uint64_t>().value();
    entry.uid = cursor.Integer<std::uint32_t>().value();
    entry.gid = cursor.Integer<std::uint32_t>().value();
    entry.lastStatusChange = ReadTime(cursor);
    entry.lastModified = ReadTime(cursor);
    entry.birth = ReadTime(cursor);
    entry.size = static_cast<std::int64_t>(cursor.Integer<std::uint64_t>().value());
    entry.protectionClass = ProtectionClassFromCode(cursor.Integer<std::uint8_t>().value());
    return true;
}

bool ReadProperties(KVManifestEntryClass &entry, ByteCursor &cursor) {
    const auto count = cursor.Integer<std::uint8_t>();
    if (!count) {
        return false;
    }
    if (*count == 0) {
        return true; // as the entry is made
    }
    const auto properties = CF::Dictionary::Mutable();
    for (unsigned i = 0; i < *count; ++i) {
        const StringPointer name = ReadText(cursor);
        const auto value = name ? ReadData(cursor) : nullptr;
        if (!value) {
            return false;
        }
        properties.Set(name.get(), value.get());
    }
    entry.properties = properties.get();
    return true;
}

// Reads one record after another from behind the header into contents. False when one
// is invalid, or there is none at all.
bool ReadRecords(CFAllocatorRef allocator, std::span<const std::uint8_t> bytes,
                 const FileLoader &loader, const KVProgressFunction &progress,
                 ManifestContents &contents) {
    ByteCursor cursor(bytes, kHeaderSize);
    TextCache domains;
    ManifestSource source;
    do {
        const auto entry = ReadMbdbRecord(allocator, cursor, domains, loader);
        if (!entry) {
            return false;
        }
        entry.get()->origin = source.AddEntry();
        contents.Append(entry.get());
        if (progress) {
            progress(static_cast<std::int64_t>(cursor.Position()),
                     static_cast<std::int64_t>(bytes.size()),
                     static_cast<double>(cursor.Position()) / static_cast<double>(bytes.size()));
        }
    } while (cursor.Remaining() > 0);
    contents.source = std::make_shared<const ManifestSource>(std::move(source));
    return true;
}

KVManifestClass *Refuse(const char *reason) {
    std::printf("%s: %s\n", kReaderName, reason);
    return nullptr;
}

} // namespace

EntryPointer ReadMbdbRecord(CFAllocatorRef allocator, ByteCursor &cursor, TextCache &domains,
                            const FileLoader &loader) {
    EntryPointer entry = AllocateEntry(allocator);
    entry.get()->getFileFunc = loader;
    try {
        if (!ReadNames(*entry.get(), cursor, domains) || !ReadFixedBlock(*entry.get(), cursor) ||
            !ReadProperties(*entry.get(), cursor)) {
            return nullptr;
        }
    } catch (const std::invalid_argument &) {
        return nullptr;
    }
    return entry;
}

} // namespace Kelvane

KVManifestEntryClass *KVManifestEntryCreateFromManifestData(CFAllocatorRef allocator,
                                                            CFDataRef data, CFIndex offset,
                                                            CFIndex *nextOffset,
                                                            const KVGetFileFunction &getFileFunc) {
    if (nextOffset != nullptr) {
        *nextOffset = 0;
    }
    if (data == nullptr || offset < 0) {
        return nullptr;
    }
    const CF::Data held(data);
    Kelvane::ByteCursor cursor(held.GetBytes(), static_cast<std::size_t>(offset));
    Kelvane::TextCache domains;
    auto entry =
        Kelvane::ReadMbdbRecord(allocator, cursor, domains, Kelvane::ShareFileLoader(getFileFunc));
    if (entry && nextOffset != nullptr && cursor.Remaining() > 0) {
        *nextOffset = static_cast<CFIndex>(cursor.Position());
    }
    return entry.detach();
}

KVManifestClass *Kelvane::ReadBinaryManifest(CFAllocatorRef allocator, const CF::Data &data,
                                             KVManifestDataVersion version,
                                             const KVGetFileFunction &getFileFunc,
                                             const KVProgressFunction &progress) {
    if (version != kKVManifestDataVersion24) {
        std::printf("%s: Invalid manifest version '%d' for this encoding scheme", kReaderName,
                    static_cast<int>(version));
        return nullptr;
    }
    const auto bytes = data.GetBytes();
    if (data.GetLength() < kHeaderSize) {
        return Refuse("Invalid file");
    }
    if (progress) {
        progress(0, data.GetLength(), 0);
    }
    if (!std::equal(kMagic.begin(), kMagic.end(), bytes.begin())) {
        return Refuse("Invalid file header");
    }
    ManifestContents contents;
    if (!ReadRecords(allocator, bytes, ShareFileLoader(getFileFunc), progress, contents)) {
        return Refuse("Invalid manifest entry");
    }
    return CreateManifest(allocator, std::move(contents), version);
}

KVManifestClass *KVManifestCreateFromManifestData(CFAllocatorRef allocator, CFDataRef data,
                                                  KVManifestDataVersion version,
                                                  const KVGetFileFunction &getFileFunc,
                                                  const KVProgressFunction &progress) {
    try {
        return Kelvane::ReadBinaryManifest(allocator, CF::Data(data), version, getFileFunc,
                                           progress);
    } catch (const CF::Error &refusal) {
        return Kelvane::Refuse(refusal.GetFailureReason().GetUTF8().c_str());
    }
}
