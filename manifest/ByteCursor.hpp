// The only way in which the readers of binary manifests touch their input.
#pragma once

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

namespace Kelvane {

// A position in bytes from outside. It cannot leave them: what would reach past the end
// is refused, and the position then stays where it was.
class ByteCursor {
  public:
    ByteCursor(std::span<const std::uint8_t> bytes, std::size_t position) noexcept
        : bytes_(bytes), position_(position < bytes.size() ? position : bytes.size()) {}

    std::size_t Position() const noexcept { return position_; }
    std::size_t Remaining() const noexcept { return bytes_.size() - position_; }

    // The next length bytes.
    std::optional<std::span<const std::uint8_t>> Bytes(std::size_t length) noexcept {
        if (length > Remaining()) {
            return std::nullopt;
        }
        const auto result = bytes_.subspan(position_, length);
        position_ += length;
        return result;
    }

    // The next big-endian integer.
    template <std::unsigned_integral T>
    std::optional<T> Integer() noexcept {
        const auto bytes = Bytes(sizeof(T));
        if (!bytes) {
            return std::nullopt;
        }
        std::uint64_t value = 0;
        for (const std::uint8_t byte : *bytes) {
            value = value << 8 | byte;
        }
        return static_cast<T>(value);
    }

    // A byte string: a 16-bit length and the bytes. Length 0xFFFF marks an absent value
    // and reads as an empty one.
    std::optional<std::span<const std::uint8_t>> ByteString() noexcept {
        const std::size_t start = position_;
        const auto length = Integer<std::uint16_t>();
        if (!length) {
            return std::nullopt;
        }
        const auto bytes = Bytes(*length == 0xFFFF ? 0 : *length);
        if (!bytes) {
            position_ = start;
        }
        return bytes;
    }

  private:
    std::span<const std::uint8_t> bytes_;
    std::size_t position_;
};

} // namespace Kelvane
