#include "container/ExportContent.hpp"

#include "Kelvane/Error.hpp"
#include "support/cf/CF.hpp"

#include <boost/system/system_error.hpp>

#include <algorithm>
#include <memory>
#include <utility>
#include <vector>

namespace Kelvane {

namespace {

// One read of a file that is carried over; larger ones gain nothing.
constexpr std::size_t kReadSize = 256 * 1024;

[[noreturn]] void throwReadError(const boost::system::error_code &error) {
    throw MakeFSError(error.value(), CFSTR("The stored file could not be read - %s"),
                      error.message().c_str());
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

StoredContent::StoredContent(ZK::file::readable_file file) : file_(std::move(file)) {
    try {
        size_ = file_.size();
    } catch (const boost::system::system_error &failure) {
        throwReadError(failure.code());
    }
}

CF::Pointer<CFDateRef> StoredContent::ModifiedDate() const {
    const auto time = static_cast<double>(file_.last_write_time());
    return CF::Adopt(
        CF::Made(CFDateCreate(kCFAllocatorDefault, time - kCFAbsoluteTimeIntervalSince1970)));
}

void StoredContent::Read(const ContentConsumer &consumer) const {
    const auto size = static_cast<std::size_t>(std::clamp<std::uint64_t>(size_, 1, kReadSize));
    const auto buffer = std::make_unique_for_overwrite<std::uint8_t[]>(size);
    for (;;) {
        boost::system::error_code error;
        const std::size_t count = file_.read_some({buffer.get(), size}, error);
        if (error) {
            throwReadError(error);
        }
        if (count == 0) {
            return;
        }
        consumer({buffer.get(), count});
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
