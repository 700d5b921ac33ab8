// What a container's source holds, beside what the manifest says of it.
#include "container/KVBackupContainerClass.hpp"

#include "Kelvane/FileManager.hpp"
#include "container/StoredName.hpp"
#include "filestore/Reading.hpp"
#include "filestore/Storage.hpp"
#include "foundation/Boundary.hpp"

#include <algorithm>
#include <limits>

namespace Kelvane {

namespace {

constexpr auto kLargestSize = static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max());

// What is read of a KVFile has padding, so this one is made in the store.
FileRef decryptedCopy(const KVBackupContainerClass &container, const FileRef &file) {
    const CF::String identifier = CF::UUID::Create().GetString();
    const ZK::filesystem::path target =
        FileManager::GetStorageLocationForTempIdentifier(identifier.get());
    ZK::file::readable_file stored = OpenContent(*file.get());
    DecryptStoredDatabase(container, stored, target);
    ScratchFile unclaimed(target);
    LocalError error;
    FileRef plain(CF::adopt, KVFileCreateFromFileAtPath(CF::String(target.native()).get(), false,
                                                        error.out()));
    if (!plain) {
        throw error.get();
    }
    unclaimed.Keep();
    return plain;
}

FileRef copySourceManifest(const KVBackupContainerClass &container) {
    const bool database = UsesManifestDatabase(container.Version());
    FileRef file =
        container.loader->LoadStoredFile(database ? kManifestDatabaseName : kManifestMbdbName);
    if (!database || !container.encryption || container.databaseForm == DatabaseForm::Decrypted) {
        return file;
    }
    if (container.databaseForm == DatabaseForm::Unpadded) {
        return decryptedCopy(container, file);
    }
    KVFileEnableDecryption(file.get(), container.encryption->GetManifestKey());
    return file;
}

} // namespace

} // namespace Kelvane

Boolean KVBackupContainerListSourceFiles(const KVBackupContainerClass *container,
                                         KVBackupSourceFileCallBack callback, void *context,
                                         CFErrorRef *error) {
    return Kelvane::AtClosedBoundary(error, static_cast<Boolean>(false), [&] {
        container->loader->Source().ListFiles([&](const Kelvane::SourceFile &file) {
            const KVBackupSourceFile found = {
                file.name.get(),
                static_cast<std::int64_t>(std::min(file.size, Kelvane::kLargestSize)),
                file.isRegular};
            return callback(&found, context) != 0;
        });
        return static_cast<Boolean>(true);
    });
}

KVFileClass *KVBackupContainerCopySourceManifest(const KVBackupContainerClass *container,
                                                 CFErrorRef *error) {
    return Kelvane::AtClosedBoundary(error, static_cast<KVFileClass *>(nullptr), [&] {
        return Kelvane::copySourceManifest(*container).detach();
    });
}
