#include "archive/FastMBFile.hpp"

#include "ZK/keyed_archive_types.hpp"
#include "archive/SmallPlist.hpp"

#include <algorithm>
#include <array>
#include <cstddef>
#include <limits>
#include <string_view>

namespace Kelvane {

namespace {

using Bytes = SmallPlist::Bytes;
using Item = SmallPlist::Item;

// Devices put nine objects at most into a record's table (the null object, the record,
// path, target, digest, key and its class, attributes, the record's class).
constexpr std::uint32_t kMaxTableEntries = 16;
// The longest class chain that devices write has three names.
constexpr std::uint32_t kMaxClassNames = 4;
constexpr std::int64_t kArchiveVersion = 100000;

// A short text as it lies in a document, to compare names eight bytes at a time.
struct Name {
    std::uint32_t length = 0;
    std::array<std::uint64_t, 3> words{};

    constexpr explicit Name(std::string_view text)
        : length(static_cast<std::uint32_t>(text.size())) {
        for (std::size_t i = 0; i < text.size(); ++i) {
            words[i / 8] |= std::uint64_t{static_cast<unsigned char>(text[i])} << (56 - i % 8 * 8);
        }
    }
    bool operator==(const Item &text) const noexcept {
        return text.count == length && SmallPlist::Word(text, 0) == words[0] &&
               (length <= 8 || SmallPlist::Word(text, 1) == words[1]) &&
               (length <= 16 || SmallPlist::Word(text, 2) == words[2]);
    }
};

constexpr Name kArchiverKey("$archiver");
constexpr Name kVersionKey("$version");
constexpr Name kTopKey("$top");
constexpr Name kObjectsKey("$objects");
constexpr Name kRootKey("root");
constexpr Name kUIDKey("CF$UID");
constexpr Name kClassKey("$class");
constexpr Name kClassNameKey("$classname");
constexpr Name kClassesKey("$classes");
constexpr Name kWrappedDataKey("NS.data");
constexpr Name kArchiverName("NSKeyedArchiver");
constexpr Name kNullName("$null");
constexpr Name kDataName("NSData");
constexpr Name kMutableDataName("NSMutableData");

// The fields of the record.
enum class Field : std::uint8_t {
    Class,
    RelativePath,
    Target,
    Digest,
    EncryptionKey,
    ExtendedAttributes,
    Mode,
    UserID,
    GroupID,
    LastModified,
    LastStatusChange,
    Birth,
    Size,
    InodeNumber,
    ProtectionClass,
    Flags,
};
constexpr std::size_t kFieldCount = 16;
// The first of those that are numbers.
constexpr Field kFirstNumber = Field::Mode;

// In the order of Field.
constexpr std::array<Name, kFieldCount> kFieldNames = {
    Name("$class"),       Name("RelativePath"),     Name("Target"),
    Name("Digest"),       Name("EncryptionKey"),    Name("ExtendedAttributes"),
    Name("Mode"),         Name("UserID"),           Name("GroupID"),
    Name("LastModified"), Name("LastStatusChange"), Name("Birth"),
    Name("Size"),         Name("InodeNumber"),      Name("ProtectionClass"),
    Name("Flags"),
};

// The first eight bytes tell the fields apart. The multiplier spreads them over the
// slots without a collision, which the table's construction checks.
constexpr std::size_t kSlotCount = 64;
constexpr std::uint64_t kSlotMultiplier = 0x1027C4D1C386BBC5;
constexpr std::size_t slotOf(std::uint64_t firstWord) { return firstWord * kSlotMultiplier >> 58; }
constexpr std::array<std::uint8_t, kSlotCount> makeSlots() {
    std::array<std::uint8_t, kSlotCount> slots{};
    for (std::size_t i = 0; i < kFieldCount; ++i) {
        slots[slotOf(kFieldNames[i].words[0])] = static_cast<std::uint8_t>(i);
    }
    return slots;
}
constexpr auto kSlots = makeSlots();
constexpr bool slotsAreUnique() {
    for (std::size_t i = 0; i < kFieldCount; ++i) {
        if (kSlots[slotOf(kFieldNames[i].words[0])] != i) {
            return false;
        }
    }
    return true;
}
static_assert(slotsAreUnique(), "choose another multiplier");

// One object of the table, as far as records use it.
struct TableEntry {
    enum class Kind : std::uint8_t { Ascii, Utf16, Data, WrappedData, Class };
    Kind kind;
    bool isDataClass;          // Class: one that wraps data
    std::uint32_t classNumber; // WrappedData
    Bytes bytes;               // texts and data
};

// Whether every surrogate has its other half: only then do the text's bytes mean the
// same to every reader.
bool isWellFormed(Bytes text) {
    const auto unit = [text](std::size_t i) {
        return ZK::bplist::detail::LoadFixed<std::uint16_t>(text.data() + i);
    };
    for (std::size_t i = 0; i < text.size(); i += 2) {
        if ((unit(i) & 0xF800) != 0xD800) {
            continue;
        }
        const bool leads = (unit(i) & 0xFC00) == 0xD800 && i + 2 < text.size();
        if (!leads || (unit(i + 2) & 0xFC00) != 0xDC00) {
            return false;
        }
        i += 2;
    }
    return true;
}

// Reads one archive. Every step answers whether the archive is still of the usual
// shape; the first no ends the reading.
class Reader {
  public:
    explicit Reader(MBFileView &view) : view_(view) {}

