#include "tests/corefoundation/Objects.hpp"
#include "tests/support/RunCommand.hpp"

#include <gtest/gtest.h>

#include <map>
#include <sstream>

namespace {

using Objects::Adopt;
using Objects::String;
using Objects::UTF8;
using StringPointer = CF::Pointer<CFStringRef>;

const UInt8 *bytesOf(std::string_view bytes) {
    return reinterpret_cast<const UInt8 *>(bytes.data());
}

StringPointer decode(std::string_view bytes, CFStringEncoding encoding, bool external = false) {
    return Adopt(CFStringCreateWithBytes(nullptr, bytesOf(bytes),
                                         static_cast<CFIndex>(bytes.size()), encoding, external));
}

struct Encoded {
    CFIndex converted;
    std::string bytes;
    bool operator==(const Encoded &) const = default;
};
std::ostream &operator<<(std::ostream &out, const Encoded &value) {
    return out << value.converted << " " << testing::PrintToString(value.bytes);
}

Encoded encode(CFStringRef string, CFStringEncoding encoding, UInt8 lossByte = 0,
               CFIndex capacity = 1000, bool external = false) {
    std::string buffer(static_cast<std::size_t>(capacity) + 1, '\x7e');
    CFIndex used = -1;
    const CFRange all = CFRangeMake(0, CFStringGetLength(string));
    const CFIndex converted =
        CFStringGetBytes(string, all, encoding, lossByte, external,
                         reinterpret_cast<UInt8 *>(buffer.data()), capacity, &used);
    EXPECT_EQ(buffer[static_cast<std::size_t>(used)], '\x7e');
    buffer.resize(static_cast<std::size_t>(used));
    return {converted, buffer};
}

StringPointer fromUnits(const std::u16string &text) {
    return Adopt(CFStringCreateWithCharacters(nullptr,
                                              reinterpret_cast<const UniChar *>(text.data()),
                                              static_cast<CFIndex>(text.size())));
}

std::string utf16le(CFStringRef string) {
    return encode(string, kCFStringEncodingUTF16LE, 0, 4000).bytes;
}

// ---- known answers ----

TEST(CFStringEncoding, DecodesStrictUTF8) {
    for (const char *good :
         {"", "a", "\x7f", "\xc2\x80", "\xdf\xbf", "\xe0\xa0\x80", "\xed\x9f\xbf", "\xee\x80\x80",
          "\xef\xbf\xbf", "\xf0\x90\x80\x80", "\xf4\x8f\xbf\xbf"}) {
        EXPECT_TRUE(decode(good, kCFStringEncodingUTF8)) << testing::PrintToString(good);
    }
    for (const char *bad :
         {"\x80", "\xbf", "\xc0\x80", "\xc1\xbf", "\xe0\x9f\xbf", "\xed\xa0\x80", "\xed\xbf\xbf",
          "\xf0\x8f\xbf\xbf", "\xf4\x90\x80\x80", "\xf5\x80\x80\x80", "\xfe", "\xff", "\xc3",
          "\xe2\x82", "\xf0\x9f\x98", "a\xc3(", "abcdefghijklmnopqrstuvwxyz\xff"}) {
        EXPECT_FALSE(decode(bad, kCFStringEncodingUTF8)) << testing::PrintToString(bad);
    }
}

TEST(CFStringEncoding, FindsTheOneBadByteAtEveryPosition) {
    for (std::size_t length = 1; length < 80; ++length) {
        for (std::size_t i = 0; i < length; ++i) {
            std::string text(length, 'a');
            text[i] = '\x80';
            ASSERT_FALSE(decode(text, kCFStringEncodingUTF8)) << length << " " << i;
            ASSERT_FALSE(decode(text, kCFStringEncodingASCII)) << length << " " << i;
            ASSERT_EQ(CFStringGetLength(decode(text, kCFStringEncodingISOLatin1).get()),
                      static_cast<CFIndex>(length));
        }
    }
}

TEST(CFStringEncoding, RefusesUnknownEncodings) {
    EXPECT_FALSE(decode("a", kCFStringEncodingInvalidId));
    EXPECT_FALSE(decode("a", 0x12345));
    EXPECT_FALSE(CFStringIsEncodingAvailable(kCFStringEncodingInvalidId));
    EXPECT_TRUE(CFStringIsEncodingAvailable(kCFStringEncodingUTF32BE));
    EXPECT_EQ(encode(CFSTR("a"), kCFStringEncodingInvalidId), (Encoded{0, ""}));
    EXPECT_EQ(CFStringGetSystemEncoding(), CFStringEncoding{kCFStringEncodingUTF8});
}

TEST(CFStringEncoding, RefusesCStringsOfWiderUnits) {
    EXPECT_EQ(CFStringCreateWithCString(nullptr, "ab", kCFStringEncodingUTF16), nullptr);
    char buffer[10];
    EXPECT_FALSE(CFStringGetCString(CFSTR("a"), buffer, 10, kCFStringEncodingUTF16));
    EXPECT_EQ(CFStringGetCStringPtr(CFSTR("a"), kCFStringEncodingUTF32), nullptr);
}

TEST(CFStringEncoding, DecodesSingleByteEncodings) {
    EXPECT_EQ(UTF8(decode("a\xe9\xff", kCFStringEncodingISOLatin1).get()), "a\u00e9\u00ff");
    EXPECT_EQ(UTF8(decode("a\x8e\xdb", kCFStringEncodingMacRoman).get()), "a\u00e9\u20ac");
    EXPECT_FALSE(decode("a\x80", kCFStringEncodingASCII));
}

TEST(CFStringEncoding, RefusesHalfUnits) {
    EXPECT_FALSE(decode("abc", kCFStringEncodingUTF16LE));
    EXPECT_FALSE(decode("abcde", kCFStringEncodingUTF32LE));
}

TEST(CFStringEncoding, RefusesWhatIsNoScalarInUTF32) {
    using namespace std::string_view_literals;
    EXPECT_TRUE(decode("\xff\xff\x10\0"sv, kCFStringEncodingUTF32LE));
    EXPECT_FALSE(decode("\0\0\x11\0"sv, kCFStringEncodingUTF32LE));
    EXPECT_FALSE(decode("\0\xd8\0\0"sv, kCFStringEncodingUTF32LE));
    EXPECT_FALSE(decode("\xff\xff\xff\xff"sv, kCFStringEncodingUTF32BE));
}

TEST(CFStringEncoding, KeepsLoneSurrogatesInUTF16) {
    using namespace std::string_view_literals;
    const auto string = decode("a\0\0\xd8"sv, kCFStringEncodingUTF16LE);
    ASSERT_TRUE(string);
    EXPECT_EQ(utf16le(string.get()), "a\0\0\xd8"sv);
}

// ---- byte order marks ----

TEST(CFStringEncoding, ObeysAndDropsByteOrderMarksOfExternalText) {
    using namespace std::string_view_literals;
    const auto text = [](std::string_view bytes, CFStringEncoding encoding) {
        return UTF8(decode(bytes, encoding, true).get());
    };
    EXPECT_EQ(text("\xef\xbb\xbf"
                   "a"sv,
                   kCFStringEncodingUTF8),
              "a");
    EXPECT_EQ(text("\xff\xfe"
                   "a\0"sv,
                   kCFStringEncodingUTF16),
              "a");
    EXPECT_EQ(text("\xfe\xff\0a"sv, kCFStringEncodingUTF16), "a");
    EXPECT_EQ(text("\xfe\xff\0a"sv, kCFStringEncodingUTF16BE), "a");
    EXPECT_EQ(text("\xff\xfe\0\0a\0\0\0"sv, kCFStringEncodingUTF32), "a");
    EXPECT_EQ(text("\0\0\xfe\xff\0\0\0a"sv, kCFStringEncodingUTF32), "a");
    EXPECT_EQ(text("a\0"sv, kCFStringEncodingUTF16LE), "a");
}

TEST(CFStringEncoding, KeepsByteOrderMarksOfOtherText) {
    EXPECT_EQ(UTF8(decode("\xef\xbb\xbf"
                          "a",
                          kCFStringEncodingUTF8)
                       .get()),
              "\uFEFFa");
    EXPECT_EQ(CFStringGetLength(decode("\xff\xfe"
                                       "ab",
                                       kCFStringEncodingUTF16)
                                    .get()),
              2);
}

TEST(CFStringEncoding, WritesByteOrderMarksWhereTheOrderIsOpen) {
    using namespace std::string_view_literals;
    const auto written = [](CFStringEncoding encoding) {
        return encode(CFSTR("a"), encoding, 0, 100, true).bytes;
    };
    EXPECT_EQ(written(kCFStringEncodingUTF16), "\xff\xfe"
                                               "a\0"sv);
    EXPECT_EQ(written(kCFStringEncodingUTF32), "\xff\xfe\0\0a\0\0\0"sv);
    EXPECT_EQ(written(kCFStringEncodingUTF16BE), "\0a"sv);
    EXPECT_EQ(written(kCFStringEncodingUTF8), "a"sv);
    EXPECT_EQ(encode(CFSTR("a"), kCFStringEncodingUTF16, 0, 1, true), (Encoded{0, ""}));
}

TEST(CFStringEncoding, MakesAndReadsExternalRepresentations) {
    for (const CFStringEncoding encoding :
         {kCFStringEncodingUTF8, kCFStringEncodingUTF16, kCFStringEncodingUTF16BE,
          kCFStringEncodingUTF32, kCFStringEncodingUTF32LE}) {
        const auto text = String("a\u00e9\U0001F600");
        const auto data =
            Adopt(CFStringCreateExternalRepresentation(nullptr, text.get(), encoding, 0));
        const auto back =
            Adopt(CFStringCreateFromExternalRepresentation(nullptr, data.get(), encoding));
        EXPECT_TRUE(CFEqual(back.get(), text.get())) << encoding;
    }
}

TEST(CFStringEncoding, RefusesExternalRepresentationsThatLoseText) {
    EXPECT_EQ(
        CFStringCreateExternalRepresentation(nullptr, CFSTR("\u00e9"), kCFStringEncodingASCII, 0),
        nullptr);
    EXPECT_EQ(
        CFStringCreateExternalRepresentation(nullptr, CFSTR(""), kCFStringEncodingInvalidId, 0),
        nullptr);
    const auto lossy = Adopt(CFStringCreateExternalRepresentation(nullptr, CFSTR("\u00e9"),
                                                                  kCFStringEncodingASCII, '?'));
    EXPECT_EQ(Objects::Bytes(lossy.get()), "?");
}

// ---- getting bytes ----

TEST(CFStringGetBytes, StopsAtWhatHasNoForm) {
    const auto text = String("ab\u00e9c");
    EXPECT_EQ(encode(text.get(), kCFStringEncodingASCII), (Encoded{2, "ab"}));
    EXPECT_EQ(encode(text.get(), kCFStringEncodingASCII, '?'), (Encoded{4, "ab?c"}));
    EXPECT_EQ(encode(text.get(), kCFStringEncodingISOLatin1), (Encoded{4, "ab\xe9"
                                                                          "c"}));
    EXPECT_EQ(encode(text.get(), kCFStringEncodingMacRoman), (Encoded{4, "ab\x8e"
                                                                         "c"}));
}

TEST(CFStringGetBytes, ReplacesAPairByOneLossByte) {
    EXPECT_EQ(encode(CFSTR("a\U0001F600b"), kCFStringEncodingASCII, '?'), (Encoded{4, "a?b"}));
}

TEST(CFStringGetBytes, RefusesOrReplacesLoneSurrogates) {
    const auto text = fromUnits({u'a', char16_t{0xD800}, u'b'});
    EXPECT_EQ(encode(text.get(), kCFStringEncodingUTF8), (Encoded{1, "a"}));
    EXPECT_EQ(encode(text.get(), kCFStringEncodingUTF8, '?'), (Encoded{3, "a\uFFFDb"}));
    EXPECT_EQ(encode(text.get(), kCFStringEncodingUTF32BE).converted, 1);
    const auto reversed = fromUnits({char16_t{0xDC00}, char16_t{0xD800}});
    EXPECT_EQ(encode(reversed.get(), kCFStringEncodingUTF8, '?'), (Encoded{2, "\uFFFD\uFFFD"}));
}

TEST(CFStringGetBytes, NeverCutsACharacter) {
    const auto text = String("a\u20ac\U0001F600");
    const std::vector<Encoded> expected = {
        {0, ""},        {1, "a"},       {1, "a"},
        {1, "a"},       {2, "a\u20ac"}, {2, "a\u20ac"},
        {2, "a\u20ac"}, {2, "a\u20ac"}, {4, "a\u20ac\U0001F600"}};
    for (std::size_t capacity = 0; capacity < expected.size(); ++capacity) {
        EXPECT_EQ(encode(text.get(), kCFStringEncodingUTF8, 0, static_cast<CFIndex>(capacity)),
                  expected[capacity]);
    }
    EXPECT_EQ(encode(CFSTR("abc"), kCFStringEncodingUTF8, 0, 2), (Encoded{2, "ab"}));
    EXPECT_EQ(encode(CFSTR("abc"), kCFStringEncodingUTF16LE, 0, 3).converted, 1);
}

TEST(CFStringGetBytes, MeasuresWithoutABuffer) {
    const auto text = String("a\u20ac\U0001F600");
    CFIndex used = 0;
    EXPECT_EQ(CFStringGetBytes(text.get(), CFRangeMake(0, 4), kCFStringEncodingUTF8, 0, false,
                               nullptr, 0, &used),
              4);
    EXPECT_EQ(used, 8);
    EXPECT_EQ(CFStringGetBytes(text.get(), CFRangeMake(1, 1), kCFStringEncodingUTF8, 0, false,
                               nullptr, 0, nullptr),
              1);
}

TEST(CFStringGetBytes, TakesARange) {
    const auto text = String("ab\U0001F600cd");
    UInt8 buffer[8] = {};
    CFIndex used = 0;
    EXPECT_EQ(CFStringGetBytes(text.get(), CFRangeMake(1, 3), kCFStringEncodingUTF8, 0, false,
                               buffer, 8, &used),
              3);
    EXPECT_EQ(std::string(buffer, buffer + used), "b\U0001F600");
    // Half a pair is a lone surrogate.
    EXPECT_EQ(CFStringGetBytes(text.get(), CFRangeMake(1, 2), kCFStringEncodingUTF8, 0, false,
                               buffer, 8, &used),
              1);
}

TEST(CFStringGetBytes, FitsTheMaximumSizes) {
    EXPECT_EQ(CFStringGetMaximumSizeForEncoding(10, kCFStringEncodingUTF8), 30);
    EXPECT_EQ(CFStringGetMaximumSizeForEncoding(10, kCFStringEncodingASCII), 10);
    EXPECT_EQ(CFStringGetMaximumSizeForEncoding(10, kCFStringEncodingUTF16), 20);
    EXPECT_EQ(CFStringGetMaximumSizeForEncoding(10, kCFStringEncodingUTF32), 40);
    EXPECT_EQ(CFStringGetMaximumSizeForEncoding(-1, kCFStringEncodingUTF8), kCFNotFound);
    EXPECT_EQ(CFStringGetMaximumSizeForEncoding(INT64_MAX, kCFStringEncodingUTF8), kCFNotFound);
    EXPECT_EQ(CFStringGetMaximumSizeForEncoding(1, kCFStringEncodingInvalidId), kCFNotFound);
}

// ---- C strings ----

TEST(CFStringGetCString, NeedsRoomForTheTerminator) {
    char buffer[8];
    EXPECT_TRUE(CFStringGetCString(CFSTR("abc"), buffer, 4, kCFStringEncodingUTF8));
    EXPECT_STREQ(buffer, "abc");
    EXPECT_FALSE(CFStringGetCString(CFSTR("abc"), buffer, 3, kCFStringEncodingUTF8));
    EXPECT_STREQ(buffer, "");
    EXPECT_FALSE(CFStringGetCString(CFSTR("abc"), buffer, 0, kCFStringEncodingUTF8));
    EXPECT_FALSE(CFStringGetCString(CFSTR("abc"), nullptr, 8, kCFStringEncodingUTF8));
    EXPECT_TRUE(CFStringGetCString(CFSTR("\u00e9"), buffer, 8, kCFStringEncodingISOLatin1));
    EXPECT_STREQ(buffer, "\xe9");
}

TEST(CFStringGetCString, RefusesTextThatACStringCannotHold) {
    char buffer[8];
    for (const auto &text :
         {String(std::string_view("a\0b", 3)), String(std::string_view("\u00e9\0b", 4)),
          fromUnits({char16_t{0xD800}})}) {
        EXPECT_FALSE(CFStringGetCString(text.get(), buffer, 8, kCFStringEncodingUTF8));
        EXPECT_STREQ(buffer, "");
        EXPECT_FALSE(CFStringGetFileSystemRepresentation(text.get(), buffer, 8));
        EXPECT_EQ(CFStringGetCStringPtr(text.get(), kCFStringEncodingUTF8), nullptr);
    }
    EXPECT_FALSE(CFStringGetCString(CFSTR("\u00e9"), buffer, 8, kCFStringEncodingASCII));
}

TEST(CFStringGetCString, GivesPointersToASCIIText) {
    EXPECT_STREQ(CFStringGetCStringPtr(String("abc").get(), kCFStringEncodingUTF8), "abc");
    EXPECT_STREQ(CFStringGetCStringPtr(String("abc").get(), kCFStringEncodingMacRoman), "abc");
    EXPECT_STREQ(CFStringGetCStringPtr(CFSTR(""), kCFStringEncodingASCII), "");
    EXPECT_EQ(CFStringGetCStringPtr(String("\u00e9").get(), kCFStringEncodingUTF8), nullptr);
    EXPECT_EQ(CFStringGetCharactersPtr(String("abc").get()), nullptr);
    EXPECT_EQ(CFStringGetCharactersPtr(String("\u00e9").get())[0], 0xE9);
    const auto unterminated = Adopt(CFStringCreateWithBytesNoCopy(
        nullptr, bytesOf("abc"), 2, kCFStringEncodingUTF8, false, kCFAllocatorNull));
    EXPECT_EQ(CFStringGetCStringPtr(unterminated.get(), kCFStringEncodingUTF8), nullptr);
}

TEST(CFStringGetCString, GivesPathsInUTF8) {
    const auto text = String("/e\u0301/\U0001F600");
    std::string buffer(
        static_cast<std::size_t>(CFStringGetMaximumSizeOfFileSystemRepresentation(text.get())),
        '\0');
    ASSERT_TRUE(CFStringGetFileSystemRepresentation(text.get(), buffer.data(),
                                                    static_cast<CFIndex>(buffer.size())));
    EXPECT_STREQ(buffer.c_str(), "/e\u0301/\U0001F600");
}

// ---- numbers ----

TEST(CFStringNumbers, ReadsIntegers) {
    const std::map<const char *, SInt32> cases = {{"0", 0},
                                                  {"42", 42},
                                                  {"-42", -42},
                                                  {"+7", 7},
                                                  {" \t\n12", 12},
                                                  {"12abc", 12},
                                                  {"abc", 0},
                                                  {"", 0},
                                                  {"-", 0},
                                                  {"+-1", 0},
                                                  {"- 1", 0},
                                                  {"2147483647", INT32_MAX},
                                                  {"2147483648", INT32_MAX},
                                                  {"-2147483648", INT32_MIN},
                                                  {"-2147483649", INT32_MIN},
                                                  {"99999999999999999999999", INT32_MAX},
                                                  {"\u00e9", 0},
                                                  {"\u00a05", 5}};
    for (const auto &[text, expected] : cases) {
        EXPECT_EQ(CFStringGetIntValue(String(text).get()), expected) << text;
    }
}

TEST(CFStringNumbers, ReadsRealNumbers) {
    const std::map<const char *, double> cases = {{"0", 0},
                                                  {"1.5", 1.5},
                                                  {"-1.5e3", -1500},
                                                  {"+.5", 0.5},
                                                  {" 2.5x", 2.5},
                                                  {"5.", 5},
                                                  {"1e400", 1.0 / 0.0},
                                                  {"1e-400", 0},
                                                  {"abc", 0},
                                                  {"", 0},
                                                  {"inf", 0},
                                                  {"nan", 0},
                                                  {"0x10", 0},
                                                  {"--1", 0},
                                                  {"+-1", 0},
                                                  {"1,5", 1},
                                                  {".", 0},
                                                  {"-", 0},
                                                  {"1e", 1},
                                                  {"1.2.3", 1.2}};
    for (const auto &[text, expected] : cases) {
        EXPECT_EQ(CFStringGetDoubleValue(String(text).get()), expected) << text;
    }
}

// ---- against Python's codecs ----

constexpr const char *kOracle = R"(
import random, sys
random.seed(5)
names = ['utf-8', 'ascii', 'latin-1', 'mac_roman', 'utf-16-le', 'utf-16-be', 'utf-32-le', 'utf-32-be']
def text():
    pick = lambda: random.choice([random.randrange(0x80), random.randrange(0x80, 0x100),
        random.randrange(0x100, 0xD800), random.randrange(0xE000, 0x10000),
        random.randrange(0x10000, 0x110000), ord(random.choice('\u20ac\u00e9\uFFFD'))])
    return ''.join(chr(pick()) for _ in range(random.randrange(20)))
def emit(kind, name, data, units):
    print(kind, name, 'x' + data.hex(), '-' if units is None else 'x' + units.hex())
def decoded(data, name, errors='strict'):
    # A lone surrogate is text to us in UTF-16.
    errors = 'surrogatepass' if name.startswith('utf-16') else errors
    try: return data.decode(name, errors).encode('utf-16-le', 'surrogatepass')
    except UnicodeDecodeError: return None
for name in names:
    for _ in range(400):
        s = text()
        units = s.encode('utf-16-le')
        try: emit('encode', name, s.encode(name), units)
        except UnicodeEncodeError: emit('refuse', name, b'', units)
        data = bytearray(s.encode(name, 'ignore'))
        for _ in range(random.randrange(4)):
            if data: data[random.randrange(len(data))] = random.choice([random.randrange(256), 0xED, 0xF4, 0xC0, 0x80])
        data = bytes(data[:random.randrange(len(data) + 1)]) if random.random() < 0.3 else bytes(data)
        emit('decode', name, data, decoded(data, name))
        if name == 'utf-8': emit('lossy', name, data.replace(b'\0', b'0'), decoded(data.replace(b'\0', b'0'), name, 'replace'))
)";

