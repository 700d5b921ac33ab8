// A view of a binary property list ("bplist00") held in memory: finds and decodes
// its objects without making any, without allocating and without trusting a byte.
//
// The format. An 8-byte header ("bplist", two version digits), the objects, a table
// with the offset of each object, and a 32-byte trailer that says where the table
// is, how wide its entries and the object references are, how many objects there
// are and which is the root. All numbers are big-endian. An object begins with a
// marker: the type in the high four bits and a small count or a width in the low
// four; 15 there says that the count follows as an integer object. Containers hold
// references, which are object numbers.
//
// Everything that reads untrusted bytes goes through detail::Region::Take, the one
// bounds check. Objects never reach into the offset table or the trailer.
//
// What is left to the caller: reference loops, nesting depth and what an object is
// allowed to be (a key must be a string). A container can name itself.
//
// Failures are a Status: a reason and the offset of the byte that it is about. No
// function throws. Views and objects are plain values that borrow the bytes; any
// number of threads may use them at the same time.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <span>
#include <string_view>

namespace ZK::bplist {

using Bytes = std::span<const std::uint8_t>;

inline constexpr std::size_t kHeaderSize = 8;
inline constexpr std::size_t kTrailerSize = 32;
// Header, one object of one byte, one offset of one byte, trailer.
inline constexpr std::size_t kMinDocumentSize = kHeaderSize + 1 + 1 + kTrailerSize;

enum class Fault : std::uint8_t {
    None,
    TooShort,
    NotBinary,
    UnknownVersion,
    BadOffsetWidth,
    BadReferenceWidth,
    NoObjects,
    RootOutOfRange,
    OffsetTableOutOfRange,
    OffsetTableTooLong,
    ReferenceOutOfRange,
    OffsetOutOfRange,
    UnknownMarker,
    BadCount,
    ObjectTooLong,
    UidTooLarge,
    PositionOutOfRange,
};

// One sentence without a full stop, fit to be followed by the offset.
[[nodiscard]] constexpr const char *Reason(Fault fault) noexcept {
    // In the order of Fault.
    constexpr const char *kReasons[] = {
        "no fault",
        "the document is too short to be a binary property list",
        "the document does not begin with \"bplist\"",
        "the version of the binary property list is not supported",
        "the width of table offsets is not 1 to 8 bytes",
        "the width of object references is not 1 to 8 bytes",
        "the document holds no objects",
        "the root object's number is not below the number of objects",
        "the offset table does not lie between the objects and the trailer",
        "the offset table does not fit before the trailer",
        "an object reference is not below the number of objects",
        "an object's offset does not lie between the header and the offset table",
        "an object has an unknown marker",
        "an object's count is not a valid integer",
        "an object reaches past the end of the objects",
        "a UID does not fit in 32 bits",
        "a member was asked for that the container does not have",
    };
    return kReasons[static_cast<std::size_t>(fault)];
}

struct [[nodiscard]] Status {
    Fault fault = Fault::None;
    // Of the byte that the fault is about, from the start of the document.
    std::uint64_t offset = 0;

    constexpr explicit operator bool() const noexcept { return fault == Fault::None; }
};

// Whether the document claims to be binary, of whichever version.
[[nodiscard]] inline bool LooksBinary(Bytes document) noexcept {
    constexpr std::string_view kMagic = "bplist";
    return document.size() >= kMagic.size() &&
           std::memcmp(document.data(), kMagic.data(), kMagic.size()) == 0;
}

enum class Type : std::uint8_t {
    Null,
    False,
    True,
    Fill,
    Integer,
    Real,
    Date,
    Data,
    AsciiString,
    Utf16String,
    Uid,
    Array,
    Set,
    Dictionary,
};

// A signed integer of 128 bits, two's complement: high * 2^64 + low.
struct Int128 {
    std::int64_t high = 0;
    std::uint64_t low = 0;

    friend constexpr bool operator==(const Int128 &, const Int128 &) = default;

