#include "container/ManifestDatabaseCopy.hpp"

#include "Kelvane/Error.hpp"
#include "Kelvane/FileManager.hpp"
#include "container/StoredName.hpp"
#include "manifest/ManifestDatabaseFile.hpp"
#include "support/cf/UUID.hpp"

#include <boost/system/system_error.hpp>

namespace Kelvane {

namespace {

void copyDatabase(const KVBackupContainerClass &container, const std::string &path) {
    ZK::file::readable_file stored = container.loader->Source().Open(kManifestDatabaseName);
    if (container.encryption && container.databaseForm != DatabaseForm::Decrypted) {
        DecryptStoredDatabase(container, stored, path);
        return;
    }
    try {
        ZK::file::copy_new(stored, path);
    } catch (const boost::system::system_error &failure) {
        throw MakeFSError(failure, path);
    }
}

} // namespace

ManifestDatabaseCopy::ManifestDatabaseCopy(const KVBackupContainerClass &container)
    : path_(FileManager::GetStorageLocationForTempIdentifier(CF::UUID::Create().GetString().get())
                .native()) {
    try {
        copyDatabase(container, path_);
    } catch (...) {
        RemoveManifestDatabaseFile(path_);
        throw;
    }
}

ManifestDatabaseCopy::~ManifestDatabaseCopy() { RemoveManifestDatabaseFile(path_); }

} // namespace Kelvane
