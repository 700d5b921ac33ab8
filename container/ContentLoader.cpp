#include "container/KVBackupContainerClass.hpp"

#include "Kelvane/Error.hpp"
#include "container/StoredName.hpp"
#include "foundation/Boundary.hpp"

namespace Kelvane {

const BackupSource &ContentLoader::Source() const {
    if (source == nullptr) {
        throw Error(kKVErrorInvalidArgument, nullptr,
                    CFSTR("No data source type set for backup container"));
    }
    return *source;
}

FileRef ContentLoader::LoadStoredFile(const CF::String &storedName, std::uint64_t limit) const {
    return Source().Load(storedName, limit);
}

FileRef ContentLoader::LoadFileID(const CF::String &fileID) const {
    const CF::String storedName = ExternalFilePath(fileID, version);
    try {
        if (!IsSafeFileID(fileID, version)) {
            ThrowUnsafeStoredName(storedName.IsEmpty() ? fileID : storedName);
        }
        return LoadStoredFile(storedName);
    } catch (const CF::Error &cause) {
        throw Error(kKVErrorLoadRepresentation, cause, CFSTR("Failed to load file (%@)"),
                    storedName.get());
    }
}

} // namespace Kelvane

KVGetFileFunction KVBackupContainerClass::MakeGetFileFunction() const {
    return [shared = loader](CFStringRef fileID, CFErrorRef *error) -> KVFileClass * {
        return Kelvane::AtBoundary(error, static_cast<KVFileClass *>(nullptr),
                                   [&] { return shared->LoadFileID(CF::String(fileID)).detach(); });
    };
}
