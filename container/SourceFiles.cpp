// What a container's source holds, beside what the manifest says of it.
#include "container/KVBackupContainerClass.hpp"

#include "container/StoredName.hpp"
#include "foundation/Boundary.hpp"

#include <algorithm>
#include <limits>

namespace Kelvane {

namespace {

constexpr auto kLargestSize = static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max());

FileRef copySourceManifest(const KVBackupContainerClass &container) {
    const bool database = UsesManifestDatabase(container.Version());
    FileRef file =
        container.loader->LoadStoredFile(database ? kManifestDatabaseName : kManifestMbdbName);
    if (database && container.encryption) {
        KVFileEnableDecryption(file.get(), container.encryption->GetManifestKey());
    }
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
