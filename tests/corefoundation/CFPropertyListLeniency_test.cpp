// What XML forbids and property lists hold: our reader and writer take it, as the platform's do.
#include "tests/corefoundation/PlistSupport.hpp"

#include <gtest/gtest.h>

using namespace PlistTest;
using namespace std::string_literals;

namespace {

std::string Utf16(std::u16string_view text) {
    std::string bytes;
    for (const char16_t unit : text) {
        bytes += static_cast<char>(unit & 0xFF);
        bytes += static_cast<char>(unit >> 8);
    }
    return bytes;
}

std::string Utf32(std::u32string_view text) {
    std::string bytes;
    for (const char32_t c : text) {
        for (const unsigned shift : {24U, 16U, 8U, 0U}) {
            bytes += static_cast<char>(c >> shift & 0xFF);
        }
    }
    return bytes;
}

// Texts that XML has no way to carry, or needs references for.
const std::u16string kOddTexts[] = {
    u"\u0001",        u"a\u001fb",    u"\u007f\u0085", std::u16string(3, u'\0'),
    u"\ufffe\uffff",  {u'a', 0xD800}, {0xDC00, u'a'},  {0xD83D, 0xD83D, 0xDE00},
    {0xDE00, 0xD83D}, u"\r\n\r",      u"\u001b[31m"};

} // namespace

TEST(XMLLeniency, ReadsControlCharacters) {
    EXPECT_EQ(DumpOf("<string>a\x1F\x01"s + "b</string>"), "s0061001f00010062");
    EXPECT_EQ(DumpOf("<string>a&#x1F;&#1;b</string>"), "s0061001f00010062");
    EXPECT_EQ(DumpOf("<string>a\0b&#0;</string>"s), "s0061000000620000");
    EXPECT_EQ(DumpOf("<dict><key>\x1F</key><true/></dict>"), "{001f=t}");
}

TEST(XMLLeniency, ReadsBytesThatAreNoUtf8AsReplacementCharacters) {
    EXPECT_EQ(DumpOf("<string>a\xFF"s + "b</string>"), "s0061fffd0062");
    EXPECT_EQ(DumpOf("<string>\xC3\xA4\xE4\xF0\x9F\x98</string>"), "s00e4fffdfffd");
    EXPECT_EQ(DumpOf("<dict><key>\x80</key><string>kept</string></dict>"),
              "{fffd=s006b006500700074}");
}

TEST(XMLLeniency, ReadsHalvesOfSurrogatePairs) {
    EXPECT_EQ(DumpOf("<string>&#xD800;</string>"), "sd800");
    EXPECT_EQ(DumpOf("<string>\xED\xB0\x80</string>"), "sdc00");
    EXPECT_EQ(DumpOf("<string>\xED\xA0\xBD\xED\xB8\x80</string>"), "sd83dde00");
    EXPECT_EQ(DumpOf(Utf16(u"\uFEFF<string>"s + char16_t{0xD83D} + u"</string>")), "sd83d");
}

TEST(XMLLeniency, ReadsWhiteSpaceBeforeTheDeclaration) {
    EXPECT_EQ(DumpOf(" \n\t<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist><true/></plist>"),
              "t");
}

TEST(XMLLeniency, IgnoresWhatFollowsTheRoot) {
    const std::string document = "<plist version=\"1.0\"><true/></plist>";
    for (const std::string &rest : {"\0\0\0\0"s, "\n \0\n"s, "<plist><false/></plist>"s,
                                    "</dict>\n</plist>"s, "\xFF&"s, "rest"s}) {
        EXPECT_EQ(DumpOf(document + rest), "t") << rest;
    }
}

TEST(XMLLeniency, ReadsOtherEncodings) {
    const auto declared = [](const std::string &encoding, const std::string &text) {
        return DumpOf("<?xml version='1.0' encoding = '" + encoding + "'?><string>" + text +
                      "</string>");
    };
    EXPECT_EQ(declared("iso-8859-1", "\xE4"), "s00e4");
    EXPECT_EQ(declared("macintosh", "\x8A"), "s00e4");
    EXPECT_EQ(declared("us-ascii", "a"), "s0061");
    EXPECT_EQ(declared("utf-16", "\xC3\xA4"), "s00e4"); // It is mistaken about itself.
    EXPECT_EQ(DumpOf(Utf16(u"<string>\u00e4</string>")), "s00e4");
    EXPECT_EQ(DumpOf(Utf32(U"\uFEFF<string>\U0001F600</string>")), "sd83dde00");
    EXPECT_EQ(DumpOf(Utf32(U"<string>"s + char32_t{0x110000} + U"</string>")), "sfffd");
}

TEST(XMLLeniency, PassesOverAttributesWhateverTheyHold) {
    EXPECT_EQ(DumpOf("<plist version=1.0><array a='<>' b=\"/>\"><true x/></array></plist>"), "[t]");
}

TEST(XMLLeniency, JoinsTextsAroundCommentsAndInstructions) {
    EXPECT_EQ(DumpOf("<string>a<!-- < & -- > -->b<?x y?>c<![CDATA[<&\r\n]]>d</string>"),
              "s00610062"
              "0063003c0026000a0064");
}

TEST(XMLLeniency, EveryTextSurvives) {
    for (const std::u16string &text : kOddTexts) {
        const Held string = Text(text);
        EXPECT_EQ(DumpOf(WriteXML(string.get())), Dump(string.get()));
        const Held dictionary = Dictionary({{string.get(), string.get()}});
        EXPECT_EQ(DumpOf(WriteXML(dictionary.get())), Dump(dictionary.get()));
    }
}

TEST(XMLLeniency, PairsAreNotTakenApartHoweverLongTheTextIs) {
    for (std::size_t before = 1020; before < 1028; ++before) {
        const Held string = Text(std::u16string(before, u'a') + u"\U0001F600" +
                                 std::u16string(2000, 0xD800) + u"\U0001F600");
        EXPECT_EQ(DumpOf(WriteXML(string.get())), Dump(string.get()));
    }
}

TEST(XMLLeniency, WhatBinaryListsHoldIsWritten) {
    std::vector<Held> members;
    for (const std::u16string &text : kOddTexts) {
        members.push_back(Text(text));
    }
    for (const double seconds : {-1e12, 1e12, 0.0}) {
        members.push_back(Date(seconds));
    }
    members.push_back(Wide(5, 7));
    members.push_back(Uid(UINT32_MAX));
    std::vector<CFTypeRef> references;
    for (const Held &member : members) {
        references.push_back(member.get());
    }
    const Reading binary = Read(WriteBinary(Array(references).get()));
    ASSERT_TRUE(binary.root);
    EXPECT_EQ(DumpOf(WriteXML(binary.root.get())), Dump(binary.root.get()));
}

TEST(XMLLeniency, TheDeepestReferenceSurvives) {
    Held root = Array({Uid(1).get()});
    for (int i = 1; i < 512; ++i) {
        root = Array({root.get()});
    }
    EXPECT_EQ(DumpOf(WriteXML(root.get())), Dump(root.get()));
    const Held tooDeep = Array({root.get()});
    EXPECT_EQ(WriteXML(tooDeep.get()), "Containers nest more than 512 deep.");
    std::string dictionary = "<true/>";
    for (int i = 0; i < 513; ++i) {
        dictionary = "<dict><key>k</key>" + dictionary + "</dict>";
    }
    EXPECT_EQ(DumpOf(dictionary), "Containers nest more than 512 deep (line 1).");
}
