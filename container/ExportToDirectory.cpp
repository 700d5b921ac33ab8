#include "container/Export.hpp"

#include "Kelvane/Error.hpp"
#include "support/zk/CopyContent.hpp"
#include "support/zk/Directory.hpp"
#include "support/zk/File.hpp"

#include <boost/system/system_error.hpp>

#include <algorithm>
#include <map>
#include <span>
#include <string_view>
#include <utility>

namespace Kelvane {

namespace {

using ZK::file::directory;

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
        file_ = parent_.create_file(name_, error);
        if (error) {
            throwSystemError(error, kNotOpened);
        }
    }
    NewFile(const NewFile &) = delete;
    NewFile &operator=(const NewFile &) = delete;
    ~NewFile() {
        if (!completed_) {
            parent_.remove_file(name_);
        }
    }

    void Append(std::span<const std::uint8_t> bytes) {
        boost::system::error_code error;
        ZK::file::write_all(file_.get(), bytes, error);
        if (error) {
            throwSystemError(error, kNotWritten);
        }
    }
    // All that the open file holds; returns how much that was.
    std::uint64_t CopyAll(int source, std::uint64_t size, ZK::file::content_copier &copier) {
        boost::system::error_code error;
        const std::uint64_t copied = copier.copy(source, file_.get(), size, error);
        if (error) {
            throwSystemError(error, kNotWritten);
        }
        return copied;
    }
    void RequireOpen() const {
        if (file_.get() < 0) {
            throw Error(kKVErrorFilesystem, nullptr, "The file closed unexpectedly");
        }
    }
    void Complete() {
        if (const int number = file_.close()) {
            throwSystemError({number, boost::system::system_category()}, kNotWritten);
        }
        completed_ = true;
    }

  private:
    static constexpr const char *kNotWritten = "The file could not be written - %s";

    const directory &parent_;
    std::string name_;
    ZK::file::unique_descriptor file_{-1};
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
        const auto known = entered_.find(path);
        if (known != entered_.end()) {
            return known->second;
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
        if (entered_.size() >= kMostDirectories) {
            entered_.clear();
        }
        return entered_.emplace(path, std::move(entered)).first->second;
    }

    directory root_;
    ZK::file::content_copier copier_;
    // Those that files were written to, by their paths: files come in no order, and a backup has
    // 256 folders of stored files. Processes may have 1,024 files open as a rule.
    static constexpr std::size_t kMostDirectories = 300;
    std::map<std::string, directory> entered_;
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
