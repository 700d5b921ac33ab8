#include "tests/corefoundation/PlistSupport.hpp"

#include <CoreFoundation/CFArray.h>
#include <CoreFoundation/CFDictionary.h>
#include <CoreFoundation/CFNumber.h>
#include <CoreFoundation/CFString.h>
#include <cmath>
#include <gtest/gtest.h>
#include <limits>

using namespace PlistTest;

namespace {

const std::string kProlog = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
                            "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
                            "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
                            "<plist version=\"1.0\">\n";

// A document around the value, which begins in its fourth line.
std::string Document(std::string_view value) {
    return kProlog + std::string(value) + "\n</plist>\n";
}
std::string DumpOfValue(std::string_view value) { return DumpOf(Document(value)); }
Fault FaultOfValue(std::string_view value) { return Read(Document(value)).fault; }

std::string WrittenValue(CFTypeRef root) {
    const std::string text = WriteXML(root);
    const std::string end = "</plist>\n";
    return text.size() < kProlog.size() + end.size()
               ? text
               : text.substr(kProlog.size(), text.size() - kProlog.size() - end.size());
}

std::string Repeated(std::string_view text, std::size_t count) {
    std::string all;
    for (std::size_t i = 0; i < count; ++i) {
        all += text;
    }
    return all;
}

std::string Utf16(std::u16string_view text, bool bigEndian) {
    std::string bytes;
    for (const char16_t unit : text) {
        const char high = static_cast<char>(unit >> 8);
        const char low = static_cast<char>(unit & 0xFF);
        bytes += bigEndian ? high : low;
        bytes += bigEndian ? low : high;
    }
    return bytes;
}

std::string RealHex(double value) { return Dump(Real(value).get()); }

const std::string kSample =
    Document("<!-- all types -->\n<dict>\n<key>a &amp; b</key><array><integer>-7</integer>"
             "<real>1.5</real><true/><false/><string>x&#xe4;<![CDATA[<&>]]>y</string></array>\n"
             "<key>d</key><data> AQID\n</data><key>e</key><date>2001-01-01T00:00:01Z</date>"
             "<key>u</key><dict><key>CF$UID</key><integer>9</integer></dict></dict>");

} // namespace

TEST(XMLRead, EveryType) {
    EXPECT_EQ(DumpOf(kSample),
              "{00610020002600200062=[i-7,r3ff8000000000000,t,f,s007800e4003c0026003e0079],"
              "0064=d010203,0065=D3ff0000000000000,0075=u9}");
    EXPECT_EQ(Read(kSample).format, kCFPropertyListXMLFormat_v1_0);
}

TEST(XMLRead, EmptyValues) {
    EXPECT_EQ(DumpOfValue("<dict/>"), "{}");
    EXPECT_EQ(DumpOfValue("<array></array>"), "[]");
    EXPECT_EQ(DumpOfValue("<string/>"), "s");
    EXPECT_EQ(DumpOfValue("<data></data>"), "d");
    EXPECT_EQ(DumpOfValue("<dict><key></key><true/></dict>"), "{=t}");
}

TEST(XMLRead, ValueWithoutPlistAroundIt) {
    EXPECT_EQ(DumpOf("<array><true/></array>"), "[t]");
    EXPECT_EQ(DumpOf("\xEF\xBB\xBF<true/>"), "t");
}

TEST(XMLRead, Integers) {
    EXPECT_EQ(DumpOfValue("<integer> +12\n</integer>"), "i12");
    EXPECT_EQ(DumpOfValue("<integer>-9223372036854775808</integer>"), "i-9223372036854775808");
    EXPECT_EQ(DumpOfValue("<integer>18446744073709551615</integer>"), "i18446744073709551615");
    EXPECT_EQ(DumpOfValue("<integer>-9223372036854775809</integer>"),
              Dump(Wide(-1, INT64_MAX).get()));
    EXPECT_EQ(DumpOfValue("<integer>170141183460469231731687303715884105727</integer>"),
              Dump(Wide(INT64_MAX, UINT64_MAX).get()));
    EXPECT_EQ(DumpOfValue("<integer>-0x80000000000000000000000000000000</integer>"),
              Dump(Wide(INT64_MIN, 0).get()));
    EXPECT_EQ(DumpOfValue("<integer>0xFfFf</integer>"), "i65535");
    EXPECT_EQ(DumpOfValue("<integer>-0x10</integer>"), "i-16");
    EXPECT_EQ(DumpOfValue("<integer>-0</integer>"), "i0");
    EXPECT_EQ(DumpOfValue("<integer>007</integer>"), "i7");
}

