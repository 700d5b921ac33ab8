// Sorting lines through a file.
#include "manifest/SortedLines.hpp"

#include "tests/manifest/ManifestFixtures.hpp"

#include <algorithm>
#include <random>

#include <unistd.h>

using namespace manifest_test;
using testing::ElementsAreArray;
using testing::StartsWith;
using UnitLines = std::vector<std::u16string>;

namespace {

class SortedLines : public testing::Test {
  protected:
    std::string Path() const { return (directory_ / "lines").string(); }
    UnitLines Sorted(const UnitLines &lines) const {
        Kelvane::SortedLines sorted(Path());
        for (const auto &line : lines) {
            sorted.Add(line);
        }
        sorted.Sort();
        UnitLines result;
        for (std::size_t i = 0; i < sorted.Count(); ++i) {
            result.emplace_back(sorted.At(i));
        }
        return result;
    }
    void ExpectSorted(UnitLines lines) const {
        const UnitLines sorted = Sorted(lines);
        std::sort(lines.begin(), lines.end());
        EXPECT_EQ(sorted, lines);
    }

    testing_support::TemporaryDirectory directory_;
};

// Lines of few different units, so that many begin alike or are equal.
UnitLines RandomLines(unsigned seed) {
    const std::u16string alphabet = {u'a', u'"', 0xE9, 0xD83D, 0xDE00, 0xE000, 0xFFFF};
    std::mt19937 random(seed);
    UnitLines lines(random() % 200);
    for (auto &line : lines) {
        line = u"\"";
        const auto sameness = random() % 3 + 1;
        for (auto left = random() % 20; left > 0; --left) {
            line += alphabet[random() % sameness * (random() % alphabet.size()) % alphabet.size()];
        }
    }
    return lines;
}

} // namespace

TEST_F(SortedLines, NoLinesAreNoLines) { EXPECT_TRUE(Sorted({}).empty()); }

TEST_F(SortedLines, ComparesCodeUnits) {
    const UnitLines lines = {u"\"B", u"\"a", u"\"\U0001F600", u"\"\uFF41"};
    EXPECT_THAT(Sorted({lines[3], lines[2], lines[1], lines[0]}), ElementsAreArray(lines));
}

TEST_F(SortedLines, TellsLinesApartThatBeginAlike) {
    const std::u16string beginning(500, u'x');
    const UnitLines lines = {beginning, beginning + u"\u00E9a", beginning + u"\u00E9b"};
    EXPECT_THAT(Sorted({lines[2], lines[0], lines[1]}), ElementsAreArray(lines));
}

TEST_F(SortedLines, ShorterLineIsBeforeItsContinuationByNul) {
    const UnitLines lines = {u"\"a", std::u16string(u"\"a\0", 3), std::u16string(u"\"a\0\0", 4)};
    EXPECT_THAT(Sorted({lines[2], lines[1], lines[0]}), ElementsAreArray(lines));
}

TEST_F(SortedLines, KeepsEqualLines) {
    EXPECT_THAT(Sorted({u"\"b", u"\"a", u"\"b"}),
                ElementsAreArray(UnitLines{u"\"a", u"\"b", u"\"b"}));
}

TEST_F(SortedLines, AgreesWithSortingInMemory) {
    for (unsigned seed = 0; seed < 50; ++seed) {
        SCOPED_TRACE(seed);
        ExpectSorted(RandomLines(seed));
    }
}

TEST_F(SortedLines, HoldsMoreThanItBuffers) {
    UnitLines lines;
    for (int i = 0; i < 3000; ++i) {
        lines.push_back(u"\"" + std::u16string(1000, static_cast<char16_t>(u'z' - i % 7)) +
                        static_cast<char16_t>(i));
    }
    ExpectSorted(lines);
}

TEST_F(SortedLines, SortsManyLinesThatBeginAlikeByEveryUnitBehind) {
    // More than are read at a time, and differences at, before and behind each boundary.
    UnitLines lines;
    for (int i = 0; i < 40'000; ++i) {
        const auto at = static_cast<std::size_t>(i * 7919 % 700);
        std::u16string line = u"\"" + std::u16string(at, u'x');
        line += i % 3 == 0 ? u"" : i % 3 == 1 ? u"a" : u"\u00E9z";
        lines.push_back(line);
    }
    ExpectSorted(lines);
}

TEST_F(SortedLines, ReadsNoUnitTwiceToSort) {
    // Comparing lines pair by pair would read some hundred times the file.
    Kelvane::SortedLines lines(Path());
    const std::u16string beginning(2000, u'x');
    for (int i = 0; i < 5000; ++i) {
        lines.Add(u"\"" + beginning + static_cast<char16_t>(u'0' + i * 7919 % 5000));
    }
    lines.Sort();
    EXPECT_LE(lines.UnitsRead(), lines.UnitCount());
}

TEST_F(SortedLines, CountsUnitsAndTellsWhetherAllAreAscii) {
    Kelvane::SortedLines lines(Path());
    lines.Add(u"\"abc");
    EXPECT_TRUE(lines.IsAscii());
    lines.Add(u"\"\u00E9");
    EXPECT_FALSE(lines.IsAscii());
    EXPECT_EQ(lines.UnitCount(), 6U);
    EXPECT_EQ(lines.Count(), 2U);
}

TEST_F(SortedLines, FileIsForTheOwnerAloneAndGoesAtTheEnd) {
    {
        const Kelvane::SortedLines lines(Path());
        EXPECT_EQ(boost::filesystem::status(Path()).permissions(), 0600);
    }
    EXPECT_FALSE(boost::filesystem::exists(Path()));
}

TEST_F(SortedLines, RefusesAPathThatIsTaken) {
    (void)directory_.write("lines", "mine");
    EXPECT_THAT(ThrownError([&] { Kelvane::SortedLines{Path()}; }),
                StartsWith("Kelvane.ErrorDomain 3: "));
    EXPECT_EQ(testing_support::ReadFile(Path()), (Octets{'m', 'i', 'n', 'e'}));
}

TEST_F(SortedLines, FileThatWasCutIsAnError) {
    Kelvane::SortedLines lines(Path());
    lines.Add(u"\"a");
    lines.Sort();
    ASSERT_EQ(::truncate(Path().c_str(), 1), 0);
    EXPECT_EQ(ThrownError([&] { (void)lines.At(0); }),
              "Kelvane.ErrorDomain 3: Failed to sort lines in temporary file: " + Path() +
                  " < NSPOSIXErrorDomain 5: Input/output error");
}

TEST_F(SortedLines, FileThatVanishedIsAnError) {
    Kelvane::SortedLines lines(Path());
    lines.Add(u"\"a");
    boost::filesystem::remove(Path());
    EXPECT_EQ(ThrownError([&] { lines.Sort(); }),
              "Kelvane.ErrorDomain 3: Failed to sort lines in temporary file: " + Path() +
                  " < NSPOSIXErrorDomain 2: No such file or directory");
}
