// The functions that create containers.
#include "container/KVBackupContainerClass.hpp"

#include "Kelvane/Error.hpp"
#include "Kelvane/SharedState.hpp"
#include "foundation/Boundary.hpp"
#include "support/zk/File.hpp"

#include <boost/filesystem/exception.hpp>

namespace Kelvane {

namespace {

constexpr KVBackupOpenOptions kKnownOptions = kKVBackupOpenKeepDeviceBoundKeysLocked;
constexpr const char *kWorkingDirectoryName = "KVBackupContainer";

MB::DeviceBoundKeys deviceBoundKeys(KVBackupOpenOptions options) {
    if ((options & ~kKnownOptions) != 0) {
        throw Error(kKVErrorInvalidArgument, nullptr, CFSTR("Unknown open options 0x%x"),
                    options & ~kKnownOptions);
    }
    return (options & kKVBackupOpenKeepDeviceBoundKeysLocked) != 0 ? MB::DeviceBoundKeys::KeepLocked
                                                                   : MB::DeviceBoundKeys::Fail;
}

struct OpenRequest {
    CFAllocatorRef allocator;
    SourceKind kind;
    CFStringRef path;
    CFStringRef password;
    KVBackupOpenOptions options;
};

KVBackupContainerClass *open(const OpenRequest &request, const KVProgressFunction &progress,
                             CFErrorRef *error) {
    return AtBoundary(error, static_cast<KVBackupContainerClass *>(nullptr), [&] {
        const MB::DeviceBoundKeys deviceBound = deviceBoundKeys(request.options);
        const CF::String path(request.path);
        if (!path) {
            throw Error(kKVErrorInvalidArgument, nullptr, CFSTR("No path to a backup"));
        }
        auto source =
            request.kind == SourceKind::Zip ? OpenZipSource(path) : OpenDirectorySource(path);
        ContainerRef container = AllocateContainer(request.allocator);
        KVBackupContainerClass &body = *container.get();
        body.sourceKind = request.kind;
        body.sourcePath = path;
        body.loader->source = std::move(source);
        body.password = SecretString(CF::String(request.password));
        LoadMetadata(body, deviceBound, progress);
        return container.detach();
    });
}

KVProgressFunction bindProgress(KVBackupProgressCallBack callback, void *context) {
    if (callback == nullptr) {
        return {};
    }
    return [callback, context](std::int64_t done, std::int64_t total, double fraction) {
        callback(done, total, fraction, context);
    };
}

CF::String makeWorkingDirectory(const KVBackupContainerClass *container) {
    const CF::String name = CF::String::Format(CFSTR("%p"), static_cast<const void *>(container));
    const ZK::filesystem::path directory =
        ZK::filesystem::path(GetTemporaryPath()) / kWorkingDirectoryName / name.GetUTF8();
    try {
        ZK::file::create_private_directories(directory);
    } catch (const boost::system::system_error &failure) {
        throw Error(kKVErrorFilesystem, nullptr, CFSTR("%s"), failure.what());
    }
    return CF::String(directory.native());
}

} // namespace

} // namespace Kelvane

using Kelvane::OpenRequest;
using Kelvane::SourceKind;

KVBackupContainerClass *KVBackupContainerCreateEmpty(CFAllocatorRef allocator, CFErrorRef *error) {
    return Kelvane::AtBoundary(error, static_cast<KVBackupContainerClass *>(nullptr), [&] {
        Kelvane::ContainerRef container = Kelvane::AllocateContainer(allocator);
        KVBackupContainerClass &body = *container.get();
        body.sourcePath = Kelvane::makeWorkingDirectory(&body);
        body.sourceKind = SourceKind::Directory;
        body.loader->source = Kelvane::OpenDirectorySource(body.sourcePath);
        body.manifest = CF::Adopt(KVManifestCreateEmpty(kCFAllocatorDefault));
        return container.detach();
    });
}

KVBackupContainerClass *KVBackupContainerOpenDirectory(CFAllocatorRef allocator,
                                                       CFStringRef directory, CFStringRef password,
                                                       KVBackupOpenOptions options,
                                                       KVBackupProgressCallBack progress,
                                                       void *context, CFErrorRef *error) {
    return KVBackupContainerCreateFromDirectory(allocator, directory, password, options,
                                                Kelvane::bindProgress(progress, context), error);
}

KVBackupContainerClass *KVBackupContainerOpenZipFile(CFAllocatorRef allocator, CFStringRef zipPath,
                                                     CFStringRef password,
                                                     KVBackupOpenOptions options,
                                                     KVBackupProgressCallBack progress,
                                                     void *context, CFErrorRef *error) {
    return KVBackupContainerCreateFromZipFile(allocator, zipPath, password, options,
                                              Kelvane::bindProgress(progress, context), error);
}

KVBackupContainerClass *KVBackupContainerCreateFromDirectory(CFAllocatorRef allocator,
                                                             CFStringRef directory,
                                                             KVProgressFunction progress,
                                                             CFErrorRef *error) {
    return KVBackupContainerCreateFromDirectory(allocator, directory, nullptr, std::move(progress),
                                                error);
}

KVBackupContainerClass *KVBackupContainerCreateFromDirectory(CFAllocatorRef allocator,
                                                             CFStringRef directory,
                                                             CFStringRef password,
                                                             KVProgressFunction progress,
                                                             CFErrorRef *error) {
    return KVBackupContainerCreateFromDirectory(allocator, directory, password,
                                                kKVBackupOpenDefault, std::move(progress), error);
}

KVBackupContainerClass *
KVBackupContainerCreateFromDirectory(CFAllocatorRef allocator, CFStringRef directory,
                                     CFStringRef password, KVBackupOpenOptions options,
                                     KVProgressFunction progress, CFErrorRef *error) {
    return Kelvane::open(
        OpenRequest{allocator, SourceKind::Directory, directory, password, options}, progress,
        error);
}

KVBackupContainerClass *KVBackupContainerCreateFromZipFile(CFAllocatorRef allocator,
                                                           CFStringRef zipPath,
                                                           KVProgressFunction progress,
                                                           CFErrorRef *error) {
    return KVBackupContainerCreateFromZipFile(allocator, zipPath, nullptr, std::move(progress),
                                              error);
}

KVBackupContainerClass *KVBackupContainerCreateFromZipFile(CFAllocatorRef allocator,
                                                           CFStringRef zipPath,
                                                           CFStringRef password,
                                                           KVProgressFunction progress,
                                                           CFErrorRef *error) {
    return KVBackupContainerCreateFromZipFile(allocator, zipPath, password, kKVBackupOpenDefault,
                                              std::move(progress), error);
}

KVBackupContainerClass *
KVBackupContainerCreateFromZipFile(CFAllocatorRef allocator, CFStringRef zipPath,
                                   CFStringRef password, KVBackupOpenOptions options,
                                   KVProgressFunction progress, CFErrorRef *error) {
    return Kelvane::open(OpenRequest{allocator, SourceKind::Zip, zipPath, password, options},
                         progress, error);
}
