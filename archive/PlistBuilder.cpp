#include "archive/PlistBuilder.hpp"

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>

namespace Kelvane {

namespace {

constexpr unsigned kIntegerMarker = 0x10;
constexpr unsigned kWideIntegerMarker = 0x14;
constexpr unsigned kDataMarker = 0x40;
constexpr unsigned kAsciiMarker = 0x50;
constexpr unsigned kUtf16Marker = 0x60;
constexpr unsigned kUidMarker = 0x80;
constexpr std::size_t kCountFollows = 0xF;
// Twice the leaves of a device's record and more: a power of two.
constexpr std::size_t kFewSlots = 128;

std::size_t WidthOf(std::uint64_t value) {
    if (value <= UINT16_MAX) {
        return value <= UINT8_MAX ? 1 : 2;
    }
    return value <= UINT32_MAX ? 4 : 8;
}

void AppendTo(std::vector<std::uint8_t> &bytes, std::uint64_t value, std::size_t width) {
    for (std::size_t i = width; i-- > 0;) {
        bytes.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
    }
}

void AppendCountedTo(std::vector<std::uint8_t> &bytes, unsigned marker, std::size_t count) {
    if (count < kCountFollows) {
        AppendTo(bytes, marker | count, 1);
        return;
    }
    const std::size_t width = WidthOf(count);
    AppendTo(bytes, marker | kCountFollows, 1);
    AppendTo(bytes, kIntegerMarker | static_cast<unsigned>(std::countr_zero(width)), 1);
    AppendTo(bytes, count, width);
}

// FNV-1a by words; leaves that matter are short.
std::size_t HashOf(const std::uint8_t *bytes, std::size_t length) {
    constexpr std::uint64_t kPrime = 0x100000001B3;
    std::uint64_t hash = 0xCBF29CE484222325 ^ length;
    for (; length >= sizeof hash; bytes += sizeof hash, length -= sizeof hash) {
        std::uint64_t word;
        std::memcpy(&word, bytes, sizeof word);
        hash = (hash ^ word) * kPrime;
        hash ^= hash >> 32;
    }
    for (; length > 0; ++bytes, --length) {
        hash = (hash ^ *bytes) * kPrime;
    }
    return static_cast<std::size_t>(hash ^ hash >> 29);
}

} // namespace

void PlistBuilder::Clear() {
    items_.clear();
    members_.clear();
    leaves_.clear();
    leafCount_ = 0;
    slots_.assign(kFewSlots, 0);
}

void PlistBuilder::Append(std::uint64_t value, std::size_t width) {
    AppendTo(leaves_, value, width);
}

void PlistBuilder::AppendCounted(unsigned marker, std::size_t count) {
    AppendCountedTo(leaves_, marker, count);
}

// The slot of a leaf of these bytes, or the free one where it belongs.
std::uint32_t &PlistBuilder::SlotOf(std::size_t start, std::size_t length) {
    const std::size_t mask = slots_.size() - 1;
    std::size_t at = HashOf(leaves_.data() + start, length) & mask;
    for (; slots_[at] != 0; at = (at + 1) & mask) {
        const Item &item = items_[slots_[at] - 1];
        if (item.length == length &&
            std::memcmp(leaves_.data() + item.start, leaves_.data() + start, length) == 0) {
            break;
        }
    }
    return slots_[at];
}

void PlistBuilder::GrowSlots() {
    slots_.assign(slots_.size() * 2, 0);
    for (std::size_t i = 0; i < items_.size(); ++i) {
        if (items_[i].marker == 0) {
            SlotOf(items_[i].start, items_[i].length) = static_cast<Number>(i + 1);
        }
    }
}

// The leaf whose bytes were appended last, or an equal one that was there.
PlistBuilder::Number PlistBuilder::Intern(std::size_t start) {
    const std::size_t length = leaves_.size() - start;
    if (2 * leafCount_ >= slots_.size()) {
        GrowSlots();
    }
    std::uint32_t &slot = SlotOf(start, length);
    if (slot != 0) {
        leaves_.resize(start);
        return slot - 1;
    }
    items_.push_back({0, start, length});
    ++leafCount_;
    slot = static_cast<Number>(items_.size());
    return slot - 1;
}

PlistBuilder::Number PlistBuilder::Name(std::string_view ascii) {
    const std::size_t start = leaves_.size();
    AppendCounted(kAsciiMarker, ascii.size());
    leaves_.insert(leaves_.end(), ascii.begin(), ascii.end());
    return Intern(start);
}

PlistBuilder::Number PlistBuilder::Text(CFStringRef text) {
    const std::size_t start = leaves_.size();
    AppendText(text);
    return Intern(start);
}

// ASCII where it can be, or else units as they are: a text may have halves of surrogate pairs,
// which conversions refuse.
void PlistBuilder::AppendText(CFStringRef text) {
    const CFIndex length = CFStringGetLength(text);
    const std::size_t start = leaves_.size();
    AppendCounted(kAsciiMarker, static_cast<std::size_t>(length));
    const std::size_t content = leaves_.size();
    leaves_.resize(content + static_cast<std::size_t>(length));
    CFIndex used = 0;
    if (CFStringGetBytes(text, CFRangeMake(0, length), kCFStringEncodingASCII, 0, false,
                         leaves_.data() + content, length, &used) == length) {
        return;
    }
    leaves_.resize(start);
    AppendCounted(kUtf16Marker, static_cast<std::size_t>(length));
    constexpr CFIndex kChunk = 256;
    std::array<UniChar, kChunk> units;
    for (CFIndex done = 0; done < length; done += kChunk) {
        const CFIndex count = std::min(kChunk, length - done);
        CFStringGetCharacters(text, CFRangeMake(done, count), units.data());
        for (const UniChar unit : std::span(units).first(static_cast<std::size_t>(count))) {
            Append(unit, sizeof unit);
        }
    }
}

PlistBuilder::Number PlistBuilder::Data(Bytes data) {
    const std::size_t start = leaves_.size();
    AppendCounted(kDataMarker, data.size());
    leaves_.insert(leaves_.end(), data.begin(), data.end());
    return Intern(start);
}

// Of 1, 2 and 4 bytes without a sign, of 8 with one: negative numbers take 8.
PlistBuilder::Number PlistBuilder::Integer(std::int64_t value) {
    const std::size_t start = leaves_.size();
    const auto bits = static_cast<std::uint64_t>(value);
    const std::size_t width = WidthOf(bits);
    Append(kIntegerMarker | static_cast<unsigned>(std::countr_zero(width)), 1);
    Append(bits, width);
    return Intern(start);
}

// Integers of 8 bytes are signed, so those from 2^63 on take 16.
PlistBuilder::Number PlistBuilder::Unsigned(std::uint64_t value) {
    if (value <= INT64_MAX) {
        return Integer(static_cast<std::int64_t>(value));
    }
    const std::size_t start = leaves_.size();
    Append(kWideIntegerMarker, 1);
    Append(0, 8);
    Append(value, 8);
    return Intern(start);
}

PlistBuilder::Number PlistBuilder::UID(std::uint32_t value) {
    const std::size_t start = leaves_.size();
    const std::size_t width = WidthOf(value);
    Append(kUidMarker | (width - 1), 1);
    Append(value, width);
    return Intern(start);
}

PlistBuilder::Number PlistBuilder::Leaf(Bytes encoded) {
    const std::size_t start = leaves_.size();
    leaves_.insert(leaves_.end(), encoded.begin(), encoded.end());
    return Intern(start);
}

PlistBuilder::Number PlistBuilder::Container(Kind kind, std::size_t count) {
    const std::size_t members = kind == Kind::Dictionary ? 2 * count : count;
    items_.push_back({static_cast<std::uint8_t>(kind), members_.size(), members});
    members_.resize(members_.size() + members);
    return static_cast<Number>(items_.size() - 1);
}

void PlistBuilder::Set(Number container, std::size_t position, Number member) {
    members_[items_[container].start + position] = member;
}

void PlistBuilder::Finish(std::vector<std::uint8_t> &document) {
    constexpr std::string_view kHeader = "bplist00";
    const std::size_t referenceWidth = WidthOf(items_.size() - 1);
    document.assign(kHeader.begin(), kHeader.end());
    offsets_.clear();
    for (const Item &item : items_) {
        offsets_.push_back(document.size());
        if (item.marker == 0) {
            const auto leaf = leaves_.begin() + static_cast<std::ptrdiff_t>(item.start);
            document.insert(document.end(), leaf, leaf + static_cast<std::ptrdiff_t>(item.length));
            continue;
        }
        const bool pairs = item.marker == static_cast<std::uint8_t>(Kind::Dictionary);
        AppendCountedTo(document, item.marker, pairs ? item.length / 2 : item.length);
        for (std::size_t i = 0; i < item.length; ++i) {
            AppendTo(document, members_[item.start + i], referenceWidth);
        }
    }
    const std::size_t table = document.size();
    const std::size_t offsetWidth = WidthOf(table);
    for (const std::uint64_t offset : offsets_) {
        AppendTo(document, offset, offsetWidth);
    }
    AppendTo(document, 0, 6); // unused, and the sort version
    AppendTo(document, offsetWidth, 1);
    AppendTo(document, referenceWidth, 1);
    AppendTo(document, items_.size(), 8);
    AppendTo(document, 0, 8); // the root's number
    AppendTo(document, table, 8);
}

} // namespace Kelvane
