#include "container/ZipOutput.hpp"

#include <algorithm>
#include <cerrno>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Kelvane {

namespace {

// The library writes headers by fields of two and four bytes.
constexpr std::size_t kBufferSize = 256 * 1024;
constexpr ::mode_t kPrivateMode = S_IRUSR | S_IWUSR;
constexpr int kCreateFlags = O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;

ZipOutput &outputOf(voidpf stream) { return *static_cast<ZipOutput *>(stream); }

uLong readNothing(voidpf, voidpf, void *, uLong) {
    return 0;
} // archives are never read while written

uLong writeAll(voidpf, voidpf stream, const void *bytes, uLong size) {
    outputOf(stream).Write({static_cast<const std::uint8_t *>(bytes), size});
    return size;
}

ZPOS64_T tell(voidpf, voidpf stream) { return outputOf(stream).Position(); }

long seek(voidpf, voidpf stream, ZPOS64_T offset, int origin) {
    const bool known = origin == ZLIB_FILEFUNC_SEEK_SET;
    return known && outputOf(stream).Seek(offset) ? 0 : -1;
}

// The file is closed by its owner, who may still have to change it.
int leaveOpen(voidpf, voidpf) { return 0; }

int noError(voidpf, voidpf) { return 0; }

} // namespace

ZipOutput::ZipOutput(ZK::filesystem::path path) : path_(std::move(path)) {
    buffer_.reserve(kBufferSize); // writing must not throw through the zip library
}

ZipOutput::~ZipOutput() {
    if (descriptor_.get() >= 0) {
        ::unlink(path_.c_str());
    }
}

zlib_filefunc64_def ZipOutput::Functions() {
    const auto open = [](voidpf opaque, const void *, int) -> voidpf {
        return outputOf(opaque).create() ? opaque : nullptr;
    };
    return {open, readNothing, writeAll, tell, seek, leaveOpen, noError, this};
}

bool ZipOutput::create() noexcept {
    if (path_.native().find('\0') != std::string::npos) {
        fail(EINVAL); // the system would take the part before it
        return false;
    }
    int fd = -1;
    do {
        fd = ::open(path_.c_str(), kCreateFlags, kPrivateMode);
    } while (fd < 0 && errno == EINTR);
    if (fd < 0) {
        fail(errno);
        return false;
    }
    descriptor_ = ZK::file::unique_descriptor(fd);
    // The umask may have taken away more than open() was asked for.
    if (::fchmod(fd, kPrivateMode) != 0) {
        fail(errno);
        return false;
    }
    return true;
}

void ZipOutput::fail(int number) noexcept {
    if (failure_ == 0) {
        failure_ = number;
    }
}

void ZipOutput::writeToFile(std::span<const std::uint8_t> bytes, std::uint64_t offset) noexcept {
    while (!bytes.empty() && failure_ == 0) {
        const ::ssize_t count =
            ::pwrite(descriptor_.get(), bytes.data(), bytes.size(), static_cast<::off_t>(offset));
        if (count > 0) {
            bytes = bytes.subspan(static_cast<std::size_t>(count));
            offset += static_cast<std::uint64_t>(count);
        } else if (count == 0 || errno != EINTR) {
            fail(count == 0 ? EIO : errno); // no progress and no reason: do not spin
        }
    }
}

// As much as has room; the position lies in the buffer or at its end.
std::size_t ZipOutput::writeToBuffer(std::span<const std::uint8_t> bytes) noexcept {
    const auto start = static_cast<std::size_t>(position_ - flushed_);
    const std::size_t count = std::min(bytes.size(), kBufferSize - start);
    if (buffer_.size() < start + count) {
        buffer_.resize(start + count); // within what was reserved
    }
    std::copy_n(bytes.begin(), count, buffer_.begin() + static_cast<std::ptrdiff_t>(start));
    return count;
}

void ZipOutput::Write(std::span<const std::uint8_t> bytes) noexcept {
    while (!bytes.empty() && failure_ == 0) {
        std::size_t count = 0;
        if (position_ < flushed_) {
            count = static_cast<std::size_t>(
                std::min<std::uint64_t>(bytes.size(), flushed_ - position_));
            writeToFile(bytes.first(count), position_);
        } else if (position_ - flushed_ < kBufferSize) {
            count = writeToBuffer(bytes);
        } else {
            Flush();
        }
        bytes = bytes.subspan(count);
        position_ += count;
    }
    position_ += bytes.size(); // the library goes on as if nothing had happened
    end_ = std::max(end_, position_);
}

bool ZipOutput::Flush() noexcept {
    writeToFile(buffer_, flushed_);
    if (failure_ == 0) {
        flushed_ += buffer_.size();
        buffer_.clear();
    }
    return failure_ == 0;
}

void ZipOutput::Rewind(std::uint64_t position) noexcept {
    failure_ = 0;
    if (position >= flushed_) {
        buffer_.resize(std::min(buffer_.size(), static_cast<std::size_t>(position - flushed_)));
    } else {
        buffer_.clear();
        flushed_ = position;
        // Only makes room at once: the end is set when the file is kept.
        (void)::ftruncate(descriptor_.get(), static_cast<::off_t>(position));
    }
    position_ = position;
    end_ = position;
}

bool ZipOutput::ReadAt(std::uint64_t offset, std::span<std::uint8_t> bytes) noexcept {
    while (!bytes.empty()) {
        const ::ssize_t count =
            ::pread(descriptor_.get(), bytes.data(), bytes.size(), static_cast<::off_t>(offset));
        if (count == 0 || (count < 0 && errno != EINTR)) {
            fail(count == 0 ? EIO : errno);
            return false;
        }
        if (count > 0) {
            bytes = bytes.subspan(static_cast<std::size_t>(count));
            offset += static_cast<std::uint64_t>(count);
        }
    }
    return true;
}

bool ZipOutput::Seek(std::uint64_t position) noexcept {
    if (position > end_) {
        return false;
    }
    position_ = position;
    return true;
}

bool ZipOutput::Keep() noexcept {
    if (!Flush()) {
        return false;
    }
    if (::ftruncate(descriptor_.get(), static_cast<::off_t>(position_)) != 0) {
        fail(errno);
        return false;
    }
    // Some file systems report a full disk here and not before.
    if (const int number = descriptor_.close()) {
        fail(number);
        ::unlink(path_.c_str());
        return false;
    }
    return true;
}

} // namespace Kelvane
