#include "container/ChangeJournal.hpp"

#include "Kelvane/Error.hpp"
#include "container/ChangePlan.hpp"
#include "support/cf/CF.hpp"
#include "support/cf/Extensions.hpp"
#include "support/zk/File.hpp"

#include <boost/system/system_error.hpp>

#include <cerrno>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Kelvane {

namespace {

using ZK::file::directory;

constexpr const char *kPlanName = "plan";
constexpr const char *kUndecidedPlanName = "plan.new";
// The largest plan that is read: a million names.
constexpr std::uint64_t kMaxPlanSize = 256ULL << 20;

// Runs a step on files; what fails becomes an error of the library's.
template <class Step>
auto onFiles(const char *what, Step step) {
    try {
        return step();
    } catch (const boost::system::system_error &failure) {
        ThrowNotChangedInPlace(what, failure);
    }
}

[[noreturn]] void raise(const char *step) {
    throw boost::system::system_error(errno, boost::system::system_category(), step);
}

void raiseIf(const boost::system::error_code &error, const char *step) {
    if (error) {
        throw boost::system::system_error(error, step);
    }
}

void syncFile(const ZK::file::writable_file &file) {
    int result = -1;
    do {
        result = ::fsync(file.native_handle());
    } while (result != 0 && errno == EINTR);
    if (result != 0) {
        raise("fsync");
    }
}

std::string newName(std::size_t number) { return "new-" + std::to_string(number); }

std::string parentOf(const std::string &name) {
    const std::size_t slash = name.rfind('/');
    return slash == std::string::npos ? std::string() : name.substr(0, slash);
}

std::string lastOf(const std::string &name) { return name.substr(name.rfind('/') + 1); }

// The directory that holds the file of that name; not open when there is none.
directory openParent(const directory &root, const std::string &name) {
    boost::system::error_code error;
    directory current = root.open_directory(".", error);
    raiseIf(error, "open");
    const std::string path = parentOf(name);
    for (std::size_t start = 0; start < path.size();) {
        const std::size_t end = std::min(path.find('/', start), path.size());
        current = current.open_directory(path.substr(start, end - start), error);
        if (error == boost::system::errc::no_such_file_or_directory) {
            return {};
        }
        raiseIf(error, "open");
        start = end + 1;
    }
    return current;
}

void write(ZK::file::writable_file &file, std::string_view text) {
    file.write({reinterpret_cast<const std::uint8_t *>(text.data()), text.size()});
}

// The folder with all that is in it. Whatever else somebody put there makes it stay.
void removeFolder(const directory &root, const directory &folder) {
    folder.unlink(kPlanName); // first: without it the change is undecided
    folder.sync();
    for (const std::string &name : folder.list()) {
        folder.unlink(name);
    }
    root.unlink_directory(kJournalName);
    root.sync();
}

void apply(const directory &root, const directory &folder, const PlannedChange &change,
           std::set<std::string> &touched) {
    const std::string source = newName(change.number);
    const directory parent = openParent(root, change.name);
    if (!change.puts) {
        if (parent.is_open()) {
            parent.unlink(lastOf(change.name));
            touched.insert(parentOf(change.name));
        }
        return;
    }
    // One that is gone from here is where it belongs.
    if (folder.holds(source)) {
        if (!parent.is_open()) {
            errno = ENOENT;
            raise("open");
        }
        folder.rename(source, parent, lastOf(change.name));
        touched.insert(parentOf(change.name));
    }
}

// What could not be replaced or removed must be known before the change is decided.
void requireReplaceable(const directory &root, const std::string &name) {
    const directory parent = openParent(root, name);
    if (!parent.is_open()) {
        return; // nothing is there, and to be removed
    }
    struct stat status {};
    const std::string last = lastOf(name);
    const int result =
        ::fstatat(parent.native_handle(), last.c_str(), &status, AT_SYMLINK_NOFOLLOW);
    if (result != 0 && errno != ENOENT) {
        raise("stat");
    }
    if (result == 0 && S_ISDIR(status.st_mode)) {
        throw Error(kKVErrorWriteRepresentation, nullptr,
                    CFSTR("A directory has the name of a stored file (%s)"), name.c_str());
    }
}

// Brings a decided change to its end, from wherever it stands.
void complete(const directory &root, const directory &folder,
              const std::vector<PlannedChange> &changes) {
    std::set<std::string> touched;
    for (const PlannedChange &change : changes) {
        apply(root, folder, change, touched);
    }
    for (const std::string &path : touched) {
        const directory parent = openParent(root, path + "/x");
        if (parent.is_open()) {
            parent.sync();
        }
    }
    removeFolder(root, folder);
}

std::string readPlan(const directory &folder) {
    const ZK::file::unique_descriptor plan(
        ::openat(folder.native_handle(), kPlanName,
                 O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY));
    struct stat status {};
    if (plan.get() < 0 || ::fstat(plan.get(), &status) != 0) {
        raise("open");
    }
    if (!S_ISREG(status.st_mode) || static_cast<std::uint64_t>(status.st_size) > kMaxPlanSize) {
        return {};
    }
    std::string text(static_cast<std::size_t>(status.st_size), '\0');
    std::size_t done = 0;
    while (done < text.size()) {
        const ::ssize_t count = ::read(plan.get(), text.data() + done, text.size() - done);
        if (count < 0 && errno != EINTR) {
            raise("read");
        }
        if (count == 0) {
            break;
        }
        done += static_cast<std::size_t>(std::max<::ssize_t>(count, 0));
    }
    text.resize(done);
    return text;
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
            raise("stat");
        }
        mode_ = (model.st_mode & 0666) | 0600;
        owner_ = model.st_uid;
        group_ = model.st_gid;
        boost::system::error_code error;
        folder_ = root.enter(kJournalName, error);
        raiseIf(error, "mkdir");
    });
}

