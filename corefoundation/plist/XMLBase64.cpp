#include "corefoundation/plist/XMLValues.hpp"

#include <array>
#include <utility>

namespace CFInternal::PropertyList {

namespace {

constexpr std::string_view kAlphabet =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr std::uint8_t kNoDigit = 0xFF;

constexpr std::array<std::uint8_t, 256> MakeDigits() {
    std::array<std::uint8_t, 256> digits{};
    digits.fill(kNoDigit);
    for (std::size_t i = 0; i < kAlphabet.size(); ++i) {
        digits[static_cast<unsigned char>(kAlphabet[i])] = static_cast<std::uint8_t>(i);
    }
    return digits;
}
constexpr std::array<std::uint8_t, 256> kDigits = MakeDigits();

// Takes digits until four make three bytes; padding fills the last four up.
class Decoder {
  public:
    // False for a character that cannot stand here.
    bool Take(char c) {
        if (c == '=') {
            ++padding_;
            return ++digits_ % 4 != 1 && padding_ <= 2;
        }
        const std::uint8_t digit = kDigits[static_cast<unsigned char>(c)];
        if (digit == kNoDigit || padding_ != 0) {
            return false;
        }
        bits_ = bits_ << 6 | digit;
        if (const std::size_t place = digits_++ % 4; place != 0) {
            bytes_.push_back(static_cast<std::uint8_t>(bits_ >> (6 - 2 * place)));
        }
        return true;
    }
    bool IsComplete() const { return digits_ % 4 == 0; }
    std::vector<std::uint8_t> &Decoded() { return bytes_; }

  private:
    std::vector<std::uint8_t> bytes_;
    std::size_t digits_ = 0;
    unsigned padding_ = 0;
    std::uint32_t bits_ = 0;
};

} // namespace

std::optional<std::vector<std::uint8_t>> ParseBase64(std::string_view text) {
    Decoder decoder;
    for (const char c : text) {
        if (!IsXMLSpace(c) && !decoder.Take(c)) {
            return std::nullopt;
        }
    }
    if (!decoder.IsComplete()) {
        return std::nullopt;
    }
    return std::move(decoder.Decoded());
}

void AppendBase64(std::string &out, Bytes bytes) {
    for (std::size_t i = 0; i < bytes.size(); i += 3) {
        const std::size_t left = bytes.size() - i;
        const std::uint32_t bits = static_cast<std::uint32_t>(bytes[i]) << 16 |
                                   (left > 1 ? static_cast<std::uint32_t>(bytes[i + 1]) << 8 : 0) |
                                   (left > 2 ? static_cast<std::uint32_t>(bytes[i + 2]) : 0);
        out += kAlphabet[bits >> 18];
        out += kAlphabet[bits >> 12 & 63];
        out += left > 1 ? kAlphabet[bits >> 6 & 63] : '=';
        out += left > 2 ? kAlphabet[bits & 63] : '=';
    }
}

} // namespace CFInternal::PropertyList
