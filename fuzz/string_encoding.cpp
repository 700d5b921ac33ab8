// Text from bytes and to bytes. What is read is written as the same bytes, iconv reads the
// same where it knows the rules, and a buffer that is too short gets what fits.
#include "fuzz/Input.hpp"
#include "fuzz/Require.hpp"

#include <iconv.h>

#include <array>

namespace {

using Fuzz::Require;
using Octets = std::vector<std::uint8_t>;

struct Encoding {
    CFStringEncoding encoding;
    const char *oracle; // null: iconv has other rules
};
constexpr std::array<Encoding, 10> kEncodings = {{{kCFStringEncodingUTF8, "UTF-8"},
                                                  {kCFStringEncodingASCII, "ASCII"},
                                                  {kCFStringEncodingISOLatin1, "ISO-8859-1"},
                                                  {kCFStringEncodingMacRoman, nullptr},
                                                  {kCFStringEncodingUTF16, nullptr},
                                                  {kCFStringEncodingUTF16BE, nullptr},
                                                  {kCFStringEncodingUTF16LE, nullptr},
                                                  {kCFStringEncodingUTF32, nullptr},
                                                  {kCFStringEncodingUTF32BE, "UTF-32BE"},
                                                  {kCFStringEncodingUTF32LE, "UTF-32LE"}}};

// Empty for a text that has no such form without a loss byte.
Octets BytesOf(const CF::String &text, CFStringEncoding encoding, UInt8 loss, bool external) {
    const CFRange all = CFRangeMake(0, CFStringGetLength(text));
    CFIndex size = 0;
    const CFIndex length = CFStringGetBytes(text, all, encoding, loss, external, nullptr, 0, &size);
    Require(length == all.length || loss == 0);
    // Room for the byte order mark is not part of the bound.
    Require(size <= CFStringGetMaximumSizeForEncoding(all.length, encoding) + (external ? 4 : 0));
    Octets bytes(static_cast<std::size_t>(size) + 1);
    CFIndex written = 0;
    Require(CFStringGetBytes(text, all, encoding, loss, external, bytes.data(), size, &written) ==
            length);
    Require(written == size);
    bytes.resize(static_cast<std::size_t>(size));
    return length == all.length ? bytes : Octets();
}

CF::String TextOf(const Octets &bytes, CFStringEncoding encoding, bool external) {
    return CF::String::Adopt(CFStringCreateWithBytes(
        nullptr, bytes.data(), static_cast<CFIndex>(bytes.size()), encoding, external));
}

void CheckOracle(const Octets &bytes, const Encoding &encoding, const CF::String &text) {
    const iconv_t converter = iconv_open("UTF-16LE", encoding.oracle);
    Octets units(4 * bytes.size() + 4);
    auto *from = reinterpret_cast<char *>(const_cast<std::uint8_t *>(bytes.data()));
    auto *to = reinterpret_cast<char *>(units.data());
    std::size_t left = bytes.size();
    std::size_t room = units.size();
    const bool accepted = iconv(converter, &from, &left, &to, &room) == 0;
    iconv_close(converter);
    units.resize(units.size() - room);
    Require(accepted == static_cast<bool>(text));
    Require(!accepted || BytesOf(text, kCFStringEncodingUTF16LE, 0, false) == units);
}

// A prefix of what there is with more room, and as much of the text.
void CheckShortBuffer(const CF::String &text, CFStringEncoding encoding, std::size_t room) {
    const Octets all = BytesOf(text, encoding, '?', false);
    Octets part(room + 1); // one more: a null buffer would ask for the size
    CFIndex used = 0;
    const CFIndex length =
        CFStringGetBytes(text, CFRangeMake(0, CFStringGetLength(text)), encoding, '?', false,
                         part.data(), static_cast<CFIndex>(room), &used);
    part.resize(static_cast<std::size_t>(used));
    Require(used <= static_cast<CFIndex>(all.size()) &&
            std::equal(part.begin(), part.end(), all.begin()));
    const auto start =
        CF::String::Adopt(CFStringCreateWithSubstring(nullptr, text, CFRangeMake(0, length)));
    Require(BytesOf(start, encoding, '?', false) == part);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    Fuzz::Input input(data, size);
    const Encoding &encoding = kEncodings[input.Byte() % kEncodings.size()];
    const bool external = input.Byte() % 2 == 1;
    const std::size_t room = input.Byte();
    const auto rest = input.Rest();
    const Octets bytes(rest.begin(), rest.end());
    const CF::String text = TextOf(bytes, encoding.encoding, external);
    if (encoding.oracle != nullptr && !external) {
        CheckOracle(bytes, encoding, text);
    }
    if (!text) {
        return 0;
    }
    Require(external || BytesOf(text, encoding.encoding, 0, false) == bytes);
    // In an external representation a text's own first U+FEFF would be taken for the mark.
    const bool marked = external && CFStringHasPrefix(text, CF::String("\uFEFF"));
    for (const Encoding &other : kEncodings) {
        const Octets written = BytesOf(text, other.encoding, 0, external);
        Require(marked || written.empty() || TextOf(written, other.encoding, external) == text);
        CheckShortBuffer(text, other.encoding, room);
    }
    return 0;
}