ChangeJournal::~ChangeJournal() {
    if (decided_ || !folder_.is_open()) {
        return;
    }
    try {
        removeFolder(root_, folder_);
        for (auto parent = parents_.rbegin(); parent != parents_.rend(); ++parent) {
            root_.unlink_directory(*parent); // one that is not empty stays
        }
    } catch (const boost::system::system_error &) {
        // What is left is undecided, and the next recovery takes it back.
    }
}

// While there may be no room for it yet: deciding must not come before.
void ChangeJournal::makeParent(const std::string &name) {
    const std::string path = parentOf(name);
    for (std::size_t end = path.find('/'); !path.empty(); end = path.find('/', end + 1)) {
        const std::string part = path.substr(0, end);
        if (!root_.holds(part)) {
            const directory above = openParent(root_, part);
            boost::system::error_code error;
            const directory made = above.enter(lastOf(part), error);
            raiseIf(error, "mkdir");
            const ::mode_t searchable = mode_ | ((mode_ & 0444) >> 2);
            (void)::fchmod(made.native_handle(), searchable);
            (void)::fchown(made.native_handle(), owner_, group_);
            parents_.insert(part);
            above.sync();
        }
        if (end == std::string::npos) {
            return;
        }
    }
}

void ChangeJournal::Put(const std::string &name, const ExportContent &content) {
    onFiles("write", [&] {
        makeParent(name);
        requireReplaceable(root_, name);
        const std::size_t number = operations_.size();
        boost::system::error_code error;
        auto file = ZK::file::writable_file::create_new(folder_, newName(number), error);
        raiseIf(error, "create");
        std::uint64_t written = 0;
        content.Read([&](std::span<const std::uint8_t> piece) {
            file.write(piece);
            written += piece.size();
        });
        RequireWhole(content, written);
        // Whoever may read the backup may read this; not to be allowed to say so is no failure.
        (void)::fchmod(file.native_handle(), mode_);
        (void)::fchown(file.native_handle(), owner_, group_);
        syncFile(file);
        file.complete();
        bytes_ += written;
        operations_.push_back({true, number, name});
    });
}

void ChangeJournal::Remove(const std::string &name) {
    onFiles("look", [&] { requireReplaceable(root_, name); });
    operations_.push_back({false, operations_.size(), name});
}

std::string ChangeJournal::plan() const {
    std::vector<PlannedChange> changes;
    for (const Operation &operation : operations_) {
        changes.push_back({operation.puts, operation.number, operation.name});
    }
    return FormatPlan(changes);
}

void ChangeJournal::Commit(bool &decided) {
    decided = false;
    onFiles("commit", [&] {
        const std::string text = plan();
        boost::system::error_code error;
        auto file = ZK::file::writable_file::create_new(folder_, kUndecidedPlanName, error);
        raiseIf(error, "create");
        write(file, text);
        syncFile(file);
        file.complete();
        folder_.sync();
        root_.sync(); // the folder itself, and directories that were made
        folder_.rename(kUndecidedPlanName, folder_, kPlanName);
        decided_ = decided = true;
        folder_.sync();
        complete(root_, folder_, *ParsePlan(text));
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
        raiseIf(error, "open");
        if (!folder.holds(kPlanName)) {
            removeFolder(root, folder);
            return Recovery::TakenBack;
        }
        const auto changes = ParsePlan(readPlan(folder));
        if (!changes) {
            throw Error(kKVErrorInvalidBackup, nullptr, "The plan of the change is damaged");
        }
        complete(root, folder, *changes);
        return Recovery::Completed;
    });
}

} // namespace Kelvane
