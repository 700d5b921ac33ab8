#include "container/BackupSource.hpp"
#include "container/DirectoryWalk.hpp"
#include "foundation/Boundary.hpp"

namespace Kelvane {

namespace {

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
    FileRef LoadNamed(const CF::String &name) const override {
        const auto path = CF::String::Format(CFSTR("%@/%@"), directory_.get(), name.get());
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