    [[nodiscard]] constexpr bool FitsInt64() const noexcept {
        return high == (static_cast<std::int64_t>(low) < 0 ? -1 : 0);
    }
    [[nodiscard]] constexpr bool FitsUInt64() const noexcept { return high == 0; }
};

namespace detail {

template <class Unsigned>
[[nodiscard]] inline Unsigned LoadFixed(const std::uint8_t *bytes) noexcept {
    Unsigned value;
    std::memcpy(&value, bytes, sizeof value);
    if constexpr (std::endian::native == std::endian::little && sizeof value == 8) {
        value = __builtin_bswap64(value);
    } else if constexpr (std::endian::native == std::endian::little && sizeof value == 4) {
        value = __builtin_bswap32(value);
    } else if constexpr (std::endian::native == std::endian::little && sizeof value == 2) {
        value = __builtin_bswap16(value);
    }
    return value;
}

// A big-endian unsigned integer of 0 to 8 bytes that are known to be there.
[[nodiscard]] inline std::uint64_t Load(const std::uint8_t *bytes, std::size_t width) noexcept {
    // The widths in use, the most frequent first.
    if (width == 1) {
        return *bytes;
    }
    if (width == 2) {
        return LoadFixed<std::uint16_t>(bytes);
    }
    if (width == 4) {
        return LoadFixed<std::uint32_t>(bytes);
    }
    if (width == 8) {
        return LoadFixed<std::uint64_t>(bytes);
    }
    std::uint64_t value = 0;
    for (std::size_t i = 0; i < width; ++i) {
        value = value << 8 | bytes[i];
    }
    return value;
}

// Bytes from which pieces are taken by offset, never past the end.
class Region {
  public:
    Region() = default;
    explicit Region(Bytes bytes) noexcept : bytes_(bytes) {}

    [[nodiscard]] std::uint64_t size() const noexcept { return bytes_.size(); }

    // The count elements of elementSize bytes at the offset; false when they are not all
    // there.
    [[nodiscard]] bool Take(std::uint64_t offset, std::uint64_t count, std::uint64_t elementSize,
                            Bytes &out) const noexcept {
        std::uint64_t length = 0;
        if (__builtin_mul_overflow(count, elementSize, &length) || offset > bytes_.size() ||
            length > bytes_.size() - offset) {
            return false;
        }
        out = bytes_.subspan(static_cast<std::size_t>(offset), static_cast<std::size_t>(length));
        return true;
    }

    // The big-endian unsigned integer of 1 to 8 bytes at the offset.
    [[nodiscard]] bool TakeInteger(std::uint64_t offset, std::size_t width,
                                   std::uint64_t &value) const noexcept {
        Bytes bytes;
        if (!Take(offset, width, 1, bytes)) {
            return false;
        }
        value = Load(bytes.data(), width);
        return true;
    }

  private:
    Bytes bytes_;
};

// Types by the high half of the marker; those without an entry are decoded apart
// (0x0 simple values) or unknown.
struct CountedType {
    bool known = false;
    Type type = Type::Null;
};

[[nodiscard]] constexpr CountedType CountedTypeOf(unsigned high) noexcept {
    switch (high) {
    case 0x4:
        return {true, Type::Data};
    case 0x5:
        return {true, Type::AsciiString};
    case 0x6:
        return {true, Type::Utf16String};
    case 0xA:
        return {true, Type::Array};
    case 0xC:
        return {true, Type::Set};
    case 0xD:
        return {true, Type::Dictionary};
    default:
        return {};
    }
}

} // namespace detail

// One decoded object. What count and payload mean depends on the type:
//   Null, False, True, Fill      0, empty
//   Integer, Real, Date, Uid     width in bytes, the number's bytes
//   Data, AsciiString            number of bytes, those bytes
//   Utf16String                  number of 16-bit units, their bytes (big-endian)
//   Array, Set                   number of members, their references
//   Dictionary                   number of pairs, references: keys, then values
struct Object {
    Type type = Type::Null;
    // Of the marker; tells objects apart, so loops and sharing are found by it.
    std::uint64_t offset = 0;
    std::uint64_t count = 0;
    Bytes payload;

    [[nodiscard]] bool IsString() const noexcept {
        return type == Type::AsciiString || type == Type::Utf16String;
    }

    // Of an Integer. 1, 2 and 4 bytes are unsigned; 8 and 16 are two's complement,
    // 16 being how values from 2^63 on are written.
    [[nodiscard]] Int128 Integer() const noexcept {
        const std::uint8_t *bytes = payload.data();
        if (payload.size() == 16) {
            return {static_cast<std::int64_t>(detail::Load(bytes, 8)), detail::Load(bytes + 8, 8)};
        }
        const std::uint64_t low = detail::Load(bytes, payload.size());
        const bool negative = payload.size() == 8 && static_cast<std::int64_t>(low) < 0;
        return {negative ? -1 : 0, low};
    }

