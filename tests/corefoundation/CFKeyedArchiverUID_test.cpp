#include "tests/corefoundation/Objects.hpp"

#include <CoreFoundation/CFKeyedArchiverUID.h>

#include <gtest/gtest.h>

using namespace Objects;

namespace {

CF::Pointer<CFKeyedArchiverUIDRef> UID(std::uint32_t value) {
    return Adopt(_CFKeyedArchiverUIDCreate(nullptr, value));
}

} // namespace

TEST(CFKeyedArchiverUID, KeepsItsValue) {
    for (const std::uint32_t value : {0U, 1U, 255U, 65536U, UINT32_MAX}) {
        EXPECT_EQ(_CFKeyedArchiverUIDGetValue(UID(value).get()), value);
    }
    EXPECT_EQ(CFGetTypeID(UID(0).get()), _CFKeyedArchiverUIDGetTypeID());
}

TEST(CFKeyedArchiverUID, IsEqualByValue) {
    EXPECT_TRUE(CFEqual(UID(7).get(), UID(7).get()));
    EXPECT_EQ(CFHash(UID(7).get()), CFHash(UID(7).get()));
    EXPECT_FALSE(CFEqual(UID(7).get(), UID(8).get()));
}

TEST(CFKeyedArchiverUID, IsNoNumber) { EXPECT_FALSE(CFEqual(UID(7).get(), Integer(7).get())); }

TEST(CFKeyedArchiverUID, DescribesItsValue) {
    EXPECT_EQ(Description(UID(4000000000U).get()), "{value = 4000000000}");
}

TEST(CFKeyedArchiverUIDDeathTest, RefusesNull) {
    EXPECT_DEATH(_CFKeyedArchiverUIDGetValue(nullptr), "_CFKeyedArchiverUIDGetValue");
}
