// Brings the input, a record of Manifest.db, up to date in the devices' form. Whatever the general
// codec reads must say the same afterwards, but for what was to be changed; and a record that was
// brought up to date is no longer changed by that.
#include "Require.hpp"
#include "ZK/keyed_unarchiver.hpp"
#include "archive/DeviceRecord.hpp"
#include "support/cf/CF.hpp"

#include <optional>
#include <stdexcept>
#include <vector>

namespace {

using Bytes = std::span<const std::uint8_t>;
using Kelvane::RecordField;
using enum Kelvane::RecordField;

std::optional<MB::File> decode(Bytes bytes) {
    const auto archive =
        CF::PropertyListType<CF::Dictionary>::FromPropertyListData(CF::Data(bytes));
    try {
        return ZK::extract_keyed_archive<MB::File>(archive);
    } catch (const ZK::archiver_exceptions::archiver_exception &) {
        return std::nullopt;
    }
}

// Absent texts and data count as empty.
bool areSame(const CF::String &one, const CF::String &other) {
    return one == other || (one.IsEmpty() && other.IsEmpty());
}
bool areSame(const CF::Data &one, const CF::Data &other) {
    return one == other || (one.IsEmpty() && other.IsEmpty());
}

bool areSame(const MB::File &one, const MB::File &other) {
    return areSame(one.RelativePath, other.RelativePath) && areSame(one.Target, other.Target) &&
           areSame(one.Digest, other.Digest) && areSame(one.EncryptionKey, other.EncryptionKey) &&
           one.Mode == other.Mode && one.UserID == other.UserID && one.GroupID == other.GroupID &&
           one.LastModified == other.LastModified &&
           one.LastStatusChange == other.LastStatusChange && one.Birth == other.Birth &&
           one.Size == other.Size && one.InodeNumber == other.InodeNumber &&
           one.ProtectionClass == other.ProtectionClass && one.Flags == other.Flags &&
           one.ExtendedAttributes == other.ExtendedAttributes &&
           areSame(one.ExtendedAttributesData, other.ExtendedAttributesData);
}

CFDataRef unlessEmpty(const CF::Data &data) { return data.IsEmpty() ? nullptr : data.get(); }

Kelvane::DeviceRecord recordOf(const MB::File &file) {
    Kelvane::DeviceRecord record;
    record[LastModified] = file.LastModified;
    record[LastStatusChange] = file.LastStatusChange;
    record[Birth] = file.Birth;
    record[Size] = file.Size;
    record[InodeNumber] = static_cast<std::int64_t>(file.InodeNumber);
    record[Mode] = file.Mode;
    record[UserID] = static_cast<std::int32_t>(file.UserID);
    record[GroupID] = static_cast<std::int32_t>(file.GroupID);
    record[ProtectionClass] = file.ProtectionClass;
    record[Flags] = file.Flags;
    record.RelativePath = file.RelativePath ? file.RelativePath.get() : CFSTR("");
    record.Target = file.Target.IsEmpty() ? nullptr : file.Target.get();
    record.Digest = unlessEmpty(file.Digest);
    record.EncryptionKey = unlessEmpty(file.EncryptionKey);
    record.ExtendedAttributes = unlessEmpty(file.ExtendedAttributesData);
    return record;
}

std::vector<std::uint8_t> update(Bytes old, const MB::File &file, Kelvane::RecordFields changed) {
    std::vector<std::uint8_t> updated;
    Kelvane::DeviceRecordEncoder().Update(old, recordOf(file), changed, updated);
    return updated;
}

void requireRecord(Bytes bytes, const MB::File &expected) {
    const auto file = decode(bytes);
    Fuzz::Require(file && areSame(*file, expected));
}

void check(Bytes old, MB::File file) {
    const auto updated = update(old, file, {});
    requireRecord(updated, file);
    Fuzz::Require(update(updated, file, {}) == updated);

    file.Digest = nullptr;
    file.EncryptionKey = CF::Data(std::vector<std::uint8_t>(44, 5));
    file.Target = "target";
    file.Size = -7;
    file.Flags = 128;
    Kelvane::RecordFields changed;
    for (const RecordField field : {Digest, EncryptionKey, Target, Size, Flags}) {
        changed.Add(field);
    }
    requireRecord(update(old, file, changed), file);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *bytes, std::size_t size) {
    const Bytes old(bytes, size);
    try {
        if (const auto file = decode(old)) {
            check(old, *file);
        } else {
            update(old, MB::File(), {});
        }
    } catch (const std::invalid_argument &) {
        // No record, or none that is copied object by object.
    }
    return 0;
}
