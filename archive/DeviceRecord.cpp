#include "archive/DeviceRecord.hpp"

#include "archive/DeviceRecordLayout.hpp"

#include <string>

namespace Kelvane {

namespace RecordLayout {

const std::array<std::string_view, kKeyCount> kKeyNames = {
    "LastModified", "LastStatusChange", "Birth",
    "Size",         "InodeNumber",      "Mode",
    "UserID",       "GroupID",          "ProtectionClass",
    "Flags",        "RelativePath",     "Target",
    "Digest",       "EncryptionKey",    "ExtendedAttributes",
    "$class"};

namespace {

constexpr auto key(RecordField field) { return static_cast<std::uint8_t>(field); }
using enum RecordField;

// Devices write the keys in the order of a hash table, which depends on what keys there are.
constexpr std::array<std::uint8_t, 13> kPlainOrder = {
    key(LastModified),   key(Flags), key(GroupID),
    key(Target),         kClassKey,  key(LastStatusChange),
    key(RelativePath),   key(Birth), key(Size),
    key(InodeNumber),    key(Mode),  key(UserID),
    key(ProtectionClass)};
constexpr std::array<std::uint8_t, 14> kOrderWithKey = {
    key(LastModified), key(Flags),          key(GroupID),
    key(Target),       kClassKey,           key(LastStatusChange),
    key(RelativePath), key(Birth),          key(EncryptionKey),
    key(Size),         key(Mode),           key(UserID),
    key(InodeNumber),  key(ProtectionClass)};
constexpr std::array<std::uint8_t, 15> kOrderWithKeyAndDigest = {key(LastModified),
                                                                 key(ProtectionClass),
                                                                 key(Flags),
                                                                 key(GroupID),
                                                                 key(Target),
                                                                 kClassKey,
                                                                 key(LastStatusChange),
                                                                 key(RelativePath),
                                                                 key(Birth),
                                                                 key(EncryptionKey),
                                                                 key(Size),
                                                                 key(Mode),
                                                                 key(UserID),
                                                                 key(Digest),
                                                                 key(InodeNumber)};
// Behind the others where those do not have them.
constexpr std::array<std::uint8_t, 2> kLast = {key(Digest), key(ExtendedAttributes)};

std::span<const std::uint8_t> baseOrder(RecordFields present) {
    if (!present.Has(EncryptionKey)) {
        return kPlainOrder;
    }
    return present.Has(Digest) ? std::span<const std::uint8_t>(kOrderWithKeyAndDigest)
                               : std::span<const std::uint8_t>(kOrderWithKey);
}

} // namespace

KeyOrder::KeyOrder(RecordFields present) {
    const auto isWritten = [&](std::uint8_t candidate) {
        return candidate < kRecordNumbers || candidate == kClassKey ||
               present.Has(static_cast<RecordField>(candidate));
    };
    const std::span<const std::uint8_t> base = baseOrder(present);
    for (const std::uint8_t candidate : base) {
        if (isWritten(candidate)) {
            keys_[count_++] = candidate;
        }
    }
    const bool digestIsIn = present.Has(EncryptionKey);
    for (const std::uint8_t candidate : kLast) {
        if (isWritten(candidate) && !(digestIsIn && candidate == key(Digest))) {
            keys_[count_++] = candidate;
        }
    }
}

PlistBuilder::Number AddClass(PlistBuilder &builder, std::span<const std::string_view> chain) {
    const auto pairs = builder.Container(PlistBuilder::Kind::Dictionary, 2);
    builder.Set(pairs, 0, builder.Name("$classname"));
    builder.Set(pairs, 1, builder.Name("$classes"));
    builder.Set(pairs, 2, builder.Name(chain.front()));
    const auto names = builder.Container(PlistBuilder::Kind::Array, chain.size());
    builder.Set(pairs, 3, names);
    for (std::size_t i = 0; i < chain.size(); ++i) {
        builder.Set(names, i, builder.Name(chain[i]));
    }
    return pairs;
}

PlistBuilder::Number AddWrappedData(PlistBuilder &builder, CFDataRef data,
                                    std::uint32_t classEntry) {
    const auto pairs = builder.Container(PlistBuilder::Kind::Dictionary, 2);
    builder.Set(pairs, 0, builder.Name("NS.data"));
    builder.Set(pairs, 1, builder.Name("$class"));
    builder.Set(pairs, 2, builder.Data(BytesOf(data)));
    builder.Set(pairs, 3, builder.UID(classEntry));
    return pairs;
}

PlistBuilder::Bytes BytesOf(CFDataRef data) {
    return {CFDataGetBytePtr(data), static_cast<std::size_t>(CFDataGetLength(data))};
}

PlistBuilder::Number AddNumber(PlistBuilder &builder, const DeviceRecord &record,
                               std::size_t field) {
    const std::int64_t value = record.numbers[field];
    return field == key(InodeNumber) ? builder.Unsigned(static_cast<std::uint64_t>(value))
                                     : builder.Integer(value);
}

} // namespace RecordLayout

namespace {

using namespace RecordLayout;
using Kind = PlistBuilder::Kind;
using enum RecordField;

// The places of a new record's objects in the archive's table; 0 for absent ones.
struct TableEntries {
    std::uint32_t next = kRecordEntry + 1;
    std::array<std::uint32_t, kKeyCount> ofKey{};
    std::uint32_t keyClass = 0;
    RecordFields present;