TEST(XMLRead, RefusesMalformedIntegers) {
    for (const char *text :
         {"", " ", "1x", "x", "0x", "- 1", "--1", "+-1", "1.0", "1 2",
          "170141183460469231731687303715884105728", "-170141183460469231731687303715884105729",
          "0x80000000000000000000000000000000", "0x100000000000000000000000000000000"}) {
        EXPECT_EQ(FaultOfValue("<integer>" + std::string(text) + "</integer>"),
                  Corrupt("<integer> has a malformed value (line 4)."))
            << text;
    }
}

TEST(XMLRead, Reals) {
    EXPECT_EQ(DumpOfValue("<real>0.1</real>"), RealHex(0.1));
    EXPECT_EQ(DumpOfValue("<real> -1e-300 </real>"), RealHex(-1e-300));
    EXPECT_EQ(DumpOfValue("<real>+5</real>"), RealHex(5));
    EXPECT_EQ(DumpOfValue("<real>5e-324</real>"), RealHex(5e-324));
    EXPECT_EQ(DumpOfValue("<real>-0</real>"), RealHex(-0.0));
    const double infinity = std::numeric_limits<double>::infinity();
    for (const char *text : {"inf", "+infinity", "Infinity", "+INF"}) {
        EXPECT_EQ(DumpOfValue("<real>" + std::string(text) + "</real>"), RealHex(infinity)) << text;
    }
    EXPECT_EQ(DumpOfValue("<real>-infinity</real>"), RealHex(-infinity));
    EXPECT_EQ(DumpOfValue("<real>nan</real>"), RealHex(std::nan("")));
}

TEST(XMLRead, RefusesMalformedReals) {
    for (const char *text : {"", "e5", "1,5", "0x1p3", "--1", "+-1", "nan(1)", "1e999", "1 2"}) {
        EXPECT_EQ(FaultOfValue("<real>" + std::string(text) + "</real>"),
                  Corrupt("<real> has a malformed value (line 4)."))
            << text;
    }
}

TEST(XMLRead, Dates) {
    EXPECT_EQ(DumpOfValue("<date>2001-01-01T00:00:00Z</date>"), Dump(Date(0).get()));
    EXPECT_EQ(DumpOfValue("<date> 2000-12-31T23:59:59Z </date>"), Dump(Date(-1).get()));
    EXPECT_EQ(DumpOfValue("<date>1970-01-01T00:00:00Z</date>"), Dump(Date(-978307200).get()));
    EXPECT_EQ(DumpOfValue("<date>1969-12-31T23:59:59Z</date>"), Dump(Date(-978307201).get()));
    EXPECT_EQ(DumpOfValue("<date>2000-02-29T00:00:00Z</date>"), Dump(Date(-26524800).get()));
    EXPECT_EQ(DumpOfValue("<date>0001-01-01T00:00:00Z</date>"), Dump(Date(-63113904000).get()));
    EXPECT_EQ(DumpOfValue("<date>9999-12-31T23:59:59Z</date>"), Dump(Date(252423993599).get()));
}

TEST(XMLRead, DatesOfFewerAndMoreThanFourDigits) {
    EXPECT_EQ(DumpOfValue("<date>0000-12-31T23:59:59Z</date>"), Dump(Date(-63113904001).get()));
    EXPECT_EQ(DumpOfValue("<date>10000-01-01T00:00:00Z</date>"), Dump(Date(252423993600).get()));
    EXPECT_EQ(DumpOfValue("<date>02001-01-01T00:00:00Z</date>"), Dump(Date(0).get()));
    EXPECT_EQ(DumpOfValue("<date>0000-02-29T00:00:00Z</date>"), Dump(Date(-63140428800).get()));
    EXPECT_EQ(DumpOfValue("<date>-001-12-31T00:00:00Z</date>"), Dump(Date(-63145612800).get()));
    EXPECT_EQ(DumpOfValue("<date>-0001-12-31T00:00:00Z</date>"), Dump(Date(-63145612800).get()));
}

