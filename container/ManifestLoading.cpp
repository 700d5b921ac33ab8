#include "container/KVBackupContainerClass.hpp"

#include "Kelvane/Error.hpp"
#include "Kelvane/FileManager.hpp"
#include "Kelvane/SharedState.hpp"
#include "container/StoredName.hpp"
#include "crypto/OpenFileDecryption.hpp"
#include "filestore/Reading.hpp"
#include "filestore/Storage.hpp"
#include "foundation/Boundary.hpp"
#include "manifest/KVManifestClass.hpp"
#include "manifest/ManifestDatabaseReader.hpp"
#include "support/zk/Log.hpp"

namespace Kelvane {

namespace {

// The largest binary manifest that is read into memory: a million entries take less than
// a third of it.
constexpr std::uint64_t kMaxMbdbSize = 1ULL << 30;

// The plaintext of the database, beside the store's other scratch files.
ZK::filesystem::path decryptDatabase(const KVBackupContainerClass &container,
                                     ZK::file::readable_file &stored,
                                     const CF::String &versionText) {
    if (container.databaseForm == DatabaseForm::Decrypted) {
        return {};
    }
    const CF::String identifier = CF::UUID::Create().GetString();
    const ZK::filesystem::path target =
        FileManager::GetStorageLocationForTempIdentifier(identifier.get());
    ZLLogDomain(GetLogDomain(), kZLLogLevelDetail,
                CFSTR("(KVBackupContainer %p) Will decrypt manifest version '%@' to %s"),
                static_cast<const void *>(&container), versionText.get(), target.c_str());
    DecryptStoredDatabase(container, stored, target);
    ZLLogDomain(GetLogDomain(), kZLLogLevelMilestone,
                CFSTR("(KVBackupContainer %p) Successfully decrypted manifest"),
                static_cast<const void *>(&container));
    return target;
}

void recogniseForm(KVBackupContainerClass &container, ZK::file::readable_file &stored) {
    try {
        container.databaseForm = FormOfDatabase(stored, container.encryption->GetManifestKey());
    } catch (const boost::system::system_error &cause) {
        throw MakeFSError(cause.code().value(), "Failed to read the manifest database: %s",
                          cause.what());
    }
    if (container.databaseForm == DatabaseForm::Decrypted) {
        ZLLogDomain(GetLogDomain(), kZLLogLevelMilestone,
                    CFSTR("(KVBackupContainer %p) The manifest of the encrypted backup is not "
                          "encrypted itself, and is used as it is"),
                    static_cast<const void *>(&container));
    } else if (container.databaseForm == DatabaseForm::Unpadded) {
        ZLLogDomain(GetLogDomain(), kZLLogLevelMilestone,
                    CFSTR("(KVBackupContainer %p) The manifest is encrypted without padding"),
                    static_cast<const void *>(&container));
    }
}

void buildBinaryManifest(KVBackupContainerClass &container) {
    const FileRef file = container.loader->LoadStoredFile(kManifestMbdbName, kMaxMbdbSize);
    const auto content = ReadWhole(file.get(), kMaxMbdbSize);
    // Not copied: there may be a gigabyte of it.
    const auto bytes = CF::Data::Adopt(CF::Made(
        CFDataCreateWithBytesNoCopy(kCFAllocatorDefault, content.data(),
                                    static_cast<CFIndex>(content.size()), kCFAllocatorNull)));
    CF::Pointer<KVManifestClass *> manifest(
        CF::adopt, ReadBinaryManifest(kCFAllocatorDefault, bytes, container.Version(),
                                      container.MakeGetFileFunction(), nullptr));
    if (!manifest) {
        throw Error(kKVErrorInvalidBackup, nullptr,
                    CFSTR("The backup manifest could not be loaded because it is corrupted."));
    }
    container.manifest = std::move(manifest);
}

} // namespace

void DecryptStoredDatabase(const KVBackupContainerClass &container, ZK::file::readable_file &stored,
                           const ZK::filesystem::path &target) {
    const auto &key = container.encryption->GetManifestKey();
    if (container.databaseForm == DatabaseForm::Unpadded) {
        MB::DecryptOpenFileWithoutPadding(stored, target, key);
    } else {
        MB::DecryptOpenFile(stored, target, key);
    }
}

void LoadBinaryManifest(KVBackupContainerClass &container) {
    try {
        buildBinaryManifest(container);
    } catch (const CF::Error &cause) {
        throw Error(kKVErrorLoadRepresentation, cause,
                    CFSTR("An error ocurred while loading manifest file"));
    }
}

void LoadManifestDatabase(KVBackupContainerClass &container, const CF::String &versionText,
                          KVBackupOpenOptions options, const KVProgressFunction &progress) {
    const FileRef file = container.loader->LoadStoredFile(kManifestDatabaseName);
    const CF::String path(KVFileGetLocalPath(file.get()));
    if (path.IsEmpty()) {
        throw Error(kKVErrorInvalidArgument, nullptr, CFSTR("No path for manifest database"));
    }
    // Opened as the file itself is, since its path may lead elsewhere by now.
    ZK::file::readable_file stored = OpenContent(*file.get());
    if (container.encryption && (options & kKVBackupOpenUnusualManifests) != 0) {
        recogniseForm(container, stored);
    }
    const ZK::filesystem::path plaintext =
        container.encryption ? decryptDatabase(container, stored, versionText) : "";
    // Of a backup that does not open nobody learns where its plaintext lies.
    ScratchFile unclaimed(plaintext);
    LocalError error;
    CF::Pointer<KVManifestClass *> manifest(
        CF::adopt,
        !plaintext.empty()
            ? KVManifestCreateFromManifestDatabase(
                  kCFAllocatorDefault, CF::String(plaintext.native()).get(), container.Version(),
                  container.MakeGetFileFunction(), progress, error.out())
            : CreateManifestFromDatabase(kCFAllocatorDefault, stored, path, container.Version(),
                                         container.MakeGetFileFunction(), progress, error.out()));
    if (!manifest) {
        throw error.get();
    }
    unclaimed.Keep();
    container.manifest = std::move(manifest);
}

} // namespace Kelvane
