#include "manifest/ManifestChange.hpp"

#include "support/cf/Array.hpp"

#include <unordered_set>

namespace Kelvane {

void ApplyChange(KVManifestClass *manifest, const ManifestChange &change) {
    std::unordered_set<const void *> removed;
    for (const EntryPointer &entry : change.removed) {
        removed.insert(entry.get());
    }
    const CF::Array entries(KVManifestGetEntries(manifest));
    const auto updated = CF::Array::Mutable();
    for (CFIndex i = 0; i < entries.GetCount(); ++i) {
        if (removed.count(entries.GetAt(i)) == 0) {
            updated.Append(entries.GetAt(i));
        }
    }
    for (const EntryPointer &entry : change.added) {
        updated.Append(entry.get());
    }
    KVManifestUpdateEntries(manifest, updated.get());
}

} // namespace Kelvane
