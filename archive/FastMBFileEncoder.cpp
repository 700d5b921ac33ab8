#include "archive/FastMBFileEncoder.hpp"

#include <algorithm>
#include <array>
#include <bit>
#include <cstddef>
#include <cstring>
#include <span>
#include <string_view>

namespace Kelvane {

namespace {

constexpr std::int32_t kArchiveVersion = 100000;
// Objects of a document: 28 names, 16 numbers, 4 values and 13 containers at most, so that
// a reference is one byte.
constexpr std::size_t kMaxObjects = 64;
// More than all of a document but its values takes: the names have 214 characters, a number
// 17 bytes at most, a place in the offset table 8.
constexpr std::size_t kFrameSize = 2048;
// A value's marker and count.
constexpr std::size_t kMaxPrefix = 10;
// The longest name, LastStatusChange.
constexpr std::size_t kMaxNameLength = 16;

constexpr unsigned kIntegerMarker = 0x10;
constexpr unsigned kWideIntegerMarker = 0x14;
constexpr unsigned kDataMarker = 0x40;
constexpr unsigned kAsciiMarker = 0x50;
constexpr unsigned kUtf16Marker = 0x60;
constexpr unsigned kArrayMarker = 0xA0;
constexpr unsigned kDictionaryMarker = 0xD0;
constexpr unsigned kCountFollows = 0xF;

using Number = std::uint8_t; // of an object in the document
constexpr Number kNone = 0xFF;

std::size_t WidthOf(std::uint64_t value) {
    if (value <= UINT16_MAX) {
        return value <= UINT8_MAX ? 1 : 2;
    }
    return value <= UINT32_MAX ? 4 : 8;
}

std::size_t LengthOf(CFStringRef text) {
    return text == nullptr ? 0 : static_cast<std::size_t>(CFStringGetLength(text));
}
std::size_t LengthOf(CFDataRef data) {
    return data == nullptr ? 0 : static_cast<std::size_t>(CFDataGetLength(data));
}

// Both are there and equal: the table holds one object for them.
bool AreOne(CFTypeRef a, CFTypeRef b) { return a != nullptr && b != nullptr && CFEqual(a, b) != 0; }

// The numbers that the archive's table gives to its objects: 1 is the record, 0 for an
// absent value.
struct TableNumbers {
    std::uint32_t RelativePath = 0;
    std::uint32_t Target = 0;
    std::uint32_t Digest = 0;
    std::uint32_t EncryptionKey = 0;
    std::uint32_t Class = 0;

    explicit TableNumbers(const MBFileFields &record) {
        std::uint32_t next = 2;
        const auto take = [&next](bool present) { return present ? next++ : 0; };
        RelativePath = take(record.RelativePath != nullptr);
        Target = AreOne(record.RelativePath, record.Target) ? RelativePath
                                                            : take(record.Target != nullptr);
        Digest = take(record.Digest != nullptr);
        EncryptionKey = AreOne(record.Digest, record.EncryptionKey)
                            ? Digest
                            : take(record.EncryptionKey != nullptr);
        Class = next;
    }
    // Of the table, "$null" included.
    std::size_t Count() const { return Class + 1; }
};

// Writes one document from its beginning to its end. Objects are numbered as they come, and
// a container comes before its members: it gets room for their references first.
class Document {
  public:
    Document(const MBFileFields &record, std::vector<std::uint8_t> &bytes)
        : record_(record), table_(record), bytes_(bytes) {
        bytes_.resize(kFrameSize + 4 * kMaxPrefix + 2 * LengthOf(record.RelativePath) +
                      2 * LengthOf(record.Target) + LengthOf(record.Digest) +
                      LengthOf(record.EncryptionKey));
        at_ = bytes_.data();
    }

    void Write();

  private:
    void WriteTable(std::uint8_t *reference);
    void WriteRecord(std::uint8_t *reference);
    void WriteRecordKeys(std::uint8_t *key);
    void WriteRecordValues(std::uint8_t *value);
    void WriteClass(std::uint8_t *reference);
    void WriteTop(std::uint8_t *reference);
    void WriteOffsets();

