#include "container/ChangeJournal.hpp"

#include "Kelvane/Error.hpp"
#include "container/JournalFolder.hpp"
#include "container/StoredName.hpp"
#include "support/cf/CF.hpp"
#include "support/cf/Extensions.hpp"
#include "support/zk/CopyContent.hpp"

#include <cerrno>
#include <string_view>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Kelvane {

namespace {

using journal::Raise;
using journal::RaiseIf;
using ZK::file::directory;
using ZK::file::unique_descriptor;

// Runs a step on files; what fails becomes an error of the library's.
template <class Step>
auto onFiles(const char *what, Step step) {
    try {
        return step();
    } catch (const boost::system::system_error &failure) {
        ThrowNotChangedInPlace(what, failure);
    }
}

unique_descriptor create(const directory &folder, const std::string &name) {
    boost::system::error_code error;
    unique_descriptor file = folder.create_file(name, error);
    RaiseIf(error, "create");
    return file;
}

void write(const unique_descriptor &file, std::span<const std::uint8_t> bytes) {
    boost::system::error_code error;
    ZK::file::write_all(file.get(), bytes, error);
    RaiseIf(error, "write");
}

void write(const unique_descriptor &file, std::string_view text) {
    write(file, {reinterpret_cast<const std::uint8_t *>(text.data()), text.size()});
}

// On the disk, and closed.
void finish(unique_descriptor &file) {
    if (ZK::file::sync_to_disk(file.get()) != 0) {
        Raise("fsync");
    }
    if (const int number = file.close()) {
        errno = number;
        Raise("close");
    }
}

// Who may not remove a file of another's may not replace it either.
void requireOwn(const struct stat &parent, const struct stat &file) {
    const ::uid_t user = ::geteuid();
    if ((parent.st_mode & S_ISVTX) != 0 && user != 0 && user != parent.st_uid &&
        user != file.st_uid) {
        errno = EPERM;
        Raise("replace");
    }
}

// What could not be replaced or removed must be known before the change is decided.
void requireReplaceable(const directory &root, const directory &folder, const std::string &name) {
    const directory parent = journal::OpenParent(root, name);
    if (!parent.is_open()) {
        return; // nothing is there, and to be removed
    }
    struct stat place {};
    struct stat own {};
    if (::fstat(parent.native_handle(), &place) != 0 ||
        ::fstat(folder.native_handle(), &own) != 0 ||
        ::faccessat(parent.native_handle(), ".", W_OK | X_OK, AT_EACCESS) != 0) {
        Raise("access");
    }
    if (place.st_dev != own.st_dev) {
        errno = EXDEV;
        Raise("rename");
    }
    struct stat file {};
    const std::string last = journal::LastOf(name);
    const int result = ::fstatat(parent.native_handle(), last.c_str(), &file, AT_SYMLINK_NOFOLLOW);
    if (result != 0 && errno != ENOENT) {
        Raise("stat");
    }
    if (result == 0 && S_ISDIR(file.st_mode)) {
        throw Error(kKVErrorWriteRepresentation, nullptr,
                    CFSTR("A directory has the name of a stored file (%s)"), name.c_str());
    }
    if (result == 0) {
        requireOwn(place, file);
    }
}

} // namespace

void ThrowNotChangedInPlace(const char *step, const boost::system::system_error &failure) {
    const std::string text = failure.code().message();
    throw Error(kKVErrorFilesystem,
                CF::Error::Adopt(CF::Made(
                    CFErrorCreatePOSIXError(kCFAllocatorDefault, failure.code().value(), nullptr))),
                CFSTR("The backup could not be changed in place (%s: %s)"), step, text.c_str());
}

ChangeJournal::ChangeJournal(const directory &root, const std::string &modelName) : root_(root) {
    onFiles("begin", [&] {
        if (root.holds(kJournalName)) {
            throw Error(kKVErrorWriteRepresentation, nullptr,
                        "The backup holds a change that was not completed");
        }
        struct stat model {};
        if (::fstatat(root.native_handle(), modelName.c_str(), &model, AT_SYMLINK_NOFOLLOW) != 0) {
            Raise("stat");
        }
        mode_ = (model.st_mode & 0666) | 0600;
        owner_ = model.st_uid;
        group_ = model.st_gid;
        boost::system::error_code error;
        folder_ = root.enter(kJournalName, error);
        RaiseIf(error, "mkdir");
    });
}

ChangeJournal::~ChangeJournal() {
    if (decided_ || !folder_.is_open()) {
        return;
    }
    try {
        folders_.close();
        journal::TakeBack(root_, folder_);
    } catch (const std::exception &) {
        // What is left is undecided, and the next recovery takes it back.
    }
}

