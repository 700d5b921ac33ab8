// Files of a backup's source that its manifest does not name.
#include "container/Export.hpp"

#include "Kelvane/Error.hpp"
#include "container/ChangeJournal.hpp"
#include "container/StoredName.hpp"

#include <algorithm>
#include <array>
#include <string_view>

namespace Kelvane {

namespace {

// What SQLite keeps beside a database would be taken for a part of the one that is written.
constexpr std::array<std::string_view, 3> kCompanions = {"Manifest.db-wal", "Manifest.db-shm",
                                                         "Manifest.db-journal"};

bool isUnlisted(const KVBackupContainerClass &container, const CF::String &name,
                const StoredNames &named) {
    if (named.contains(name.get())) {
        return false; // the manifest and metadata of the backup among them
    }
    const std::string text = name.GetUTF8();
    const bool isOfJournal = text.substr(0, text.find('/')) == kJournalName;
    if (isOfJournal ||
        std::find(kCompanions.begin(), kCompanions.end(), text) != kCompanions.end()) {
        return false;
    }
    const CF::String fileID = FileIDForStoredName(name, container.Version());
    return !fileID || !container.removedFileIDs.contains(fileID.GetUTF8());
}

void carryOver(Export &job, ExportTarget &target, const CF::String &name) {
    try {
        ExportPiece piece;
        piece.content =
            std::make_unique<StoredContent>(job.container->loader->Source().OpenQuickly(name));
        target.Write(name.GetUTF8(), piece, job.progress);
        job.report.Written(name.GetUTF8());
    } catch (const CF::Error &cause) {
        job.report.Skipped(
            Error(kKVErrorWriteRepresentation, cause, target.NotWritten(), name.get()));
    }
}

} // namespace

void WriteUnlistedFiles(Export &job, ExportTarget &target, const StoredNames &named) {
    const auto &source = job.container->loader->source;
    if (source == nullptr) {
        return;
    }
    // Listed before anything is written, for a zip may hold a name several times.
    std::set<std::string> unlisted;
    const auto visit = [&](const SourceFile &file) {
        if (isUnlisted(*job.container, file.name, named)) {
            job.report.Unlisted();
            unlisted.insert(job.keepsUnlisted ? file.name.GetUTF8() : std::string());
        }
        return true;
    };
    source->ListFiles(visit, ListedSizes::Zero);
    for (const std::string &name : unlisted) {
        if (job.keepsUnlisted) {
            carryOver(job, target, CF::String(name));
        }
    }
}

} // namespace Kelvane
