// Fields and lines of CSV.
#include "manifest/CSVText.hpp"

#include "tests/manifest/ManifestFixtures.hpp"

#include <cstdint>
#include <limits>

using namespace manifest_test;

namespace {

std::string Escaped(std::string_view text) { return Kelvane::esc(Text(text)).GetUTF8(); }

} // namespace

TEST(CSVEscaping, DoublesEveryDoubleQuote) {
    EXPECT_EQ(Escaped("\""), "\"\"");
    EXPECT_EQ(Escaped("a\"b\"\"c"), "a\"\"b\"\"\"\"c");
}

TEST(CSVEscaping, LeavesEverythingElse) {
    EXPECT_EQ(Escaped("a,b\nc\r\td'e;\xE2\x82\xAC"), "a,b\nc\r\td'e;\xE2\x82\xAC");
}

TEST(CSVEscaping, GivesBackATextWithoutQuotesItself) {
    const auto text = Text("plain");
    EXPECT_EQ(Kelvane::esc(text).get(), text.get());
}

TEST(CSVEscaping, EmptyStaysEmptyAndNullStaysNull) {
    EXPECT_EQ(Escaped(""), "");
    EXPECT_FALSE(Kelvane::esc(CF::String()));
}

TEST(CSVEscaping, KeepsWhatHasNoUTF8Form) {
    const UniChar units[] = {0xD83D, '"', 0};
    const auto text = CF::String::Adopt(CFStringCreateWithCharacters(nullptr, units, 3));
    const auto escaped = Kelvane::esc(text);
    ASSERT_EQ(escaped.GetLength(), 4);
    EXPECT_EQ(CFStringGetCharacterAtIndex(escaped, 0), 0xD83D);
    EXPECT_EQ(CFStringGetCharacterAtIndex(escaped, 2), '"');
    EXPECT_EQ(CFStringGetCharacterAtIndex(escaped, 3), 0);
}

TEST(CSVLine, SeparatesQuotedFields) {
    Kelvane::CSVLine line;
    line.AddAscii("a\"b");
    line.AddText(Text("c\"\xC3\xA9"));
    line.AddText(nullptr);
    EXPECT_EQ(line.Units(), u"\"a\"\"b\",\"c\"\"\u00E9\",\"\"");
}

TEST(CSVLine, TakesBigEndianUnits) {
    const Octets units = {0x00, '"', 0xD8, 0x3D, 0xDE, 0x00};
    Kelvane::CSVLine line;
    line.AddUTF16BE(units.data(), units.size());
    EXPECT_EQ(line.Units(), u"\"\"\"\U0001F600\"");
}

TEST(CSVLine, WritesExtremeNumbersInFull) {
    Kelvane::CSVLine line;
    line.AddSigned(std::numeric_limits<std::int64_t>::min());
    line.AddSigned(std::numeric_limits<std::int64_t>::max());
    line.AddUnsigned(std::numeric_limits<std::uint32_t>::max());
    EXPECT_EQ(line.Units(), u"\"-9223372036854775808\",\"9223372036854775807\",\"4294967295\"");
}

TEST(CSVLine, BeginsAnewWhenCleared) {
    Kelvane::CSVLine line;
    line.AddAscii("a");
    line.Clear();
    line.AddAscii("b");
    EXPECT_EQ(line.Units(), u"\"b\"");
}
