// Texts of values and containers, for logs and debuggers.
#pragma once

#include <CoreFoundation/CFBase.h>

#include <string>
#include <string_view>

namespace CFInternal {

// A new string of the UTF-8 text.
CFStringRef createString(std::string_view utf8);
// The text in UTF-8; lone surrogates become U+FFFD.
std::string utf8Of(CFStringRef string);
// Appends two digits a byte, taken from the 16 given ones.
void appendHex(std::string &text, const UInt8 *bytes, CFIndex length, std::string_view digits);

// Marks a container as being described by this thread. Closed (text() must not
// descend) when it is being described already, so that it contains itself, and when
// containers nest too deep.
class DescriptionScope {
  public:
    explicit DescriptionScope(CFTypeRef container) noexcept;
    ~DescriptionScope();
    DescriptionScope(const DescriptionScope &) = delete;
    DescriptionScope &operator=(const DescriptionScope &) = delete;

    bool isOpen() const noexcept { return open_; }
    // Counts one more value; false when the outermost description has had enough of
    // them. Containers that share values would take exponential time otherwise.
    bool takeValue() const noexcept;

  private:
    bool open_;
};

using CopyDescriptionFunction = CFStringRef (*)(const void *value);

// What a container shows for one of its values, later lines indented one level more.
// Strings are quoted where they could be misread. A null function shows the address.
std::string describeValue(const void *value, CopyDescriptionFunction copyDescription);

} // namespace CFInternal
