#include "container/ChangePlan.hpp"

#include "support/zk/Encryption.hpp"
#include "support/zk/Math.hpp"

#include <gtest/gtest.h>

#include <span>

namespace {

using Kelvane::FormatPlan;
using Kelvane::ParsePlan;
using Kelvane::PlannedChange;
using Changes = std::vector<PlannedChange>;

// A plan whose lines are these, with the sum that belongs to them.
std::string sealed(const std::string &lines) {
    const std::string text = "kelvane changes 1\n" + lines;
    const std::span bytes(reinterpret_cast<const std::uint8_t *>(text.data()), text.size());
    return text + "end " + ZK::Math::hex_encode(ZK::Encryption::SHA1(bytes)) + "\n";
}

TEST(ChangePlan, IsReadAsItWasWritten) {
    const Changes changes = {{true, 0, "ab/abcd"},
                             {true, 17, "Manifest.db"},
                             {false, 0, "name with\nnew line"},
                             {false, 0, "\xff\xfe"}};
    EXPECT_EQ(ParsePlan(FormatPlan(changes)), changes);
    EXPECT_EQ(ParsePlan(FormatPlan({})), Changes{});
}

TEST(ChangePlan, HasTheFormThatIsDocumented) {
    EXPECT_EQ(FormatPlan({{true, 3, "a/b"}, {false, 0, "c"}}), sealed("put 3 612f62\nremove 63\n"));
}

TEST(ChangePlan, ThatIsCutShortOrChangedIsRefused) {
    const std::string whole = FormatPlan({{true, 0, "ab/abcd"}, {false, 0, "Info.plist"}});
    for (std::size_t length = 0; length < whole.size(); ++length) {
        EXPECT_FALSE(ParsePlan(whole.substr(0, length))) << length;
    }
    for (std::size_t i = 0; i < whole.size(); ++i) {
        std::string changed = whole;
        changed[i] = static_cast<char>(changed[i] ^ 1);
        EXPECT_FALSE(ParsePlan(changed)) << i;
    }
    EXPECT_FALSE(ParsePlan(whole + "\n"));
}

TEST(ChangePlan, CannotNameWhatLiesOutside) {
    for (const std::string name : {"", "..", "../x", "a/../b", "/x", "a//b", "a/.", "a/"}) {
        EXPECT_FALSE(ParsePlan(FormatPlan({{true, 0, name}}))) << name;
        EXPECT_FALSE(ParsePlan(FormatPlan({{false, 0, name}}))) << name;
    }
    EXPECT_FALSE(ParsePlan(FormatPlan({{true, 0, std::string("a\0b", 3)}})));
}

TEST(ChangePlan, CannotNameItsOwnFolder) {
    EXPECT_FALSE(ParsePlan(FormatPlan({{false, 0, ".kelvane-journal"}})));
    EXPECT_FALSE(ParsePlan(FormatPlan({{true, 0, ".kelvane-journal/plan"}})));
    EXPECT_TRUE(ParsePlan(FormatPlan({{true, 0, ".kelvane-journal2"}})));
}

TEST(ChangePlan, OfOtherLinesIsRefused) {
    for (const char *line :
         {"put 61\n", "put x 61\n", "put -1 61\n", "put 1  61\n", "move 61\n", "remove 6\n",
          "remove 6G\n", "remove 6A\n", "\n", "put 99999999999999999999999 61\n", "remove 61"}) {
        EXPECT_FALSE(ParsePlan(sealed(line))) << line;
    }
}

} // namespace
