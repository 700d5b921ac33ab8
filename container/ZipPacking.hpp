// Content that becomes a zip record in one piece.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <vector>

struct libdeflate_compressor;

namespace Kelvane {

// Compresses whole contents, one after the other, several times as fast as zlib compresses them
// piece by piece. One object is used by one thread at a time.
class ZipPacking {
  public:
    // Throws std::bad_alloc.
    ZipPacking();
    ZipPacking(const ZipPacking &) = delete;
    ZipPacking &operator=(const ZipPacking &) = delete;
    ~ZipPacking();

    // The content as a raw deflate stream, borrowed until the next call; empty when that would not
    // be smaller than the content.
    std::span<const std::uint8_t> Deflate(std::span<const std::uint8_t> content);
    // The checksum of zip records.
    static std::uint32_t Checksum(std::span<const std::uint8_t> content) noexcept;

  private:
    libdeflate_compressor *compressor_;
    std::vector<std::uint8_t> packed_;
};

} // namespace Kelvane
