#include "archive/FastMBFile.hpp"

#include "support/zk/BinaryPlist.hpp"

#include <cstddef>
#include <limits>
#include <string_view>

namespace Kelvane {

namespace {

using ZK::bplist::Bytes;
using ZK::bplist::Document;
using ZK::bplist::Object;
using ZK::bplist::Type;

// Devices put eight objects at most into a record's table (the null object, the
// record, path, target, digest, key and its class, attributes, the record's class).
// With a bound, any document is handled in a bounded time, and none that the general
// parser would find too large is accepted here.
constexpr std::uint64_t kMaxTableObjects = 16;
// The longest class chain that devices write has three names.
constexpr std::uint64_t kMaxClassNames = 4;
constexpr std::int64_t kArchiveVersion = 100000;

// The fields of the record; each may occur once.
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
    Unknown
};
// The first of those that are numbers.
constexpr Field kFirstNumber = Field::Mode;

Field ifIs(std::string_view key, std::string_view name, Field field) {
    return key == name ? field : Field::Unknown;
}

// The length nearly tells the fields apart.
Field fieldOfSix(std::string_view key) {
    switch (key[0]) {
    case 'U':
        return ifIs(key, "UserID", Field::UserID);
    case 'D':
        return ifIs(key, "Digest", Field::Digest);
    case 'T':
        return ifIs(key, "Target", Field::Target);
    default:
        return ifIs(key, "$class", Field::Class);
    }
}

Field fieldOf(std::string_view key) {
    switch (key.size()) {
    case 4:
        return key[0] == 'M' ? ifIs(key, "Mode", Field::Mode) : ifIs(key, "Size", Field::Size);
    case 5:
        return key[0] == 'B' ? ifIs(key, "Birth", Field::Birth) : ifIs(key, "Flags", Field::Flags);
    case 6:
        return fieldOfSix(key);
    case 7:
        return ifIs(key, "GroupID", Field::GroupID);
    case 11:
        return ifIs(key, "InodeNumber", Field::InodeNumber);
    case 12:
        return key[0] == 'R' ? ifIs(key, "RelativePath", Field::RelativePath)
                             : ifIs(key, "LastModified", Field::LastModified);
    case 13:
        return ifIs(key, "EncryptionKey", Field::EncryptionKey);
    case 15:
        return ifIs(key, "ProtectionClass", Field::ProtectionClass);
    case 16:
        return ifIs(key, "LastStatusChange", Field::LastStatusChange);
    case 18:
        return ifIs(key, "ExtendedAttributes", Field::ExtendedAttributes);
    default:
        return Field::Unknown;
    }
}

// Whether every surrogate has its other half: the codec's texts are then what the
// view's are.
bool isWellFormed(const Object &string) {
    for (std::size_t i = 0; i < string.count; ++i) {
        const char16_t unit = string.Unit(i);
        if (unit < 0xD800 || unit > 0xDFFF) {
            continue;
        }
        const bool leads = unit < 0xDC00 && i + 1 < string.count;
        if (!leads || (string.Unit(i + 1) & 0xFC00) != 0xDC00) {
            return false;
        }
        ++i;
    }
    return true;
}

// A signed integer of at most 64 bits.
bool integerOf(const Object &object, std::int64_t &value) {
    if (object.type != Type::Integer || object.payload.size() > 8) {
        return false;
    }
    value = static_cast<std::int64_t>(object.Integer().low);
    return true;
}

bool isText(const Object &object, std::string_view text) {
    return object.type == Type::AsciiString && object.Text() == text;
}

// Reads one archive. Every operation answers whether the archive is still of the
// usual shape; the first no ends the reading.
class Reader {
  public:
    explicit Reader(MBFileView &view) : view_(view) {}

    bool Read(Bytes bytes) {
        Object root;
        return document_.Open(bytes) && document_.ObjectAt(document_.RootIndex(), root) &&
               ReadArchive(root) && ReadTable() && ReadRecord();
    }

  private:
    bool ReadArchive(const Object &root);
    bool ReadTop(const Object &top);
    bool ReadTable();
    bool ReadTableEntry(const Object &entry);
    bool ReadRecord();
    bool ReadField(Field field, const Object &value);
    bool ReadReference(const Object &value, std::uint64_t &number);
    bool Referenced(Field field, std::uint64_t number);
    void SetNumber(Field field, std::int64_t value);
    bool SetText(MBFileView::Text &text, const Object &string);
    bool SetData(std::span<const std::uint8_t> &data, const Object &object);
    bool IsClass(const Object &object, std::string_view &name);
    bool IsClassChain(const Object &chain);
    bool IsDataWrapper(const Object &object, Bytes &data);
    bool Entry(std::uint64_t number, Object &object);

