#pragma once

#include "support/cf/Type.hpp"
#include "support/cf/UTF8.hpp"

#include <string>
#include <string_view>
#include <vector>

namespace CF {

// A CFStringRef or null.
class CF_WRAPPER_VISIBLE String : public TypeOf<String, CFStringRef, CFStringGetTypeID> {
  public:
    using TypeOf::TypeOf;
    // From UTF-8. Bytes that are not UTF-8 give a null string.
    String(const char *utf8) : String(FromUTF8(utf8 == nullptr ? std::string_view() : utf8)) {
        if (utf8 == nullptr) {
            *this = String();
        }
    }
    String(const std::string &utf8) : String(FromUTF8(utf8)) {}

    static String FromUTF8(std::string_view utf8) { return Adopt(CreateFromUTF8(utf8)); }

    // A printf-like text; %@ takes CoreFoundation references.
    template <class... Args>
    static String Format(CFStringRef format, Args... args) {
        return Adopt(Made(CFStringCreateWithFormat(kCFAllocatorDefault, nullptr, format, args...)));
    }

    // Length in UTF-16 code units; 0 for null.
    CFIndex GetLength() const noexcept { return get() == nullptr ? 0 : CFStringGetLength(get()); }
    // True for null and for the empty string.
    bool IsEmpty() const noexcept { return GetLength() == 0; }

    // The text in UTF-8; empty for null. NULs inside are kept. Lone surrogates
    // have no UTF-8 form: they become U+FFFD.
    std::string GetUTF8() const {
        std::string result;
        AppendUTF8(get(), result);
        return result;
    }
    static std::string GetUTF8(CFStringRef string) {
        std::string result;
        AppendUTF8(string, result);
        return result;
    }

  private:
    static void AppendUTF8(CFStringRef string, std::string &result) {
        if (string == nullptr) {
            return;
        }
        const CFRange all = CFRangeMake(0, CFStringGetLength(string));
        CFIndex needed = 0;
        CFStringGetBytes(string, all, kCFStringEncodingUTF8, '?', false, nullptr, 0, &needed);
        result.resize(static_cast<std::size_t>(needed));
        CFStringGetBytes(string, all, kCFStringEncodingUTF8, '?', false,
                         reinterpret_cast<UInt8 *>(result.data()), needed, &needed);
    }
};

} // namespace CF
