#include "Editor.hpp"

#include "Diagnostics.hpp"
#include "EntryRecord.hpp"
#include "KVFile.h"
#include "KVManifest.h"
#include "support/cf/Array.hpp"

#include <filesystem>
#include <utility>

namespace tool {

namespace {

using FileReference = CF::Pointer<KVFileClass *>;

bool isNameOfItself(const std::string &component) {
    return !component.empty() && component != "." && component != "..";
}

// "", "a", "a/b" for "a/b/c": the directories above a path, from the domain's root down.
std::vector<std::string> directoriesAbove(const std::string &path) {
    std::vector<std::string> result;
    if (!path.empty()) {
        result.emplace_back();
    }
    for (std::size_t slash = path.find('/'); slash != std::string::npos;
         slash = path.find('/', slash + 1)) {
        result.push_back(path.substr(0, slash));
    }
    return result;
}

// For what is made anew: a device takes no such name, and no program here could extract it.
void requireOrdinaryPath(const std::string &domain, const std::string &path) {
    if (!isNameOfItself(domain) || domain.find('/') != std::string::npos) {
        throw Failure("'" + domain + "' is no name of a domain");
    }
    for (std::size_t start = 0; start <= path.size();) {
        const std::size_t slash = std::min(path.find('/', start), path.size());
        if (!isNameOfItself(path.substr(start, slash - start))) {
            throw Failure("The path must be relative, without empty, \".\" or \"..\" components");
        }
        start = slash + 1;
    }
}

// By reference: the error is there only when the call beside it has been made.
void require(bool succeeded, const CFErrorRef &raised) {
    if (!succeeded) {
        throw Failure(CF::Error::Adopt(raised));
    }
}

struct Copying {
    KVFileClass *copy;
    CFErrorRef error;
};

Boolean appendPiece(const uint8_t *bytes, CFIndex length, void *context) {
    auto &copying = *static_cast<Copying *>(context);
    return length == 0 || KVFileAppendBytes(copying.copy, bytes, length, &copying.error);
}

// The file's content in a copy of our own: the file may change before the backup is written,
// and what the manifest says of it must be true of what is.
FileReference openFile(const std::string &path) {
    std::error_code failure;
    const std::string absolute = std::filesystem::absolute(path, failure);
    if (failure) {
        throw Failure("'" + path + "' is no path of a file");
    }
    CFErrorRef raised = nullptr;
    const FileReference file(
        CF::adopt, KVFileCreateFromFileAtPath(ArgumentText(absolute).get(), false, &raised));
    require(bool(file), raised);
    FileReference copy(CF::adopt, KVFileCreateAppendable(&raised));
    require(bool(copy), raised);
    Copying copying{copy.get(), nullptr};
    require(KVFileReadData(file.get(), 0, &appendPiece, &copying, &raised) != 0, raised);
    require(copying.error == nullptr, copying.error);
    require(KVFileFinalizeAppendable(copy.get(), &raised) != 0, raised);
    return copy;
}

bool isAt(Entry *entry, const CF::String &domain, const CF::String &path) {
    return CFEqual(KVManifestEntryGetDomain(entry), domain.get()) &&
           CFEqual(KVManifestEntryGetPath(entry), path.get());
}

} // namespace

Editor::Place::Place(const Operation &operation)
    : Place(ArgumentText(operation.domain), operation.path) {}

Editor::Place::Place(CF::String domainText, const std::string &pathValue)
    : domain(std::move(domainText)), path(pathValue), pathText(ArgumentText(pathValue)) {}

void Editor::Apply(const Operation &operation) {
    switch (operation.kind) {
    case Operation::Kind::Put:
        return put(operation);
    case Operation::Kind::MakeDirectory:
        return makeDirectory(operation);
    case Operation::Kind::Link:
        return link(operation);
    case Operation::Kind::Remove:
        return remove(operation);
    }
}

// The library finds entries by the file ID that a path has. In a forged manifest that may be
// another entry's, which would be changed in the place of this one.
void Editor::requireOwnFileID(const Place &place) const {
    Entry *entry = KVBackupContainerGetEntryForPath(container_.get(), place.domain.get(),
                                                    place.pathText.get());
    if (entry != nullptr && !isAt(entry, place.domain, place.pathText)) {
        throw Failure("The file ID of this path belongs to " + FullPath(entry));
    }
}

Entry *Editor::find(const Place &place) const {
    requireOwnFileID(place);
    Entry *byFileID = KVBackupContainerGetEntryForPath(container_.get(), place.domain.get(),
                                                       place.pathText.get());
    Entry *byPath =
        KVManifestGetEntryMatchingPath(manifest(), place.domain.get(), place.pathText.get());
    if (byPath != nullptr && byFileID == nullptr) {
        throw Failure("The entry at '" + place.path + "' has a file ID that is not its own");
    }
    if (byPath != byFileID) {
        throw Failure("There is more than one entry at '" + place.path + "'");
    }
    return byPath;
}

void Editor::requireDirectoriesAbove(const Place &place) const {
    for (const std::string &path : directoriesAbove(place.path)) {
        Entry *entry = find(Place(place.domain, path));
        if (entry != nullptr && TypeOf(entry) != EntryType::Directory) {
            throw Failure("'" + path + "' is no directory");
        }
    }
}

void Editor::makeDirectories(const Place &place) {
    for (const std::string &path : directoriesAbove(place.path + "/")) {
        const Place directory(place.domain, path);
        Entry *entry = find(directory);
        if (entry == nullptr) {
            entry = KVBackupContainerCreateDirectoryAtPath(container_.get(), directory.domain.get(),
                                                           directory.pathText.get());
        }
        if (entry == nullptr || TypeOf(entry) != EntryType::Directory) {
            throw Failure("'" + path + "' is no directory");
        }
    }
}

void Editor::noteNewDomain(const Place &place) const {
    // Nearly always there, and quickly found; the domain's table is made anew after an edit.
    if (KVManifestGetEntryMatchingPath(manifest(), place.domain.get(), CFSTR("")) != nullptr) {
        return;
    }
    const auto entries =
        CF::Array::Adopt(KVManifestCopyEntriesInDomain(manifest(), place.domain.get()));
    if (entries.GetCount() == 0) {
        // Meant so, or mistyped.
        PrintMessage("note: the domain '" + place.domain.GetUTF8() + "' is new in this backup");
    }
}

void Editor::put(const Operation &operation) {
    requireOrdinaryPath(operation.domain, operation.path);
    const Place place(operation);
    requireDirectoriesAbove(place);
    Entry *existing = find(place);
    const EntryType type = existing == nullptr ? EntryType::File : TypeOf(existing);
    if (type == EntryType::Directory) {
        throw Failure("A directory is there; remove it first, with all that is in it, to replace"
                      " it");
    }
    if (type == EntryType::Other) {
        throw Failure("What is there is no file or link");
    }
    const FileReference file = openFile(operation.argument);
    noteNewDomain(place);
    CFErrorRef raised = nullptr;
    if (!KVBackupContainerReplaceFileForPath(container_.get(), place.domain.get(),
                                             place.pathText.get(), file.get(), &raised)) {
        throw Failure(CF::Error::Adopt(raised));
    }
}

void Editor::makeDirectory(const Operation &operation) {
    Operation named = operation;
    named.path = WithoutTrailingSlashes(operation.path);
    // The domain's root may be made by itself.
    if (operation.path.empty()) {
        requireOrdinaryPath(operation.domain, "root");
    } else {
        requireOrdinaryPath(operation.domain, named.path);
    }
    const Place place(named);
    noteNewDomain(place);
    makeDirectories(place);
}

void Editor::link(const Operation &operation) {
    requireOrdinaryPath(operation.domain, operation.path);
    if (operation.argument.empty()) {
        throw Failure("The link's target is empty");
    }
    const Place place(operation);
    noteNewDomain(place);
    makeDirectories(Place(place.domain, directoriesAbove(place.path).back()));
    Entry *existing = find(place);
    if (existing != nullptr && TypeOf(existing) != EntryType::Symlink) {
        throw Failure("What is there is no link; remove it first to replace it");
    }
    if (KVBackupContainerCreateSymlinkAtPath(container_.get(), place.domain.get(),
                                             place.pathText.get(),
                                             ArgumentText(operation.argument).get()) == nullptr) {
        throw Failure("The link could not be made");
    }
}

CFIndex Editor::countAt(const Place &place) const {
    return CF::Array::Adopt(
               KVManifestCopyEntriesAtPath(manifest(), place.domain.get(), place.pathText.get()))
        .GetCount();
}

// Any path that the backup holds may be removed, odd ones too: they are better gone.
void Editor::remove(const Operation &operation) {
    Operation named = operation;
    named.path = WithoutTrailingSlashes(operation.path);
    if (named.path.empty() && !operation.path.empty()) {
        throw Failure("The path is absolute; \"\" stands for the whole domain");
    }
    const Place place(named);
    requireOwnFileID(place);
    CFIndex left = countAt(place);
    if (left == 0) {
        EntriesAt(container_, named.domain, named.path); // says what is missing
    }
    // Entries may lie below a file, and two at one path: removing the file leaves them.
    while (left > 0) {
        KVBackupContainerRemovePath(container_.get(), place.domain.get(), place.pathText.get());
        const CFIndex now = countAt(place);
        if (now >= left) {
            throw Failure("It could not be removed");
        }
        left = now;
    }
}

} // namespace tool
