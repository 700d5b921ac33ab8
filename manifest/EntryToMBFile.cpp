// Entries as rows of Manifest.db keep them.

#include "Kelvane/SharedState.hpp"
#include "MB/File.hpp"
#include "ZK/keyed_archiver.hpp"
#include "foundation/Boundary.hpp"
#include "manifest/KVManifestEntryClass.hpp"
#include "support/cf/CF.hpp"
#include "support/zk/Log.hpp"

#include <exception>
#include <stdexcept>

namespace {

MB::File recordOf(const KVManifestEntryClass &entry) {
    MB::File record;
    record.RelativePath = entry.relativePath.get();
    if (CFStringGetLength(entry.target.get()) > 0) {
        record.Target = entry.target.get();
    }
    if (CFDataGetLength(entry.dataHash.get()) > 0) {
        record.Digest = entry.dataHash.get();
    }
    if (CFDataGetLength(entry.encryptionData.get()) > 0) {
        record.EncryptionKey = entry.encryptionData.get();
    }
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
    if (CFDictionaryGetCount(entry.properties.get()) > 0) {
        record.ExtendedAttributes = entry.properties.get();
    }
    return record;
}

CF::Data archiveOf(const KVManifestEntryClass &entry) {
    const auto archive = ZK::make_keyed_archive(recordOf(entry));
    Kelvane::LocalError error;
    auto data = CF::PropertyListType<CF::Dictionary>::ToPropertyListData(
        archive, kCFPropertyListBinaryFormat_v1_0, error.out());
    if (!data) {
        throw std::runtime_error(error.get().GetDescription().GetUTF8());
    }
    return data;
}

} // namespace

CFDataRef KVManifestEntryCreateMBFileDataRepresentation(const KVManifestEntryClass *entry) {
    try {
        return archiveOf(*entry).detach();
    } catch (const std::exception &exception) {
        ZLLogDomain(Kelvane::GetLogDomain(), kZLLogLevelBadRecord,
                    CFSTR("Failed to serialize MBFile -- %s"), exception.what());
        return nullptr;
    }
}
