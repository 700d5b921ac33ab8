#include "support/cf/Extensions.hpp"

#include "support/cf/CF.hpp"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>

namespace {

CF::Data Bytes(std::string_view bytes) {
    return CF::Data(std::vector<std::uint8_t>(bytes.begin(), bytes.end()));
}

std::string Base64(std::string_view bytes) {
    return CF::String::Adopt(CFDataCopyBase64Representation(Bytes(bytes).get())).GetUTF8();
}

std::string CString(const CF::String &string, CFStringEncoding encoding) {
    char *text = CFStringCopyCString(string.get(), encoding);
    const std::string result = text == nullptr ? "(null)" : text;
    std::free(text);
    return result;
}

const UniChar kLoneSurrogate[] = {'a', 0xDC00};

CF::String LoneSurrogate() {
    return CF::String::Adopt(CFStringCreateWithCharacters(nullptr, kLoneSurrogate, 2));
}

} // namespace

TEST(Extensions, NamesTheFriendlyKey) {
    EXPECT_EQ(CF::String::GetUTF8(kCFErrorIsFriendlyKey), "kCFErrorIsFriendlyKey");
}

TEST(Extensions, MakesPOSIXErrors) {
    const auto error = CF::Error::Adopt(CFErrorCreatePOSIXError(nullptr, EACCES, nullptr));
    EXPECT_TRUE(CFEqual(error.GetDomain(), kCFErrorDomainPOSIX));
    EXPECT_EQ(error.GetCode(), EACCES);
    EXPECT_EQ(error.GetFailureReason().GetUTF8(), "Permission denied");
}

TEST(Extensions, KeepsTheDictionaryOfAPOSIXError) {
    const auto info = CF::Dictionary::Mutable();
    info.Set(kCFErrorLocalizedDescriptionKey, CFSTR("text"));
    const auto error = CF::Error::Adopt(CFErrorCreatePOSIXError(nullptr, EACCES, info.get()));
    EXPECT_EQ(error.GetDescription().GetUTF8(), "text");
}

TEST(Extensions, MatchesDomainAndCode) {
    const auto error = CF::Error::Adopt(CFErrorCreatePOSIXError(nullptr, ENOENT, nullptr));
    EXPECT_TRUE(CFErrorDomainAndCodeMatch(error.get(), CFSTR("NSPOSIXErrorDomain"), ENOENT));
    EXPECT_FALSE(CFErrorDomainAndCodeMatch(error.get(), kCFErrorDomainPOSIX, EACCES));
    EXPECT_FALSE(CFErrorDomainAndCodeMatch(error.get(), kCFErrorDomainCocoa, ENOENT));
    EXPECT_FALSE(CFErrorDomainAndCodeMatch(error.get(), nullptr, ENOENT));
    EXPECT_FALSE(CFErrorDomainAndCodeMatch(nullptr, kCFErrorDomainPOSIX, ENOENT));
}

TEST(Extensions, SetsAllPairsOfADictionary) {
    const auto source = CF::Dictionary::Mutable();
    source.Set(CFSTR("a"), CFSTR("new"));
    source.Set(CFSTR("b"), CFSTR("added"));
    const auto destination = CF::Dictionary::Mutable();
    destination.Set(CFSTR("a"), CFSTR("old"));
    destination.Set(CFSTR("c"), CFSTR("kept"));
    CFDictionarySetValues(destination.mutableRef(), source.get());
    EXPECT_EQ(destination.GetCount(), 3);
    EXPECT_EQ(destination.Get<CF::String>(CFSTR("a")).GetUTF8(), "new");
    EXPECT_EQ(destination.Get<CF::String>(CFSTR("b")).GetUTF8(), "added");
    EXPECT_EQ(destination.Get<CF::String>(CFSTR("c")).GetUTF8(), "kept");
}

