#include "manifest/CSVText.hpp"

#include <array>
#include <charconv>

namespace Kelvane {

namespace {

// Sets units to the text's.
void CopyUnits(CFStringRef text, std::u16string &units) {
    static_assert(sizeof(UniChar) == sizeof(char16_t));
    const CFIndex length = CFStringGetLength(text);
    units.resize(static_cast<std::size_t>(length));
    CFStringGetCharacters(text, CFRangeMake(0, length), reinterpret_cast<UniChar *>(units.data()));
}

CF::String StringOf(std::u16string_view units) {
    return CF::String::Adopt(CF::Made(CFStringCreateWithCharacters(
        kCFAllocatorDefault, reinterpret_cast<const UniChar *>(units.data()),
        static_cast<CFIndex>(units.size()))));
}

} // namespace

CF::String esc(const CF::String &string) {
    std::u16string units;
    if (string) {
        CopyUnits(string.get(), units);
    }
    if (units.find(u'"') == std::u16string::npos) {
        return string;
    }
    std::u16string escaped;
    for (const char16_t unit : units) {
        escaped.append(unit == u'"' ? 2 : 1, unit);
    }
    return StringOf(escaped);
}

void CSVLine::Open() {
    if (!units_.empty()) {
        units_ += u',';
    }
    units_ += u'"';
}

void CSVLine::Append(char16_t unit) {
    units_ += unit;
    if (unit == u'"') {
        units_ += unit;
    }
}

void CSVLine::AddText(CFStringRef text) {
    Open();
    if (text != nullptr) {
        CopyUnits(text, scratch_);
        for (const char16_t unit : scratch_) {
            Append(unit);
        }
    }
    Close();
}

void CSVLine::AddAscii(std::string_view text) {
    Open();
    for (const char character : text) {
        Append(static_cast<unsigned char>(character));
    }
    Close();
}

void CSVLine::AddUTF16BE(const std::uint8_t *bytes, std::size_t count) {
    Open();
    for (std::size_t i = 0; i + 1 < count; i += 2) {
        Append(static_cast<char16_t>(bytes[i] << 8 | bytes[i + 1]));
    }
    Close();
}

void CSVLine::AddSigned(std::int64_t value) {
    std::array<char, 24> digits{};
    const auto end = std::to_chars(digits.data(), digits.data() + digits.size(), value).ptr;
    AddAscii({digits.data(), end});
}

void CSVLine::AddUnsigned(std::uint32_t value) { AddSigned(value); }

} // namespace Kelvane
