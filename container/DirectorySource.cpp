#include "container/BackupSource.hpp"
#include "container/DirectoryWalk.hpp"
#include "filestore/RootedFile.hpp"
#include "foundation/Boundary.hpp"

#include <boost/filesystem/operations.hpp>

namespace Kelvane {

namespace {

void requireSizeOnDisk(const CF::String &path, std::uint64_t limit) {
    boost::system::error_code error;
    const std::uintmax_t size = boost::filesystem::file_size(path.GetUTF8(), error);
    if (!error) {
        RequireSizeWithin(size, limit);
    }
}

// Whoever can write into the backup could otherwise have any file read that we may read.
class DirectorySource : public BackupSource {
  public:
    explicit DirectorySource(CF::String directory)
        : directory_(std::move(directory)),
          root_(std::make_shared<ZK::file::root_directory>(directory_.GetUTF8())) {}

    bool Holds(const CF::String &name) const override {
        struct stat status {};
        return root_->look(name.GetUTF8(), status) == 0 && S_ISREG(status.st_mode);
    }

    void ListFiles(const SourceFileConsumer &consumer, ListedSizes sizes) const override {
        WalkDirectory(directory_.GetUTF8(), Links::Refuse, consumer, sizes);
    }

    std::shared_ptr<BackupSource> Reopen() const override {
        return OpenDirectorySource(directory_, Links::Refuse);
    }

  protected:
    FileRef LoadNamed(const CF::String &name, std::uint64_t limit) const override {
        struct stat status {};
        // What else may be wrong with a file shows when it is referenced.
        if (limit != kAnySize && root_->look(name.GetUTF8(), status) == 0) {
            RequireSizeWithin(static_cast<std::uint64_t>(status.st_size), limit);
        }
        return ReferenceBelow(root_, name);
    }
    ZK::file::readable_file OpenNamed(const CF::String &name) const override {
        return OpenBelow(root_, name);
    }
    ZK::file::unique_descriptor OpenNamedQuickly(const CF::String &name) const override {
        ZK::file::unique_descriptor file(root_->open_file(name.GetUTF8()));
        // What keeps the file from being opened, the other way reports.
        return file.get() < 0 ? BackupSource::OpenNamedQuickly(name) : std::move(file);
    }

  private:
    CF::String directory_;
    RootDirectory root_;
};

// For a backup whose owner keeps parts of it elsewhere.
class LinkedDirectorySource : public BackupSource {
  public:
    explicit LinkedDirectorySource(CF::String directory) : directory_(std::move(directory)) {}

    bool Holds(const CF::String &name) const override {
        boost::system::error_code ignored; // what cannot be looked at is not held
        return boost::filesystem::is_regular_file(pathOf(name).GetUTF8(), ignored);
    }

    void ListFiles(const SourceFileConsumer &consumer, ListedSizes sizes) const override {
        WalkDirectory(directory_.GetUTF8(), Links::Follow, consumer, sizes);
    }

    std::shared_ptr<BackupSource> Reopen() const override {
        return OpenDirectorySource(directory_, Links::Follow);
    }

  protected:
    FileRef LoadNamed(const CF::String &name, std::uint64_t limit) const override {
        const CF::String path = pathOf(name);
        if (limit != kAnySize) {
            requireSizeOnDisk(path, limit);
        }
        LocalError error;
        FileRef file(CF::adopt, KVFileCreateFromFileAtPath(path.get(), false, error.out()));
        if (!file) {
            throw error.get();
        }
        return file;
    }
    ZK::file::readable_file OpenNamed(const CF::String &name) const override {
        boost::system::error_code error;
        ZK::file::readable_file file(directory_.GetUTF8() + "/" + name.GetUTF8(), error);
        // What keeps the file from being opened, loading reports.
        return error ? BackupSource::OpenNamed(name) : std::move(file);
    }

  private:
    CF::String pathOf(const CF::String &name) const {
        return CF::String::Format(CFSTR("%@/%@"), directory_.get(), name.get());
    }

    CF::String directory_;
};

} // namespace

std::shared_ptr<BackupSource> OpenDirectorySource(const CF::String &directory, Links links) {
    if (links == Links::Follow) {
        return std::make_shared<LinkedDirectorySource>(directory);
    }
    return std::make_shared<DirectorySource>(directory);
}

} // namespace Kelvane
