// Saving a backup's changes in its own directory.
#include "KVBackupWriting.h"

#include "Kelvane/Error.hpp"
#include "Kelvane/SharedState.hpp"
#include "container/BackupFolder.hpp"
#include "container/ChangeJournal.hpp"
#include "container/DeviceForm.hpp"
#include "container/SourceState.hpp"
#include "container/StoredName.hpp"
#include "foundation/Boundary.hpp"
#include "manifest/DeviceDatabase.hpp"
#include "manifest/KVManifestClass.hpp"
#include "support/cf/CF.hpp"
#include "support/zk/Log.hpp"

#include <boost/system/system_error.hpp>

namespace Kelvane {

namespace {

using ZK::file::directory;

const char *manifestName(const KVBackupContainerClass &container) {
    return UsesManifestDatabase(container.Version()) ? kManifestDatabaseName : kManifestMbdbName;
}

// Opened and locked: nobody else may write to it until the object goes.
directory lockDirectory(const CF::String &path) {
    try {
        directory root = directory::open(path.GetUTF8());
        root.lock();
        return root;
    } catch (const boost::system::system_error &failure) {
        ThrowNotChangedInPlace("open", failure);
    }
}

void requireSavable(const KVBackupContainerClass &container) {
    if (container.sourceKind != SourceKind::Directory || !container.openedState ||
        !HasSource(*container.manifest.get())) {
        throw Error(kKVErrorInvalidArgument, nullptr,
                    "Only a backup that was opened from a directory can be changed in place");
    }
    if (container.saved) {
        throw Error(kKVErrorInvalidArgument, nullptr,
                    "The backup was saved already; open it again");
    }
    if (container.Version() == kKVManifestDataVersion24 &&
        container.manifest.get()->entries.Count() == 0) {
        throw Error(kKVErrorWriteRepresentation, nullptr,
                    "A backup of version 2.4 needs an entry: its manifest could not be read again "
                    "without any");
    }
}

void requireUnchanged(const KVBackupContainerClass &container, const directory &root) {
    if (const auto log = UnreadLog(root)) {
        throw Error(kKVErrorWriteRepresentation, nullptr,
                    CFSTR("%s holds changes to the manifest that were not read"), log->c_str());
    }
    if (const auto changed = container.openedState->FirstDifference(root)) {
        throw Error(kKVErrorInvalidBackup, nullptr,
                    CFSTR("The backup was changed since it was opened (%s)"), changed->c_str());
    }
}

// One saving on its way.
class Saving {
  public:
    Saving(KVBackupContainerClass &container, const directory &root, KVBackupSaveReport &report)
        : container_(container), form_(MakeDeviceForm(container, false, false)),
          journal_(root, manifestName(container)), report_(report) {}

    void Run() {
        putNewContent();
        if (!IsAsRead(*container_.manifest.get(), {})) {
            put(manifestName(container_));
        }
        for (const char *name : {kManifestPlistName, kInfoPlistName, kStatusPlistName}) {
            if (container_.setMetadata.contains(name)) {
                put(name);
            }
        }
        removeOldContent();
        if (!journal_.IsEmpty()) {
            commit();
        }
    }

  private:
    void put(const std::string &name) {
        ExportPiece piece;
        try {
            piece = form_->Load(CF::String(name).get());
        } catch (const CF::Error &cause) {
            throw Error(kKVErrorLoadRepresentation, cause,
                        CFSTR("File %@ could not be loaded for writing to directory"),
                        CF::String(name).get());
        }
        if (piece.content == nullptr) {
            return;
        }
        if (piece.note) {
            ZLLogError(piece.note.get(), GetLogDomain(), nullptr);
        }
        journal_.Put(name, *piece.content);
        ++report_.filesWritten;
    }

    // Where the content of a file ID lies; empty where a forged one would mean another place than
    // that of stored content.
    CF::String storedName(const CF::String &fileID) const {
        const CF::String name = ExternalFilePath(fileID, container_.Version());
        const bool isContent = IsSafeStoredName(name) && !IsMetadataName(name.get());
        return isContent ? name : CF::String("");
    }