TEST(XMLRead, DatesWithFractionsAndLeapSeconds) {
    EXPECT_EQ(DumpOfValue("<date>2001-01-01T00:00:00.5Z</date>"), Dump(Date(0.5).get()));
    EXPECT_EQ(DumpOfValue("<date>2000-12-31T23:59:59.250Z</date>"), Dump(Date(-0.75).get()));
    EXPECT_EQ(DumpOfValue("<date>2001-01-01T00:00:60Z</date>"), Dump(Date(60).get()));
}

TEST(XMLRead, RefusesMalformedDates) {
    for (const char *text :
         {"", "2001-01-01", "2001-01-01T00:00:00", "2001-01-01 00:00:00Z", "2001-13-01T00:00:00Z",
          "2001-00-01T00:00:00Z", "2001-02-29T00:00:00Z", "2001-01-32T00:00:00Z",
          "2001-01-01T24:00:00Z", "2001-01-01T00:60:00Z", "2001-01-01T00:00:61Z",
          "2001-1-01T00:00:00Z", "--01-01-01T00:00:00Z", "2001-01-01T00:00:00.Z",
          "2001-01-01T00:00:00,5Z", "2001-01-01T00:00:00Z+", "-01-01T00:00:00Z",
          "999999999999-01-01T00:00:00Z", "1000000000000-01-01T00:00:00Z"}) {
        EXPECT_EQ(FaultOfValue("<date>" + std::string(text) + "</date>"),
                  Corrupt("<date> has a malformed value (line 4)."))
            << text;
    }
}

TEST(XMLRead, Data) {
    EXPECT_EQ(DumpOfValue("<data>AA==</data>"), "d00");
    EXPECT_EQ(DumpOfValue("<data>\n\tA A E=\r\n</data>"), "d0001");
    EXPECT_EQ(DumpOfValue("<data>+/+/</data>"), "dfbffbf");
}

TEST(XMLRead, RefusesMalformedData) {
    for (const char *text : {"A", "AA", "AAA", "AA=", "A===", "=AAA", "AAAA=", "AA==AA==", "AA=A",
                             "AA-_", "A\xC3\xA4==", "AAAA===="}) {
        EXPECT_EQ(FaultOfValue("<data>" + std::string(text) + "</data>"),
                  Corrupt("<data> has a malformed value (line 4)."))
            << text;
    }
}

TEST(XMLRead, OneKeyDictionariesOfCFUIDAreUids) {
    const auto uid = [](std::string_view value) {
        return DumpOfValue("<dict><key>CF$UID</key>" + std::string(value) + "</dict>");
    };
    const std::string key = "00430046002400550049"
                            "0044";
    EXPECT_EQ(uid("<integer>0</integer>"), "u0");
    EXPECT_EQ(uid("<integer>4294967295</integer>"), "u4294967295");
    EXPECT_EQ(uid("<integer>4294967296</integer>"), "{" + key + "=i4294967296}");
    EXPECT_EQ(uid("<integer>-1</integer>"), "{" + key + "=i-1}");
    EXPECT_EQ(uid("<real>1</real>"), "{" + key + "=r3ff0000000000000}");
    EXPECT_EQ(uid("<true/>"), "{" + key + "=t}");
    EXPECT_EQ(uid("<integer>1</integer><key>x</key><true/>"), "{" + key + "=i1,0078=t}");
}

TEST(XMLRead, ByteOrderMarksAndUtf16) {
    const std::u16string text =
        u"\uFEFF<?xml version=\"1.0\" encoding=\"UTF-16\"?><string>\u00e4\U0001F600</string>";
    EXPECT_EQ(DumpOf(Utf16(text, true)), "s00e4d83dde00");
    EXPECT_EQ(DumpOf(Utf16(text, false)), "s00e4d83dde00");
    EXPECT_EQ(DumpOf("\xEF\xBB\xBF" + Document("<string>\xC3\xA4</string>")), "s00e4");
}

