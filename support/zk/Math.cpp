#include "support/zk/Math.hpp"

#include <array>
#include <stdexcept>

namespace ZK::Math {
namespace {

constexpr std::string_view kHexDigits = "0123456789abcdef";
constexpr std::string_view kBase64Digits =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

constexpr std::int8_t kNoDigit = -1;

constexpr std::array<std::int8_t, 256> makeBase64Values() {
    std::array<std::int8_t, 256> values{};
    values.fill(kNoDigit);
    for (std::size_t i = 0; i < kBase64Digits.size(); ++i) {
        values[static_cast<unsigned char>(kBase64Digits[i])] = static_cast<std::int8_t>(i);
    }
    return values;
}
constexpr auto kBase64Values = makeBase64Values();

bool isWhiteSpace(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

// Gathers base64 digits six bits at a time.
class Base64Decoder {
  public:
    explicit Base64Decoder(std::size_t textLength) { bytes_.reserve(textLength / 4 * 3 + 3); }

    void take(char c) {
        if (c == '=') {
            ++padding_;
            return;
        }
        const std::int8_t value = kBase64Values[static_cast<unsigned char>(c)];
        if (value == kNoDigit || padding_ > 0) {
            throw std::invalid_argument("Invalid character in base64 text");
        }
        bits_ = bits_ << 6 | static_cast<std::uint32_t>(value);
        if (++digits_ % 4 == 0) {
            append(16);
            append(8);
            append(0);
        }
    }

    std::vector<std::uint8_t> finish() {
        const std::size_t rest = digits_ % 4;
        const bool paddingFits = padding_ == 0 || (rest != 0 && padding_ == 4 - rest);
        if (rest == 1 || !paddingFits) {
            throw std::invalid_argument("Invalid length of base64 text");
        }
        if (rest == 2) {
            append(4);
        } else if (rest == 3) {
            append(10);
            append(2);
        }
        return std::move(bytes_);
    }

  private:
    void append(int shift) { bytes_.push_back(static_cast<std::uint8_t>(bits_ >> shift)); }

    std::vector<std::uint8_t> bytes_;
    std::uint32_t bits_ = 0;
    std::size_t digits_ = 0;
    std::size_t padding_ = 0;
};

} // namespace

std::string hex_encode(std::span<const std::uint8_t> bytes) {
    std::string text;
    text.reserve(bytes.size() * 2);
    for (const std::uint8_t byte : bytes) {
        text.push_back(kHexDigits[byte >> 4]);
        text.push_back(kHexDigits[byte & 0x0F]);
    }
    return text;
}

std::string base64_encode(std::span<const std::uint8_t> bytes) {
    std::string text;
    text.reserve((bytes.size() + 2) / 3 * 4);
    for (std::size_t i = 0; i < bytes.size(); i += 3) {
        const std::size_t count = bytes.size() - i < 3 ? bytes.size() - i : 3;
        std::uint32_t bits = 0;
        for (std::size_t k = 0; k < 3; ++k) {
            bits = bits << 8 | (k < count ? bytes[i + k] : 0U);
        }
        for (std::size_t k = 0; k < 4; ++k) {
            text.push_back(k <= count ? kBase64Digits[bits >> (18 - 6 * k) & 0x3F] : '=');
        }
    }
    return text;
}

std::vector<std::uint8_t> base64_decode(std::string_view text) {
    Base64Decoder decoder(text.size());
    for (const char c : text) {
        if (!isWhiteSpace(c)) {
            decoder.take(c);
        }
    }
    return decoder.finish();
}

} // namespace ZK::Math
