#include "manifest/EntryToMBFile.hpp"

#include "Kelvane/SharedState.hpp"
#include "MB/File.hpp"
#include "ZK/keyed_archiver.hpp"
#include "archive/FastMBFileEncoder.hpp"
#include "foundation/Boundary.hpp"
#include "manifest/DatabaseGuard.hpp"
#include "support/cf/CF.hpp"
#include "support/zk/Log.hpp"

#include <exception>
#include <stdexcept>

namespace {

using Bytes = std::vector<std::uint8_t>;

CFStringRef unlessEmpty(CFStringRef text) { return CFStringGetLength(text) > 0 ? text : nullptr; }
CFDataRef unlessEmpty(CFDataRef data) { return CFDataGetLength(data) > 0 ? data : nullptr; }

// What records as a whole and their fields alone have in common.
template <class Record>
Record recordOf(const KVManifestEntryClass &entry) {
    Record record;
    record.RelativePath = entry.relativePath.get();
    record.Target = unlessEmpty(entry.target.get());
    record.Digest = unlessEmpty(entry.dataHash.get());
    record.EncryptionKey = unlessEmpty(entry.encryptionData.get());
    record.Mode = entry.mode;
    record.UserID = entry.uid;
    record.GroupID = entry.gid;
    record.LastModified = Kelvane::WrittenUnixTime(entry.lastModified);
    record.LastStatusChange = Kelvane::WrittenUnixTime(entry.lastStatusChange);
    record.Birth = Kelvane::WrittenUnixTime(entry.birth);
    record.Size = entry.size;
    record.InodeNumber = entry.inode;
    record.ProtectionClass =
        static_cast<std::int32_t>(Kelvane::CodeOfProtectionClass(entry.protectionClass));
    return record;
}

void encodeGenerally(const KVManifestEntryClass &entry, Bytes &bytes) {
    auto record = recordOf<MB::File>(entry);
    // At most one of the two is there.
    record.ExtendedAttributes = CF::Dictionary::Cast(entry.keptAttributes.get());
    record.ExtendedAttributesData = CF::Data::Cast(entry.keptAttributes.get());
    if (!entry.keptAttributes) {
        record.ExtendedAttributes = entry.properties.get();
    }
    const auto archive = ZK::make_keyed_archive(record);
    Kelvane::LocalError error;
    const auto data = CF::PropertyListType<CF::Dictionary>::ToPropertyListData(
        archive, kCFPropertyListBinaryFormat_v1_0, error.out());
    if (!data) {
        throw std::runtime_error(error.get().GetDescription().GetUTF8());
    }
    bytes = data.GetVector();
}

} // namespace

// Few entries have attributes.
bool Kelvane::EncodeEntryRecord(const KVManifestEntryClass &entry, Bytes &record) {
    try {
        if (CFDictionaryGetCount(entry.properties.get()) > 0 || entry.keptAttributes) {
            encodeGenerally(entry, record);
        } else {
            EncodeMBFile(recordOf<MBFileFields>(entry), record);
        }
        // References take more bytes as we write them than as devices do, so that the largest
        // records that are read may come out too large.
        if (record.size() > kMaximumValueLength) {
            throw std::length_error("The record is longer than a database may hold");
        }
        return true;
    } catch (const std::exception &exception) {
        ZLLogDomain(GetLogDomain(), kZLLogLevelBadRecord, CFSTR("Failed to serialize MBFile -- %s"),
                    exception.what());
        return false;
    }
}

CFDataRef KVManifestEntryCreateMBFileDataRepresentation(const KVManifestEntryClass *entry) {
    Bytes record;
    return Kelvane::EncodeEntryRecord(*entry, record) ? CF::Data(record).detach() : nullptr;
}