TEST(XMLRead, KeepsTheFirstOfEqualKeys) {
    EXPECT_EQ(DumpOfValue("<dict><key>k</key><true/><key>k</key><false/></dict>"), "{006b=t}");
}

TEST(XMLRead, MutableOptionsMakeMutableObjects) {
    const Reading reading = Read(Document("<array><string>a</string><data>AA==</data></array>"),
                                 kCFPropertyListMutableContainersAndLeaves);
    auto *array = static_cast<CFMutableArrayRef>(const_cast<void *>(reading.root.get()));
    CFStringAppend(
        static_cast<CFMutableStringRef>(const_cast<void *>(CFArrayGetValueAtIndex(array, 0))),
        CFSTR("b"));
    CFDataSetLength(
        static_cast<CFMutableDataRef>(const_cast<void *>(CFArrayGetValueAtIndex(array, 1))), 2);
    CFArrayAppendValue(array, kCFBooleanTrue);
    EXPECT_EQ(Dump(array), "[s00610062,d0000,t]");
}

TEST(XMLRead, RefusesMisplacedTags) {
    const std::pair<const char *, const char *> cases[] = {
        {"<dict><true/></dict>", "<true> without a <key> before it (line 4)."},
        {"<dict><key>a</key></dict>", "<key> without a value after it (line 4)."},
        {"<dict><key>a</key><key>b</key></dict>", "<key> without a value after it (line 4)."},
        {"<array><key>a</key></array>", "<key> outside of <dict> (line 4)."},
        {"<key>a</key>", "<key> outside of <dict> (line 4)."},
        {"<string>a<true/></string>", "<true> inside of <string> (line 4)."},
        {"<true><true/></true>", "<true> inside of <true> (line 4)."},
        {"<array><plist/></array>", "<plist> inside of <array> (line 4)."},
        {"<true/>\n<true/>", "<plist> has more than one value (line 5)."},
        {"", "<plist> has no value (line 5)."},
        {"<set/>", "Unknown tag <set> (line 4)."},
        {"<array>text</array>", "Text outside of a value (line 4)."},
        {"<true>x</true>", "Text outside of a value (line 4)."}};
    for (const auto &[value, reason] : cases) {
        EXPECT_EQ(FaultOfValue(value), Corrupt(reason)) << value;
    }
    EXPECT_EQ(Read("<key>a</key>").fault, Corrupt("<key> outside of <dict> (line 1)."));
}

TEST(XMLRead, RefusesMalformedXML) {
    const std::pair<const char *, const char *> cases[] = {
        {"<array>\n</dict>", "</dict> has no <dict> to end (line 5)."},
        {"<array", "<array> does not end (line 4)."},
        {"< array/>", "a tag has no name (line 4)."},
        {"<true/ >\n<>", "a tag has no name (line 5)."},
        {"<true></true x>", "</true> holds more than its name (line 4)."},
        {"<string>a & b</string>", "a reference does not end (line 4)."},
        {"\n<!DOCTYPE plist>", "a declaration stands where none can (line 5)."},
        {"<!-- ", "the document ends inside of a comment (line 4)."},
        {"<string><![CDATA[]]", "the document ends inside of a text (line 4)."},
        {"<array a=\"", "the document ends inside of a tag (line 4)."}};
    for (const auto &[value, reason] : cases) {
        EXPECT_EQ(FaultOfValue(value), Corrupt("The XML is malformed: " + std::string(reason)))
            << value;
    }
    EXPECT_EQ(Read("<array>\n<!-- -->").fault,
              Corrupt("The XML is malformed: the document ends inside of <array> (line 2)."));
    EXPECT_EQ(Read("<!-- alone -->").fault,
              Corrupt("The XML is malformed: there is no value (line 1)."));
}

TEST(XMLRead, RefusesUnknownEncodings) {
    EXPECT_EQ(Read("<?xml version=\"1.0\" encoding=\"x-unknown\"?><true/>").fault,
              Corrupt("The encoding \"x-unknown\" is not supported (line 1)."));
}

TEST(XMLRead, RefusesTheOldTextFormat) {
    for (const char *text : {"{ a = b; }", "( a, b )", "\"text\"", " \n", "bplis"}) {
        EXPECT_EQ(Read(text).fault,
                  Corrupt("The document is neither a binary nor an XML property list (line 1)."))
            << text;
    }
}

