#include "container/ZipPacking.hpp"

#include "support/cf/Pointer.hpp"

#include <libdeflate.h>

namespace Kelvane {

namespace {

// As zlib's default: the next ones take twice the time for a hundredth of the size.
constexpr int kLevel = 6;

} // namespace

ZipPacking::ZipPacking() : compressor_(CF::Made(libdeflate_alloc_compressor(kLevel))) {}

ZipPacking::~ZipPacking() { libdeflate_free_compressor(compressor_); }

std::span<const std::uint8_t> ZipPacking::Deflate(std::span<const std::uint8_t> content) {
    // What does not fit is not smaller.
    if (packed_.size() < content.size()) {
        packed_.resize(content.size());
    }
    const std::size_t size =
        libdeflate_deflate_compress(compressor_, content.data(), content.size(), packed_.data(),
                                    content.empty() ? 0 : content.size() - 1);
    return {packed_.data(), size};
}

std::uint32_t ZipPacking::Checksum(std::span<const std::uint8_t> content) noexcept {
    return libdeflate_crc32(0, content.data(), content.size());
}

} // namespace Kelvane
