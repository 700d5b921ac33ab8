#include "container/ZipLayout.hpp"

#include "Kelvane/Error.hpp"
#include "support/cf/Extensions.hpp"
#include "support/zk/UniqueDescriptor.hpp"

#include <algorithm>
#include <cerrno>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Kelvane {

namespace {

// PKWARE's APPNOTE, sections 4.3.7, 4.3.12 and 4.3.14 to 4.3.16; numbers are little-endian.
constexpr std::string_view kFileHeaderMark("PK\x01\x02", 4);
constexpr std::string_view kEndMark("PK\x05\x06", 4);
constexpr std::string_view kZip64EndMark("PK\x06\x06", 4);
constexpr std::string_view kZip64LocatorMark("PK\x06\x07", 4);
constexpr std::size_t kLocalHeaderSize = 30;
constexpr std::size_t kFileHeaderSize = 46;
constexpr std::size_t kEndSize = 22;
constexpr std::size_t kZip64LocatorSize = 20;
constexpr std::size_t kZip64EndSize = 56;
constexpr std::uint64_t kZip64Extra = 0x0001;
// Values that refer to the zip64 form of a field.
constexpr std::uint64_t kIn64Bits = 0xffffffff;
// How far before its end minizip looks for the end record of an archive: the longest comment.
constexpr std::uint64_t kSearchedEnd = 0xffff;
// One read of the directory. No header has more than three texts of 65,535 bytes.
constexpr std::size_t kBufferSize = 1 << 18;

std::uint64_t numberAt(std::span<const std::uint8_t> bytes, std::size_t offset, std::size_t size) {
    std::uint64_t value = 0;
    for (std::size_t i = size; i > 0; --i) {
        value = value << 8 | bytes[offset + i - 1];
    }
    return value;
}

bool startsWith(std::span<const std::uint8_t> bytes, std::string_view mark) {
    return bytes.size() >= mark.size() &&
           std::equal(mark.begin(), mark.end(), bytes.begin(),
                      [](char a, std::uint8_t b) { return static_cast<std::uint8_t>(a) == b; });
}

[[noreturn]] void throwUnreadable() {
    throw Error(kKVErrorArchive,
                CF::Error::Adopt(CFErrorCreatePOSIXError(kCFAllocatorDefault, errno, nullptr)));
}

// Reads an archive from front to back, with few calls.
class ArchiveFile {
  public:
    explicit ArchiveFile(const std::string &path)
        : descriptor_(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC)) {
        struct stat status {};
        if (descriptor_.get() < 0 || ::fstat(descriptor_.get(), &status) != 0) {
            throwUnreadable();
        }
        size_ = static_cast<std::uint64_t>(status.st_size);
    }

    std::uint64_t size() const noexcept { return size_; }

    // The bytes, borrowed until the next call; fewer only at the end of the file. No more than
    // the buffer holds.
    std::span<const std::uint8_t> At(std::uint64_t position, std::size_t count) {
        if (position < start_ || position - start_ > buffer_.size() ||
            buffer_.size() - static_cast<std::size_t>(position - start_) < count) {
            fill(position);
        }
        const auto rest = std::span(buffer_).subspan(static_cast<std::size_t>(position - start_));
        return rest.first(std::min(count, rest.size()));
    }

  private:
    void fill(std::uint64_t position) {
        start_ = position;
        buffer_.resize(position < size_ ? static_cast<std::size_t>(std::min<std::uint64_t>(
                                              kBufferSize, size_ - position))
                                        : 0);
        for (std::size_t done = 0; done < buffer_.size();) {
            const ::ssize_t count =
                ::pread(descriptor_.get(), buffer_.data() + done, buffer_.size() - done,
                        static_cast<::off_t>(position + done));
            if (count < 0 && errno == EINTR) {
                continue;
            }
            if (count < 0) {
                throwUnreadable();
            }
            if (count == 0) { // cut off meanwhile
                buffer_.resize(done);
            }
            done += static_cast<std::size_t>(count);
        }
    }

