#include "support/zk/Abort.hpp"
#include "support/zk/Secret.hpp"

#include <gtest/gtest.h>

namespace {

TEST(AssertionMessage, NamesPlaceFunctionAndExpression) {
    EXPECT_EQ(ZK::AssertionMessage("Kelvane/KVFile.cpp", 143, "operator()",
                                   "typeID != _kCFRuntimeNotATypeID"),
              "Kelvane/KVFile.cpp:143:  operator() Assertion typeID != _kCFRuntimeNotATypeID "
              "failed.");
}

TEST(AbortDeathTest, EndsTheProcessWithTheText) {
    EXPECT_DEATH(ZK::AssertionFailed("a.cpp", 1, "f", "x > 0"),
                 "std::invalid_argument.*\n.*a.cpp:1:  f Assertion x > 0 failed\\.");
}

TEST(Wipe, OverwritesWithZeros) {
    std::array<std::uint8_t, 4> bytes{1, 2, 3, 4};
    ZK::Wipe(bytes);
    EXPECT_EQ(bytes, (std::array<std::uint8_t, 4>{}));
}

TEST(WipeOnExit, WipesWhenTheScopeIsLeftByAnException) {
    std::vector<std::uint8_t> secret{1, 2, 3};
    EXPECT_THROW(
        {
            const ZK::WipeOnExit guard(secret);
            throw std::runtime_error("leave");
        },
        std::runtime_error);
    EXPECT_EQ(secret, (std::vector<std::uint8_t>{0, 0, 0}));
}

TEST(SecretArray, WipesItselfOnDestruction) {
    alignas(ZK::SecretArray<32>) unsigned char memory[sizeof(ZK::SecretArray<32>)];
    std::array<std::uint8_t, 32> key;
    key.fill(0x5A);
    auto *const secret = ::new (memory) ZK::SecretArray<32>(key);
    EXPECT_EQ(secret->get(), key);
    secret->~SecretArray();
    for (const unsigned char byte : memory) {
        EXPECT_EQ(byte, 0);
    }
}

} // namespace
