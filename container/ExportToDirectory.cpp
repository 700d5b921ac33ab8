#include "container/Export.hpp"

#include "Kelvane/Error.hpp"
#include "support/zk/CopyContent.hpp"
#include "support/zk/Directory.hpp"
#include "support/zk/File.hpp"

#include <boost/system/system_error.hpp>

#include <algorithm>
#include <ios>
#include <span>
#include <string_view>
#include <utility>

namespace Kelvane {

namespace {

using ZK::file::directory;
using ZK::file::writable_file;

constexpr const char *kNotOpened = "The file could not be opened for writing: %s";

[[noreturn]] void throwSystemError(const boost::system::error_code &error, const char *format) {
    throw MakeFSError(error.value(), CF::String(format), error.message().c_str());
}

// A file that goes away again unless it was completed.
class NewFile {
  public:
    // Nothing is in the target but what this export put there, so a name that is taken is
    // that of another stored file, on a file system that takes the two names for one:
    // appending to it would spoil both.
    NewFile(const directory &parent, std::string name) : parent_(parent), name_(std::move(name)) {
        boost::system::error_code error;
        file_ = open(error);
        if (error) {
            throwSystemError(error, kNotOpened);
        }
    }
    NewFile(const NewFile &) = delete;
    NewFile &operator=(const NewFile &) = delete;
    ~NewFile() {
        if (!completed_) {
            file_.close();
            parent_.remove_file(name_);
        }
    }

    void Append(std::span<const std::uint8_t> bytes) {
        boost::system::error_code error;
        file_.write(bytes, error);
        if (error) {
            throwSystemError(error, kNotWritten);
        }
    }
    // All that the open file holds; returns how much that was.
    std::uint64_t CopyAll(int source, std::uint64_t size, ZK::file::content_copier &copier) {
        boost::system::error_code error;
        const std::uint64_t copied = copier.copy(source, file_.native_handle(), size, error);
        if (error) {
            throwSystemError(error, kNotWritten);
        }
        return copied;
    }
    void RequireOpen() const {
        if (!file_.is_open()) {
            throw Error(kKVErrorFilesystem, nullptr, "The file closed unexpectedly");
        }
    }
    void Complete() {
        boost::system::error_code error;
        file_.close(error);
        if (error) {
            throwSystemError(error, kNotWritten);
        }
        completed_ = true;
    }

  private:
    static constexpr const char *kNotWritten = "The file could not be written - %s";

    writable_file open(boost::system::error_code &error) const {
        try {
            return writable_file::create_new(parent_, name_, error);
        } catch (const boost::system::system_error &exception) {
            throw Error(kKVErrorFilesystem, nullptr,
                        CFSTR("The file could not be opened for writing - %s (%d)"),
                        exception.what(), exception.code().value());
        }
    }

    const directory &parent_;
    std::string name_;
    writable_file file_;
    bool completed_ = false;
};

class DirectoryTarget : public ExportTarget {
  public:
    explicit DirectoryTarget(directory root) : root_(std::move(root)) {}

    CFStringRef NotLoaded() const override {
        return CFSTR("File %@ could not be loaded for writing to directory");
    }
    CFStringRef NotWritten() const override { return CFSTR("File %@ could not be written"); }

    void Write(const std::string &name, const ExportPiece &piece,
               ExportProgress &progress) override {
        const std::size_t separator = name.rfind('/');
        const bool atRoot = separator == std::string::npos;
        const directory &parent = atRoot ? root_ : enter(name.substr(0, separator));
        NewFile target(parent, atRoot ? name : name.substr(separator + 1));
        RequireWhole(*piece.content, fill(target, *piece.content, progress));
        target.Complete();
    }

  private:
    // What lies in a file as it is need not come through this process.
    std::uint64_t fill(NewFile &target, const ExportContent &content, ExportProgress &progress) {
        std::uint64_t written = 0;
        if (content.Descriptor() >= 0) {
            written = target.CopyAll(content.Descriptor(), content.Size(), copier_);
            progress.Count(written);
            return written;
        }
        content.Read([&](std::span<const std::uint8_t> bytes) {
            target.Append(bytes);
            written += bytes.size();
            progress.Count(bytes.size());
            target.RequireOpen();
        });
        return written;
    }

    // The directory of that path below the root, made where it is missing; borrowed until
    // the next call. One that cannot be had is reported as the file that cannot be opened.
    const directory &enter(const std::string &path) {
        if (current_.is_open() && path == currentPath_) {
            return current_;
        }
        const directory *parent = &root_;
        directory entered;
        for (std::size_t start = 0; start < path.size();) {
            const std::size_t end = std::min(path.find('/', start), path.size());
            boost::system::error_code error;
            entered = parent->enter(path.substr(start, end - start), error);
            if (error) {
                throwSystemError(error, kNotOpened);
            }
            parent = &entered;
            start = end + 1;
        }
        current_ = std::move(entered);
        currentPath_ = path;
        return current_;
    }

    directory root_;
    ZK::file::content_copier copier_;
    // The one used last: files of one directory may follow each other.
    directory current_;
    std::string currentPath_;
};

} // namespace

std::unique_ptr<ExportTarget> CreateDirectoryTarget(const CF::String &path) {
    try {
        return std::make_unique<DirectoryTarget>(directory::create_new(path.GetUTF8()));
    } catch (const boost::system::system_error &exception) {
        throw Error(kKVErrorFilesystem, nullptr,
                    CFSTR("Failed to create containing directory %@ - %s (%d)"), path.get(),
                    exception.code().message().c_str(), exception.code().value());
    }
}

} // namespace Kelvane
