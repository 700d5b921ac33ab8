// How single fields of an entry are derived and written.

#include "manifest/KVManifestEntryClass.hpp"
#include "support/cf/String.hpp"
#include "support/zk/Abort.hpp"
#include "support/zk/Encryption.hpp"

#include <array>
#include <cmath>
#include <stdexcept>

namespace {

constexpr std::uint32_t kProtectionClassCount = 5;

// Seconds from 1970-01-01 to 2001-01-01.
constexpr std::int64_t kUnixToAbsolute = 978307200;

// A double at or beyond these has no 64-bit whole number.
constexpr double kInt64Limit = 9223372036854775808.0;

std::span<const std::uint8_t> bytesOf(const std::string &text) {
    return {reinterpret_cast<const std::uint8_t *>(text.data()), text.size()};
}

} // namespace

CFStringRef KVManifestEntryCopyFileIDForPath(CFStringRef domain, CFStringRef relativePath) {
    std::string text = CF::String::GetUTF8(domain);
    text += '-';
    text += CF::String::GetUTF8(relativePath);
    constexpr char kDigits[] = "0123456789abcdef";
    std::array<std::uint8_t, 40> hex{};
    std::size_t at = 0;
    for (const std::uint8_t byte : ZK::Encryption::SHA1(bytesOf(text))) {
        hex[at++] = static_cast<std::uint8_t>(kDigits[byte >> 4]);
        hex[at++] = static_cast<std::uint8_t>(kDigits[byte & 0xF]);
    }
    return CF::Made(CFStringCreateWithBytes(kCFAllocatorDefault, hex.data(), hex.size(),
                                            kCFStringEncodingASCII, false));
}

namespace Kelvane {

EntryProtectionClass ProtectionClassFromCode(std::uint32_t code) {
    if (code >= kProtectionClassCount) {
        throw std::invalid_argument("invalid protection class code");
    }
    return static_cast<EntryProtectionClass>(code);
}

std::uint32_t CodeOfProtectionClass(EntryProtectionClass protectionClass) {
    const auto code = static_cast<std::uint32_t>(protectionClass);
    if (code >= kProtectionClassCount) {
        ZK::Abort(std::invalid_argument("EntryProtectionClass has invalid value "));
    }
    return code;
}

std::string to_string(EntryProtectionClass protectionClass) {
    static constexpr std::array<const char *, kProtectionClassCount> kNames = {
        "NotSet", "Complete", "WriteOnly", "CompleteUntilUnlocked", "None"};
    return kNames[CodeOfProtectionClass(protectionClass)];
}

std::int64_t WrittenUnixTime(CFAbsoluteTime time) noexcept {
    // NaN and what no 64-bit number holds count as 0.
    const double whole = std::trunc(time);
    const bool fits = whole >= -kInt64Limit && whole < kInt64Limit;
    const std::int64_t seconds = fits ? static_cast<std::int64_t>(whole) : 0;
    return static_cast<std::int64_t>(static_cast<std::uint32_t>(seconds)) + kUnixToAbsolute;
}

CFAbsoluteTime AbsoluteTimeFromUnix(std::int64_t seconds) noexcept {
    return static_cast<CFAbsoluteTime>(seconds) - static_cast<CFAbsoluteTime>(kUnixToAbsolute);
}

} // namespace Kelvane