    // Of a Real or a Date (seconds from 2001-01-01 00:00:00 UTC). May be NaN or
    // infinite.
    [[nodiscard]] double Real() const noexcept {
        if (payload.size() == 4) {
            return static_cast<double>(Float());
        }
        return std::bit_cast<double>(detail::Load(payload.data(), 8));
    }
    // Of a Real of 4 bytes.
    [[nodiscard]] float Float() const noexcept {
        return std::bit_cast<float>(static_cast<std::uint32_t>(detail::Load(payload.data(), 4)));
    }

    // Of a Uid.
    [[nodiscard]] Status Uid(std::uint32_t &uid) const noexcept {
        std::uint64_t value = 0;
        for (const std::uint8_t byte : payload) {
            value = value << 8 | byte;
            if (value > std::numeric_limits<std::uint32_t>::max()) {
                return {Fault::UidTooLarge, offset};
            }
        }
        uid = static_cast<std::uint32_t>(value);
        return {};
    }

    // The bytes of a Data or an AsciiString as text. ASCII strings are not checked
    // for bytes from 0x80 on; see IsAscii.
    [[nodiscard]] std::string_view Text() const noexcept {
        return {reinterpret_cast<const char *>(payload.data()), payload.size()};
    }

    // A unit of a Utf16String; position is below count.
    [[nodiscard]] char16_t Unit(std::size_t position) const noexcept {
        return static_cast<char16_t>(detail::Load(payload.data() + 2 * position, 2));
    }

    // Whether the object is a string of exactly these ASCII characters, in whichever
    // of the two encodings it is stored.
    [[nodiscard]] bool TextEquals(std::string_view ascii) const noexcept {
        if (type == Type::AsciiString) {
            return Text() == ascii;
        }
        if (type != Type::Utf16String || count != ascii.size()) {
            return false;
        }
        for (std::size_t i = 0; i < ascii.size(); ++i) {
            if (Unit(i) != static_cast<unsigned char>(ascii[i])) {
                return false;
            }
        }
        return true;
    }
};

// Whether all bytes are below 0x80.
[[nodiscard]] inline bool IsAscii(Bytes bytes) noexcept {
    constexpr std::uint64_t kHighBits = 0x8080808080808080;
    const std::uint8_t *at = bytes.data();
    std::size_t left = bytes.size();
    for (; left >= 8; at += 8, left -= 8) {
        std::uint64_t word;
        std::memcpy(&word, at, 8);
        if ((word & kHighBits) != 0) {
            return false;
        }
    }
    unsigned all = 0;
    for (; left > 0; ++at, --left) {
        all |= *at;
    }
    return all < 0x80;
}

// A document whose trailer has been checked.
class Document {
  public:
    Document() = default;

    // Checks header and trailer, field by field, and makes *this the document. The
    // bytes must outlive it. On failure *this is not to be used.
    Status Open(Bytes bytes) noexcept;

    // At least 1, and less than the document has bytes.
    [[nodiscard]] std::uint64_t ObjectCount() const noexcept { return objectCount_; }
    // Below ObjectCount().
    [[nodiscard]] std::uint64_t RootIndex() const noexcept { return rootIndex_; }
    [[nodiscard]] std::size_t ReferenceWidth() const noexcept { return referenceWidth_; }

    // Where an object begins: between the header and the offset table.
    Status OffsetOf(std::uint64_t index, std::uint64_t &offset) const noexcept;
    // The object with that number. After a fault, object is not to be used.
    Status ObjectAt(std::uint64_t index, Object &object) const noexcept;

    // The number of the object at a position of a container, below ObjectCount().
    // Array and Set: positions below count. Dictionary: keys at positions below
    // count, the value of key i at count + i.
    Status Member(const Object &container, std::uint64_t position,
                  std::uint64_t &index) const noexcept;
    // The object there.
    Status MemberObject(const Object &container, std::uint64_t position,
                        Object &object) const noexcept;

    // The value of the first key that is a string of these ASCII characters. found
    // says whether there is one; object is untouched when there is none.
    Status Find(const Object &dictionary, std::string_view key, bool &found,
                Object &object) const noexcept;

