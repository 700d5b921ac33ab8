#include "container/ZipDirectory.hpp"

#include <array>
#include <optional>
#include <vector>

namespace Kelvane {

namespace {

// PKWARE's APPNOTE, sections 4.3.12 and 4.3.14 to 4.3.16; numbers are little-endian.
constexpr std::uint32_t kFileHeaderSignature = 0x02014b50;
constexpr std::uint32_t kZip64EndSignature = 0x06064b50;
constexpr std::uint32_t kZip64LocatorSignature = 0x07064b50;
constexpr std::uint32_t kEndSignature = 0x06054b50;
constexpr std::size_t kFileHeaderSize = 46;
constexpr std::size_t kNameLengthAt = 28;
constexpr std::size_t kExtraLengthAt = 30;
constexpr std::size_t kCommentLengthAt = 32;
// What follows the signature and the size field in the zip64 end record.
constexpr std::uint64_t kZip64EndSize = 44;
constexpr std::uint16_t kZip64Version = 45;
// Values that refer to the zip64 form of a field.
constexpr std::uint64_t kNoCount = 0xffff;
constexpr std::uint64_t kNoOffset = 0xffffffff;

using Bytes = std::vector<std::uint8_t>;

std::uint64_t numberAt(const Bytes &bytes, std::size_t offset, std::size_t size) {
    std::uint64_t value = 0;
    for (std::size_t i = size; i > 0; --i) {
        value = value << 8 | bytes[offset + i - 1];
    }
    return value;
}

void append(Bytes &bytes, std::uint64_t value, std::size_t size) {
    for (std::size_t i = 0; i < size; ++i) {
        bytes.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
    }
}

struct Directory {
    std::uint64_t start;
    std::uint64_t size;
    std::uint64_t count;

    bool NeedsZip64() const noexcept {
        return count >= kNoCount || start >= kNoOffset || size >= kNoOffset;
    }
};

void appendZip64End(Bytes &bytes, const Directory &directory) {
    append(bytes, kZip64EndSignature, 4);
    append(bytes, kZip64EndSize, 8);
    append(bytes, kZip64Version, 2); // made by
    append(bytes, kZip64Version, 2); // needed to read
    append(bytes, 0, 4);             // this disk
    append(bytes, 0, 4);             // the disk of the directory
    append(bytes, directory.count, 8);
    append(bytes, directory.count, 8);
    append(bytes, directory.size, 8);
    append(bytes, directory.start, 8);
    append(bytes, kZip64LocatorSignature, 4);
    append(bytes, 0, 4); // the disk of the zip64 end record
    append(bytes, directory.start + directory.size, 8);
    append(bytes, 1, 4); // disks
}

Bytes endOf(const Directory &directory) {
    Bytes bytes;
    const bool zip64 = directory.NeedsZip64();
    if (zip64) {
        appendZip64End(bytes, directory);
    }
    append(bytes, kEndSignature, 4);
    append(bytes, 0, 2); // this disk
    append(bytes, 0, 2); // the disk of the directory
    append(bytes, zip64 ? kNoCount : directory.count, 2);
    append(bytes, zip64 ? kNoCount : directory.count, 2);
    append(bytes, zip64 ? kNoOffset : directory.size, 4);
    append(bytes, zip64 ? kNoOffset : directory.start, 4);
    append(bytes, 0, 2); // comment
    return bytes;
}

// The file header at the offset, whole; empty at the directory's end. No value for what is
// no directory, or goes beyond the end of the archive.
std::optional<Bytes> readHeader(ZipOutput &output, std::uint64_t offset, std::uint64_t end) {
    Bytes header(kFileHeaderSize);
    if (offset > end || end - offset < 4 || !output.ReadAt(offset, std::span(header).first(4))) {
        return std::nullopt;
    }
    const std::uint64_t signature = numberAt(header, 0, 4);
    if (signature == kEndSignature || signature == kZip64EndSignature) {
        return Bytes();
    }
    if (signature != kFileHeaderSignature || end - offset < kFileHeaderSize ||
        !output.ReadAt(offset, header)) {
        return std::nullopt;
    }
    const std::uint64_t rest = numberAt(header, kNameLengthAt, 2) +
                               numberAt(header, kExtraLengthAt, 2) +
                               numberAt(header, kCommentLengthAt, 2);
    if (end - offset - kFileHeaderSize < rest) {
        return std::nullopt;
    }
    header.resize(kFileHeaderSize + static_cast<std::size_t>(rest));
    if (!output.ReadAt(offset + kFileHeaderSize, std::span(header).subspan(kFileHeaderSize))) {
        return std::nullopt;
    }
    return header;
}

std::string nameOf(const Bytes &header) {
    const auto name = header.begin() + static_cast<std::ptrdiff_t>(kFileHeaderSize);
    return {name, name + static_cast<std::ptrdiff_t>(numberAt(header, kNameLengthAt, 2))};
}

} // namespace

bool RewriteZipDirectory(ZipOutput &output, std::uint64_t start,
                         const std::set<std::string> &without) {
    const std::uint64_t end = output.Position();
    if (!output.Flush() || !output.Seek(start)) {
        return false;
    }
    Directory directory{start, 0, 0};
    // Headers only move towards the start, so none is overwritten before it is read.
    std::uint64_t offset = start;
    for (;;) {
        const std::optional<Bytes> header = readHeader(output, offset, end);
        if (!header) {
            return false;
        }
        if (header->empty()) {
            break;
        }
        offset += header->size();
        if (!without.contains(nameOf(*header))) {
            output.Write(*header);
            directory.size += header->size();
            ++directory.count;
        }
    }
    output.Write(endOf(directory));
    return output.Failure() == 0;
}

} // namespace Kelvane
