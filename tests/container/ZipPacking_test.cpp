#include "container/ZipPacking.hpp"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include <zlib.h>

namespace {

using Bytes = std::vector<std::uint8_t>;

Bytes repeated(std::size_t size) {
    Bytes bytes;
    for (std::size_t i = 0; i < size; ++i) {
        bytes.push_back(static_cast<std::uint8_t>(i % 251 / 5));
    }
    return bytes;
}

// By the library that others read zips with.
Bytes inflated(std::span<const std::uint8_t> packed, std::size_t size) {
    Bytes bytes(size);
    z_stream stream{};
    EXPECT_EQ(inflateInit2(&stream, -15), Z_OK);
    stream.next_in = const_cast<std::uint8_t *>(packed.data());
    stream.avail_in = static_cast<uInt>(packed.size());
    stream.next_out = bytes.data();
    stream.avail_out = static_cast<uInt>(bytes.size());
    EXPECT_EQ(inflate(&stream, Z_FINISH), Z_STREAM_END);
    EXPECT_EQ(stream.total_out, size);
    inflateEnd(&stream);
    return bytes;
}

TEST(ZipPacking, DeflatesWhatOthersInflate) {
    Kelvane::ZipPacking packing;
    for (const std::size_t size : {std::size_t{100}, std::size_t{70'000}, std::size_t{3'000'000}}) {
        const Bytes content = repeated(size);
        const auto packed = packing.Deflate(content);
        ASSERT_FALSE(packed.empty());
        EXPECT_LT(packed.size(), size);
        EXPECT_EQ(inflated(packed, size), content);
    }
}

TEST(ZipPacking, GivesNothingForWhatDoesNotGetSmaller) {
    Kelvane::ZipPacking packing;
    EXPECT_TRUE(packing.Deflate({}).empty());
    EXPECT_TRUE(packing.Deflate(Bytes{1}).empty());
    Bytes noise(5000);
    std::uint32_t state = 1;
    for (std::uint8_t &byte : noise) {
        state = state * 1664525 + 1013904223;
        byte = static_cast<std::uint8_t>(state >> 24);
    }
    EXPECT_TRUE(packing.Deflate(noise).empty());
}

TEST(ZipPacking, HasTheChecksumOfZips) {
    const std::string text = "123456789";
    EXPECT_EQ(Kelvane::ZipPacking::Checksum(Bytes(text.begin(), text.end())), 0xCBF43926u);
    EXPECT_EQ(Kelvane::ZipPacking::Checksum({}), 0u);
}

} // namespace
