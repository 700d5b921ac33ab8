#include "Commands.hpp"
#include "Content.hpp"
#include "Diagnostics.hpp"
#include "EntryRecord.hpp"
#include "ExitStatus.hpp"
#include "KVManifest.h"
#include "Kelvane/Error.hpp"
#include "Output.hpp"

#include <optional>

namespace tool {

namespace {

Entry *findEntry(const Container &container, const CatOptions &options) {
    const CF::String domain = ArgumentText(options.domain);
    const CF::String path = ArgumentText(options.path);
    Entry *entry = KVManifestGetEntryMatchingPath(KVBackupContainerGetManifest(container.get()),
                                                  domain.get(), path.get());
    if (entry == nullptr) {
        throw Failure(Kelvane::Error(kKVErrorNoSuchItem, nullptr, CFSTR("File not in backup")));
    }
    return entry;
}

// What keeps the content from being had is the entry's.
void open(std::optional<Content> &content, const Container &container, Entry *entry,
          const TemporaryArea &area) {
    try {
        content.emplace(container, entry, area);
    } catch (const Failure &failure) {
        throw failure.Within(FullPath(entry));
    }
}

} // namespace

int RunCat(const Container &container, const TemporaryArea &area, const CatOptions &options) {
    Entry *entry = findEntry(container, options);
    std::optional<Content> content;
    open(content, container, entry, area);
    content->Read(&WriteOutput);
    const std::string deviation = content->Deviation();
    if (!deviation.empty()) {
        PrintMessage(FullPath(entry) + ": the content is damaged: " + deviation);
    }
    return deviation.empty() ? kDone : kFailed;
}

} // namespace tool
