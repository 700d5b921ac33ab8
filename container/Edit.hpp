// One edit of a container: its lookups, and the change that it gathers.
#pragma once

#include "container/KVBackupContainerClass.hpp"
#include "manifest/ManifestChange.hpp"

namespace Kelvane {

// Nothing changes before Apply, so that an edit may fail at any point. The lookups see the
// entries as they were before.
class Edit {
  public:
    Edit(KVBackupContainerClass &container, CFStringRef domain)
        : container_(container), domain_(domain) {}

    // The entry of that path; null when there is none. Throws code 2, "File ID (%@) belongs
    // to another entry (%@)", when the manifest gives the file ID of this path to another
    // one: stored content and database rows go by file ID, and one of the two would be lost.
    KVManifestEntryClass *Find(CFStringRef path) const;
    // Throws that error when another path has the file ID of the entry.
    void RequireFileIDFor(const KVManifestEntryClass &entry) const;
    // The same as Find, but null instead of an error: another entry's file ID is no reason not to
    // take away what is at the path.
    KVManifestEntryClass *FindOwn(CFStringRef path) const;

    // Makes the domain's root unless something is there.
    void EnsureRoot();
    // Makes the directories above the path where nothing is. Without the root. Throws code 2,
    // "Path is too long or too deep (%ld levels)".
    void EnsureParents(CFStringRef path);
    // Throws code 2 for an entry that no manifest could be written with: "An entry must have a
    // domain", "Text cannot be encoded as UTF-8", and what RequireMbdbRecord throws where the
    // manifest is a binary one.
    void Add(EntryPointer entry);
    void Remove(KVManifestEntryClass *entry) { change_.removed.emplace_back(entry); }
    // Whatever is at the path and below it.
    void RemoveTree(CFStringRef path);

    void Apply();

  private:
    KVManifestEntryClass *findByFileID(CFStringRef path) const;
    KVManifestEntryClass *findByPath(CFStringRef path) const;
    void addDirectory(CFStringRef path);

    KVBackupContainerClass &container_;
    CFStringRef domain_;
    ManifestChange change_;
};

} // namespace Kelvane
