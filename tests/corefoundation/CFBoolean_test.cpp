#include "tests/corefoundation/Objects.hpp"

#include <gtest/gtest.h>

using namespace Objects;

namespace {

// Read before main, as a client's static data might be.
const bool readByAStaticInitialiser = CFBooleanGetValue(kCFBooleanTrue) != 0;

} // namespace

TEST(CFBoolean, HasTwoValues) {
    EXPECT_TRUE(CFBooleanGetValue(kCFBooleanTrue));
    EXPECT_FALSE(CFBooleanGetValue(kCFBooleanFalse));
    EXPECT_EQ(CFGetTypeID(kCFBooleanTrue), CFBooleanGetTypeID());
}

TEST(CFBoolean, IsUsableByStaticInitialisers) { EXPECT_TRUE(readByAStaticInitialiser); }

TEST(CFBoolean, IsEqualToItselfOnly) {
    EXPECT_TRUE(CFEqual(kCFBooleanTrue, kCFBooleanTrue));
    EXPECT_FALSE(CFEqual(kCFBooleanTrue, kCFBooleanFalse));
    EXPECT_FALSE(CFEqual(kCFBooleanTrue, Integer(1).get()));
    EXPECT_NE(CFHash(kCFBooleanTrue), CFHash(kCFBooleanFalse));
}

TEST(CFBoolean, OutlivesItsReleases) {
    for (int i = 0; i < 10; ++i) {
        CFRelease(kCFBooleanTrue);
    }
    EXPECT_TRUE(CFBooleanGetValue(kCFBooleanTrue));
}

TEST(CFBoolean, DescribesItsValue) {
    EXPECT_EQ(Description(kCFBooleanTrue), "true");
    EXPECT_EQ(Description(kCFBooleanFalse), "false");
}

TEST(CFBooleanDeathTest, RefusesOtherObjects) {
    EXPECT_DEATH(CFBooleanGetValue(nullptr), "CFBooleanGetValue");
    EXPECT_DEATH(CFBooleanGetValue(static_cast<CFBooleanRef>(static_cast<CFTypeRef>(kCFNull))),
                 "another type");
}
