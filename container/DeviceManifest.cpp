#include "container/DeviceManifest.hpp"

#include "Kelvane/Error.hpp"
#include "Kelvane/FileManager.hpp"
#include "container/EncryptedContent.hpp"
#include "container/ManifestDatabaseCopy.hpp"
#include "container/StoredName.hpp"
#include "filestore/Storage.hpp"
#include "manifest/DeviceDatabase.hpp"
#include "manifest/DeviceMbdb.hpp"
#include "support/cf/CF.hpp"

#include <boost/system/system_error.hpp>

namespace Kelvane {

namespace {

// The largest binary manifest that is read into memory, as on opening.
constexpr std::uint64_t kMaxMbdbSize = 1ULL << 30;

ZK::file::readable_file openFile(const std::string &path) {
    try {
        return ZK::file::readable_file(path);
    } catch (const boost::system::system_error &failure) {
        throw MakeFSError(failure, path);
    }
}

ExportPiece carryOver(const KVBackupContainerClass &container, const char *name) {
    ExportPiece piece;
    piece.content = std::make_unique<StoredContent>(container.loader->Source().Open(name));
    return piece;
}

// A copy of the source's database with what has changed, or a new one where there is no source.
std::shared_ptr<const ManifestDatabaseCopy> writeDatabase(const KVBackupContainerClass &container,
                                                          const DeviceRowRules &rules,
                                                          CF::Error &note) {
    KVManifestClass *const manifest = container.manifest.get();
    if (!HasSource(*manifest)) {
        return std::make_shared<ManifestDatabaseCopy>(WriteDeviceDatabaseFile(manifest, rules));
    }
    auto copy = std::make_shared<ManifestDatabaseCopy>(container);
    if (UpdateManifestDatabaseFile(copy->Path(), manifest, rules) == ManifestUpdate::WrittenAnew) {
        note =
            Error(kKVErrorInvalidManifestDatabase, nullptr,
                  CFSTR("File %@ has another shape than devices give it and was written anew, with "
                        "its entries alone"),
                  CF::String(kManifestDatabaseName).get());
    }
    return copy;
}

ExportPiece loadDatabase(const KVBackupContainerClass &container, const DeviceRowRules &rules,
                         bool encrypted) {
    const bool sameForm = encrypted == container.encryption.has_value();
    if (sameForm && IsAsRead(*container.manifest.get(), rules)) {
        ExportPiece piece = carryOver(container, kManifestDatabaseName);
        piece.compressible = !encrypted;
        return piece;
    }
    ExportPiece piece;
    const auto database = writeDatabase(container, rules, piece.note);
    piece.kept = database;
    if (encrypted) {
        piece.content = std::make_unique<EncryptedContent>(openFile(database->Path()),
                                                           container.encryption->GetManifestKey());
        piece.compressible = false;
    } else {
        piece.content = std::make_unique<StoredContent>(openFile(database->Path()));
    }
    return piece;
}

// A scratch file of the store that goes away with the object.
class Scratch {
  public:
    Scratch()
        : path_(FileManager::GetStorageLocationForTempIdentifier(
              CF::UUID::Create().GetString().get())),
          file_(path_) {}
    const ZK::filesystem::path &Path() const noexcept { return path_; }

  private:
    ZK::filesystem::path path_;
    ScratchFile file_;
};

std::vector<std::uint8_t> readSourceMbdb(const KVBackupContainerClass &container) {
    if (!HasSource(*container.manifest.get())) {
        return {};
    }
    const FileRef file = container.loader->LoadStoredFile(kManifestMbdbName, kMaxMbdbSize);
    return ReadWhole(file.get(), kMaxMbdbSize);
}

ExportPiece loadMbdb(const KVBackupContainerClass &container, const DeviceRowRules &rules) {
    if (IsAsRead(*container.manifest.get(), rules)) {
        return carryOver(container, kManifestMbdbName);
    }
    const std::vector<std::uint8_t> source = readSourceMbdb(container);
    const auto scratch = std::make_shared<Scratch>();
    try {
        ZK::file::writable_file file = ZK::file::writable_file::create_new(scratch->Path());
        WriteDeviceMbdb(container.manifest.get(), source, rules,
                        [&](std::span<const std::uint8_t> bytes) { file.write(bytes); });
        file.complete();
    } catch (const boost::system::system_error &failure) {
        throw MakeFSError(failure, scratch->Path());
    }
    ExportPiece piece;
    piece.kept = scratch;
    piece.content = std::make_unique<StoredContent>(openFile(scratch->Path().native()));
    return piece;
}

} // namespace

ExportPiece LoadDeviceManifest(KVBackupContainerClass &container, const DeviceRowRules &rules,
                               bool encrypted) {
    return UsesManifestDatabase(container.Version()) ? loadDatabase(container, rules, encrypted)
                                                     : loadMbdb(container, rules);
}

} // namespace Kelvane
