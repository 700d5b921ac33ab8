#include "container/ExportContent.hpp"

#include "Kelvane/Error.hpp"
#include "support/cf/CF.hpp"

#include <boost/system/error_code.hpp>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Kelvane {

namespace {

// One read of a file that is carried over; larger ones gain nothing.
constexpr std::size_t kReadSize = 128 * 1024;

[[noreturn]] void throwReadError(int number) {
    const std::string text = boost::system::system_category().message(number);
    throw MakeFSError(number, CFSTR("The stored file could not be read - %s"), text.c_str());
}

// The lock goes with the last descriptor of the open file.
ZK::file::unique_descriptor duplicate(const ZK::file::readable_file &file) {
    ZK::file::unique_descriptor copy(::fcntl(file.native_handle(), F_DUPFD_CLOEXEC, 0));
    if (copy.get() < 0) {
        throwReadError(errno);
    }
    return copy;
}

} // namespace

std::uint64_t FileContent::Size() const { return KVFileGetSize(file_); }

CF::Pointer<CFDateRef> FileContent::ModifiedDate() const {
    return CF::Pointer<CFDateRef>(KVFileGetModifiedDate(file_));
}

void FileContent::Read(const ContentConsumer &consumer) const {
    if (const auto whole = KVFileGetDataQuickly(file_)) {
        consumer(*whole);
        return;
    }
    KVFileGetData(file_, kKVFileDefaultDataChunkSize, [&](const std::vector<std::uint8_t> &bytes) {
        consumer(bytes);
        return true;
    });
}

StoredContent::StoredContent(ZK::file::unique_descriptor file) : file_(std::move(file)) {
    struct stat status {};
    if (::fstat(file_.get(), &status) != 0) {
        throwReadError(errno);
    }
    size_ = static_cast<std::uint64_t>(status.st_size);
    modified_ = static_cast<double>(status.st_mtime);
}

StoredContent::StoredContent(const ZK::file::readable_file &file)
    : StoredContent(duplicate(file)) {}

CF::Pointer<CFDateRef> StoredContent::ModifiedDate() const {
    return CF::Adopt(
        CF::Made(CFDateCreate(kCFAllocatorDefault, modified_ - kCFAbsoluteTimeIntervalSince1970)));
}

void StoredContent::Read(const ContentConsumer &consumer) const {
    // On the stack, since a backup has a million files, and memory of that size is mapped anew each
    // time.
    std::uint8_t buffer[kReadSize];
    for (;;) {
        const ::ssize_t count = ::read(file_.get(), buffer, kReadSize);
        if (count == 0) {
            return;
        }
        if (count > 0) {
            consumer({buffer, static_cast<std::size_t>(count)});
        } else if (errno != EINTR) {
            throwReadError(errno);
        }
    }
}

void RequireWhole(const ExportContent &content, std::uint64_t written) {
    const std::uint64_t size = content.Size();
    if (written != size) {
        throw Error(kKVErrorFilesystem, nullptr,
                    CFSTR("The file changed while it was written (%llu of %llu bytes)"),
                    static_cast<unsigned long long>(written),
                    static_cast<unsigned long long>(size));
    }
}

} // namespace Kelvane