    Document document_;
    Object table_;
    Object record_;
    std::uint64_t rootNumber_ = 0;
    MBFileView &view_;
};

bool Reader::Entry(std::uint64_t number, Object &object) {
    return number < table_.count && bool(document_.MemberObject(table_, number, object));
}

bool Reader::ReadArchive(const Object &root) {
    constexpr std::uint64_t kKeys = 4;
    if (root.type != Type::Dictionary || root.count != kKeys) {
        return false;
    }
    // Each of the four is there once when all four are there.
    unsigned seen = 0;
    for (std::uint64_t i = 0; i < kKeys; ++i) {
        Object key;
        Object value;
        if (!document_.MemberObject(root, i, key) ||
            !document_.MemberObject(root, kKeys + i, value)) {
            return false;
        }
        std::int64_t version = 0;
        if (isText(key, "$objects") && value.type == Type::Array) {
            table_ = value;
            seen |= 1;
        } else if (isText(key, "$top") && ReadTop(value)) {
            seen |= 2;
        } else if (isText(key, "$archiver") && isText(value, "NSKeyedArchiver")) {
            seen |= 4;
        } else if (isText(key, "$version") && integerOf(value, version) &&
                   version == kArchiveVersion) {
            seen |= 8;
        }
    }
    return seen == 15 && table_.count <= kMaxTableObjects;
}

bool Reader::ReadTop(const Object &top) {
    Object key;
    Object root;
    return top.type == Type::Dictionary && top.count == 1 && document_.MemberObject(top, 0, key) &&
           isText(key, "root") && document_.MemberObject(top, 1, root) &&
           ReadReference(root, rootNumber_) && rootNumber_ != 0;
}

// A UID value, or the dictionary {"CF$UID": number} that we write ourselves.
bool Reader::ReadReference(const Object &value, std::uint64_t &number) {
    if (value.type == Type::Uid) {
        std::uint32_t uid = 0;
        const bool valid(value.Uid(uid));
        number = uid;
        return valid;
    }
    Object key;
    Object object;
    std::int64_t integer = 0;
    if (value.type != Type::Dictionary || value.count != 1 ||
        !document_.MemberObject(value, 0, key) || !isText(key, "CF$UID") ||
        !document_.MemberObject(value, 1, object) || !integerOf(object, integer) || integer < 0 ||
        integer > std::numeric_limits<std::int32_t>::max()) {
        return false;
    }
    number = static_cast<std::uint64_t>(integer);
    return true;
}

// Every entry must be an object of the usual kinds even if nothing refers to it: the
// general parser would reject the document for a bad one.
bool Reader::ReadTable() {
    Object entry;
    if (!Entry(0, entry) || !isText(entry, "$null") || !Entry(rootNumber_, record_) ||
        record_.type != Type::Dictionary) {
        return false;
    }
    for (std::uint64_t number = 1; number < table_.count; ++number) {
        if (number != rootNumber_ && !(Entry(number, entry) && ReadTableEntry(entry))) {
            return false;
        }
    }
    return true;
}

bool Reader::ReadTableEntry(const Object &entry) {
    MBFileView::Text text;
    Bytes data;
    std::string_view name;
    switch (entry.type) {
    case Type::AsciiString:
    case Type::Utf16String:
        return SetText(text, entry);
    case Type::Data:
        return true;
    case Type::Dictionary:
        return IsClass(entry, name) || IsDataWrapper(entry, data);
    default:
        return false;
    }
}

// {"$classname": name, "$classes": [names]}.
bool Reader::IsClass(const Object &object, std::string_view &name) {
    if (object.type != Type::Dictionary || object.count != 2) {
        return false;
    }
    bool hasName = false;
    bool hasChain = false;
    for (std::uint64_t i = 0; i < 2; ++i) {
        Object key;
        Object value;
        if (!document_.MemberObject(object, i, key) ||
            !document_.MemberObject(object, 2 + i, value)) {
            return false;
        }
        if (isText(key, "$classname") && value.type == Type::AsciiString &&
            IsAscii(value.payload)) {
            name = value.Text();
            hasName = true;
        } else if (isText(key, "$classes")) {
            hasChain = IsClassChain(value);
        }
    }
    return hasName && hasChain;
}

bool Reader::IsClassChain(const Object &chain) {
    if (chain.type != Type::Array || chain.count > kMaxClassNames) {
        return false;
    }
    for (std::uint64_t i = 0; i < chain.count; ++i) {
        Object name;
        if (!document_.MemberObject(chain, i, name) || name.type != Type::AsciiString ||
            !IsAscii(name.payload)) {
            return false;
        }
    }
    return true;
}

// {"NS.data": data, "$class": NSData or NSMutableData}.
bool Reader::IsDataWrapper(const Object &object, Bytes &data) {
    if (object.type != Type::Dictionary || object.count != 2) {
        return false;
    }
    bool hasData = false;
    bool hasClass = false;
    for (std::uint64_t i = 0; i < 2; ++i) {
        Object key;
        Object value;
        if (!document_.MemberObject(object, i, key) ||
            !document_.MemberObject(object, 2 + i, value)) {
            return false;
        }
        std::uint64_t number = 0;
        Object archivedClass;
        std::string_view name;
        if (isText(key, "NS.data") && value.type == Type::Data) {
            data = value.payload;
            hasData = true;
        } else if (isText(key, "$class") && ReadReference(value, number) &&
                   Entry(number, archivedClass) && IsClass(archivedClass, name)) {
            hasClass = name == "NSMutableData" || name == "NSData";
        }
    }
    return hasData && hasClass;
}

bool Reader::ReadRecord() {
    unsigned seen = 0;
    for (std::uint64_t i = 0; i < record_.count; ++i) {
        Object key;
        Object value;
        if (!document_.MemberObject(record_, i, key) || key.type != Type::AsciiString ||
            !document_.MemberObject(record_, record_.count + i, value)) {
            return false;
        }
        const Field field = fieldOf(key.Text());
        const unsigned bit = 1u << static_cast<unsigned>(field);
        if (field == Field::Unknown || (seen & bit) != 0 || !ReadField(field, value)) {
            return false;
        }
        seen |= bit;
    }
    return true;
}

bool Reader::ReadField(Field field, const Object &value) {
    if (field >= kFirstNumber) {
        std::int64_t number = 0;
        if (!integerOf(value, number)) {
            return false;
        }
        SetNumber(field, number);
        return true;
    }
    std::uint64_t number = 0;
    return ReadReference(value, number) && Referenced(field, number);
}

// The null object leaves a field absent; a record without a class is not usual.
bool Reader::Referenced(Field field, std::uint64_t number) {
    if (number == 0) {
        return field != Field::Class;
    }
    Object object;
    std::string_view name;
    if (!Entry(number, object)) {
        return false;
    }
    switch (field) {
    case Field::RelativePath:
        return SetText(view_.RelativePath, object);
    case Field::Target:
        return SetText(view_.Target, object);
    case Field::Digest:
        return SetData(view_.Digest, object);
    case Field::EncryptionKey:
        return SetData(view_.EncryptionKey, object);
    case Field::ExtendedAttributes:
        // Devices refer to plain data here, which is no dictionary: no attributes.
        return object.type == Type::Data;
    default:
        return IsClass(object, name);
    }
}

// Numbers are cut to the field's size, as the codec cuts them.
void Reader::SetNumber(Field field, std::int64_t value) {
    switch (field) {
    case Field::Mode:
        view_.Mode = static_cast<std::int32_t>(value);
        break;
    case Field::UserID:
        view_.UserID = static_cast<std::uint32_t>(value);
        break;
    case Field::GroupID:
        view_.GroupID = static_cast<std::uint32_t>(value);
        break;
    case Field::LastModified:
        view_.LastModified = value;
        break;
    case Field::LastStatusChange:
        view_.LastStatusChange = value;
        break;
    case Field::Birth:
        view_.Birth = value;
        break;
    case Field::Size:
        view_.Size = value;
        break;
    case Field::InodeNumber:
        view_.InodeNumber = static_cast<std::uint64_t>(value);
        break;
    case Field::ProtectionClass:
        view_.ProtectionClass = static_cast<std::int32_t>(value);
        break;
    default:
        break; // Flags are not kept.
    }
}

bool Reader::SetText(MBFileView::Text &text, const Object &string) {
    const bool utf16 = string.type == Type::Utf16String;
    if (utf16 ? !isWellFormed(string)
              : string.type != Type::AsciiString || !IsAscii(string.payload)) {
        return false;
    }
    text = {string.payload, utf16};
    return true;
}

bool Reader::SetData(std::span<const std::uint8_t> &data, const Object &object) {
    if (object.type == Type::Data) {
        data = object.payload;
        return true;
    }
    return IsDataWrapper(object, data);
}

} // namespace

bool DecodeMBFile(std::span<const std::uint8_t> archive, MBFileView &view) noexcept {
    view = MBFileView();
    return Reader(view).Read(archive);
}

} // namespace Kelvane
