// The functions that create containers.
#include "container/BackupFolder.hpp"
#include "container/KVBackupContainerClass.hpp"

#include "Kelvane/Error.hpp"
#include "Kelvane/SharedState.hpp"
#include "foundation/Boundary.hpp"
#include "support/zk/File.hpp"
#include "support/zk/Log.hpp"

#include <boost/filesystem/exception.hpp>
#include <boost/filesystem/operations.hpp>

namespace Kelvane {

namespace {

constexpr KVBackupOpenOptions kKnownOptions =
    kKVBackupOpenKeepDeviceBoundKeysLocked | kKVBackupOpenFollowLinks | kKVBackupOpenOldEncryption |
    kKVBackupOpenUnusualManifests | kKVBackupOpenSearchFolder;
constexpr const char *kWorkingDirectoryName = "KVBackupContainer";

void requireKnown(KVBackupOpenOptions options) {
    if ((options & ~kKnownOptions) != 0) {
        throw Error(kKVErrorInvalidArgument, nullptr, CFSTR("Unknown open options 0x%x"),
                    options & ~kKnownOptions);
    }
}

Links linksFor(KVBackupOpenOptions options) {
    return (options & kKVBackupOpenFollowLinks) != 0 ? Links::Follow : Links::Refuse;
}

struct OpenRequest {
    CFAllocatorRef allocator;
    SourceKind kind;
    CFStringRef path;
    CFStringRef password;
    KVBackupOpenOptions options;
};

FoundSource findSource(const OpenRequest &request, const CF::String &path) {
    const bool zip = request.kind == SourceKind::Zip;
    const Links links = linksFor(request.options);
    if ((request.options & kKVBackupOpenSearchFolder) != 0) {
        return zip ? FindBackupInZip(path) : FindBackupInDirectory(path, links);
    }
    return {zip ? OpenZipSource(path) : OpenDirectorySource(path, links), {}, path};
}

ContainerRef open(const OpenRequest &request, const OpeningProgress &progress) {
    requireKnown(request.options);
    const CF::String path(request.path);
    if (!path) {
        throw Error(kKVErrorInvalidArgument, nullptr, CFSTR("No path to a backup"));
    }
    FoundSource found = findSource(request, path);
    ContainerRef container = AllocateContainer(request.allocator);
    KVBackupContainerClass &body = *container.get();
    body.sourceKind = request.kind;
    body.sourcePath = found.path;
    body.folder = found.folder;
    body.loader->source = std::move(found.source);
    if (!body.folder.IsEmpty()) {
        ZLLogDomain(GetLogDomain(), kZLLogLevelMilestone,
                    CFSTR("(KVBackupContainer %p) The backup lies in the folder '%@' of '%@'"),
                    static_cast<const void *>(&body), body.folder.get(), path.get());
    }
    body.password = SecretString(CF::String(request.password));
    if (request.kind == SourceKind::Directory && linksFor(request.options) == Links::Refuse) {
        body.openedState = TakeSourceState(found.path.GetUTF8());
    }
    LoadMetadata(body, request.options, progress);
    return container;
}

MB::DerivationProgress bindDerivation(const KVBackupOpenCallBacks &callBacks) {
    if (callBacks.derivation == nullptr) {
        return {};
    }
    return [callBacks](std::uint64_t done, std::uint64_t total) {
        return callBacks.derivation(done, total, callBacks.context) != 0;
    };
}

constexpr KVBackupContainerClass *kNone = nullptr;

// For hosts in C++, whose callables may throw what they like.
KVBackupContainerClass *openAtBoundary(const OpenRequest &request,
                                       const KVProgressFunction &progress, CFErrorRef *error) {
    return AtBoundary(error, kNone, [&] {
        return open(request, OpeningProgress{progress, {}}).detach();
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

// For hosts in C.
KVBackupContainerClass *openWith(const KVBackupOpenCallBacks &callBacks,
                                 const OpenRequest &request) {
    return open(request, OpeningProgress{bindProgress(callBacks.progress, callBacks.context),
                                         bindDerivation(callBacks)})
        .detach();
}

SourceKind kindOf(CFStringRef path) {
    boost::system::error_code error; // opening tells what is wrong with it
    return boost::filesystem::is_directory(CF::String::GetUTF8(path), error) ? SourceKind::Directory
                                                                             : SourceKind::Zip;
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

KVBackupContainerClass *createEmpty(CFAllocatorRef allocator) {
    ContainerRef container = AllocateContainer(allocator);
    KVBackupContainerClass &body = *container.get();
    body.sourcePath = makeWorkingDirectory(&body);
    body.sourceKind = SourceKind::Directory;
    body.loader->source = OpenDirectorySource(body.sourcePath);
    body.manifest = CF::Adopt(KVManifestCreateEmpty(kCFAllocatorDefault));
    return container.detach();
}

} // namespace

} // namespace Kelvane

using Kelvane::OpenRequest;
using Kelvane::SourceKind;

KVBackupContainerClass *KVBackupContainerCreateEmpty(CFAllocatorRef allocator, CFErrorRef *error) {
    return Kelvane::AtBoundary(error, Kelvane::kNone,
                               [&] { return Kelvane::createEmpty(allocator); });
}

KVBackupContainerClass *KVBackupContainerOpenEmpty(CFAllocatorRef allocator, CFErrorRef *error) {
    return Kelvane::AtClosedBoundary(error, Kelvane::kNone,
                                     [&] { return Kelvane::createEmpty(allocator); });
}

KVBackupContainerClass *KVBackupContainerOpenDirectory(CFAllocatorRef allocator,
                                                       CFStringRef directory, CFStringRef password,
                                                       KVBackupOpenOptions options,
                                                       KVBackupProgressCallBack progress,
                                                       void *context, CFErrorRef *error) {
    return Kelvane::AtClosedBoundary(error, Kelvane::kNone, [&] {
        return Kelvane::openWith({progress, nullptr, context},
                                 {allocator, SourceKind::Directory, directory, password, options});
    });
}

KVBackupContainerClass *KVBackupContainerOpenZipFile(CFAllocatorRef allocator, CFStringRef zipPath,
                                                     CFStringRef password,
                                                     KVBackupOpenOptions options,
                                                     KVBackupProgressCallBack progress,
                                                     void *context, CFErrorRef *error) {
    return Kelvane::AtClosedBoundary(error, Kelvane::kNone, [&] {
        return Kelvane::openWith({progress, nullptr, context},
                                 {allocator, SourceKind::Zip, zipPath, password, options});
    });
}

KVBackupContainerClass *KVBackupContainerOpen(CFAllocatorRef allocator, CFStringRef path,
                                              CFStringRef password, KVBackupOpenOptions options,
                                              const KVBackupOpenCallBacks *callBacks,
                                              CFErrorRef *error) {
    return Kelvane::AtClosedBoundary(error, Kelvane::kNone, [&] {
        return Kelvane::openWith(callBacks != nullptr ? *callBacks : KVBackupOpenCallBacks{},
                                 {allocator, Kelvane::kindOf(path), path, password, options});
    });
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
    return Kelvane::openAtBoundary(
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
    return Kelvane::openAtBoundary(
        OpenRequest{allocator, SourceKind::Zip, zipPath, password, options}, progress, error);
}
