#include "manifest/DeviceRowRecord.hpp"

#include "Kelvane/SharedState.hpp"
#include "foundation/Boundary.hpp"
#include "manifest/DatabaseGuard.hpp"
#include "manifest/EntryFromMBFile.hpp"
#include "manifest/EntryToMBFile.hpp"
#include "support/cf/CF.hpp"
#include "support/zk/Log.hpp"

#include <algorithm>
#include <cmath>
#include <limits>
#include <stdexcept>

namespace Kelvane {

namespace {

using enum RecordField;

constexpr double kUnixToAbsolute = 978307200;

CFStringRef unlessEmpty(CFStringRef text) { return CFStringGetLength(text) > 0 ? text : nullptr; }
CFDataRef unlessEmpty(CFDataRef data) {
    return data != nullptr && CFDataGetLength(data) > 0 ? data : nullptr;
}

bool areEqual(CFTypeRef one, CFTypeRef other) {
    return one == other || (one != nullptr && other != nullptr && CFEqual(one, other) != 0);
}

// What a record calls extended attributes, with what that borrows. No data when there are none, or
// when they can only be written as an object.
struct Attributes {
    CF::Data data;
    bool areObject = false;

    explicit Attributes(const KVManifestEntryClass &entry) {
        if (entry.keptAttributes) {
            data = CF::Data::Cast(entry.keptAttributes.get());
            areObject = !data;
        } else if (CFDictionaryGetCount(entry.properties.get()) > 0) {
            LocalError error;
            data = CF::PropertyListType<CF::Dictionary>::ToPropertyListData(
                CF::Dictionary(entry.properties.get()), kCFPropertyListBinaryFormat_v1_0,
                error.out());
            if (!data) {
                throw std::runtime_error(error.get().GetDescription().GetUTF8());
            }
        }
    }
};

DeviceRecord recordOf(const DeviceRow &row, const Attributes &attributes) {
    const KVManifestEntryClass &entry = row.entry;
    DeviceRecord record;
    record[LastModified] = UnixSeconds(entry.lastModified);
    record[LastStatusChange] = UnixSeconds(entry.lastStatusChange);
    record[Birth] = UnixSeconds(entry.birth);
    record[Size] = row.size;
    record[InodeNumber] = static_cast<std::int64_t>(entry.inode);
    record[Mode] = entry.mode;
    // Devices write the user nobody as -2.
    record[UserID] = static_cast<std::int32_t>(entry.uid);
    record[GroupID] = static_cast<std::int32_t>(entry.gid);
    record[ProtectionClass] = CodeOfProtectionClass(row.protectionClass);
    record[Flags] = entry.recordFlags;
    record.RelativePath = entry.relativePath.get();
    record.Target = unlessEmpty(entry.target.get());
    record.Digest = unlessEmpty(row.digest.get());
    record.EncryptionKey = unlessEmpty(row.encryptionKey.get());
    record.ExtendedAttributes = unlessEmpty(attributes.data.get());
    return record;
}

bool haveSameAttributes(const KVManifestEntryClass &one, const KVManifestEntryClass &other) {
    return areEqual(one.properties.get(), other.properties.get()) &&
           areEqual(one.keptAttributes.get(), other.keptAttributes.get());
}

// Compared as entries have them: what an old record says beyond that, such as a date that no entry
// can hold, is then no difference.
RecordFields differences(const KVManifestEntryClass &old, const DeviceRow &row) {
    const KVManifestEntryClass &entry = row.entry;
    RecordFields changed;
    const auto add = [&](RecordField field, bool isSame) {
        if (!isSame) {
            changed.Add(field);
        }
    };
    add(LastModified, old.lastModified == entry.lastModified);
    add(LastStatusChange, old.lastStatusChange == entry.lastStatusChange);
    add(Birth, old.birth == entry.birth);
    add(Size, old.size == row.size);
    add(InodeNumber, old.inode == entry.inode);
    add(Mode, old.mode == entry.mode);
    add(UserID, old.uid == entry.uid);
    add(GroupID, old.gid == entry.gid);
    add(ProtectionClass, old.protectionClass == row.protectionClass);
    add(Flags, old.recordFlags == entry.recordFlags);
    add(Target, areEqual(old.target.get(), entry.target.get()));
    add(Digest, areEqual(unlessEmpty(old.dataHash.get()), unlessEmpty(row.digest.get())));
    add(EncryptionKey,
        areEqual(unlessEmpty(old.encryptionData.get()), unlessEmpty(row.encryptionKey.get())));
    add(ExtendedAttributes, haveSameAttributes(old, entry));
    return changed;
}

// Runs an encoding; false, with a line in the log, when it does not succeed or comes out too long.
template <class Encoding>
bool succeeds(std::vector<std::uint8_t> &record, Encoding encode) {
    try {
        encode();
        if (record.size() > kMaximumValueLength) {
            throw std::length_error("The record is longer than a database may hold");
        }
        return true;
    } catch (const std::bad_alloc &) {
        throw; // says nothing about the entry
    } catch (const std::exception &exception) {
        ZLLogDomain(GetLogDomain(), kZLLogLevelBadRecord, CFSTR("Failed to serialize MBFile -- %s"),
                    exception.what());
        return false;
    }
}

RecordFields allBut(RecordField left) {
    RecordFields fields;
    for (std::size_t field = 0; field < kRecordFields; ++field) {
        if (static_cast<RecordField>(field) != left) {
            fields.Add(static_cast<RecordField>(field));
        }
    }
    return fields;
}

// The same property list in the binary format.
void toBinary(std::span<const std::uint8_t> bytes, std::vector<std::uint8_t> &binary) {
    using PropertyList = CF::PropertyListType<CF::Dictionary>;
    const auto archive = PropertyList::FromPropertyListData(CF::Data(bytes));
    const auto data =
        archive ? PropertyList::ToPropertyListData(archive, kCFPropertyListBinaryFormat_v1_0)
                : CF::Data();
    if (!data) {
        throw std::invalid_argument("The record is no property list that can be written");
    }
    binary = data.GetVector();
}

} // namespace

std::int64_t UnixSeconds(CFAbsoluteTime time) noexcept {
    if (std::isnan(time)) {
        return static_cast<std::int64_t>(kUnixToAbsolute);
    }
    // The largest double below 2^63, for the nearest to the largest number is beyond it.
    constexpr double kHighest = 9223372036854774784.0;
    constexpr double kLowest = -9223372036854775808.0;
    return static_cast<std::int64_t>(
        std::clamp(std::floor(time) + kUnixToAbsolute, kLowest, kHighest));
}

int RowFlags(const KVManifestEntryClass &entry) noexcept {
    if (entry.fileType != 0) {
        return entry.fileType;
    }
    constexpr int kFile = 1;
    constexpr int kDirectory = 2;
    constexpr int kSymlink = 4;
    return KVManifestEntryIsFile(&entry)        ? kFile
           : KVManifestEntryIsDirectory(&entry) ? kDirectory
           : KVManifestEntryIsSymlink(&entry)   ? kSymlink
                                                : 0;
}

bool DeviceRowEncoder::Encode(const DeviceRow &row, Bytes &record) {
    return succeeds(record, [&] { EncodeAny(row, record); });
}

void DeviceRowEncoder::EncodeAny(const DeviceRow &row, Bytes &record) {
    const Attributes attributes(row.entry);
    const DeviceRecord fields = recordOf(row, attributes);
    if (attributes.areObject) {
        EncodeGenerally(row, fields, record);
    } else {
        encoder_.Encode(fields, record);
    }
}

// Attributes that are more than names and data have a form in the general codec alone.
void DeviceRowEncoder::EncodeGenerally(const DeviceRow &row, const DeviceRecord &fields,
                                       Bytes &record) {
    if (!EncodeEntryRecord(row.entry, general_)) {
        throw std::invalid_argument("The extended attributes cannot be written");
    }
    encoder_.Update(general_, fields, allBut(ExtendedAttributes), record);
}

DeviceRowEncoder::Outcome DeviceRowEncoder::Update(std::span<const std::uint8_t> old,
                                                   const DeviceRow &row, bool pathToo,
                                                   Bytes &record) {
    const EntryPointer entry = AllocateEntry(kCFAllocatorDefault);
    FillFromRecord(*entry.get(), old);
    RecordFields changed = differences(*entry.get(), row);
    if (pathToo) {
        changed.Add(RelativePath);
    }
    if (changed.IsEmpty()) {
        return Outcome::Same;
    }
    return succeeds(record, [&] { UpdateRecord(old, row, changed, record); }) ? Outcome::Different
                                                                              : Outcome::Failed;
}

void DeviceRowEncoder::UpdateRecord(std::span<const std::uint8_t> old, const DeviceRow &row,
                                    RecordFields changed, Bytes &record) {
    const Attributes attributes(row.entry);
    const DeviceRecord fields = recordOf(row, attributes);
    if (attributes.areObject && changed.Has(ExtendedAttributes)) {
        EncodeGenerally(row, fields, record);
        return;
    }
    try {
        encoder_.Update(old, fields, changed, record);
    } catch (const std::invalid_argument &) {
        // It was read, so it may be a property list of another format.
        toBinary(old, general_);
        encoder_.Update(general_, fields, changed, record);
    }
}

} // namespace Kelvane
