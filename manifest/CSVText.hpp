// Text of CSV fields, in UTF-16 code units.
#pragma once

#include "support/cf/String.hpp"

#include <cstdint>
#include <string>
#include <string_view>

namespace Kelvane {

// The text with every double quote doubled, as a quoted field of RFC 4180 wants it; a text
// without one, and null, as it is. Nothing else is escaped.
CF::String esc(const CF::String &string);

// A line of quoted fields, built field by field in memory that is used again.
class CSVLine {
  public:
    // Without fields again.
    void Clear() noexcept { units_.clear(); }
    std::u16string_view Units() const noexcept { return units_; }

    // Each adds a field. Texts are escaped, whatever they hold; null is an empty one.
    void AddText(CFStringRef text);
    void AddAscii(std::string_view text);
    void AddUTF16BE(const std::uint8_t *bytes, std::size_t count);
    // In decimal.
    void AddSigned(std::int64_t value);
    void AddUnsigned(std::uint32_t value);

  private:
    void Open();
    void Close() { units_ += u'"'; }
    void Append(char16_t unit);

    std::u16string units_;
    std::u16string scratch_;
};

} // namespace Kelvane
