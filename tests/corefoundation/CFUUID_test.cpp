#include "tests/corefoundation/Objects.hpp"

#include <gtest/gtest.h>

#include <set>

using namespace Objects;

namespace {

constexpr CFUUIDBytes kBytes = {0x68, 0x75, 0x3A, 0x44, 0x4D, 0x6F, 0x12, 0x26,
                                0x9C, 0x60, 0x00, 0x50, 0xE4, 0xC0, 0x00, 0xFF};
constexpr const char *kText = "68753A44-4D6F-1226-9C60-0050E4C000FF";

CF::Pointer<CFUUIDRef> FromText(std::string_view text) {
    return Adopt(CFUUIDCreateFromString(nullptr, String(text).get()));
}

std::string Text(CFUUIDRef uuid) { return UTF8(Adopt(CFUUIDCreateString(nullptr, uuid)).get()); }

CFUUIDRef Constant(UInt8 last) {
    return CFUUIDGetConstantUUIDWithBytes(nullptr, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14,
                                          15, last);
}

} // namespace

TEST(CFUUID, WritesUpperCaseGroups) {
    EXPECT_EQ(Text(Adopt(CFUUIDCreateFromUUIDBytes(nullptr, kBytes)).get()), kText);
}

TEST(CFUUID, ReadsEitherCase) {
    const auto upper = FromText(kText);
    const auto lower = FromText("68753a44-4d6f-1226-9c60-0050e4c000ff");
    ASSERT_TRUE(upper && lower);
    EXPECT_EQ(Text(upper.get()), kText);
    EXPECT_TRUE(CFEqual(upper.get(), lower.get()));
    EXPECT_EQ(CFHash(upper.get()), CFHash(lower.get()));
}

TEST(CFUUID, RefusesOtherTexts) {
    for (const char *text :
         {"", "68753A44-4D6F-1226-9C60-0050E4C000F", "68753A44-4D6F-1226-9C60-0050E4C000FFF",
          "68753A4404D6F-1226-9C60-0050E4C000FF", "G8753A44-4D6F-1226-9C60-0050E4C000FF",
          "68753A44-4D6F-1226-9C60-0050E4C000F ", "-8753A44-4D6F-1226-9C60-0050E4C000FF",
          "68753A44-4D6F-1226-9C60-0050E4C000F\xC3\xA9"}) {
        EXPECT_FALSE(FromText(text)) << text;
    }
    EXPECT_EQ(CFUUIDCreateFromString(nullptr, nullptr), nullptr);
}

TEST(CFUUID, GivesItsBytesBack) {
    const auto uuid =
        Adopt(CFUUIDCreateWithBytes(nullptr, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15));
    const CFUUIDBytes bytes = CFUUIDGetUUIDBytes(uuid.get());
    EXPECT_EQ(bytes.byte0, 0);
    EXPECT_EQ(bytes.byte7, 7);
    EXPECT_EQ(bytes.byte15, 15);
    EXPECT_EQ(Text(uuid.get()), "00010203-0405-0607-0809-0A0B0C0D0E0F");
}

TEST(CFUUID, IsRandomOfVersionFour) {
    std::set<std::string> texts;
    for (int i = 0; i < 1000; ++i) {
        const auto uuid = Adopt(CFUUIDCreate(nullptr));
        const CFUUIDBytes bytes = CFUUIDGetUUIDBytes(uuid.get());
        EXPECT_EQ(bytes.byte6 >> 4, 4);
        EXPECT_EQ(bytes.byte8 >> 6, 2);
        texts.insert(Text(uuid.get()));
    }
    EXPECT_EQ(texts.size(), 1000U);
}

TEST(CFUUID, HasOneConstantObjectForItsBytes) {
    CFUUIDRef constant = Constant(16);
    EXPECT_EQ(Constant(16), constant);
    EXPECT_NE(Constant(17), constant);
    CFRelease(CFRetain(constant));
    EXPECT_EQ(Text(Constant(16)), "01020304-0506-0708-090A-0B0C0D0E0F10");
}

TEST(CFUUID, DescribesTypeAndText) {
    const std::string description = Description(FromText(kText).get());
    EXPECT_EQ(description.find("<CFUUID 0x"), 0U);
    EXPECT_NE(description.find(std::string("> ") + kText), std::string::npos);
}

TEST(CFUUIDDeathTest, RefusesNull) {
    EXPECT_DEATH(CFUUIDCreateString(nullptr, nullptr), "CFUUIDCreateString");
    EXPECT_DEATH(CFUUIDGetUUIDBytes(nullptr), "CFUUIDGetUUIDBytes");
}