TEST(XMLHostile, RefusesEntityDeclarations) {
    const std::string laughs = "<?xml version=\"1.0\"?>\n<!DOCTYPE plist [\n<!ENTITY a \"ha\">\n"
                               "<!ENTITY b \"&a;&a;&a;&a;\">\n]>\n<string>&b;</string>";
    EXPECT_EQ(Read(laughs).fault,
              Corrupt("A document type with declarations of its own is not allowed (line 2)."));
    const std::string file = "<!DOCTYPE plist [<!ENTITY f SYSTEM \"file:///etc/passwd\">]>\n"
                             "<string>&f;</string>";
    EXPECT_EQ(Read(file).fault,
              Corrupt("A document type with declarations of its own is not allowed (line 1)."));
}

TEST(XMLHostile, RefusesUnknownEntities) {
    EXPECT_EQ(FaultOfValue("<string>a&nothing;b</string>"),
              Corrupt("Reference to an unknown entity (line 4)."));
    EXPECT_EQ(Read("<string>a&nothing;b</string>").fault,
              Corrupt("Reference to an unknown entity (line 1)."));
}

TEST(XMLHostile, RefusesUnknownCharacters) {
    for (const char *reference : {"&#;", "&#x;", "&#1114112;", "&#x110000;", "&#-1;", "&#x1g;",
                                  "&#99999999999999999999;"}) {
        EXPECT_EQ(FaultOfValue("<string>" + std::string(reference) + "</string>"),
                  Corrupt("Reference to an unknown character (line 4)."))
            << reference;
    }
}

TEST(XMLHostile, BoundsDepth) {
    const auto nested = [](std::size_t depth) {
        return Document(Repeated("<array>", depth) + Repeated("</array>", depth));
    };
    EXPECT_TRUE(Read(nested(512)).root);
    EXPECT_EQ(Read(nested(513)).fault, Corrupt("Containers nest more than 512 deep (line 4)."));
    EXPECT_EQ(Read(nested(100000)).fault, Corrupt("Containers nest more than 512 deep (line 4)."));
    EXPECT_EQ(Read(Repeated("<array>", 100000)).fault,
              Corrupt("Containers nest more than 512 deep (line 1)."));
    EXPECT_TRUE(Read(Repeated("<array>", 512) + Repeated("</array>", 512)).root);
}

TEST(XMLHostile, BoundsTheNumberOfValues) {
    const std::size_t limit = std::size_t{1} << 22;
    const std::string tooMany = "<array>" + Repeated("<true/>", limit) + "</array>";
    EXPECT_EQ(Read(tooMany).fault, Corrupt("The document has more than 4194304 values (line 1)."));
}

TEST(XMLHostile, RefusesEveryTruncation) {
    const std::string whole = kSample.substr(0, kSample.size() - 1);
    for (std::size_t length = 0; length < whole.size(); ++length) {
        const Reading reading = Read(whole.substr(0, length));
        EXPECT_FALSE(reading.root) << length;
        EXPECT_FALSE(reading.fault.reason.empty()) << length;
    }
}

TEST(XMLHostile, EveryByteMayHaveEveryValue) {
    std::size_t readable = 0;
    for (std::size_t at = 0; at < kSample.size(); ++at) {
        for (int value = 0; value < 256; value += at % 3 == 0 ? 1 : 7) {
            std::string changed = kSample;
            changed[at] = static_cast<char>(value);
            const Reading reading = Read(changed);
            ASSERT_NE(reading.root == nullptr, reading.fault.code == 0) << at << ' ' << value;
            readable += reading.root ? 1 : 0;
        }
    }
    EXPECT_GT(readable, 0u);
}