std::string fromHex(const std::string &field) {
    std::string bytes;
    for (std::size_t i = 1; i + 1 < field.size(); i += 2) {
        bytes += static_cast<char>(std::stoi(field.substr(i, 2), nullptr, 16));
    }
    return bytes;
}

CFStringEncoding encodingNamed(const std::string &name) {
    static const std::map<std::string, CFStringEncoding> encodings = {
        {"utf-8", kCFStringEncodingUTF8},        {"ascii", kCFStringEncodingASCII},
        {"latin-1", kCFStringEncodingISOLatin1}, {"mac_roman", kCFStringEncodingMacRoman},
        {"utf-16-le", kCFStringEncodingUTF16LE}, {"utf-16-be", kCFStringEncodingUTF16BE},
        {"utf-32-le", kCFStringEncodingUTF32LE}, {"utf-32-be", kCFStringEncodingUTF32BE}};
    return encodings.at(name);
}

void checkDecoding(const std::string &bytes, CFStringEncoding encoding, const std::string &units) {
    const auto string = decode(bytes, encoding);
    if (units == "-") {
        EXPECT_FALSE(string);
    } else {
        ASSERT_TRUE(string);
        EXPECT_EQ(utf16le(string.get()), fromHex(units));
    }
}

void checkCase(const std::string &kind, const std::string &bytes, CFStringEncoding encoding,
               const std::string &units) {
    if (kind == "decode") {
        checkDecoding(bytes, encoding, units);
        return;
    }
    if (kind == "lossy") {
        const auto text =
            Adopt(CFStringCreateWithFormat(nullptr, nullptr, CFSTR("%s"), bytes.c_str()));
        EXPECT_EQ(utf16le(text.get()), fromHex(units));
        return;
    }
    const auto text = decode(fromHex(units), kCFStringEncodingUTF16LE);
    const Encoded encoded = encode(text.get(), encoding);
    const bool whole = encoded.converted == CFStringGetLength(text.get());
    EXPECT_EQ(whole, kind == "encode");
    if (whole) {
        EXPECT_EQ(encoded.bytes, bytes);
        EXPECT_LE(static_cast<CFIndex>(bytes.size()),
                  CFStringGetMaximumSizeForEncoding(encoded.converted, encoding));
    }
}

TEST(CFStringEncoding, AgreesWithPythonOnGeneratedText) {
    const auto oracle = testing_support::RunPython(kOracle);
    ASSERT_EQ(oracle.status, 0) << oracle.errors;
    std::istringstream lines(oracle.output);
    std::map<std::string, int> counts;
    std::string kind;
    std::string name;
    std::string bytes;
    std::string units;
    while (lines >> kind >> name >> bytes >> units) {
        SCOPED_TRACE(kind + " " + name + " " + bytes + " " + units);
        checkCase(kind, fromHex(bytes), encodingNamed(name), units);
        ASSERT_FALSE(testing::Test::HasFailure());
        ++counts[kind];
    }
    EXPECT_EQ(counts["decode"], 3200);
    EXPECT_EQ(counts["encode"] + counts["refuse"], 3200);
    EXPECT_EQ(counts["lossy"], 400);
    EXPECT_GT(counts["refuse"], 800);
}

} // namespace