    ZK::file::unique_descriptor descriptor_;
    std::uint64_t size_ = 0;
    std::uint64_t start_ = 0;
    std::vector<std::uint8_t> buffer_;
};

struct Directory {
    ZipDirectoryPlace place;
    // Where it ends, and where the record that tells of it begins, which is mostly the same.
    std::uint64_t end = 0;
    // Where the archive begins in the file.
    std::uint64_t before = 0;
};

// The last place of the mark near the end of the file, as minizip searches it.
std::optional<std::uint64_t> findLast(ArchiveFile &file, std::string_view mark) {
    const std::uint64_t from = file.size() - std::min(file.size(), kSearchedEnd);
    const auto bytes = file.At(from, static_cast<std::size_t>(file.size() - from));
    const auto found =
        std::search(bytes.rbegin(), bytes.rend(), mark.rbegin(), mark.rend(),
                    [](std::uint8_t a, char b) { return a == static_cast<std::uint8_t>(b); });
    if (found == bytes.rend()) {
        return std::nullopt;
    }
    return from + static_cast<std::uint64_t>(bytes.rend() - found) - mark.size();
}

std::optional<std::uint64_t> findZip64End(ArchiveFile &file) {
    const auto locator = findLast(file, kZip64LocatorMark);
    if (!locator) {
        return std::nullopt;
    }
    const auto bytes = file.At(*locator, kZip64LocatorSize);
    if (bytes.size() < kZip64LocatorSize || numberAt(bytes, 4, 4) != 0 ||
        numberAt(bytes, 16, 4) != 1) {
        return std::nullopt;
    }
    const std::uint64_t end = numberAt(bytes, 8, 8);
    return startsWith(file.At(end, kZip64EndSize), kZip64EndMark) ? std::optional(end)
                                                                  : std::nullopt;
}

// No value where minizip finds none either, or one that does not fit into the file.
std::optional<Directory> findDirectory(ArchiveFile &file) {
    Directory directory;
    std::uint64_t size = 0;
    auto end = findZip64End(file);
    if (end) {
        const auto bytes = file.At(*end, kZip64EndSize);
        if (bytes.size() < kZip64EndSize) {
            return std::nullopt;
        }
        directory.place = {numberAt(bytes, 48, 8), numberAt(bytes, 24, 8)};
        size = numberAt(bytes, 40, 8);
    } else {
        end = findLast(file, kEndMark);
        const auto bytes = end ? file.At(*end, kEndSize) : std::span<const std::uint8_t>();
        if (bytes.size() < kEndSize) {
            return std::nullopt;
        }
        directory.place = {numberAt(bytes, 16, 4), numberAt(bytes, 8, 2)};
        size = numberAt(bytes, 12, 4);
    }
    if (size > *end || directory.place.start > *end - size) {
        return std::nullopt;
    }
    directory.end = directory.place.start + size;
    directory.before = *end - directory.end;
    return directory;
}

// A stretch of the archive.
struct Extent {
    std::uint64_t start;
    std::uint64_t end;
    auto operator<=>(const Extent &) const = default;
};

// Takes the next field from the zip64 block when the header's own refers to it. False when
// the block lacks it.
bool takeField(std::span<const std::uint8_t> &block, std::uint64_t &field) {
    if (field != kIn64Bits) {
        return true;
    }
    if (block.size() < 8) {
        return false;
    }
    field = numberAt(block, 0, 8);
    block = block.subspan(8);
    return true;
}

