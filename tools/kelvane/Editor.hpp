// Applies operations to an opened backup.
#pragma once

#include "OpenBackup.hpp"
#include "Operation.hpp"
#include "Selection.hpp"
#include "support/cf/String.hpp"

#include <string>

namespace tool {

// Changes the manifest in memory; the backup itself stays as it is. More careful than the
// library: nothing is put below what is no directory, no directory gives way to a file, nothing
// is removed that is not there, and an entry is touched only under its own file ID.
class Editor {
  public:
    // The container must outlive the object.
    explicit Editor(const Container &container) : container_(container) {}

    // Throws Failure; the operation may then be done in part, so the result is of no use.
    void Apply(const Operation &operation);

  private:
    // A place in the backup, with the texts that the library takes.
    struct Place {
        explicit Place(const Operation &operation);
        Place(CF::String domain, const std::string &path);
        CF::String domain;
        std::string path;
        CF::String pathText;
    };

    void put(const Operation &operation);
    void makeDirectory(const Operation &operation);
    void link(const Operation &operation);
    void remove(const Operation &operation);

    KVManifestClass *manifest() const { return KVBackupContainerGetManifest(container_.get()); }
    Entry *find(const Place &place) const;
    void requireOwnFileID(const Place &place) const;
    CFIndex countAt(const Place &place) const;
    void requireDirectoriesAbove(const Place &place) const;
    void makeDirectories(const Place &place);
    void noteNewDomain(const Place &place) const;

    const Container &container_;
};

} // namespace tool
