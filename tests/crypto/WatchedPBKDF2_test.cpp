#include "crypto/WatchedPBKDF2.hpp"

#include "fastpbkdf2.h"

#include <gtest/gtest.h>

#include <numeric>
#include <vector>

namespace {

using Bytes = std::vector<std::uint8_t>;
using Rounds = std::vector<std::uint32_t>;

const Bytes kPassword = {'p', 'a', 's', 's'};
const Bytes kSalt = {'s', 'a', 'l', 't', 0, 1};
constexpr std::uint32_t kSlice = 1U << 17;

Bytes plainSHA1(std::uint32_t iterations, std::size_t length) {
    Bytes output(length);
    fastpbkdf2_hmac_sha1(kPassword.data(), kPassword.size(), kSalt.data(), kSalt.size(), iterations,
                         output.data(), output.size());
    return output;
}

Bytes plainSHA256(std::uint32_t iterations, std::size_t length) {
    Bytes output(length);
    fastpbkdf2_hmac_sha256(kPassword.data(), kPassword.size(), kSalt.data(), kSalt.size(),
                           iterations, output.data(), output.size());
    return output;
}

class WatchedPBKDF2 : public testing::TestWithParam<std::uint32_t> {
  protected:
    Kelvane::PBKDF2Input input() const { return {kPassword, kSalt, GetParam()}; }
    Kelvane::RoundObserver observer() {
        return [this](std::uint32_t rounds) {
            rounds_.push_back(rounds);
            return true;
        };
    }
    std::uint64_t told() const {
        return std::accumulate(rounds_.begin(), rounds_.end(), std::uint64_t{0});
    }
    Rounds rounds_;
};

TEST_P(WatchedPBKDF2, GivesWhatThePlainFunctionsGive) {
    for (const std::size_t length : {0U, 1U, 20U, 21U, 32U, 45U}) {
        Bytes output(length);
        EXPECT_TRUE(Kelvane::DeriveBySHA1(input(), output, observer()));
        EXPECT_EQ(output, plainSHA1(GetParam(), length)) << length;
        EXPECT_TRUE(Kelvane::DeriveBySHA256(input(), output, observer()));
        EXPECT_EQ(output, plainSHA256(GetParam(), length)) << length;
    }
}

TEST_P(WatchedPBKDF2, TellsOfEveryRoundOfEveryBlock) {
    Bytes output(32);
    EXPECT_TRUE(Kelvane::DeriveBySHA256(input(), output, observer()));
    const std::uint64_t expected = GetParam() < 2 ? 0 : GetParam();
    EXPECT_EQ(told(), expected);
    EXPECT_TRUE(Kelvane::DeriveBySHA1(input(), output, observer()));
    EXPECT_EQ(told(), 3 * expected);
}

TEST_P(WatchedPBKDF2, NeedsNoObserver) {
    Bytes output(32);
    EXPECT_TRUE(Kelvane::DeriveBySHA1(input(), output, {}));
    EXPECT_EQ(output, plainSHA1(GetParam(), 32));
}

INSTANTIATE_TEST_SUITE_P(Iterations, WatchedPBKDF2,
                         testing::Values(0U, 1U, 2U, 1000U, kSlice, kSlice + 1, kSlice + 2));

TEST(WatchedDerivation, EndsWhenTheObserverSaysSo) {
    Bytes output(32);
    int calls = 0;
    const Kelvane::PBKDF2Input endless = {kPassword, kSalt, 0xFFFFFFFF};
    EXPECT_FALSE(
        Kelvane::DeriveBySHA256(endless, output, [&](std::uint32_t) { return ++calls < 3; }));
    EXPECT_EQ(calls, 3);
}

} // namespace