// What the record at least takes: the length of its own second extra field is not known here.
// Archivers refer both sizes to the zip64 block when one of them needs it, so that small ones
// stand there too. No value for a header that contradicts itself.
std::optional<Extent> extentOf(std::span<const std::uint8_t> header) {
    std::uint64_t unpacked = numberAt(header, 24, 4);
    std::uint64_t packed = numberAt(header, 20, 4);
    std::uint64_t start = numberAt(header, 42, 4);
    const std::uint64_t nameLength = numberAt(header, 28, 2);
    auto extra = header.subspan(kFileHeaderSize + static_cast<std::size_t>(nameLength),
                                static_cast<std::size_t>(numberAt(header, 30, 2)));
    while (extra.size() >= 4) {
        const auto length = static_cast<std::size_t>(numberAt(extra, 2, 2));
        auto block = extra.subspan(4, std::min(length, extra.size() - 4));
        if (numberAt(extra, 0, 2) == kZip64Extra &&
            (!takeField(block, unpacked) || !takeField(block, packed) ||
             !takeField(block, start))) {
            return std::nullopt;
        }
        extra = extra.subspan(std::min(4 + length, extra.size()));
    }
    std::uint64_t end = 0;
    if (__builtin_add_overflow(start, packed, &end) ||
        __builtin_add_overflow(end, kLocalHeaderSize + nameLength, &end)) {
        return std::nullopt;
    }
    return Extent{start, end};
}

// The header at the position, whole; empty for what is none.
std::span<const std::uint8_t> headerAt(ArchiveFile &file, std::uint64_t position) {
    const auto fixed = file.At(position, kFileHeaderSize);
    if (fixed.size() < kFileHeaderSize || !startsWith(fixed, kFileHeaderMark)) {
        return {};
    }
    const auto size =
        kFileHeaderSize + static_cast<std::size_t>(numberAt(fixed, 28, 2) + numberAt(fixed, 30, 2) +
                                                   numberAt(fixed, 32, 2));
    const auto header = file.At(position, size);
    return header.size() == size ? header : std::span<const std::uint8_t>();
}

// Of the records that the directory holds, as far as it can be read.
std::vector<Extent> readExtents(ArchiveFile &file, const Directory &directory) {
    std::vector<Extent> extents;
    for (std::uint64_t position = directory.place.start; position < directory.end;) {
        const auto header = headerAt(file, directory.before + position);
        if (header.empty()) { // no reader comes past it
            break;
        }
        const auto extent = extentOf(header);
        if (!extent) {
            throw Error(kKVErrorArchive, nullptr,
                        CFSTR("The zip's directory contradicts itself (at byte %llu)"),
                        static_cast<unsigned long long>(position));
        }
        if (extents.size() == directory.place.count) {
            throw Error(kKVErrorArchive, nullptr,
                        CFSTR("The zip's directory holds more records than its end record counts "
                              "(more than %llu)"),
                        static_cast<unsigned long long>(directory.place.count));
        }
        extents.push_back(*extent);
        position += header.size();
    }
    return extents;
}

void requireApart(std::vector<Extent> &extents) {
    if (!std::ranges::is_sorted(extents)) {
        std::ranges::sort(extents);
    }
    const auto overlap = std::ranges::adjacent_find(
        extents, [](const Extent &a, const Extent &b) { return b.start < a.end; });
    if (overlap != extents.end()) {
        throw Error(kKVErrorArchive, nullptr, CFSTR("Two parts of the zip overlap (at byte %llu)"),
                    static_cast<unsigned long long>(std::next(overlap)->start));
    }
}

} // namespace

void CheckZipLayout(const std::string &path, const ZipDirectoryPlace &found) {
    ArchiveFile file(path);
    const auto directory = findDirectory(file);
    if (!directory || directory->place.count != found.count ||
        directory->place.start != found.start) {
        throw Error(kKVErrorArchive, nullptr, CFSTR("The zip's directory cannot be found"));
    }
    std::vector<Extent> extents = readExtents(file, *directory);
    if (directory->end > directory->place.start) {
        extents.push_back({directory->place.start, directory->end});
    }
    requireApart(extents);
}

} // namespace Kelvane
