#include "container/ExportForm.hpp"

#include "Kelvane/Error.hpp"
#include "container/CopyOut.hpp"
#include "container/StoredName.hpp"
#include "foundation/Boundary.hpp"

namespace Kelvane {

namespace {

CF::Error makeNote(const CF::Error &cause, const char *text, CFStringRef name) {
    return Error(kKVErrorInvalidMetadata, cause, CF::String(text), name);
}

FileRef copyFile(const KVBackupContainerClass &container, CFStringRef name) {
    LocalError error;
    FileRef file(CF::adopt,
                 KVBackupContainerCopyFileForLocalFilename(&container, name, error.out()));
    if (!file) {
        throw error.get();
    }
    return file;
}

// Keeps an entry's content no longer than the piece of it.
std::shared_ptr<const void> letGo(const KVBackupContainerClass &container, CFStringRef name) {
    return std::make_shared<LoadedForNow>(
        container, KVBackupContainerGetEntryForLocalFilename(&container, name, nullptr));
}

class PlainForm : public ExportForm {
  public:
    explicit PlainForm(KVBackupContainerClass &container) : container_(container) {}

    ExportPiece Load(CFStringRef name) override {
        ExportPiece piece;
        piece.kept = letGo(container_, name);
        piece.Take(copyFile(container_, name));
        const auto source = container_.sourceMetadata.find(CF::String::GetUTF8(name));
        if (source != container_.sourceMetadata.end() && source->second.unreadable) {
            piece.note = makeNote(source->second.unreadable,
                                  "File %@ could not be read and was written empty", name);
        }
        return piece;
    }

  private:
    KVBackupContainerClass &container_;
};

class UnlimitedForm : public ExportForm {
  public:
    explicit UnlimitedForm(KVBackupContainerClass &container) : container_(container) {}

    ExportPiece Load(CFStringRef name) override {
        const std::string text = CF::String::GetUTF8(name);
        const auto source = container_.sourceMetadata.find(text);
        if (text == kManifestDatabaseName) {
            return loadDatabase();
        }
        if (source != container_.sourceMetadata.end()) {
            return loadMetadata(name, source->second);
        }
        ExportPiece piece;
        piece.kept = letGo(container_, name);
        piece.Take(copyFile(container_, name));
        return piece;
    }

  private:
    ExportPiece loadDatabase() const {
        ExportPiece piece;
        const auto database = std::make_shared<WrittenManifestDatabase>(container_);
        piece.kept = database;
        piece.Take(database->File());
        return piece;
    }

    // A metadata file that could not be read is not known well enough to be written anew, and a
    // dictionary that was read may hold what cannot be written: both go over byte for byte.
    ExportPiece loadMetadata(CFStringRef name, const SourceMetadata &source) const {
        ExportPiece piece;
        if (source.unreadable) {
            piece.note = makeNote(source.unreadable,
                                  "File %@ could not be read and was copied as it is", name);
        } else {
            try {
                piece.Take(copyFile(container_, name));
                return piece;
            } catch (const CF::Error &cause) {
                piece.note = makeNote(
                    cause, "File %@ could not be written anew and was copied as it is", name);
            }
        }
        piece.Take(source.file);
        return piece;
    }

    KVBackupContainerClass &container_;
};

} // namespace

std::unique_ptr<ExportForm> MakePlainForm(KVBackupContainerClass &container) {
    return std::make_unique<PlainForm>(container);
}

std::unique_ptr<ExportForm> MakeUnlimitedForm(KVBackupContainerClass &container) {
    return std::make_unique<UnlimitedForm>(container);
}

LoadedForNow::LoadedForNow(const KVBackupContainerClass &container,
                           const KVManifestEntryClass *entry)
    : entry_(container.sourceKind == SourceKind::Directory ? entry : nullptr) {
    if (entry_ != nullptr && !entry_->file) {
        loader_ = entry_->getFileFunc;
    }
}

LoadedForNow::~LoadedForNow() {
    if (loader_ != nullptr) {
        entry_->file = nullptr;
        entry_->getFileFunc = loader_;
    }
}

} // namespace Kelvane