    // Content that does not lie in the backup yet. Two entries of one file ID have one content,
    // that of the entry which a lookup finds.
    void putNewContent() {
        container_.manifest.get()->entries.ForEach([&](const KVManifestEntryClass *entry) {
            const CF::String fileID(KVManifestEntryGetFileID(entry));
            if (!KVManifestEntryIsFile(entry)) {
                return;
            }
            const auto &removed = container_.removedFileIDs;
            if (!removed.empty() && removed.contains(fileID.GetUTF8())) {
                named_.insert(fileID.GetUTF8());
            }
            if (LiesInSource(container_, *entry) || !written_.insert(fileID.GetUTF8()).second) {
                return;
            }
            const CF::String name = storedName(fileID);
            if (name.IsEmpty()) {
                ThrowUnsafeStoredName(fileID);
            }
            put(name.GetUTF8());
        });
    }

    void removeOldContent() {
        for (const std::string &fileID : container_.removedFileIDs) {
            const CF::String name = storedName(CF::String(fileID));
            if (!named_.contains(fileID) && !name.IsEmpty()) {
                journal_.Remove(name.GetUTF8());
                ++report_.filesRemoved;
            }
        }
    }

    void commit() {
        report_.bytesWritten = static_cast<std::int64_t>(journal_.BytesWritten());
        bool decided = false;
        try {
            journal_.Commit(decided);
        } catch (...) {
            report_.needsRecovery = decided;
            container_.saved = decided;
            throw;
        }
        container_.saved = true;
    }

    KVBackupContainerClass &container_;
    std::unique_ptr<ExportForm> form_;
    ChangeJournal journal_;
    KVBackupSaveReport &report_;
    std::set<std::string> named_;   // file IDs that were removed and are there again
    std::set<std::string> written_; // those whose content is new
};

void save(KVBackupContainerClass &container, KVBackupSaveReport &report) {
    requireSavable(container);
    const directory root = lockDirectory(container.sourcePath);
    requireUnchanged(container, root);
    Saving(container, root, report).Run();
}

// The backup itself may lie in a folder of the directory, as when it is opened.
CF::String placeOf(const CF::String &directory) {
    return FindBackupInDirectory(directory, Links::Refuse).path;
}

KVBackupRecovery recover(CFStringRef path) {
    const CF::String text(path);
    if (!text) {
        throw Error(kKVErrorInvalidArgument, nullptr, CFSTR("No path to a backup"));
    }
    return static_cast<KVBackupRecovery>(RecoverChange(lockDirectory(placeOf(text))));
}

} // namespace

} // namespace Kelvane

Boolean KVBackupContainerSaveInPlace(KVBackupContainerClass *container, KVBackupSaveReport *report,
                                     CFErrorRef *error) {
    KVBackupSaveReport done{};
    const Boolean saved = Kelvane::AtClosedBoundary(error, static_cast<Boolean>(false), [&] {
        if (report != nullptr && report->size != sizeof *report) {
            throw Kelvane::Error(kKVErrorInvalidArgument, nullptr, "Unknown write options");
        }
        Kelvane::save(*container, done);
        return static_cast<Boolean>(true);
    });
    if (report != nullptr && report->size == sizeof *report) {
        done.size = report->size;
        *report = done;
    }
    return saved;
}

Boolean KVBackupNeedsRecovery(CFStringRef path) {
    CFErrorRef ignored = nullptr;
    const Boolean holds = Kelvane::AtClosedBoundary(&ignored, static_cast<Boolean>(false), [&] {
        const CF::String place = Kelvane::placeOf(CF::String(path));
        const auto root = ZK::file::directory::open(place.GetUTF8());
        return static_cast<Boolean>(Kelvane::HoldsJournal(root));
    });
    const auto owned = CF::Error::Adopt(ignored);
    return holds;
}

Boolean KVBackupRecover(CFStringRef path, KVBackupRecovery *outcome, CFErrorRef *error) {
    return Kelvane::AtClosedBoundary(error, static_cast<Boolean>(false), [&] {
        const KVBackupRecovery done = Kelvane::recover(path);
        if (outcome != nullptr) {
            *outcome = done;
        }
        return static_cast<Boolean>(true);
    });
}
