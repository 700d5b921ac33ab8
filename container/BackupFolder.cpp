#include "container/BackupFolder.hpp"

#include "Kelvane/Error.hpp"
#include "container/StoredName.hpp"

#include <boost/filesystem/operations.hpp>

#include <set>
#include <string>

namespace Kelvane {

namespace {

using Names = std::set<std::string>;

// Two are as many as it takes to know that there is not one.
constexpr std::size_t kTooMany = 2;

const CF::String &manifestPlist() {
    static const CF::String name(kManifestPlistName);
    return name;
}

// A part of another source: everything below one folder.
class FolderSource : public BackupSource {
  public:
    FolderSource(std::shared_ptr<BackupSource> whole, std::string prefix)
        : whole_(std::move(whole)), prefix_(std::move(prefix)) {}

    bool Holds(const CF::String &name) const override { return whole_->Holds(inWhole(name)); }

    void ListFiles(const SourceFileConsumer &consumer, ListedSizes sizes) const override {
        const auto visit = [&](const SourceFile &file) {
            const std::string name = file.name.GetUTF8();
            return !name.starts_with(prefix_) ||
                   consumer({CF::String(name.substr(prefix_.size())), file.size, file.isRegular});
        };
        whole_->ListFiles(visit, sizes);
    }

    std::shared_ptr<BackupSource> Reopen() const override {
        return std::make_shared<FolderSource>(whole_->Reopen(), prefix_);
    }

  protected:
    FileRef LoadNamed(const CF::String &name, std::uint64_t limit) const override {
        return whole_->Load(inWhole(name), limit);
    }

  private:
    CF::String inWhole(const CF::String &name) const {
        return CF::String(prefix_ + name.GetUTF8());
    }

    std::shared_ptr<BackupSource> whole_;
    std::string prefix_; // ends with a slash
};

// The folder that it is; empty for none.
std::string onlyOne(const Names &folders, const CF::String &place) {
    if (folders.size() >= kTooMany) {
        throw Error(kKVErrorInvalidBackup, nullptr, "More than one backup lies in %@: %@, %@",
                    place.get(), CF::String(*folders.begin()).get(),
                    CF::String(*std::next(folders.begin())).get());
    }
    return folders.empty() ? "" : *folders.begin();
}

bool isBackupFolder(const boost::filesystem::directory_entry &item, Links links) {
    boost::system::error_code ignored; // what cannot be looked at is none
    if (links == Links::Refuse && boost::filesystem::is_symlink(item.symlink_status(ignored))) {
        return false;
    }
    const CF::String path(item.path().native());
    return path && boost::filesystem::is_directory(item.status(ignored)) &&
           OpenDirectorySource(path, links)->Holds(manifestPlist());
}

Names backupFolders(const CF::String &directory, Links links) {
    Names found;
    boost::system::error_code error;
    boost::filesystem::directory_iterator item(directory.GetUTF8(), error);
    const boost::filesystem::directory_iterator end;
    for (; !error && item != end && found.size() < kTooMany; item.increment(error)) {
        if (isBackupFolder(*item, links)) {
            found.insert(item->path().filename().native());
        }
    }
    return found;
}

Names backupFolders(const BackupSource &zip) {
    Names found;
    const std::string suffix = std::string("/") + kManifestPlistName;
    zip.ListFiles([&](const SourceFile &file) {
        const std::string name = file.name.GetUTF8();
        const std::size_t slash = name.find('/');
        if (slash != std::string::npos && name.substr(slash) == suffix &&
            IsSafeStoredName(file.name)) {
            found.insert(name.substr(0, slash));
        }
        return found.size() < kTooMany;
    });
    return found;
}

} // namespace

FoundSource FindBackupInDirectory(const CF::String &directory, Links links) {
    auto source = OpenDirectorySource(directory, links);
    if (source->Holds(manifestPlist())) {
        return {std::move(source), {}, directory};
    }
    const std::string folder = onlyOne(backupFolders(directory, links), directory);
    if (folder.empty()) {
        return {std::move(source), {}, directory};
    }
    const CF::String path((boost::filesystem::path(directory.GetUTF8()) / folder).native());
    return {OpenDirectorySource(path, links), CF::String(folder), path};
}

FoundSource FindBackupInZip(const CF::String &zipPath) {
    auto source = OpenZipSource(zipPath);
    if (source->Holds(manifestPlist())) {
        return {std::move(source), {}, zipPath};
    }
    const std::string folder = onlyOne(backupFolders(*source), zipPath);
    if (folder.empty()) {
        return {std::move(source), {}, zipPath};
    }
    return {std::make_shared<FolderSource>(std::move(source), folder + "/"), CF::String(folder),
            zipPath};
}

} // namespace Kelvane
