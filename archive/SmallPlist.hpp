// A view of small binary property lists whose objects are of expected types.
//
// ZK::bplist::Document is the view for any document. This one trades that generality
// for speed where half a million documents of some hundred bytes are read in a row: it
// takes only documents with one-byte references (at most 256 objects) and offsets of
// one or two bytes, and instead of decoding whatever an object is it asks whether the
// object is of the one type that the reader expects there.
#pragma once

#include "support/zk/BinaryPlist.hpp"

#include <cstddef>
#include <cstdint>

namespace Kelvane {

class SmallPlist {
  public:
    using Bytes = ZK::bplist::Bytes;

    // A counted object: where its content begins and how many units (bytes, UTF-16
    // units, references, pairs) it has. Within the document.
    struct Item {
        const std::uint8_t *content = nullptr;
        std::uint32_t count = 0;

        [[nodiscard]] Bytes Content(std::size_t unitSize = 1) const noexcept {
            return {content, count * unitSize};
        }
    };

    // False when the document is not valid or not small. The bytes are borrowed.
    [[nodiscard]] bool Open(Bytes bytes) noexcept {
        ZK::bplist::Document document;
        if (bytes.size() > kMaxSize || !document.Open(bytes) || document.ReferenceWidth() != 1) {
            return false;
        }
        const std::uint8_t *const trailer = bytes.data() + bytes.size() - ZK::bplist::kTrailerSize;
        const std::uint8_t offsetWidth = trailer[6];
        base_ = bytes.data();
        end_ = static_cast<std::uint32_t>(ZK::bplist::detail::Load(trailer + 24, 8));
        table_ = base_ + end_;
        wide_ = offsetWidth == 2;
        // Further objects cannot be referred to.
        count_ = static_cast<std::uint32_t>(document.ObjectCount());
        root_ = static_cast<std::uint32_t>(document.RootIndex());
        return offsetWidth <= 2;
    }
    [[nodiscard]] std::uint32_t Root() const noexcept { return root_; }

    // Each of the following is false when the object is of another type or reaches
    // beyond the objects; the result is then undefined.

    [[nodiscard]] bool Ascii(std::uint32_t number, Item &item) const noexcept {
        return Counted(number, kAscii, 1, item);
    }
    [[nodiscard]] bool Utf16(std::uint32_t number, Item &item) const noexcept {
        return Counted(number, kUtf16, 2, item);
    }
    [[nodiscard]] bool Data(std::uint32_t number, Item &item) const noexcept {
        return Counted(number, kData, 1, item);
    }
    [[nodiscard]] bool Array(std::uint32_t number, Item &item) const noexcept {
        return Counted(number, kArray, 1, item);
    }
    // The content is the keys' references, then the values'.
    [[nodiscard]] bool Dictionary(std::uint32_t number, Item &item) const noexcept {
        return Counted(number, kDictionary, 2, item);
    }

    // An integer of at most 8 bytes.
    [[nodiscard]] bool Integer(std::uint32_t number, std::int64_t &value) const noexcept {
        std::uint32_t at = 0;
        if (!Locate(number, at)) {
            return false;
        }
        const std::uint32_t marker = base_[at];
        const std::uint32_t width = 1u << (marker & 3);
        if (marker < kInteger || marker > kInteger + 3 || at + 1 + width > end_) {
            return false;
        }
        value = static_cast<std::int64_t>(Ending(at + 1 + width, width));
        return true;
    }

    // An integer of 16 bytes that is neither negative nor beyond 64 bits.
    [[nodiscard]] bool WideInteger(std::uint32_t number, std::uint64_t &value) const noexcept {
        std::uint32_t at = 0;
        if (!Locate(number, at) || base_[at] != kInteger + 4 || at + 1 + 16 > end_) {
            return false;
        }
        value = Ending(at + 1 + 16, 8);
        return Ending(at + 1 + 8, 8) == 0;
    }

