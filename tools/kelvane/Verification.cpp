#include "Verification.hpp"

#include "EntryRecord.hpp"
#include "ForeignFile.hpp"
#include "KVManifest.h"

#include <algorithm>
#include <array>
#include <cstdio>

namespace tool {

namespace {

constexpr CFIndex kDirectoryLength = 2;

constexpr std::array kMetadata = {"Manifest.plist", "Info.plist", "Status.plist", "Manifest.mbdb",
                                  "Manifest.db"};
// Where a system puts what it has backed up until the backup is complete.
constexpr const char *kSnapshot = "Snapshot/";
constexpr const char *kLog = "Manifest.db-wal";
constexpr const char *kJournal = "Manifest.db-journal";
// Where a change of the backup in place is prepared.
constexpr std::string_view kChanges = ".kelvane-journal";
// Only tells processes that have the database open about the log.
constexpr const char *kSharedMemory = "Manifest.db-shm";

std::string octal(unsigned mode) {
    std::array<char, 16> text;
    std::snprintf(text.data(), text.size(), "%06o", mode);
    return text.data();
}

} // namespace

Verification::Verification(const Container &container, const TemporaryArea &area, ProblemSink sink)
    : container_(container), sink_(std::move(sink)), contentCheck_(container, area, sink_),
      entries_(AllEntries(container)), usesDatabase_(UsesDatabase(container)) {}

void Verification::CheckEntries(const std::function<void(Entry *entry)> &checked) {
    for (CFIndex i = 0; i < entries_.GetCount(); ++i) {
        Entry *entry = EntryAt(entries_, i);
        const std::string fileID = CF::String::GetUTF8(KVManifestEntryGetFileID(entry));
        const auto index = static_cast<std::uint32_t>(i);
        all_.Add(fileID, index);
        const EntryType type = TypeOf(entry);
        if (type != EntryType::Directory && type != EntryType::Symlink) {
            contents_.Add(fileID, index);
        }
        checkEntry(entry);
        checked(entry);
    }
}

void Verification::checkEntry(Entry *entry) const {
    Problem problem;
    problem.entry = entry;
    const CF::String fileID(KVManifestEntryGetFileID(entry));
    const auto own = CF::String::Adopt(KVManifestEntryCopyFileIDForPath(
        KVManifestEntryGetDomain(entry), KVManifestEntryGetPath(entry)));
    if (!CFEqual(fileID.get(), own.get())) {
        problem.kind = "file-id-foreign";
        problem.message = "its file ID is '" + fileID.GetUTF8() +
                          "', that of its domain and path is " + own.GetUTF8();
        sink_(problem);
    }
    checkRecord(entry);
    switch (TypeOf(entry)) {
    case EntryType::File:
        contentCheck_.Run(entry);
        break;
    case EntryType::Other:
        problem.kind = "unknown-type";
        problem.message = "its mode " + octal(KVManifestEntryGetFileMode(entry)) +
                          " makes it no file, directory or link";
        sink_(problem);
        break;
    case EntryType::Directory:
    case EntryType::Symlink:
        break;
    }
}

void Verification::checkRecord(Entry *entry) const {
    const auto record =
        CF::Data::Adopt(usesDatabase_ ? KVManifestEntryCreateMBFileDataRepresentation(entry)
                                      : KVManifestEntryCreateManifestDataRepresentation(entry));
    if (!record) {
        Problem problem;
        problem.kind = "unwritable";
        problem.entry = entry;
        problem.message = "its record cannot be written again, so the backup cannot be exported";
        sink_(problem);
    }
}

void Verification::CheckFileIDs() {
    all_.Sort();
    contents_.Sort();
    for (const auto &[first, other] : all_.Repetitions()) {
        Problem problem;
        problem.kind = "file-id-shared";
        problem.entry = EntryAt(entries_, other);
        problem.message = "its file ID is also that of " + FullPath(EntryAt(entries_, first));
        sink_(problem);
    }
}

void Verification::CheckMetadata() {
    for (const char *name : kPropertyLists) {
        Problem problem;
        problem.cause = MetadataError(container_, name);
        if (problem.cause) {
            problem.kind = "metadata-unreadable";
            problem.storedName = name;
            problem.message = "what it holds cannot be read";
            sink_(problem);
        }
    }
}

void Verification::CheckNotes() {
    const KVBackupNotes notes = KVBackupContainerGetNotes(container_.get());
    if ((notes & kKVBackupNoteManifestDecrypted) != 0) {
        reportFile(Problem::Severity::Warning, "manifest-decrypted", kMetadata.back(),
                   "it is not encrypted, though the backup is");
    }
    if ((notes & kKVBackupNoteManifestWithoutPadding) != 0) {
        reportFile(Problem::Severity::Remark, "manifest-unpadded", kMetadata.back(),
                   "it is encrypted without padding");
    }
    if ((notes & kKVBackupNoteUnfinished) != 0) {
        reportFile(Problem::Severity::Warning, "unfinished", "Status.plist",
                   "the backup was cut off: its SnapshotState is '" + SnapshotState(container_) +
                       "', not 'finished'");
    }
}

// Empty for a name that stores no content.
std::string Verification::fileIDOf(std::string_view storedName) const {
    const std::size_t slash = storedName.find('/');
    if (!usesDatabase_) {
        return slash == std::string_view::npos ? std::string(storedName) : "";
    }
    if (slash == std::string_view::npos) {
        return "";
    }
    const std::string_view fileID = storedName.substr(slash + 1);
    const std::string directory(storedName.substr(0, slash));
    const bool fits = fileID.starts_with(directory) && fileID.find('/') == std::string::npos &&
                      CF::String(directory).GetLength() == kDirectoryLength;
    return fits ? std::string(fileID) : "";
}

bool Verification::countAsMetadata(const std::string &name) {
    const auto found = std::ranges::find(kMetadata, name);
    if (found == kMetadata.end()) {
        return false;
    }
    countOnce(metadata_, static_cast<std::size_t>(found - kMetadata.begin()), name);
    return true;
}

void Verification::countOnce(std::vector<bool> &met, std::size_t number, const std::string &name) {
    if (met[number]) {
        reportFile(Problem::Severity::Problem, "repeated-record", name,
                   "the archive holds it more than once, and only the first is read");
    }
    met[number] = true;
}

// What SQLite keeps beside a database. Copied with it, they hold changes that are not in it.
bool Verification::isBesideDatabase(const std::string &name, std::int64_t size) const {
    if (!usesDatabase_ || (name != kLog && name != kJournal && name != kSharedMemory)) {
        return false;
    }
    const std::string bytes = std::to_string(size) + " bytes";
    if (name == kLog && size > 0) {
        reportFile(Problem::Severity::Warning, "write-ahead-log", name,
                   "it holds " + bytes + " of changes to the manifest, which nobody reads");
    } else if (name == kJournal && size > 0) {
        reportFile(Problem::Severity::Warning, "rollback-journal", name,
                   "it holds " + bytes + " of a change to the manifest that was not finished");
    }
    return true;
}

// False for a name that no entry has.
bool Verification::countAsContent(const std::string &name, bool regular) {
    const auto number = contents_.Find(fileIDOf(name));
    if (!number) {
        return false;
    }
    countOnce(met_, *number, name);
    if (!regular) {
        reportFile(Problem::Severity::Warning, "irregular-file", name,
                   "this is no regular file, and may lead out of the backup");
    }
    return true;
}

// A link, mostly: what lies behind it is not listed.
bool Verification::isInPlaceOfFolder(const std::string &name, bool regular) const {
    if (regular || !usesDatabase_ || CF::String(name).GetLength() != kDirectoryLength ||
        !contents_.AnyBeginsWith(name)) {
        return false;
    }
    reportFile(Problem::Severity::Warning, "irregular-file", name,
               "this is no folder of stored files, and may lead out of the backup");
    return true;
}

void Verification::checkSourceFile(const KVBackupSourceFile &file) {
    const std::string name = CF::String::GetUTF8(file.name);
    ++sourceFiles_;
    const bool regular = file.isRegularFile != 0;
    if (name.substr(0, name.find('/')) == kChanges) {
        return; // said already
    }
    if (!countAsMetadata(name) && !isBesideDatabase(name, file.size) &&
        !countAsContent(name, regular) && !isInPlaceOfFolder(name, regular)) {
        strays_.push_back(name);
    }
}

void Verification::CheckSourceFiles() {
    met_.assign(contents_.Size(), false);
    metadata_.assign(kMetadata.size(), false);
    CFErrorRef raised = nullptr;
    const auto visit = [](const KVBackupSourceFile *file, void *context) -> Boolean {
        static_cast<Verification *>(context)->checkSourceFile(*file);
        return true;
    };
    if (!KVBackupContainerListSourceFiles(container_.get(), visit, this, &raised)) {
        Problem problem;
        problem.kind = "listing-failed";
        problem.message = "the files of the backup cannot be listed";
        problem.cause = CF::Error::Adopt(raised);
        sink_(problem);
    }
    // A directory has no order of its own.
    std::ranges::sort(strays_);
    for (const std::string &name : strays_) {
        reportUnnamed(name);
    }
}

void Verification::reportUnnamed(const std::string &name) const {
    if (IsLeftByOthers(name)) {
        reportFile(Problem::Severity::Remark, "foreign-file", name,
                   "a file manager or an archiver left it");
    } else if (name.starts_with(kSnapshot)) {
        reportFile(Problem::Severity::Remark, "snapshot-file", name,
                   "it is what a backup leaves that was not finished, and no entry names it");
    } else {
        reportFile(Problem::Severity::Problem, "stray-file", name, "no entry names it");
    }
}

void Verification::reportFile(Problem::Severity severity, const char *kind, const std::string &name,
                              const std::string &message) const {
    Problem problem;
    problem.severity = severity;
    problem.kind = kind;
    problem.storedName = name;
    problem.message = message;
    sink_(problem);
}

} // namespace tool
