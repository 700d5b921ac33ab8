#include "manifest/ManifestBudget.hpp"

#include "Kelvane/Error.hpp"

#include <CoreFoundation/CoreFoundation.h>

namespace Kelvane {

namespace {

// The body, what the allocator adds to it, and the places in the tables of its manifest.
constexpr std::uint64_t kEntryBytes = sizeof(KVManifestEntryClass) + 64;
// The header of an object and what the allocator adds.
constexpr std::uint64_t kObjectBytes = 48;
// A pair in a dictionary, with the room that it keeps for growing.
constexpr std::uint64_t kPairBytes = 64;
constexpr std::uint64_t kDictionaryBytes = 160;

std::uint64_t MemoryOfText(CFStringRef text) {
    // Two bytes a unit, for the wide ones.
    const auto units = static_cast<std::uint64_t>(CFStringGetLength(text));
    return units == 0 ? 0 : kObjectBytes + 2 * units;
}

std::uint64_t MemoryOfData(CFDataRef data) {
    const auto bytes = data == nullptr ? 0 : static_cast<std::uint64_t>(CFDataGetLength(data));
    return bytes == 0 ? 0 : kObjectBytes + bytes;
}

// Adds up a graph of values. Values may share others, so that a walk takes exponential time:
// it ends when the limit is passed.
class GraphMemory {
  public:
    explicit GraphMemory(std::uint64_t limit) noexcept : limit_(limit) {}
    std::uint64_t Bytes() const noexcept { return bytes_; }

    void Add(CFTypeRef value) {
        if (bytes_ > limit_) {
            return;
        }
        bytes_ += kObjectBytes;
        const CFTypeID type = CFGetTypeID(value);
        if (type == CFStringGetTypeID()) {
            bytes_ += MemoryOfText(static_cast<CFStringRef>(value));
        } else if (type == CFDataGetTypeID()) {
            bytes_ += MemoryOfData(static_cast<CFDataRef>(value));
        } else if (type == CFArrayGetTypeID()) {
            AddArray(static_cast<CFArrayRef>(value));
        } else if (type == CFDictionaryGetTypeID()) {
            AddDictionary(static_cast<CFDictionaryRef>(value));
        }
    }

    void AddDictionary(CFDictionaryRef dictionary) {
        bytes_ += kDictionaryBytes;
        CFDictionaryApplyFunction(
            dictionary,
            [](const void *key, const void *value, void *self) {
                auto &memory = *static_cast<GraphMemory *>(self);
                memory.bytes_ += kPairBytes;
                memory.Add(key);
                memory.Add(value);
            },
            this);
    }

  private:
    void AddArray(CFArrayRef array) {
        const CFIndex count = CFArrayGetCount(array);
        bytes_ += static_cast<std::uint64_t>(count) * sizeof(void *);
        for (CFIndex i = 0; i < count && bytes_ <= limit_; ++i) {
            Add(CFArrayGetValueAtIndex(array, i));
        }
    }

    std::uint64_t limit_;
    std::uint64_t bytes_ = 0;
};

} // namespace

std::uint64_t MemoryOfEntry(const KVManifestEntryClass &entry, CFStringRef previousDomain,
                            std::uint64_t limit) {
    std::uint64_t bytes = kEntryBytes;
    bytes += entry.domain.get() == previousDomain ? 0 : MemoryOfText(entry.domain.get());
    bytes += MemoryOfText(entry.relativePath.get());
    bytes += MemoryOfText(entry.target.get());
    bytes += MemoryOfText(entry.fileID.get());
    bytes += MemoryOfData(entry.dataHash.get());
    bytes += MemoryOfData(entry.encryptionData.get());
    if (entry.keptAttributes) {
        GraphMemory kept(limit);
        kept.Add(entry.keptAttributes.get());
        bytes += kept.Bytes();
    }
    if (entry.properties.get() != EmptyDictionary()) {
        GraphMemory properties(limit);
        properties.AddDictionary(entry.properties.get());
        bytes += properties.Bytes();
    }
    return bytes;
}

void ManifestBudget::TakeEntry(const KVManifestEntryClass &entry) {
    Take(MemoryOfEntry(entry, domain_.get(), bytesLeft_));
    if (entry.domain.get() != domain_.get()) {
        domain_ = entry.domain;
    }
}

void ManifestBudget::TakePlaceholder(CFStringRef fileID) {
    Take(2 * kPairBytes + MemoryOfText(fileID));
}

void ManifestBudget::Take(std::uint64_t bytes) {
    if (recordsLeft_ == 0) {
        throw Error(kKVErrorInvalidBackup, nullptr, "The manifest has too many entries");
    }
    if (bytes > bytesLeft_) {
        throw Error(kKVErrorInvalidBackup, nullptr, "The manifest's entries take too much memory");
    }
    --recordsLeft_;
    bytesLeft_ -= bytes;
}

} // namespace Kelvane
