#include "manifest/EntryFromMBFile.hpp"

#include "Kelvane/SharedState.hpp"
#include "MB/File.hpp"
#include "ZK/keyed_unarchiver.hpp"
#include "archive/FastMBFile.hpp"
#include "support/cf/CF.hpp"
#include "support/zk/Log.hpp"

#include <exception>
#include <stdexcept>

namespace {

using Kelvane::EntryPointer;
using Kelvane::MBFileView;

// What a record adds to an entry, from the record as a whole or as a view.
template <class Record>
void fillNumbers(KVManifestEntryClass &entry, const Record &record) {
    entry.protectionClass =
        Kelvane::ProtectionClassFromCode(static_cast<std::uint32_t>(record.ProtectionClass));
    entry.mode = static_cast<std::uint16_t>(record.Mode);
    entry.uid = record.UserID;
    entry.gid = record.GroupID;
    entry.lastModified = Kelvane::AbsoluteTimeFromUnix(record.LastModified);
    entry.lastStatusChange = Kelvane::AbsoluteTimeFromUnix(record.LastStatusChange);
    entry.birth = Kelvane::AbsoluteTimeFromUnix(record.Birth);
    entry.size = record.Size;
    entry.inode = record.InodeNumber;
    entry.recordFlags = record.Flags;
}

void fillText(CF::Pointer<CFStringRef> &field, const MBFileView::Text &text) {
    if (!text.bytes.empty()) {
        field = CF::Adopt(CF::Made(CFStringCreateWithBytes(
            kCFAllocatorDefault, text.bytes.data(), static_cast<CFIndex>(text.bytes.size()),
            text.utf16 ? kCFStringEncodingUTF16BE : kCFStringEncodingASCII, false)));
    }
}

template <class Ref>
void fillData(CF::Pointer<Ref> &field, std::span<const std::uint8_t> bytes) {
    if (!bytes.empty()) {
        field = CF::Adopt<Ref>(CF::Made(
            CFDataCreate(kCFAllocatorDefault, bytes.data(), static_cast<CFIndex>(bytes.size()))));
    }
}

void fill(KVManifestEntryClass &entry, const MBFileView &record) {
    fillNumbers(entry, record);
    fillText(entry.target, record.Target);
    fillData(entry.dataHash, record.Digest);
    fillData(entry.encryptionData, record.EncryptionKey);
    fillData(entry.keptAttributes, record.ExtendedAttributesData);
}

// An archive may hold names and values of any type. Hosts are shown those of the promised
// types, and the others are written back with them.
void fillAttributes(KVManifestEntryClass &entry, const CF::Dictionary &attributes) {
    const auto shown = CF::Dictionary::Mutable();
    attributes.ForEach([&](CFTypeRef name, CFTypeRef value) {
        if (CF::String::Cast(name) && CF::Data::Cast(value)) {
            shown.Set(name, value);
        }
    });
    const auto copy = [](const CF::Dictionary &dictionary) {
        return CF::Adopt(CF::Made(CFDictionaryCreateCopy(kCFAllocatorDefault, dictionary.get())));
    };
    if (shown.GetCount() > 0) {
        entry.properties = copy(shown);
    }
    if (shown.GetCount() < attributes.GetCount()) {
        entry.keptAttributes = copy(attributes).get();
    }
}

void fill(KVManifestEntryClass &entry, const MB::File &record) {
    fillNumbers(entry, record);
    if (!record.Target.IsEmpty()) {
        entry.target = record.Target.get();
    }
    if (!record.Digest.IsEmpty()) {
        entry.dataHash = record.Digest.get();
    }
    if (!record.EncryptionKey.IsEmpty()) {
        entry.encryptionData = record.EncryptionKey.get();
    }
    if (record.ExtendedAttributes.GetCount() > 0) {
        fillAttributes(entry, record.ExtendedAttributes);
    }
    if (!record.ExtendedAttributesData.IsEmpty()) {
        entry.keptAttributes = record.ExtendedAttributesData.get();
    }
}

MB::File decodeGenerally(std::span<const std::uint8_t> bytes) {
    const auto data = CF::Data::Adopt(CF::Made(CFDataCreateWithBytesNoCopy(
        kCFAllocatorDefault, bytes.data(), static_cast<CFIndex>(bytes.size()), kCFAllocatorNull)));
    const auto archive = CF::PropertyListType<CF::Dictionary>::FromPropertyListData(data);
    auto record = ZK::extract_keyed_archive<MB::File>(archive);
    if (!record) {
        throw std::invalid_argument("The archive's root object is no MBFile");
    }
    return *std::move(record);
}

void logFailure(const char *text) {
    ZLLogDomain(Kelvane::GetLogDomain(), kZLLogLevelBadRecord,
                CFSTR("Failed to deserialize MBFile: %s"), text);
}

} // namespace

namespace Kelvane {

// Most records have the usual shape, and opening a backup decodes one for every row.
void FillFromRecord(KVManifestEntryClass &entry, std::span<const std::uint8_t> record) {
    MBFileView view;
    if (DecodeMBFile(record, view)) {
        fill(entry, view);
    } else {
        fill(entry, decodeGenerally(record));
    }
}

std::uint8_t FileTypeOf(int flags) noexcept {
    return flags >= 0 && flags <= UINT8_MAX ? static_cast<std::uint8_t>(flags) : UINT8_MAX;
}

EntryPointer CreateEntryFromMBFileData(CFAllocatorRef allocator, CFStringRef fileID,
                                       CFStringRef domain, CFStringRef relativePath, int flags,
                                       std::span<const std::uint8_t> record,
                                       const FileLoader &loader) {
    auto entry = AllocateEntry(allocator);
    KVManifestEntryClass &body = *entry.get();
    try {
        FillFromRecord(body, record);
    } catch (const std::bad_alloc &) {
        throw; // says nothing about the record
    } catch (const std::exception &exception) {
        logFailure(exception.what());
        return nullptr;
    }
    SetEntryPath(body, domain, relativePath);
    if (fileID != nullptr) {
        SetFileID(body, CF::Adopt(CF::Made(CFStringCreateCopy(kCFAllocatorDefault, fileID))));
    }
    body.fileType = FileTypeOf(flags);
    body.getFileFunc = loader;
    if (ZLLogIsEnabled(kZLLogLevelDetail)) {
        ZLLogDomain(GetLogDomain(), kZLLogLevelDetail, CFSTR("Created manifest entry %@"),
                    entry.get());
    }
    return entry;
}

} // namespace Kelvane

KVManifestEntryClass *KVManifestEntryCreateFromMBFileData(CFAllocatorRef allocator,
                                                          CFStringRef fileID, CFStringRef domain,
                                                          CFStringRef relativePath, int flags,
                                                          CFDataRef mbfileData,
                                                          const KVGetFileFunction &getFileFunc) {
    return Kelvane::CreateEntryFromMBFileData(allocator, fileID, domain, relativePath, flags,
                                              CF::Data(mbfileData).GetBytes(),
                                              Kelvane::ShareFileLoader(getFileFunc))
        .detach();
}