// Noted before it is there: an undecided change takes it with it.
void ChangeJournal::makeFolder(const std::string &path) {
    if (folders_.get() < 0) {
        folders_ = create(folder_, journal::kFoldersName);
    }
    write(folders_, FormatName(path));
    if (ZK::file::sync_to_disk(folders_.get()) != 0) {
        Raise("fsync");
    }
    folder_.sync();
    root_.sync(); // the folder of the change itself
    const directory above = journal::OpenParent(root_, path);
    boost::system::error_code error;
    const directory made = above.enter(journal::LastOf(path), error);
    RaiseIf(error, "mkdir");
    const ::mode_t searchable = mode_ | ((mode_ & 0444) >> 2) | 0100;
    (void)::fchmod(made.native_handle(), searchable);
    (void)::fchown(made.native_handle(), owner_, group_);
    above.sync();
}

// While there may be no room for it yet: deciding must not come before.
void ChangeJournal::makeParent(const std::string &name) {
    const std::string path = journal::ParentOf(name);
    for (std::size_t end = path.find('/'); !path.empty(); end = path.find('/', end + 1)) {
        const std::string part = path.substr(0, end);
        const directory above = journal::OpenParent(root_, part);
        if (!above.holds(journal::LastOf(part))) {
            makeFolder(part);
        }
        if (end == std::string::npos) {
            return;
        }
    }
}

std::uint64_t ChangeJournal::fill(const unique_descriptor &file, const ExportContent &content) {
    if (content.Descriptor() >= 0) {
        boost::system::error_code error;
        const std::uint64_t copied =
            copier_.copy(content.Descriptor(), file.get(), content.Size(), error);
        RaiseIf(error, "copy");
        return copied;
    }
    std::uint64_t written = 0;
    content.Read([&](std::span<const std::uint8_t> piece) {
        write(file, piece);
        written += piece.size();
    });
    return written;
}

void ChangeJournal::Put(const std::string &name, const ExportContent &content) {
    onFiles("write", [&] {
        makeParent(name);
        requireReplaceable(root_, folder_, name);
        const std::size_t number = operations_.size();
        unique_descriptor file = create(folder_, journal::NewName(number));
        const std::uint64_t written = fill(file, content);
        RequireWhole(content, written);
        // Whoever may read the backup may read this; not to be allowed to say so is no failure.
        (void)::fchown(file.get(), owner_, group_);
        (void)::fchmod(file.get(), mode_);
        finish(file);
        bytes_ += written;
        operations_.push_back({true, number, name});
    });
}

void ChangeJournal::Remove(const std::string &name) {
    onFiles("look", [&] { requireReplaceable(root_, folder_, name); });
    operations_.push_back({false, operations_.size(), name});
}

void ChangeJournal::Commit(bool &decided) {
    decided = false;
    onFiles("commit", [&] {
        const std::string text = FormatPlan(operations_);
        const auto plan = ParsePlan(text);
        if (!plan || text.size() > journal::kMaxTextSize) {
            throw Error(kKVErrorWriteRepresentation, nullptr, "The change cannot be planned");
        }
        unique_descriptor file = create(folder_, journal::kUndecidedPlanName);
        write(file, text);
        finish(file);
        folder_.sync();
        root_.sync();
        folder_.rename(journal::kUndecidedPlanName, folder_, journal::kPlanName);
        decided_ = decided = true;
        folder_.sync();
        journal::Complete(root_, folder_, *plan);
    });
}

bool HoldsJournal(const directory &root) {
    return onFiles("look", [&] { return root.holds(kJournalName); });
}

Recovery RecoverChange(const directory &root) {
    return onFiles("recover", [&] {
        if (!root.holds(kJournalName)) {
            return Recovery::None;
        }
        boost::system::error_code error;
        const directory folder = root.open_directory(kJournalName, error);
        RaiseIf(error, "open");
        if (folder.holds(journal::kDoneName)) {
            journal::ClearAway(root, folder);
            return Recovery::Completed;
        }
        if (!folder.holds(journal::kPlanName)) {
            // An empty one was left before anything was in it, or when all was cleared away.
            const bool empty = folder.list().empty();
            journal::TakeBack(root, folder);
            return empty ? Recovery::None : Recovery::TakenBack;
        }
        const auto plan = ParsePlan(journal::ReadText(folder, journal::kPlanName));
        if (!plan) {
            throw Error(kKVErrorInvalidBackup, nullptr, "The plan of the change is damaged");
        }
        journal::Complete(root, folder, *plan);
        return Recovery::Completed;
    });
}

} // namespace Kelvane
