#include "BackupPlace.hpp"
#include "Commands.hpp"
#include "Content.hpp"
#include "Diagnostics.hpp"
#include "EntryRecord.hpp"
#include "ExitStatus.hpp"
#include "Output.hpp"
#include "OutputTree.hpp"
#include "ProgressBar.hpp"
#include "Selection.hpp"

#include <algorithm>
#include <functional>
#include <vector>

namespace tool {

namespace {

// Set-id and sticky bits would give a file from a backup powers on this machine.
constexpr std::uint16_t kPermissionBits = 0777;

class Extraction {
  public:
    Extraction(const Container &container, const TemporaryArea &area, const CF::Array &entries,
               const ExtractOptions &options, const BackupPlace &place)
        : container_(container), area_(area), entries_(entries),
          tree_(options.output, options.force, place), bar_(totalSize(entries)) {}

    // Directories come first, in whatever order their rows lie: one of an earlier extraction may
    // have to be made writable. Links come after everything that is written, and directories'
    // attributes last of all: a read-only directory could not be filled, and filling it changes
    // its time.
    int Run() {
        makeDirectories();
        forEach([this](Entry *entry) { extractContent(entry); });
        forEach([this](Entry *entry) {
            if (TypeOf(entry) == EntryType::Symlink) {
                extractLink(entry, Describe(entry));
            }
        });
        finishDirectories();
        return report();
    }

  private:
    static std::int64_t totalSize(const CF::Array &entries) {
        std::int64_t total = 0;
        for (CFIndex i = 0; i < entries.GetCount(); ++i) {
            Entry *entry = EntryAt(entries, i);
            const std::int64_t size = KVManifestEntryGetFileSize(entry);
            if (TypeOf(entry) == EntryType::File && size > 0 &&
                __builtin_add_overflow(total, size, &total)) {
                return 0;
            }
        }
        return total;
    }

    static Attributes attributesOf(const EntryRecord &record) {
        Attributes attributes;
        attributes.permissions = record.mode & kPermissionBits;
        attributes.modified.tv_sec = static_cast<std::time_t>(record.modified);
        return attributes;
    }

    // Runs the step for every entry; the failure of one is reported and the rest goes on.
    template <class Step>
    void forEach(Step step) {
        for (CFIndex i = 0; i < entries_.GetCount(); ++i) {
            attempt(EntryAt(entries_, i), step);
        }
    }

    template <class Step>
    bool attempt(Entry *entry, Step step) {
        try {
            step(entry);
            return true;
        } catch (const Failure &failure) {
            failure.PrintFor(FullPath(entry));
            ++failed_;
            return false;
        }
    }

    static std::ptrdiff_t depthOf(Entry *directory) {
        const std::string path = CF::String::GetUTF8(KVManifestEntryGetPath(directory));
        return path.empty() ? -1 : std::ranges::count(path, '/');
    }

    void makeDirectories() {
        std::vector<Entry *> directories;
        for (CFIndex i = 0; i < entries_.GetCount(); ++i) {
            if (TypeOf(EntryAt(entries_, i)) == EntryType::Directory) {
                directories.push_back(EntryAt(entries_, i));
            }
        }
        std::ranges::stable_sort(directories, std::less{}, depthOf);
        for (Entry *entry : directories) {
            attempt(entry, [this](Entry *directory) {
                const EntryRecord record = Describe(directory);
                if (!tree_.MakeDirectory(SplitTreePath(record.domain, record.path))) {
                    PrintMessage(FullPath(directory) +
                                 ": it is one directory here with another of the backup");
                    ++merged_;
                }
                directories_.push_back(directory);
            });
        }
    }

    void extractContent(Entry *entry) {
        switch (TypeOf(entry)) {
        case EntryType::File:
            extractFile(entry);
            break;
        case EntryType::Directory:
        case EntryType::Symlink:
            break;
        case EntryType::Other:
            throw Failure("This is no file, directory or link");
        }
    }

    // Everything of the domain lies below its root, which therefore is a directory.
    static TreePath pathOf(const EntryRecord &record) {
        if (record.path.empty() && record.type != EntryType::Directory) {
            throw Failure("What is no directory has the place of its domain's root");
        }
        return SplitTreePath(record.domain, record.path);
    }

    void extractFile(Entry *entry) {
        const EntryRecord record = Describe(entry);
        const TreePath path = tree_.PlaceFor(pathOf(record));
        const Content content(container_, entry, area_);
        tree_.WriteFile(path, attributesOf(record), [&](int fd) {
            content.Read([&](std::span<const std::uint8_t> bytes) {
                WriteFileBytes(fd, bytes);
                bar_.Advance(static_cast<std::int64_t>(bytes.size()));
            });
        });
        reportTwin(entry, record, path);
        reportDeviation(entry, content.Deviation());
    }

    // Nothing of the backup is lost where the file system takes two of its names for one.
    void reportTwin(Entry *entry, const EntryRecord &record, const TreePath &path) {
        if (path != pathOf(record)) {
            PrintMessage(FullPath(entry) + ": extracted as '" + path.back() +
                         "', since its name is that of another entry here");
            ++renamed_;
        }
    }

    // The file stays: it is all that there is of it.
    void reportDeviation(Entry *entry, const std::string &deviation) {
        if (!deviation.empty()) {
            PrintMessage(FullPath(entry) + ": extracted, but damaged: " + deviation);
            ++damaged_;
        }
    }

    void extractLink(Entry *entry, const EntryRecord &record) {
        if (record.target.find('\0') != std::string::npos) {
            throw Failure("The link's target holds a NUL");
        }
        const TreePath path = tree_.PlaceFor(pathOf(record));
        tree_.MakeLink(path, record.target, attributesOf(record));
        reportTwin(entry, record, path);
    }

    // Deepest first: those above must still be passable.
    void finishDirectories() {
        std::ranges::reverse(directories_);
        for (Entry *entry : directories_) {
            attempt(entry, [this](Entry *directory) {
                const EntryRecord record = Describe(directory);
                tree_.FinishDirectory(pathOf(record), attributesOf(record));
            });
        }
    }

    int report() {
        const long total = entries_.GetCount();
        std::string text =
            std::to_string(total - failed_) + " of " + std::to_string(total) + " entries extracted";
        if (failed_ > 0) {
            text += ", " + std::to_string(failed_) + " failed";
        }
        if (damaged_ > 0) {
            text += ", " + std::to_string(damaged_) + " damaged";
        }
        if (renamed_ > 0) {
            text += ", " + std::to_string(renamed_) + " under another name";
        }
        if (merged_ > 0) {
            text += ", " + std::to_string(merged_) + " merged into other directories";
        }
        PrintMessage(text);
        return failed_ + damaged_ == 0 ? kDone : kFailed;
    }

    const Container &container_;
    const TemporaryArea &area_;
    const CF::Array &entries_;
    OutputTree tree_;
    ProgressBar bar_;
    std::vector<Entry *> directories_;
    long failed_ = 0;
    long damaged_ = 0;
    long renamed_ = 0;
    long merged_ = 0;
};

} // namespace

int RunExtract(const BackupOptions &backup, const TemporaryArea &area,
               const ExtractOptions &options) {
    const BackupPlace place(backup.backup);
    place.RequireOutside(options.output);
    const Container container = OpenBackup(backup);
    const CF::Array entries = options.domain ? EntriesAt(container, *options.domain, options.path)
                                             : AllEntries(container);
    return Extraction(container, area, entries, options, place).Run();
}

} // namespace tool
