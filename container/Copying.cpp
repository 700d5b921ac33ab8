// Copies of containers, and the value wrapper.
#include "KVBackupContainer.hpp"

#include "Kelvane/SharedState.hpp"
#include "container/KVBackupContainerClass.hpp"
#include "support/cf/Extensions.hpp"
#include "support/zk/Log.hpp"

#include <utility>

namespace {

CF::Dictionary copyOf(const CF::Dictionary &dictionary) {
    CF::Dictionary copy = CF::Dictionary::Mutable();
    CFDictionarySetValues(copy.mutableRef(), dictionary.get());
    return copy;
}

void copyInto(KVBackupContainerClass &copy, const KVBackupContainerClass &original) {
    copy.sourceKind = original.sourceKind;
    copy.sourcePath = original.sourcePath;
    copy.loader->version = original.Version();
    if (original.loader->source != nullptr) {
        copy.loader->source = original.loader->source->Reopen();
    }
    copy.manifest = CF::Adopt(KVManifestCreateCopy(kCFAllocatorDefault, original.manifest.get(),
                                                   copy.MakeGetFileFunction()));
    copy.manifestDict = copyOf(original.manifestDict);
    copy.infoDict = copyOf(original.infoDict);
    copy.statusDict = copyOf(original.statusDict);
    copy.sourceMetadata = original.sourceMetadata;
    copy.metadataFormats = original.metadataFormats;
    copy.removedFileIDs = original.removedFileIDs;
    copy.setMetadata = original.setMetadata;
    copy.openedState = original.openedState;
    copy.saved = original.saved;
    copy.baseDirectory = original.baseDirectory;
    copy.databaseForm = original.databaseForm;
    copy.folder = original.folder;
    if (!original.password.empty() && original.encryption) {
        copy.password = original.password;
        copy.encryption = original.encryption;
    }
    copy.UpdateSourceVersion();
}

} // namespace

KVBackupContainerClass *KVBackupContainerCreateCopy(CFAllocatorRef allocator,
                                                    KVBackupContainerClass *container) {
    Kelvane::ContainerRef copy = Kelvane::AllocateContainer(allocator);
    try {
        copyInto(*copy.get(), *container);
    } catch (const CF::Error &error) {
        // There is no out-parameter to say that the zip has vanished.
        ZLLogError(error.get(), Kelvane::GetLogDomain(), nullptr);
        return nullptr;
    }
    return copy.detach();
}

KVBackupContainer::KVBackupContainer(KVBackupContainerClass *container) noexcept
    : container_(container) {
    if (container_ != nullptr) {
        CFRetain(container_);
    }
}

KVBackupContainer::KVBackupContainer(CF::adopt_t, KVBackupContainerClass *container) noexcept
    : container_(container) {}

KVBackupContainer::KVBackupContainer(const KVBackupContainer &other) noexcept
    : KVBackupContainer(other.container_) {}

KVBackupContainer::KVBackupContainer(KVBackupContainer &&other) noexcept
    : container_(std::exchange(other.container_, nullptr)) {}

KVBackupContainer &KVBackupContainer::operator=(KVBackupContainer other) noexcept {
    std::swap(container_, other.container_);
    return *this;
}

KVBackupContainer::~KVBackupContainer() {
    if (container_ != nullptr) {
        CFRelease(container_);
    }
}

CFTypeRef KVBackupContainer::GetCFObject() const noexcept { return container_; }

KVBackupContainer KVBackupContainer::Copy() const {
    if (container_ == nullptr) {
        return {};
    }
    CF::Pointer<KVBackupContainerClass *> copy(
        CF::adopt, KVBackupContainerCreateCopy(kCFAllocatorDefault, container_));
    if (!copy || CFGetTypeID(copy.get()) != KVBackupContainerGetTypeID()) {
        return {};
    }
    return {CF::adopt, copy.detach()};
}

ZK::ios_version KVBackupContainer::get_source_ios_version() const noexcept {
    return container_ == nullptr ? ZK::ios_version() : container_->sourceVersion;
}