  private:
    Status DecodeSimple(Object &object, unsigned low) const noexcept;
    Status DecodeNumber(Object &object, Type type, std::size_t width) const noexcept;
    Status DecodeCounted(Object &object, unsigned high, unsigned low) const noexcept;
    Status DecodeCount(std::uint64_t &at, std::uint64_t &count) const noexcept;
    [[nodiscard]] std::uint64_t ElementSize(Type type) const noexcept;

    // From the start of the document to the offset table, so offsets need no shift.
    detail::Region objects_;
    detail::Region offsetTable_;
    std::uint64_t objectCount_ = 0;
    std::uint64_t rootIndex_ = 0;
    std::size_t offsetWidth_ = 0;
    std::size_t referenceWidth_ = 0;
};

inline Status Document::Open(Bytes bytes) noexcept {
    if (!LooksBinary(bytes)) {
        return {Fault::NotBinary, 0};
    }
    if (bytes.size() < kMinDocumentSize) {
        return {Fault::TooShort, bytes.size()};
    }
    // Version 0x, whatever x is.
    if (bytes[6] != '0') {
        return {Fault::UnknownVersion, 6};
    }
    const std::size_t trailerOffset = bytes.size() - kTrailerSize;
    const std::uint8_t *trailer = bytes.data() + trailerOffset;
    offsetWidth_ = trailer[6];
    referenceWidth_ = trailer[7];
    objectCount_ = detail::Load(trailer + 8, 8);
    rootIndex_ = detail::Load(trailer + 16, 8);
    const std::uint64_t tableOffset = detail::Load(trailer + 24, 8);
    if (offsetWidth_ < 1 || offsetWidth_ > 8) {
        return {Fault::BadOffsetWidth, trailerOffset + 6};
    }
    if (referenceWidth_ < 1 || referenceWidth_ > 8) {
        return {Fault::BadReferenceWidth, trailerOffset + 7};
    }
    if (objectCount_ == 0) {
        return {Fault::NoObjects, trailerOffset + 8};
    }
    if (rootIndex_ >= objectCount_) {
        return {Fault::RootOutOfRange, trailerOffset + 16};
    }
    if (tableOffset <= kHeaderSize || tableOffset >= trailerOffset) {
        return {Fault::OffsetTableOutOfRange, trailerOffset + 24};
    }
    Bytes table;
    if (!detail::Region(bytes.first(trailerOffset))
             .Take(tableOffset, objectCount_, offsetWidth_, table)) {
        return {Fault::OffsetTableTooLong, trailerOffset + 8};
    }
    offsetTable_ = detail::Region(table);
    objects_ = detail::Region(bytes.first(static_cast<std::size_t>(tableOffset)));
    return {};
}

inline Status Document::OffsetOf(std::uint64_t index, std::uint64_t &offset) const noexcept {
    const std::uint64_t tableOffset = objects_.size();
    if (index >= objectCount_) {
        return {Fault::ReferenceOutOfRange, tableOffset};
    }
    // No overflow: the whole table was found to fit.
    const std::uint64_t entry = index * offsetWidth_;
    if (!offsetTable_.TakeInteger(entry, offsetWidth_, offset) || offset < kHeaderSize ||
        offset >= tableOffset) {
        return {Fault::OffsetOutOfRange, tableOffset + entry};
    }
    return {};
}

inline Status Document::ObjectAt(std::uint64_t index, Object &object) const noexcept {
    if (const Status status = OffsetOf(index, object.offset); !status) {
        return status;
    }
    std::uint64_t marker = 0;
    (void)objects_.TakeInteger(object.offset, 1, marker); // OffsetOf has seen that it is there.
    const unsigned low = static_cast<unsigned>(marker) & 0xF;
    const unsigned high = static_cast<unsigned>(marker) >> 4;
    switch (high) {
    case 0x0:
        return DecodeSimple(object, low);
    case 0x1:
        return low <= 4 ? DecodeNumber(object, Type::Integer, std::size_t{1} << low)
                        : Status{Fault::UnknownMarker, object.offset};
    case 0x2:
        return low == 2 || low == 3 ? DecodeNumber(object, Type::Real, std::size_t{1} << low)
                                    : Status{Fault::UnknownMarker, object.offset};
    case 0x3:
        return low == 3 ? DecodeNumber(object, Type::Date, 8)
                        : Status{Fault::UnknownMarker, object.offset};
    case 0x8:
        return DecodeNumber(object, Type::Uid, low + 1);
    default:
        return DecodeCounted(object, high, low);
    }
}

inline Status Document::DecodeSimple(Object &object, unsigned low) const noexcept {
    object.count = 0;
    object.payload = {};
    switch (low) {
    case 0x0:
        object.type = Type::Null;
        return {};
    case 0x8:
        object.type = Type::False;
        return {};
    case 0x9:
        object.type = Type::True;
        return {};
    case 0xF:
        object.type = Type::Fill;
        return {};
    default:
        return {Fault::UnknownMarker, object.offset};
    }
}

inline Status Document::DecodeNumber(Object &object, Type type, std::size_t width) const noexcept {
    object.type = type;
    object.count = width;
    if (!objects_.Take(object.offset + 1, width, 1, object.payload)) {
        return {Fault::ObjectTooLong, object.offset};
    }
    return {};
}

inline Status Document::DecodeCounted(Object &object, unsigned high, unsigned low) const noexcept {
    const detail::CountedType counted = detail::CountedTypeOf(high);
    if (!counted.known) {
        return {Fault::UnknownMarker, object.offset};
    }
    object.type = counted.type;
    object.count = low;
    std::uint64_t at = object.offset + 1;
    if (low == 0xF) {
        if (const Status status = DecodeCount(at, object.count); !status) {
            return status;
        }
    }
    if (!objects_.Take(at, object.count, ElementSize(object.type), object.payload)) {
        return {Fault::ObjectTooLong, object.offset};
    }
    return {};
}

// The integer object at `at`, which is moved past it. Any width is legal; a count of
// 16 bytes must be zero in its upper half, or nothing could hold that many.
inline Status Document::DecodeCount(std::uint64_t &at, std::uint64_t &count) const noexcept {
    const Status bad{Fault::BadCount, at};
    std::uint64_t marker = 0;
    if (!objects_.TakeInteger(at, 1, marker) || marker < 0x10 || marker > 0x14) {
        return bad;
    }
    ++at;
    if (marker == 0x14) {
        std::uint64_t upper = 0;
        if (!objects_.TakeInteger(at, 8, upper) || upper != 0) {
            return bad;
        }
        at += 8;
    }
    const std::size_t width = marker == 0x14 ? 8 : std::size_t{1} << (marker & 0xF);
    if (!objects_.TakeInteger(at, width, count)) {
        return bad;
    }
    at += width;
    return {};
}

inline std::uint64_t Document::ElementSize(Type type) const noexcept {
    switch (type) {
    case Type::Utf16String:
        return 2;
    case Type::Array:
    case Type::Set:
        return referenceWidth_;
    case Type::Dictionary:
        return 2 * referenceWidth_;
    default:
        return 1;
    }
}

inline Status Document::Member(const Object &container, std::uint64_t position,
                               std::uint64_t &index) const noexcept {
    // Other types have no members, whatever their payload. The payload is a whole number of
    // references, so the first comparison also keeps the product from overflowing.
    if (container.type < Type::Array || position >= container.payload.size() ||
        position * referenceWidth_ >= container.payload.size()) {
        return {Fault::PositionOutOfRange, container.offset};
    }
    index = detail::Load(container.payload.data() + position * referenceWidth_, referenceWidth_);
    if (index >= objectCount_) {
        return {Fault::ReferenceOutOfRange, container.offset};
    }
    return {};
}

inline Status Document::MemberObject(const Object &container, std::uint64_t position,
                                     Object &object) const noexcept {
    std::uint64_t index = 0;
    if (const Status status = Member(container, position, index); !status) {
        return status;
    }
    return ObjectAt(index, object);
}

inline Status Document::Find(const Object &dictionary, std::string_view key, bool &found,
                             Object &object) const noexcept {
    found = false;
    if (dictionary.type != Type::Dictionary) {
        return {Fault::PositionOutOfRange, dictionary.offset};
    }
    for (std::uint64_t i = 0; i < dictionary.count; ++i) {
        Object candidate;
        if (const Status status = MemberObject(dictionary, i, candidate); !status) {
            return status;
        }
        if (candidate.TextEquals(key)) {
            found = true;
            return MemberObject(dictionary, dictionary.count + i, object);
        }
    }
    return {};
}

} // namespace ZK::bplist
