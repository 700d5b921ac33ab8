#include "manifest/KVManifestEntryClass.hpp"

#include "foundation/RuntimeClass.hpp"
#include "manifest/TextHash.hpp"
#include "support/cf/CF.hpp"

#include <string>
#include <utility>

namespace {

constexpr char kClassName[] = "KVManifestEntry";

// On one line, for descriptions are log lines.
CF::String propertiesText(const KVManifestEntryClass &entry) {
    const auto description = CF::String::Adopt(CFCopyDescription(entry.properties.get()));
    const CF::Pointer<CFMutableStringRef> text(
        CF::adopt, CF::Made(CFStringCreateMutableCopy(kCFAllocatorDefault, 0, description.get())));
    CFStringFindAndReplace(text.get(), CFSTR("\n"), CFSTR("\t"),
                           CFRangeMake(0, CFStringGetLength(text.get())), 0);
    return CF::String(text.get());
}

CFStringRef copyFormattingDescription(CFTypeRef object, CFDictionaryRef) {
    const auto &entry = *static_cast<const KVManifestEntryClass *>(object);
    auto text = CF::String::Format(
        CFSTR("<%s %p> %@ size:%s mode:%o uid:%s gid:%s type:%x inode:%s protection:%s "
              "external:%d (%@) %@"),
        kClassName, object, KVManifestEntryGetDomainPathPair(&entry),
        std::to_string(entry.size).c_str(), static_cast<unsigned>(entry.mode),
        std::to_string(entry.uid).c_str(), std::to_string(entry.gid).c_str(),
        static_cast<unsigned>(entry.fileType), std::to_string(entry.inode).c_str(),
        to_string(entry.protectionClass).c_str(), static_cast<int>(entry.external),
        entry.fileID.get(), propertiesText(entry).get());
    return text.detach();
}

CFStringRef copyDebugDescription(CFTypeRef object) {
    return copyFormattingDescription(object, nullptr);
}

using Runtime = Kelvane::RuntimeBody<KVManifestEntryClass>;

constexpr CFRuntimeClass kRuntimeClass =
    Runtime::Record(kClassName, {.equal = nullptr,
                                 .copyFormattingDescription = copyFormattingDescription,
                                 .copyDebugDescription = copyDebugDescription});

} // namespace

CFTypeID KVManifestEntryGetTypeID() {
    static const CFTypeID typeID =
        Kelvane::RegisterRuntimeClass(&kRuntimeClass, "Kelvane/KVManifestEntry.cpp", 221);
    return typeID;
}

KVManifestEntryClass::KVManifestEntryClass() noexcept
    : base(), domain(Kelvane::EmptyString()), relativePath(Kelvane::EmptyString()),
      givenPath(Kelvane::EmptyString()), target(Kelvane::EmptyString()),
      dataHash(Kelvane::EmptyData()), encryptionData(Kelvane::EmptyData()),
      properties(Kelvane::EmptyDictionary()), fileID(Kelvane::EmptyString()),
      auxiliaryArray(Kelvane::EmptyArray()) {}

// The content goes first: it may be the loader's last use.
KVManifestEntryClass::~KVManifestEntryClass() { file = nullptr; }

namespace Kelvane {

FileLoader ShareFileLoader(const KVGetFileFunction &function) {
    return function ? std::make_shared<const KVGetFileFunction>(function) : nullptr;
}

// None of these is ever released, so that entries may outlive static destruction.
CFStringRef EmptyString() noexcept { return CFSTR(""); }

CFDataRef EmptyData() noexcept {
    static const CFDataRef empty = CFDataCreate(kCFAllocatorDefault, nullptr, 0);
    return empty;
}

CFDictionaryRef EmptyDictionary() noexcept {
    static const CFDictionaryRef empty =
        CFDictionaryCreate(kCFAllocatorDefault, nullptr, nullptr, 0, &kCFTypeDictionaryKeyCallBacks,
                           &kCFTypeDictionaryValueCallBacks);
    return empty;
}

CFArrayRef EmptyArray() noexcept {
    static const CFArrayRef empty =
        CFArrayCreate(kCFAllocatorDefault, nullptr, 0, &kCFTypeArrayCallBacks);
    return empty;
}

EntryPointer AllocateEntry(CFAllocatorRef allocator) {
    return CF::Adopt(Runtime::Create(allocator, KVManifestEntryGetTypeID()));
}

void SetEntryPath(KVManifestEntryClass &entry, CFStringRef domain, CFStringRef relativePath) {
    // A copy of an immutable string is the string itself.
    const auto immutable = [](CFStringRef string) {
        return CF::Adopt(CF::Made(
            CFStringCreateCopy(kCFAllocatorDefault, string == nullptr ? EmptyString() : string)));
    };
    entry.domain = immutable(domain);
    entry.relativePath = immutable(relativePath);
    entry.givenPath = entry.relativePath;
    entry.domainPathPair = nullptr;
    entry.deviceFilename = nullptr;
}

void TakeOrigin(KVManifestEntryClass &entry, const KVManifestEntryClass &replaced) noexcept {
    entry.recordFlags = replaced.recordFlags;
    entry.origin = replaced.origin;
    entry.origin.MarkChanged();
}

void SetFileID(KVManifestEntryClass &entry, CF::Pointer<CFStringRef> fileID) noexcept {
    entry.fileIDHash = HashText(fileID.get());
    entry.fileID = std::move(fileID);
}

} // namespace Kelvane