TEST(Extensions, SetsNothingOfNullOrItself) {
    const auto dictionary = CF::Dictionary::Mutable();
    dictionary.Set(CFSTR("a"), CFSTR("value"));
    CFDictionarySetValues(dictionary.mutableRef(), nullptr);
    CFDictionarySetValues(dictionary.mutableRef(), dictionary.get());
    EXPECT_EQ(dictionary.GetCount(), 1);
}

TEST(Extensions, CopiesACStringInItsEncoding) {
    EXPECT_EQ(CString("gr\u00FC\u00DFe", kCFStringEncodingUTF8), "gr\u00FC\u00DFe");
    EXPECT_EQ(CString("gr\u00FC\u00DFe", kCFStringEncodingISOLatin1), "gr\xFC\xDF"
                                                                      "e");
    EXPECT_EQ(CString("", kCFStringEncodingUTF8), "");
}

TEST(Extensions, CopiesNoCStringOfTextWithoutOne) {
    EXPECT_EQ(CFStringCopyCString(nullptr, kCFStringEncodingUTF8), nullptr);
    EXPECT_EQ(CString("\u00FC", kCFStringEncodingASCII), "(null)");
    EXPECT_EQ(CString(std::string("a\0b", 3), kCFStringEncodingUTF8), "(null)");
    EXPECT_EQ(CString(LoneSurrogate(), kCFStringEncodingUTF8), "(null)");
    EXPECT_EQ(CString("a", kCFStringEncodingInvalidId), "(null)");
}

TEST(Extensions, MakesDataOfTheUTF8Text) {
    const CF::String text(std::string("\u00FC\0\U0001F600", 7));
    const auto data = CF::Data::Adopt(CFDataCreateFromUTF8String(nullptr, text.get()));
    EXPECT_TRUE(data == Bytes(std::string_view("\xC3\xBC\0\xF0\x9F\x98\x80", 7)));
    EXPECT_EQ(CFDataCreateFromUTF8String(nullptr, nullptr), nullptr);
}

TEST(Extensions, MakesDataOfTextWithoutUTF8Form) {
    const auto data = CF::Data::Adopt(CFDataCreateFromUTF8String(nullptr, LoneSurrogate().get()));
    EXPECT_TRUE(data == Bytes("a\uFFFD"));
}

TEST(Extensions, ReadsUTF8TextOfData) {
    EXPECT_EQ(CF::String::Adopt(CFDataCopyUTF8String(Bytes("gr\u00FC\u00DFe").get())).GetUTF8(),
              "gr\u00FC\u00DFe");
    EXPECT_EQ(CF::String::Adopt(CFDataCopyUTF8String(Bytes("").get())).GetLength(), 0);
    EXPECT_EQ(CFDataCopyUTF8String(Bytes("\xFF").get()), nullptr);
    EXPECT_EQ(CFDataCopyUTF8String(nullptr), nullptr);
}

TEST(Extensions, WritesBase64OfRFC4648) {
    EXPECT_EQ(Base64(""), "");
    EXPECT_EQ(Base64("f"), "Zg==");
    EXPECT_EQ(Base64("fo"), "Zm8=");
    EXPECT_EQ(Base64("foo"), "Zm9v");
    EXPECT_EQ(Base64("foob"), "Zm9vYg==");
    EXPECT_EQ(Base64("fooba"), "Zm9vYmE=");
    EXPECT_EQ(Base64("foobar"), "Zm9vYmFy");
    EXPECT_EQ(CFDataCopyBase64Representation(nullptr), nullptr);
}

TEST(Extensions, WritesEveryBase64DigitWithoutLineBreaks) {
    // Six bits counting up from 0: the bytes that the alphabet itself stands for.
    std::string bytes;
    for (unsigned digit = 0; digit < 64; digit += 4) {
        const unsigned bits = digit << 18 | (digit + 1) << 12 | (digit + 2) << 6 | (digit + 3);
        bytes +=
            {static_cast<char>(bits >> 16), static_cast<char>(bits >> 8), static_cast<char>(bits)};
    }
    const std::string alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    EXPECT_EQ(Base64(bytes), alphabet);
    EXPECT_EQ(Base64(bytes + bytes), alphabet + alphabet);
}
