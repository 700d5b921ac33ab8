#include "support/zk/IOSVersion.hpp"

#include <gtest/gtest.h>

namespace {

using ZK::ios_version;

struct VersionCase {
    const char *text;
    ios_version version;
};

class VersionText : public ::testing::TestWithParam<VersionCase> {};

TEST_P(VersionText, Reads) { EXPECT_EQ(ios_version(GetParam().text), GetParam().version); }

INSTANTIATE_TEST_SUITE_P(
    Texts, VersionText,
    ::testing::Values(VersionCase{"14.2.1", {14, 2, 1}}, VersionCase{"14.2", {14, 2, 0}},
                      VersionCase{"14", {14, 0, 0}}, VersionCase{"9.3.5.7", {9, 3, 5}},
                      VersionCase{"", {-1, -1, 0}}, VersionCase{"beta", {-1, -1, 0}},
                      VersionCase{".5", {-1, -1, 0}}, VersionCase{"-1.2", {-1, -1, 0}},
                      VersionCase{"+1.2", {-1, -1, 0}}, VersionCase{"14.", {14, 0, 0}},
                      VersionCase{"14..3", {14, 0, 0}}, VersionCase{"14.x.3", {14, 0, 0}},
                      VersionCase{"15b3", {15, 0, 0}}, VersionCase{"15.1b3.2", {15, 1, 0}},
                      VersionCase{"2147483647.1", {2147483647, 1, 0}},
                      VersionCase{"2147483648.1", {-1, -1, 0}},
                      VersionCase{"3.99999999999999999999.1", {3, 0, 0}}));

TEST(Version, DefaultIsUnknown) { EXPECT_EQ(ios_version(), ios_version(-1, -1, 0)); }

TEST(Version, OrdersByComponents) {
    EXPECT_LT(ios_version(9, 10, 0), ios_version(10, 2, 0));
    EXPECT_LT(ios_version(10, 2, 0), ios_version(10, 10, 0));
    EXPECT_LT(ios_version(10, 2, 1), ios_version(10, 2, 2));
}

} // namespace
