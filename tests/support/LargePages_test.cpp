#include "support/zk/LargePages.hpp"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <numeric>
#include <vector>

namespace {

using Numbers = std::vector<std::uint32_t, ZK::LargePageAllocator<std::uint32_t>>;

std::uint64_t sumOfFirst(std::uint64_t count) { return count * (count - 1) / 2; }

} // namespace

TEST(LargePages, HoldWhatIsWrittenWhetherSmallOrLarge) {
    // Around the size from which on pages are asked for, and some pages.
    for (const std::size_t count : {1U, 524287U, 524288U, 524289U, 3000000U}) {
        Numbers numbers(count);
        std::iota(numbers.begin(), numbers.end(), 0U);
        EXPECT_EQ(std::accumulate(numbers.begin(), numbers.end(), std::uint64_t{0}),
                  sumOfFirst(count));
    }
}

TEST(LargePages, GrowWithTheirVector) {
    Numbers numbers;
    for (std::uint32_t i = 0; i < 1500000; ++i) {
        numbers.push_back(i);
    }
    Numbers moved;
    moved = std::move(numbers);
    EXPECT_EQ(std::accumulate(moved.begin(), moved.end(), std::uint64_t{0}), sumOfFirst(1500000));
}

TEST(LargePages, RefuseMoreThanTheAddressSpace) {
    ZK::LargePageAllocator<std::uint64_t> allocator;
    EXPECT_THROW((void)allocator.allocate(std::numeric_limits<std::size_t>::max() / 8),
                 std::bad_alloc);
    EXPECT_THROW((void)allocator.allocate(std::numeric_limits<std::size_t>::max() / 2),
                 std::bad_alloc);
}