    // A UID of at most 4 bytes.
    [[nodiscard]] bool Uid(std::uint32_t number, std::uint32_t &value) const noexcept {
        std::uint32_t at = 0;
        if (!Locate(number, at)) {
            return false;
        }
        const std::uint32_t marker = base_[at];
        const std::uint32_t width = (marker & 3) + 1;
        if (marker < kUid || marker > kUid + 3 || at + 1 + width > end_) {
            return false;
        }
        value = static_cast<std::uint32_t>(Ending(at + 1 + width, width));
        return true;
    }

    // The eight bytes from position * 8 on of a text, big-endian, zero behind its end.
    // The trailer lies behind every object, so up to 32 bytes past an object's end
    // may be read: position is at most 3.
    [[nodiscard]] static std::uint64_t Word(const Item &text, std::uint32_t position) noexcept {
        const std::uint32_t skipped = position * 8;
        const std::uint32_t left = text.count > skipped ? text.count - skipped : 0;
        const std::uint64_t word =
            ZK::bplist::detail::LoadFixed<std::uint64_t>(text.content + skipped);
        return left >= 8 ? word : left == 0 ? 0 : word & ~std::uint64_t{0} << (64 - 8 * left);
    }

  private:
    // Two-byte offsets reach this far.
    static constexpr std::size_t kMaxSize = 65536;

    static constexpr std::uint32_t kInteger = 0x10;
    static constexpr std::uint32_t kData = 0x4;
    static constexpr std::uint32_t kAscii = 0x5;
    static constexpr std::uint32_t kUtf16 = 0x6;
    static constexpr std::uint32_t kUid = 0x80;
    static constexpr std::uint32_t kArray = 0xA;
    static constexpr std::uint32_t kDictionary = 0xD;

    // The one place where offsets come from the document: at is between the header and
    // the offset table.
    [[nodiscard]] bool Locate(std::uint32_t number, std::uint32_t &at) const noexcept {
        if (number >= count_) {
            return false;
        }
        at = wide_ ? ZK::bplist::detail::LoadFixed<std::uint16_t>(table_ + 2 * number)
                   : table_[number];
        return at >= ZK::bplist::kHeaderSize && at < end_;
    }

    [[nodiscard]] bool Counted(std::uint32_t number, std::uint32_t type, std::uint32_t unitSize,
                               Item &item) const noexcept {
        std::uint32_t at = 0;
        if (!Locate(number, at) || base_[at] >> 4 != type) {
            return false;
        }
        std::uint32_t count = base_[at] & 0xF;
        ++at;
        if (count == 0xF && !LongCount(at, count)) {
            return false;
        }
        item = {base_ + at, count};
        return at + count * unitSize <= end_;
    }

    // A count of one or two bytes that follows the marker, which at is moved past. The
    // trailer follows, so the bytes are there even where the object should have ended.
    [[nodiscard]] bool LongCount(std::uint32_t &at, std::uint32_t &count) const noexcept {
        const std::uint32_t marker = base_[at];
        const std::uint32_t width = 1u << (marker & 1);
        count = static_cast<std::uint32_t>(Ending(at + 1 + width, width));
        at += 1 + width;
        return marker == kInteger || marker == kInteger + 1;
    }

    // The big-endian integer of width bytes that ends before the offset, which is past
    // the 8-byte header and before the trailer's end: eight bytes lie before it.
    [[nodiscard]] std::uint64_t Ending(std::uint32_t end, std::uint32_t width) const noexcept {
        const auto word = ZK::bplist::detail::LoadFixed<std::uint64_t>(base_ + end - 8);
        return word & ~std::uint64_t{0} >> (64 - 8 * width);
    }

    const std::uint8_t *base_ = nullptr;
    const std::uint8_t *table_ = nullptr;
    std::uint32_t end_ = 0; // of the objects
    std::uint32_t count_ = 0;
    std::uint32_t root_ = 0;
    bool wide_ = false;
};

} // namespace Kelvane
