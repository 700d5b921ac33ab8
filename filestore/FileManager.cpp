#include "Kelvane/FileManager.hpp"

#include "KVFile.h"
#include "Kelvane/Error.hpp"
#include "Kelvane/SharedState.hpp"
#include "filestore/KVFileClass.hpp"
#include "filestore/ReferenceCounts.hpp"
#include "foundation/Boundary.hpp"
#include "support/cf/UUID.hpp"
#include "support/zk/File.hpp"
#include "support/zk/Math.hpp"

#include <boost/filesystem/operations.hpp>

#include <functional>
#include <string>
#include <string_view>
#include <unordered_map>

namespace Kelvane::FileManager {

const std::uint64_t kDefaultMaxMemorySize = 4194304;

namespace {

// Finds a key without making a string of it: files are let go of when memory is out too.
struct KeyHash {
    using is_transparent = void;
    std::size_t operator()(std::string_view key) const noexcept {
        return std::hash<std::string_view>()(key);
    }
};

// Guarded by the shared mutex. Never destroyed: hosts may release files during exit.
struct ManagerState {
    std::uint64_t maxMemorySize = kDefaultMaxMemorySize;
    // Live references by the bytes of their reference hash; only counts above 0 are kept.
    std::unordered_map<std::string, std::uint32_t, KeyHash, std::equal_to<>> refcountByHash;
};

ManagerState &managerState() {
    static auto *const state = new ManagerState;
    return *state;
}

// Borrowed.
std::string_view keyOf(const std::vector<std::uint8_t> &hash) {
    return {reinterpret_cast<const char *>(hash.data()), hash.size()};
}

ZK::filesystem::path join(const ZK::filesystem::path &directory, const CF::String &name) {
    return directory / name.GetUTF8();
}

ZK::filesystem::path createCachePath() {
    try {
        const ZK::filesystem::path path = GetTemporaryPath() / "KVFileManager";
        ZK::file::create_private_directories(path);
        return path;
    } catch (const std::exception &exception) {
        throw Error(kKVErrorInvalidArgument, nullptr,
                    CFSTR("KVFileManager: Failed to initialize temp path (%s)"), exception.what());
    }
}

// Made once; a failure leaves it unmade, and the next call tries again. Takes the
// shared mutex the first time.
const ZK::filesystem::path &GetCachePath() {
    static const ZK::filesystem::path path = createCachePath();
    return path;
}

const KVFileClass *requireFile(const KVFileClass *file) {
    if (file == nullptr) {
        throw Error(kKVErrorInvalidArgument);
    }
    return file;
}

} // namespace

ZK::filesystem::path GetStorageLocationForFile() {
    return join(GetCachePath(), CF::UUID::Create().GetString());
}

ZK::filesystem::path GetStorageLocationForTempIdentifier(CFStringRef identifier) {
    if (identifier == nullptr) {
        throw Error(kKVErrorInvalidArgument);
    }
    const std::string utf8 = CF::String::GetUTF8(identifier);
    if (utf8.find('/') != std::string::npos || utf8.find('\0') != std::string::npos) {
        throw Error(kKVErrorInvalidArgument, nullptr, CFSTR("Unsafe storage identifier (%@)"),
                    identifier);
    }
    return join(GetCachePath(), CF::String::Format(CFSTR("__%@"), identifier));
}

KVFileClass *CopyCachedFileReference(const ZK::filesystem::path &path,
                                     const std::vector<std::uint8_t> &hash, CFErrorRef *error) {
    boost::system::error_code failure;
    const auto status = boost::filesystem::status(path, failure);
    if (failure || status.type() != boost::filesystem::regular_file) {
        StoreError(Error(kKVErrorFileNotInCache), error);
        return nullptr;
    }
    KVFileClass *const file =
        _KVFileCreateFromAbsolutePath(CF::String(path.string()).get(), hash, 1, error);
    if (file != nullptr) {
        RegisterReferenceForFile(file);
    }
    return file;
}

void RegisterReferenceForFile(const KVFileClass *file) {
    const std::string key(keyOf(requireFile(file)->referenceHash));
    const std::lock_guard lock(SharedMutex());
    ++managerState().refcountByHash[key];
}

void DeregisterReferenceForFile(const KVFileClass *file) {
    const std::vector<std::uint8_t> &hash = requireFile(file)->referenceHash;
    const std::string_view key = keyOf(hash);
    {
        const std::lock_guard lock(SharedMutex());
        auto &counts = managerState().refcountByHash;
        const auto found = counts.find(key);
        if (found != counts.end()) {
            if (--found->second == 0) {
                counts.erase(found);
            }
            return;
        }
    }
    throw Error(kKVErrorInvalidArgument, nullptr,
                CFSTR("Attempted to deregister reference for nonexistent hash '%s'"),
                ZK::Math::hex_encode(hash).c_str());
}

std::uint32_t ReferenceCount(const std::vector<std::uint8_t> &hash) {
    const std::lock_guard lock(SharedMutex());
    const auto &counts = managerState().refcountByHash;
    const auto found = counts.find(keyOf(hash));
    return found == counts.end() ? 0 : found->second;
}

std::uint64_t GetMaxMemorySize() {
    const std::lock_guard lock(SharedMutex());
    return managerState().maxMemorySize;
}

void SetMaxMemorySize(unsigned long bytes) {
    const std::lock_guard lock(SharedMutex());
    managerState().maxMemorySize = bytes;
}

} // namespace Kelvane::FileManager
