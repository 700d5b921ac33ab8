// Builds binary property lists byte by byte, well-formed or broken at will.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <string_view>
#include <vector>

namespace PlistTest {

using Octets = std::vector<std::uint8_t>;

inline void AppendBigEndian(Octets &out, std::uint64_t value, std::size_t width) {
    for (std::size_t i = width; i-- > 0;) {
        out.push_back(i < 8 ? static_cast<std::uint8_t>(value >> (8 * i)) : std::uint8_t{0});
    }
}

// Objects are numbered in the order they are added. Fields of the trailer can be
// overridden before Build.
class BinaryPlistBuilder {
  public:
    explicit BinaryPlistBuilder(std::size_t offsets = 1, std::size_t references = 1)
        : offsetWidth(offsets), referenceWidth(references) {}

    std::uint64_t Raw(const Octets &object) {
        offsets_.push_back(bytes_.size());
        bytes_.insert(bytes_.end(), object.begin(), object.end());
        return offsets_.size() - 1;
    }
    std::uint64_t Marked(unsigned high, std::uint64_t count, const Octets &payload) {
        Octets object;
        if (count < 15) {
            object.push_back(static_cast<std::uint8_t>(high << 4 | count));
        } else {
            object.push_back(static_cast<std::uint8_t>(high << 4 | 0xF));
            object.push_back(0x13);
            AppendBigEndian(object, count, 8);
        }
        object.insert(object.end(), payload.begin(), payload.end());
        return Raw(object);
    }
    std::uint64_t Ascii(std::string_view text) {
        return Marked(0x5, text.size(), Octets(text.begin(), text.end()));
    }
    std::uint64_t Utf16(std::u16string_view text) {
        Octets payload;
        for (const char16_t unit : text) {
            AppendBigEndian(payload, unit, 2);
        }
        return Marked(0x6, text.size(), payload);
    }
    std::uint64_t Data(const Octets &payload) { return Marked(0x4, payload.size(), payload); }
    std::uint64_t Array(const std::vector<std::uint64_t> &members) {
        return Marked(0xA, members.size(), References(members));
    }
    // Keys first, then values.
    std::uint64_t Dictionary(const std::vector<std::uint64_t> &keysThenValues) {
        return Marked(0xD, keysThenValues.size() / 2, References(keysThenValues));
    }

    // Points an object at another offset.
    void MoveObject(std::size_t index, std::uint64_t offset) { offsets_[index] = offset; }

    Octets Build() const {
        Octets out = bytes_;
        const std::uint64_t table = out.size();
        for (const std::uint64_t offset : offsets_) {
            AppendBigEndian(out, offset, offsetWidth);
        }
        out.insert(out.end(), 6, 0);
        out.push_back(static_cast<std::uint8_t>(offsetWidth));
        out.push_back(static_cast<std::uint8_t>(referenceWidth));
        AppendBigEndian(out, offsets_.size(), 8);
        AppendBigEndian(out, root, 8);
        AppendBigEndian(out, table, 8);
        return out;
    }

    std::size_t offsetWidth;
    std::size_t referenceWidth;
    std::uint64_t root = 0;

  private:
    Octets References(const std::vector<std::uint64_t> &members) const {
        Octets payload;
        for (const std::uint64_t member : members) {
            AppendBigEndian(payload, member, referenceWidth);
        }
        return payload;
    }

    Octets bytes_ = {'b', 'p', 'l', 'i', 's', 't', '0', '0'};
    std::vector<std::uint64_t> offsets_;
};

} // namespace PlistTest
