#include "Selection.hpp"

#include "Diagnostics.hpp"
#include "KVManifest.h"

namespace tool {

CF::Array AllEntries(const Container &container) {
    return CF::Array(KVManifestGetEntries(KVBackupContainerGetManifest(container.get())));
}

CF::Array EntriesAt(const Container &container, const std::string &domain,
                    const std::string &path) {
    KVManifestClass *manifest = KVBackupContainerGetManifest(container.get());
    const CF::String domainText = ArgumentText(domain);
    const auto inDomain =
        CF::Array::Adopt(KVManifestCopyEntriesInDomain(manifest, domainText.get()));
    if (inDomain.GetCount() == 0) {
        throw Failure("The backup has no domain '" + domain + "'");
    }
    const std::string wanted = WithoutTrailingSlashes(path);
    if (wanted.empty()) {
        return inDomain;
    }
    auto found = CF::Array::Adopt(
        KVManifestCopyEntriesAtPath(manifest, domainText.get(), ArgumentText(wanted).get()));
    if (found.GetCount() == 0) {
        throw Failure("The domain '" + domain + "' has nothing at '" + path + "'");
    }
    return found;
}

Entry *EntryAt(const CF::Array &entries, CFIndex index) {
    return static_cast<Entry *>(entries.GetAt(index));
}

CF::String ArgumentText(const std::string &argument) {
    CF::String text(argument);
    if (!text) {
        throw Failure("The argument '" + argument + "' is not UTF-8 text");
    }
    return text;
}

std::string WithoutTrailingSlashes(std::string path) {
    while (!path.empty() && path.back() == '/') {
        path.pop_back();
    }
    return path;
}

} // namespace tool
