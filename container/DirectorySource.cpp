#include "container/BackupSource.hpp"
#include "container/DirectoryWalk.hpp"
#include "foundation/Boundary.hpp"

#include <boost/filesystem/operations.hpp>

namespace Kelvane {

namespace {

// What else may be wrong with a file shows when it is referenced.
void requireSizeOnDisk(const CF::String &path, std::uint64_t limit) {
    boost::system::error_code error;
    const std::uintmax_t size = boost::filesystem::file_size(path.GetUTF8(), error);
    if (!error) {
        RequireSizeWithin(size, limit);
    }
}

class DirectorySource : public BackupSource {
  public:
    explicit DirectorySource(CF::String directory) : directory_(std::move(directory)) {}

    void ListFiles(const SourceFileConsumer &consumer) const override {
        WalkDirectory(directory_.GetUTF8(), consumer);
    }

    std::shared_ptr<BackupSource> Reopen() const override {
        return OpenDirectorySource(directory_);
    }

  protected:
    FileRef LoadNamed(const CF::String &name, std::uint64_t limit) const override {
        const auto path = CF::String::Format(CFSTR("%@/%@"), directory_.get(), name.get());
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

  private:
    CF::String directory_;
};

} // namespace

std::shared_ptr<BackupSource> OpenDirectorySource(const CF::String &directory) {
    return std::make_shared<DirectorySource>(directory);
}

} // namespace Kelvane