    explicit TableEntries(const DeviceRecord &record) {
        take(RelativePath, true);
        take(Target, record.Target != nullptr);
        take(Digest, record.Digest != nullptr);
        take(EncryptionKey, record.EncryptionKey != nullptr);
        if (record.EncryptionKey != nullptr) {
            keyClass = next++;
        }
        take(ExtendedAttributes, record.ExtendedAttributes != nullptr);
        ofKey[kClassKey] = next++;
    }

  private:
    void take(RecordField field, bool isPresent) {
        if (isPresent) {
            ofKey[static_cast<std::size_t>(field)] = next++;
            present.Add(field);
        }
    }
};

void addRecord(PlistBuilder &builder, const DeviceRecord &record, const TableEntries &entries,
               PlistBuilder::Number table) {
    const KeyOrder order(entries.present);
    const auto keys = order.Keys();
    const auto pairs = builder.Container(Kind::Dictionary, keys.size());
    builder.Set(table, kRecordEntry, pairs);
    for (std::size_t i = 0; i < keys.size(); ++i) {
        builder.Set(pairs, i, builder.Name(kKeyNames[keys[i]]));
    }
    for (std::size_t i = 0; i < keys.size(); ++i) {
        builder.Set(pairs, keys.size() + i,
                    keys[i] < kRecordNumbers ? AddNumber(builder, record, keys[i])
                                             : builder.UID(entries.ofKey[keys[i]]));
    }
}

// In the order of their places.
void addObjects(PlistBuilder &builder, const DeviceRecord &record, const TableEntries &entries,
                PlistBuilder::Number table) {
    std::uint32_t place = kRecordEntry + 1;
    builder.Set(table, place++, builder.Text(record.RelativePath));
    if (record.Target != nullptr) {
        builder.Set(table, place++, builder.Text(record.Target));
    }
    if (record.Digest != nullptr) {
        builder.Set(table, place++, builder.Data(BytesOf(record.Digest)));
    }
    if (record.EncryptionKey != nullptr) {
        builder.Set(table, place++,
                    AddWrappedData(builder, record.EncryptionKey, entries.keyClass));
        builder.Set(table, place++, AddClass(builder, kDataClass));
    }
    if (record.ExtendedAttributes != nullptr) {
        builder.Set(table, place++, builder.Data(BytesOf(record.ExtendedAttributes)));
    }
    builder.Set(table, place, AddClass(builder, kRecordClass));
}

} // namespace

// {"$version": 100000, "$archiver": NAME, "$top": {"root": 1}, "$objects": the table}
void DeviceRecordEncoder::Encode(const DeviceRecord &record, std::vector<std::uint8_t> &archive) {
    const TableEntries entries(record);
    builder_.Clear();
    const auto root = builder_.Container(Kind::Dictionary, 4);
    builder_.Set(root, 0, builder_.Name("$version"));
    builder_.Set(root, 1, builder_.Name("$archiver"));
    builder_.Set(root, 2, builder_.Name("$top"));
    builder_.Set(root, 3, builder_.Name("$objects"));
    builder_.Set(root, 4, builder_.Integer(kArchiveVersion));
    builder_.Set(root, 5, builder_.Name(kArchiver));
    const auto top = builder_.Container(Kind::Dictionary, 1);
    builder_.Set(root, 6, top);
    builder_.Set(top, 0, builder_.Name("root"));
    builder_.Set(top, 1, builder_.UID(kRecordEntry));
    const auto table = builder_.Container(Kind::Array, entries.next);
    builder_.Set(root, 7, table);
    builder_.Set(table, kNullEntry, builder_.Name("$null"));
    addRecord(builder_, record, entries, table);
    addObjects(builder_, record, entries, table);
    builder_.Finish(archive);
}

} // namespace Kelvane