    bool Read(Bytes archive) {
        return plist_.Open(archive) && ReadArchive() && ReadTable() && ReadRecord() &&
               SetReferenced() && SetNumbers();
    }

  private:
    bool ReadArchive();
    bool ReadTop(std::uint32_t number);
    bool ReadTable();
    bool ReadEntry(std::uint32_t number, TableEntry &entry);
    bool ReadObject(const Item &object, TableEntry &entry);
    bool ReadClass(std::uint32_t name, std::uint32_t chain, TableEntry &entry);
    bool ReadWrappedData(std::uint32_t data, std::uint32_t archivedClass, TableEntry &entry);
    bool ReadRecord();
    bool ReadField(std::uint32_t key, std::uint32_t value);
    bool ReadInode(std::uint32_t number);
    bool ReadReference(std::uint32_t number, std::uint32_t &entry);
    bool ReadName(std::uint32_t number, Item &name);
    bool SetReferenced();
    bool SetText(Field field, MBFileView::Text &text);
    bool SetData(Field field, Bytes &data);
    bool SetNumbers();
    const TableEntry *EntryOf(Field field);
    bool Has(Field field) const { return (seen_ >> static_cast<unsigned>(field) & 1) != 0; }

    SmallPlist plist_;
    Item table_;
    std::uint32_t recordNumber_ = 0;
    unsigned seen_ = 0; // a bit for each field
    // The record's values in the order of Field: numbers, or numbers of table entries.
    std::array<std::int64_t, kFieldCount> values_;
    std::array<TableEntry, kMaxTableEntries> entries_;
    MBFileView &view_;
};

bool Reader::ReadArchive() {
    constexpr std::uint32_t kPairs = 4;
    Item archive;
    if (!plist_.Dictionary(plist_.Root(), archive) || archive.count != kPairs) {
        return false;
    }
    // Each of the four is there once when all four are there.
    unsigned found = 0;
    for (std::uint32_t i = 0; i < kPairs; ++i) {
        const std::uint32_t value = archive.content[kPairs + i];
        Item key;
        Item name;
        std::int64_t version = 0;
        if (!plist_.Ascii(archive.content[i], key)) {
            return false;
        }
        if (kObjectsKey == key && plist_.Array(value, table_)) {
            found |= 1;
        } else if (kTopKey == key && ReadTop(value)) {
            found |= 2;
        } else if (kArchiverKey == key && plist_.Ascii(value, name) && kArchiverName == name) {
            found |= 4;
        } else if (kVersionKey == key && plist_.Integer(value, version) &&
                   version == kArchiveVersion) {
            found |= 8;
        }
    }
    return found == 15;
}

bool Reader::ReadTop(std::uint32_t number) {
    Item top;
    Item key;
    return plist_.Dictionary(number, top) && top.count == 1 && plist_.Ascii(top.content[0], key) &&
           kRootKey == key && ReadReference(top.content[1], recordNumber_) && recordNumber_ != 0;
}

// A UID value, or the dictionary {"CF$UID": number} that we write ourselves.
bool Reader::ReadReference(std::uint32_t number, std::uint32_t &entry) {
    if (plist_.Uid(number, entry)) {
        return true;
    }
    Item object;
    Item key;
    std::int64_t value = 0;
    if (!plist_.Dictionary(number, object) || object.count != 1 ||
        !plist_.Ascii(object.content[0], key) || !(kUIDKey == key) ||
        !plist_.Integer(object.content[1], value)) {
        return false;
    }
    entry = static_cast<std::uint32_t>(value);
    return value >= 0 && value <= std::numeric_limits<std::int32_t>::max();
}

// The name of a class, no longer than the codec takes it.
bool Reader::ReadName(std::uint32_t number, Item &name) {
    return plist_.Ascii(number, name) && name.count <= ZK::detail::kMaxClassNameLength &&
           ZK::bplist::IsAscii(name.Content());
}

// Every entry must be an object of the usual kinds even if nothing refers to it: the
// general parser would refuse the document for a bad one.
bool Reader::ReadTable() {
    Item null;
    if (table_.count > kMaxTableEntries || recordNumber_ >= table_.count ||
        !plist_.Ascii(table_.content[0], null) || !(kNullName == null)) {
        return false;
    }
    for (std::uint32_t i = 1; i < table_.count; ++i) {
        if (i != recordNumber_ && !ReadEntry(table_.content[i], entries_[i])) {
            return false;
        }
    }
    return true;
}

bool Reader::ReadEntry(std::uint32_t number, TableEntry &entry) {
    Item item;
    if (plist_.Ascii(number, item)) {
        entry = {TableEntry::Kind::Ascii, false, 0, item.Content()};
        return ZK::bplist::IsAscii(entry.bytes);
    }
    if (plist_.Data(number, item)) {
        entry = {TableEntry::Kind::Data, false, 0, item.Content()};
        return true;
    }
    if (plist_.Dictionary(number, item)) {
        return ReadObject(item, entry);
    }
    if (plist_.Utf16(number, item)) {
        entry = {TableEntry::Kind::Utf16, false, 0, item.Content(2)};
        return isWellFormed(entry.bytes);
    }
    return false;
}

// A class dictionary or a data wrapper, two pairs in either order.
bool Reader::ReadObject(const Item &object, TableEntry &entry) {
    Item first;
    Item second;
    if (object.count != 2 || !plist_.Ascii(object.content[0], first) ||
        !plist_.Ascii(object.content[1], second)) {
        return false;
    }
    const std::uint32_t firstValue = object.content[2];
    const std::uint32_t secondValue = object.content[3];
    if (kClassNameKey == first && kClassesKey == second) {
        return ReadClass(firstValue, secondValue, entry);
    }
    if (kClassesKey == first && kClassNameKey == second) {
        return ReadClass(secondValue, firstValue, entry);
    }
    if (kWrappedDataKey == first && kClassKey == second) {
        return ReadWrappedData(firstValue, secondValue, entry);
    }
    return kClassKey == first && kWrappedDataKey == second &&
           ReadWrappedData(secondValue, firstValue, entry);
}

// A name and the names of the class chain.
bool Reader::ReadClass(std::uint32_t name, std::uint32_t chain, TableEntry &entry) {
    Item className;
    Item names;
    if (!ReadName(name, className) || !plist_.Array(chain, names) || names.count > kMaxClassNames) {
        return false;
    }
    for (std::uint32_t i = 0; i < names.count; ++i) {
        Item ancestor;
        if (!ReadName(names.content[i], ancestor)) {
            return false;
        }
    }
    const bool isDataClass = kDataName == className || kMutableDataName == className;
    entry = {TableEntry::Kind::Class, isDataClass, 0, {}};
    return true;
}

// The class may come later in the table, so it is looked at when the data is used.
bool Reader::ReadWrappedData(std::uint32_t data, std::uint32_t archivedClass, TableEntry &entry) {
    Item content;
    entry = {TableEntry::Kind::WrappedData, false, 0, {}};
    if (!plist_.Data(data, content) || !ReadReference(archivedClass, entry.classNumber)) {
        return false;
    }
    entry.bytes = content.Content();
    return true;
}

bool Reader::ReadRecord() {
    Item record;
    if (!plist_.Dictionary(table_.content[recordNumber_], record)) {
        return false;
    }
    for (std::uint32_t i = 0; i < record.count; ++i) {
        if (!ReadField(record.content[i], record.content[record.count + i])) {
            return false;
        }
    }
    return Has(Field::Class);
}

bool Reader::ReadField(std::uint32_t key, std::uint32_t value) {
    Item name;
    if (!plist_.Ascii(key, name)) {
        return false;
    }
    const std::size_t field = kSlots[slotOf(SmallPlist::Word(name, 0))];
    const unsigned bit = 1u << field;
    if (!(kFieldNames[field] == name) || (seen_ & bit) != 0) {
        return false;
    }
    seen_ |= bit;
    if (field >= static_cast<std::size_t>(kFirstNumber)) {
        return plist_.Integer(value, values_[field]) ||
               (field == static_cast<std::size_t>(Field::InodeNumber) && ReadInode(value));
    }
    std::uint32_t entry = 0;
    const bool valid = ReadReference(value, entry);
    values_[field] = entry;
    return valid;
}

// One from 2^63 on, which has no sign but keeps its bits.
bool Reader::ReadInode(std::uint32_t number) {
    std::uint64_t inode = 0;
    const bool valid = plist_.WideInteger(number, inode);
    values_[static_cast<std::size_t>(Field::InodeNumber)] = static_cast<std::int64_t>(inode);
    return valid;
}

// The entry of the table that a field refers to; null when it refers to none that is
// of use. The record itself is none.
const TableEntry *Reader::EntryOf(Field field) {
    const auto number = static_cast<std::uint64_t>(values_[static_cast<std::size_t>(field)]);
    const bool valid = number > 0 && number < table_.count && number != recordNumber_;
    return valid ? &entries_[number] : nullptr;
}

bool Reader::SetReferenced() {
    const TableEntry *const recordClass = EntryOf(Field::Class);
    if (recordClass == nullptr || recordClass->kind != TableEntry::Kind::Class) {
        return false;
    }
    if (Has(Field::ExtendedAttributes)) {
        // Devices refer to plain data here. Anything else takes the general way.
        const TableEntry *const attributes = EntryOf(Field::ExtendedAttributes);
        if (attributes == nullptr || attributes->kind != TableEntry::Kind::Data) {
            return false;
        }
        view_.ExtendedAttributesData = attributes->bytes;
    }
    return SetText(Field::RelativePath, view_.RelativePath) &&
           SetText(Field::Target, view_.Target) && SetData(Field::Digest, view_.Digest) &&
           SetData(Field::EncryptionKey, view_.EncryptionKey);
}

bool Reader::SetText(Field field, MBFileView::Text &text) {
    if (!Has(field)) {
        return true;
    }
    const TableEntry *const entry = EntryOf(field);
    if (entry == nullptr ||
        (entry->kind != TableEntry::Kind::Ascii && entry->kind != TableEntry::Kind::Utf16)) {
        return false;
    }
    text = {entry->bytes, entry->kind == TableEntry::Kind::Utf16};
    return true;
}

bool Reader::SetData(Field field, Bytes &data) {
    if (!Has(field)) {
        return true;
    }
    const TableEntry *const entry = EntryOf(field);
    if (entry == nullptr) {
        return false;
    }
    data = entry->bytes;
    if (entry->kind == TableEntry::Kind::Data) {
        return true;
    }
    const std::uint32_t number = entry->classNumber;
    return entry->kind == TableEntry::Kind::WrappedData && number > 0 && number < table_.count &&
           number != recordNumber_ && entries_[number].kind == TableEntry::Kind::Class &&
           entries_[number].isDataClass;
}

// The bits of a field of 32, into which the general codec puts the nearest number that they
// hold with or without a sign.
std::uint32_t bitsOf(std::int64_t number) {
    constexpr std::int64_t kLowest = std::numeric_limits<std::int32_t>::min();
    constexpr std::int64_t kHighest = std::numeric_limits<std::uint32_t>::max();
    return static_cast<std::uint32_t>(std::clamp(number, kLowest, kHighest));
}

bool Reader::SetNumbers() {
    const auto number = [this](Field field) {
        return Has(field) ? values_[static_cast<std::size_t>(field)] : 0;
    };
    view_.Mode = static_cast<std::int32_t>(bitsOf(number(Field::Mode)));
    view_.UserID = bitsOf(number(Field::UserID));
    view_.GroupID = bitsOf(number(Field::GroupID));
    view_.LastModified = number(Field::LastModified);
    view_.LastStatusChange = number(Field::LastStatusChange);
    view_.Birth = number(Field::Birth);
    view_.Size = number(Field::Size);
    view_.InodeNumber = static_cast<std::uint64_t>(number(Field::InodeNumber));
    view_.ProtectionClass = static_cast<std::int32_t>(bitsOf(number(Field::ProtectionClass)));
    view_.Flags = static_cast<std::int32_t>(bitsOf(number(Field::Flags)));
    return true;
}

} // namespace

bool DecodeMBFile(std::span<const std::uint8_t> archive, MBFileView &view) noexcept {
    view = MBFileView();
    return Reader(view).Read(archive);
}

} // namespace Kelvane
