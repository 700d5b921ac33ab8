#include "tests/corefoundation/Header_test.h"

#include "tests/corefoundation/Objects.hpp"

#include <gtest/gtest.h>

namespace {

TEST(CHeader, SharesConstantsWithCPlusPlus) {
    EXPECT_EQ(ConstantFromC(), CFSTR("constant from C"));
    EXPECT_EQ(ConstantFromC(), ConstantFromC());
}

TEST(CHeader, ReachesTheStringFunctions) { EXPECT_EQ(LengthFromC(CFSTR("ab")), 5); }

TEST(CHeader, DefinesTypes) {
    const CFTypeID typeID = RegisterFromC();
    const auto object = Objects::Adopt(CreateFromC(typeID));
    EXPECT_EQ(CFGetTypeID(object.get()), typeID);
}

} // namespace