TEST(XMLWrite, Layout) {
    const Held keys[] = {Text("b"), Text("a"), Text("C"), Text("empty")};
    const Held text = Text("x < y & \"z\" > 'w'");
    const Held data = Data({0, 1, 2, 3});
    const Held inner = Array({text.get(), kCFBooleanTrue, kCFBooleanFalse, data.get()});
    const Held nothing = Array({});
    const Held none = Dictionary({});
    const Held root = Dictionary({{keys[0].get(), inner.get()},
                                  {keys[1].get(), nothing.get()},
                                  {keys[2].get(), none.get()},
                                  {keys[3].get(), Text("").get()}});
    EXPECT_EQ(WriteXML(root.get()), kProlog + "<dict>\n"
                                              "\t<key>C</key>\n\t<dict/>\n"
                                              "\t<key>a</key>\n\t<array/>\n"
                                              "\t<key>b</key>\n\t<array>\n"
                                              "\t\t<string>x &lt; y &amp; \"z\" &gt; 'w'</string>\n"
                                              "\t\t<true/>\n\t\t<false/>\n"
                                              "\t\t<data>\n\t\tAAECAw==\n\t\t</data>\n"
                                              "\t</array>\n"
                                              "\t<key>empty</key>\n\t<string></string>\n"
                                              "</dict>\n</plist>\n");
}

TEST(XMLWrite, Numbers) {
    EXPECT_EQ(WrittenValue(Integer(INT64_MIN).get()), "<integer>-9223372036854775808</integer>\n");
    EXPECT_EQ(WrittenValue(Unsigned(UINT64_MAX).get()),
              "<integer>18446744073709551615</integer>\n");
    EXPECT_EQ(WrittenValue(Real(0.1).get()), "<real>0.1</real>\n");
    EXPECT_EQ(WrittenValue(Real(1e300).get()), "<real>1e+300</real>\n");
    EXPECT_EQ(WrittenValue(Real(-0.0).get()), "<real>-0</real>\n");
    EXPECT_EQ(WrittenValue(Float(0.1F).get()), "<real>0.10000000149011612</real>\n");
    const double infinity = std::numeric_limits<double>::infinity();
    EXPECT_EQ(WrittenValue(Real(infinity).get()), "<real>+infinity</real>\n");
    EXPECT_EQ(WrittenValue(Real(-infinity).get()), "<real>-infinity</real>\n");
    EXPECT_EQ(WrittenValue(Real(std::nan("")).get()), "<real>nan</real>\n");
}

TEST(XMLWrite, IntegersBeyond64BitsSurvive) {
    for (const Held &number : {Wide(1, 0), Wide(-1, 0), Wide(-2, UINT64_MAX), Wide(INT64_MIN, 0),
                               Wide(INT64_MAX, UINT64_MAX)}) {
        EXPECT_EQ(DumpOf(WriteXML(number.get())), Dump(number.get()));
    }
    EXPECT_EQ(WrittenValue(Wide(1, 0).get()), "<integer>18446744073709551616</integer>\n");
}

TEST(XMLWrite, Dates) {
    EXPECT_EQ(WrittenValue(Date(0).get()), "<date>2001-01-01T00:00:00Z</date>\n");
    EXPECT_EQ(WrittenValue(Date(-978307201).get()), "<date>1969-12-31T23:59:59Z</date>\n");
    EXPECT_EQ(WrittenValue(Date(-63113904000).get()), "<date>0001-01-01T00:00:00Z</date>\n");
    EXPECT_EQ(WrittenValue(Date(252423993599.5).get()), "<date>9999-12-31T23:59:59Z</date>\n");
    EXPECT_EQ(WrittenValue(Date(-0.25).get()), "<date>2000-12-31T23:59:59Z</date>\n");
}

TEST(XMLWrite, DatesOutsideFourDigitYearsSurvive) {
    EXPECT_EQ(WrittenValue(Date(252423993600).get()), "<date>10000-01-01T00:00:00Z</date>\n");
    EXPECT_EQ(WrittenValue(Date(-63113904001).get()), "<date>0000-12-31T23:59:59Z</date>\n");
    EXPECT_EQ(WrittenValue(Date(-63145612800).get()), "<date>-0001-12-31T00:00:00Z</date>\n");
    for (const double seconds : {-63113904001.0, 252423993600.0, -1e15, 1e15, 0x1p53 + 2, -0x1p61,
                                 0x1.fffffffffffffp61, -0x1.fffffffffffffp61}) {
        EXPECT_EQ(DumpOf(WriteXML(Date(seconds).get())), Dump(Date(seconds).get())) << seconds;
    }
}

