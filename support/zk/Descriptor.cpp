// The only file that includes Asio, whose headers are slow to compile.
#include "support/zk/File.hpp"

#include "support/zk/UniqueDescriptor.hpp"

#include <boost/asio/buffer.hpp>
#include <boost/asio/error.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/posix/stream_descriptor.hpp>
#include <boost/system/system_error.hpp>

#include <cerrno>

#include <sys/stat.h>

namespace ZK::file {
namespace {

// Descriptors belong to a context even when nothing waits on them; this one never runs.
// It outlives every static object, so that files may be closed during exit.
boost::asio::io_context &ioContext() {
    static auto *const context = new boost::asio::io_context;
    return *context;
}

void throwIf(const boost::system::error_code &error, const char *what) {
    if (error) {
        throw boost::system::system_error(error, what);
    }
}

struct stat statusOf(int fd) {
    struct stat status {};
    if (::fstat(fd, &status) != 0) {
        throwIf({errno, boost::system::system_category()}, "fstat");
    }
    return status;
}

} // namespace

struct descriptor::stream {
    boost::asio::posix::stream_descriptor file{ioContext()};
};

descriptor::descriptor() noexcept = default;
descriptor::descriptor(descriptor &&) noexcept = default;
descriptor &descriptor::operator=(descriptor &&) noexcept = default;
descriptor::~descriptor() { close(); }

descriptor::descriptor(int fd) {
    unique_descriptor owned(fd);
    auto opened = std::make_unique<stream>();
    opened->file.assign(fd);
    owned.release();
    stream_ = std::move(opened);
}

int descriptor::native_handle() const noexcept {
    return stream_ == nullptr ? -1 : stream_->file.native_handle();
}

void descriptor::close() noexcept {
    boost::system::error_code ignored; // the descriptor is gone in any case
    close(ignored);
}

void descriptor::close(boost::system::error_code &error) noexcept {
    error.clear();
    if (stream_ != nullptr) {
        stream_->file.close(error);
        stream_.reset();
        if (error == boost::asio::error::interrupted) {
            error.clear();
        }
    }
}

std::uint64_t descriptor::size() const {
    return static_cast<std::uint64_t>(statusOf(native_handle()).st_size);
}

std::time_t descriptor::last_write_time() const { return statusOf(native_handle()).st_mtime; }

std::size_t readable_file::read_some(std::span<std::uint8_t> buffer,
                                     boost::system::error_code &error) {
    if (!is_open()) {
        error.assign(EBADF, boost::system::system_category());
        return 0;
    }
    std::size_t count = 0;
    do {
        error.clear();
        count = stream_->file.read_some(boost::asio::buffer(buffer.data(), buffer.size()), error);
    } while (error == boost::asio::error::interrupted);
    if (error == boost::asio::error::eof) {
        error.clear();
        return 0;
    }
    return count;
}

std::size_t readable_file::read_some(std::span<std::uint8_t> buffer) {
    boost::system::error_code error;
    const std::size_t count = read_some(buffer, error);
    throwIf(error, "read");
    return count;
}

void writable_file::write(std::span<const std::uint8_t> bytes, boost::system::error_code &error) {
    error.clear();
    if (!is_open()) {
        error.assign(EBADF, boost::system::system_category());
        return;
    }
    while (!bytes.empty()) {
        const std::size_t count =
            stream_->file.write_some(boost::asio::buffer(bytes.data(), bytes.size()), error);
        if (error == boost::asio::error::interrupted) {
            continue;
        }
        if (!error && count == 0) { // no progress and no reason: do not spin
            error.assign(EIO, boost::system::system_category());
        }
        if (error) {
            return;
        }
        bytes = bytes.subspan(count);
    }
    error.clear();
}

void writable_file::write(std::span<const std::uint8_t> bytes) {
    boost::system::error_code error;
    write(bytes, error);
    throwIf(error, "write");
}

void writable_file::complete() {
    boost::system::error_code error;
    close(error);
    throwIf(error, "close");
}

} // namespace ZK::file