    Number NewObject();
    // Begins a container and gives the place of its references.
    std::uint8_t *Container(std::uint8_t *reference, unsigned marker, std::size_t references);
    Number Name(std::string_view name);
    Number Integer(std::int64_t value);
    Number Unsigned(std::uint64_t value);
    void Reference(std::uint8_t *reference, std::uint32_t tableNumber);
    Number Text(CFStringRef text);
    Number Data(CFDataRef data);
    Number Find(const std::uint8_t *start, std::span<const Number> known) const;
    Number Intern(std::uint8_t *start, Number found);

    void Append(std::uint64_t value, std::size_t width);
    void AppendMarker(unsigned marker, std::size_t count);
    void AppendText(CFStringRef text);
    void AppendUnits(CFStringRef text);
    std::size_t Offset() const { return static_cast<std::size_t>(at_ - bytes_.data()); }

    struct KnownInteger {
        std::int64_t value;
        Number number;
    };

    const MBFileFields &record_;
    const TableNumbers table_;
    std::vector<std::uint8_t> &bytes_;
    std::uint8_t *at_ = nullptr;
    // Of each object, and behind the last one.
    std::array<std::size_t, kMaxObjects + 1> offsets_;
    std::size_t count_ = 0;

    // Equal leaves are one object.
    std::array<KnownInteger, kMaxObjects> integers_;
    std::size_t integerCount_ = 0;
    std::array<Number, kMaxObjects> names_; // those written before the values
    std::size_t nameCount_ = 0;
    std::array<Number, 2> texts_ = {kNone, kNone};
    std::size_t textCount_ = 0;
    Number uidName_ = kNone;
};

void Document::Append(std::uint64_t value, std::size_t width) {
    for (std::size_t i = width; i-- > 0;) {
        *at_++ = static_cast<std::uint8_t>(value >> (8 * i));
    }
}

void Document::AppendMarker(unsigned marker, std::size_t count) {
    if (count < kCountFollows) {
        Append(marker | count, 1);
        return;
    }
    const std::size_t width = WidthOf(count);
    Append(marker | kCountFollows, 1);
    Append(kIntegerMarker | static_cast<unsigned>(std::countr_zero(width)), 1);
    Append(count, width);
}

// The bytes since the last object are one.
Number Document::NewObject() {
    offsets_[count_ + 1] = Offset();
    return static_cast<Number>(count_++);
}

std::uint8_t *Document::Container(std::uint8_t *reference, unsigned marker,
                                  std::size_t references) {
    const std::size_t members = marker == kDictionaryMarker ? references / 2 : references;
    Append(marker | members, 1); // fewer than 15
    std::uint8_t *const place = at_;
    at_ += references;
    *reference = NewObject();
    return place;
}

// The known object that equals the bytes from start on; kNone when there is none.
Number Document::Find(const std::uint8_t *start, std::span<const Number> known) const {
    const auto size = static_cast<std::size_t>(at_ - start);
    for (const Number number : known) {
        const std::size_t offset = offsets_[number];
        if (offsets_[number + std::size_t{1}] - offset == size &&
            std::memcmp(bytes_.data() + offset, start, size) == 0) {
            return number;
        }
    }
    return kNone;
}

// The object found, of which then nothing is written anew, or else a new one.
Number Document::Intern(std::uint8_t *start, Number found) {
    if (found == kNone) {
        return NewObject();
    }
    at_ = start;
    return found;
}

// The names of a document differ, but a value may be the same text.
Number Document::Name(std::string_view name) {
    std::uint8_t *const start = at_;
    AppendMarker(kAsciiMarker, name.size());
    std::memcpy(at_, name.data(), name.size());
    at_ += name.size();
    const Number number = Intern(start, Find(start, std::span(texts_).first(textCount_)));
    names_[nameCount_++] = number;
    return number;
}

Number Document::Text(CFStringRef text) {
    std::uint8_t *const start = at_;
    AppendText(text);
    Number found = kNone;
    if (LengthOf(text) <= kMaxNameLength) {
        found = Find(start, std::span(names_).first(nameCount_));
    }
    const Number number = Intern(start, found);
    texts_[textCount_++] = number;
    return number;
}

void Document::AppendText(CFStringRef text) {
    const std::size_t length = LengthOf(text);
    const CFRange all = CFRangeMake(0, static_cast<CFIndex>(length));
    std::uint8_t *const start = at_;
    AppendMarker(kAsciiMarker, length);
    CFIndex used = 0;
    if (CFStringGetBytes(text, all, kCFStringEncodingASCII, 0, false, at_, all.length, &used) ==
        all.length) {
        at_ += length;
        return;
    }
    at_ = start;
    AppendMarker(kUtf16Marker, length);
    AppendUnits(text);
}

// As they are: a text may have halves of surrogate pairs, which conversions refuse.
void Document::AppendUnits(CFStringRef text) {
    constexpr CFIndex kChunk = 256;
    std::array<UniChar, kChunk> units;
    const CFIndex length = CFStringGetLength(text);
    for (CFIndex done = 0; done < length; done += kChunk) {
        const CFIndex count = std::min(kChunk, length - done);
        CFStringGetCharacters(text, CFRangeMake(done, count), units.data());
        for (const UniChar unit : std::span(units).first(static_cast<std::size_t>(count))) {
            Append(unit, sizeof unit);
        }
    }
}

Number Document::Data(CFDataRef data) {
    const std::size_t length = LengthOf(data);
    AppendMarker(kDataMarker, length);
    if (length > 0) {
        std::memcpy(at_, CFDataGetBytePtr(data), length);
        at_ += length;
    }
    return NewObject();
}

// Of 1, 2 and 4 bytes without a sign, of 8 with one: negative numbers take 8.
Number Document::Integer(std::int64_t value) {
    for (const KnownInteger &known : std::span(integers_).first(integerCount_)) {
        if (known.value == value) {
            return known.number;
        }
    }
    const auto bits = static_cast<std::uint64_t>(value);
    const std::size_t width = WidthOf(bits);
    Append(kIntegerMarker | static_cast<unsigned>(std::countr_zero(width)), 1);
    Append(bits, width);
    const Number number = NewObject();
    integers_[integerCount_++] = {value, number};
    return number;
}

// Integers of 8 bytes are signed, so those from 2^63 on take 16. No other number of a
// document reaches them.
Number Document::Unsigned(std::uint64_t value) {
    if (value <= INT64_MAX) {
        return Integer(static_cast<std::int64_t>(value));
    }
    Append(kWideIntegerMarker, 1);
    Append(0, 8);
    Append(value, 8);
    return NewObject();
}

// {"CF$UID": number}.
void Document::Reference(std::uint8_t *reference, std::uint32_t tableNumber) {
    std::uint8_t *const pair = Container(reference, kDictionaryMarker, 2);
    if (uidName_ == kNone) {
        uidName_ = Name("CF$UID");
    }
    pair[0] = uidName_;
    pair[1] = Integer(tableNumber);
}

void Document::Write() {
    constexpr std::string_view kHeader = "bplist00";
    std::memcpy(at_, kHeader.data(), kHeader.size());
    at_ += kHeader.size();
    offsets_[0] = kHeader.size();
    Number root = 0;
    std::uint8_t *const archive = Container(&root, kDictionaryMarker, 8);
    archive[0] = Name("$archiver");
    archive[1] = Name("$objects");
    archive[2] = Name("$top");
    archive[3] = Name("$version");
    archive[4] = Name("NSKeyedArchiver");
    WriteTable(archive + 5);
    WriteTop(archive + 6);
    archive[7] = Integer(kArchiveVersion);
    WriteOffsets();
}

void Document::WriteTable(std::uint8_t *reference) {
    std::uint8_t *member = Container(reference, kArrayMarker, table_.Count());
    *member++ = Name("$null");
    WriteRecord(member++);
    if (table_.RelativePath != 0) {
        *member++ = Text(record_.RelativePath);
    }
    if (table_.Target > table_.RelativePath) {
        *member++ = Text(record_.Target);
    }
    if (table_.Digest != 0) {
        *member++ = Data(record_.Digest);
    }
    if (table_.EncryptionKey > table_.Digest) {
        *member++ = Data(record_.EncryptionKey);
    }
    WriteClass(member);
}

// Keys first, then values, both in the order of the keys.
void Document::WriteRecord(std::uint8_t *reference) {
    constexpr std::size_t kAlwaysThere = 10; // the class and the numbers
    const auto pairs =
        kAlwaysThere + static_cast<std::size_t>((table_.RelativePath != 0) + (table_.Target != 0) +
                                                (table_.Digest != 0) + (table_.EncryptionKey != 0));
    std::uint8_t *const keys = Container(reference, kDictionaryMarker, 2 * pairs);
    WriteRecordKeys(keys);
    WriteRecordValues(keys + pairs);
}

void Document::WriteRecordKeys(std::uint8_t *key) {
    const auto nameIf = [&](bool present, std::string_view name) {
        if (present) {
            *key++ = Name(name);
        }
    };
    nameIf(true, "$class");
    nameIf(true, "Birth");
    nameIf(table_.Digest != 0, "Digest");
    nameIf(table_.EncryptionKey != 0, "EncryptionKey");
    for (const std::string_view name : {"GroupID", "InodeNumber", "LastModified",
                                        "LastStatusChange", "Mode", "ProtectionClass"}) {
        *key++ = Name(name);
    }
    nameIf(table_.RelativePath != 0, "RelativePath");
    nameIf(true, "Size");
    nameIf(table_.Target != 0, "Target");
    nameIf(true, "UserID");
}

void Document::WriteRecordValues(std::uint8_t *value) {
    const auto referTo = [&](std::uint32_t tableNumber) {
        if (tableNumber != 0) {
            Reference(value++, tableNumber);
        }
    };
    referTo(table_.Class);
    *value++ = Integer(record_.Birth);
    referTo(table_.Digest);
    referTo(table_.EncryptionKey);
    *value++ = Integer(record_.GroupID);
    *value++ = Unsigned(record_.InodeNumber);
    *value++ = Integer(record_.LastModified);
    *value++ = Integer(record_.LastStatusChange);
    *value++ = Integer(record_.Mode);
    *value++ = Integer(record_.ProtectionClass);
    referTo(table_.RelativePath);
    *value++ = Integer(record_.Size);
    referTo(table_.Target);
    *value = Integer(record_.UserID);
}

// {"$classes": ["MBFile", "NSObject"], "$classname": "MBFile"}.
void Document::WriteClass(std::uint8_t *reference) {
    std::uint8_t *const pairs = Container(reference, kDictionaryMarker, 4);
    pairs[0] = Name("$classes");
    pairs[1] = Name("$classname");
    std::uint8_t *const chain = Container(pairs + 2, kArrayMarker, 2);
    chain[0] = Name("MBFile");
    chain[1] = Name("NSObject");
    pairs[3] = chain[0];
}

// {"root": the record}.
void Document::WriteTop(std::uint8_t *reference) {
    constexpr std::uint32_t kRecord = 1;
    std::uint8_t *const pair = Container(reference, kDictionaryMarker, 2);
    pair[0] = Name("root");
    Reference(pair + 1, kRecord);
}

// The offset table and the trailer.
void Document::WriteOffsets() {
    const std::size_t tableOffset = Offset();
    const std::size_t width = WidthOf(tableOffset);
    for (std::size_t i = 0; i < count_; ++i) {
        Append(offsets_[i], width);
    }
    Append(0, 6); // unused, and the sort version
    Append(width, 1);
    Append(1, 1); // width of references
    Append(count_, 8);
    Append(0, 8); // the root's number
    Append(tableOffset, 8);
    bytes_.resize(Offset());
}

} // namespace

void EncodeMBFile(const MBFileFields &record, std::vector<std::uint8_t> &archive) {
    Document(record, archive).Write();
}

} // namespace Kelvane