TEST(XMLWrite, RefusesDatesThatNoTextTells) {
    const double infinity = std::numeric_limits<double>::infinity();
    for (const double seconds : {0x1p62, -0x1p62, 1e300, infinity, -infinity, std::nan("")}) {
        EXPECT_EQ(Write(Date(seconds).get(), kCFPropertyListXMLFormat_v1_0).fault,
                  Unwritable("A date lies too far from today to be written in XML."))
            << seconds;
    }
}

TEST(XMLWrite, WrapsDataByIndentation) {
    const Held data = Data(Octets(60, 0));
    EXPECT_EQ(WrittenValue(data.get()),
              "<data>\n" + std::string(76, 'A') + "\n" + std::string(4, 'A') + "\n</data>\n");
    const Held array = Array({data.get()});
    EXPECT_EQ(WrittenValue(array.get()), "<array>\n\t<data>\n\t" + std::string(68, 'A') + "\n\t" +
                                             std::string(12, 'A') + "\n\t</data>\n</array>\n");
    EXPECT_EQ(WrittenValue(Data({}).get()), "<data>\n</data>\n");
}

TEST(XMLWrite, KeepsDataLinesGoingHoweverDeep) {
    const Held data = Data(Octets(24, 0));
    Held root = Array({data.get()});
    for (int i = 0; i < 19; ++i) {
        root = Array({root.get()});
    }
    const std::string tabs(20, '\t');
    EXPECT_NE(
        WriteXML(root.get())
            .find(tabs + "AAAAAAAAAAAAAAAA\n" + tabs + "AAAAAAAAAAAAAAAA\n" + tabs + "</data>"),
        std::string::npos);
}

TEST(XMLWrite, UidsAreOneKeyDictionaries) {
    const Held array = Array({Uid(7).get()});
    EXPECT_EQ(WrittenValue(array.get()), "<array>\n\t<dict>\n\t\t<key>CF$UID</key>\n"
                                         "\t\t<integer>7</integer>\n\t</dict>\n</array>\n");
    EXPECT_EQ(DumpOf(WriteXML(array.get())), "[u7]");
}

TEST(XMLWrite, TextSurvives) {
    for (const std::u16string_view text :
         {u"tab\tline\nreturn\rboth\r\n", u"]]>", u"\u007f\u0085\u00e4\u2028\ufffd\uf8ff",
          u"\U0001F600\U00010000\U0010FFFF\U0001FFFE", u" space ", u"&amp;"}) {
        const Held string = Text(text);
        EXPECT_EQ(DumpOf(WriteXML(string.get())), Dump(string.get()));
    }
}

TEST(XMLWrite, SortsKeysByUtf16Units) {
    // The astral letter's first unit, D835, comes before the private-use one.
    const Held astral = Text(u"\U0001D400");
    const Held privateUse = Text(u"\uE000");
    const Held prefix = Text("a");
    const Held longer = Text("aa");
    const Held root = Dictionary({{privateUse.get(), kCFBooleanTrue},
                                  {astral.get(), kCFBooleanTrue},
                                  {longer.get(), kCFBooleanTrue},
                                  {prefix.get(), kCFBooleanTrue}});
    EXPECT_EQ(WrittenValue(root.get()),
              "<dict>\n\t<key>a</key>\n\t<true/>\n\t<key>aa</key>\n\t<true/>\n"
              "\t<key>\xF0\x9D\x90\x80</key>\n\t<true/>\n\t<key>\xEE\x80\x80</key>\n\t<true/>\n"
              "</dict>\n");
}

TEST(XMLWrite, RefusesGraphsOutsideTheLimits) {
    EXPECT_EQ(Write(NestedArrays(513).get(), kCFPropertyListXMLFormat_v1_0).fault,
              Unwritable("Containers nest more than 512 deep."));
    EXPECT_EQ(DumpOf(WriteXML(NestedArrays(512).get())).size(), 1024u);
    Held shared = Array({});
    for (int i = 0; i < 60; ++i) {
        shared = Array({shared.get(), shared.get()});
    }
    EXPECT_EQ(Write(shared.get(), kCFPropertyListXMLFormat_v1_0).fault,
              Unwritable("The property list has more than 4194304 values."));
}
