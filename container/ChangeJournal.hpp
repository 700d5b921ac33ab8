// Changing a backup in its own directory, wholly or not at all.
//
// New files are written to a folder of the backup's root, brought to the disk, and listed in a
// plan there together with the names that are to go. When the plan has its name the change is
// decided: from then on whoever finds the folder brings it to its end, which takes renaming and
// removing alone, neither of which needs room, and which may be done again from any point. Until
// then nothing of the backup has been touched, and the folder is thrown away.
//
//   .kelvane-journal/       0700
//     plan                  text: a line that names the form; "put N NAME" and "remove NAME",
//                           names in hexadecimal; "end" and the SHA-1 of all lines before
//     new-N                 content for NAME, 0600 or as the backup's manifest has it
//     folders               folders of the backup that were made for the change, names as above
//     done                  the plan, when only clearing away is left
//
// A backup may come from anyone, and so may such a folder in it: a plan can name nothing outside
// the backup, and no link is followed.
#pragma once

#include "container/ChangePlan.hpp"
#include "container/ExportContent.hpp"
#include "support/zk/CopyContent.hpp"
#include "support/zk/Directory.hpp"

#include <boost/system/system_error.hpp>

#include <cstdint>
#include <string>
#include <vector>

#include <sys/types.h>

namespace Kelvane {

// What other programs that read backups do not look at.
inline constexpr const char *kJournalName = ".kelvane-journal";

// Throws code 3 "The backup could not be changed in place (%s: %s)", POSIX error underneath.
[[noreturn]] void ThrowNotChangedInPlace(const char *step,
                                         const boost::system::system_error &failure);

// What became of a change that was found undone.
enum class Recovery : std::uint8_t { None, TakenBack, Completed };

class ChangeJournal {
  public:
    // Begins a change of the backup in that directory, which must stay open and locked. modelName
    // is a file there whose mode and owner new files get. Throws code 14 "The backup holds a
    // change that was not completed", and code 3.
    ChangeJournal(const ZK::file::directory &root, const std::string &modelName);
    ChangeJournal(const ChangeJournal &) = delete;
    ChangeJournal &operator=(const ChangeJournal &) = delete;
    // Takes back what was not decided, as far as that can be done.
    ~ChangeJournal();

    // Writes the content, which is to bear the stored name, which is safe. Throws code 3, also
    // where the file could not be given that name; what reading throws; and code 14 "A directory
    // has the name of a stored file (%s)".
    void Put(const std::string &name, const ExportContent &content);
    // The file of that name is to go; throws the same.
    void Remove(const std::string &name);
    // True when there is nothing to do.
    bool IsEmpty() const noexcept { return operations_.empty(); }
    // The bytes of the new files.
    std::uint64_t BytesWritten() const noexcept { return bytes_; }
    // Decides the change and brings it to its end. Throws code 3; decided tells then whether what
    // is left is for Recover to complete.
    void Commit(bool &decided);

  private:
    void makeFolder(const std::string &path);
    void makeParent(const std::string &name);
    std::uint64_t fill(const ZK::file::unique_descriptor &file, const ExportContent &content);

    const ZK::file::directory &root_;
    ZK::file::directory folder_;
    ::mode_t mode_ = 0600;
    ::uid_t owner_ = 0;
    ::gid_t group_ = 0;
    ZK::file::content_copier copier_;
    ZK::file::unique_descriptor folders_{-1};
    std::vector<PlannedChange> operations_;
    std::uint64_t bytes_ = 0;
    bool decided_ = false;
};

// Whether the directory holds a change that was not completed. Throws code 3.
bool HoldsJournal(const ZK::file::directory &root);

// Completes or takes back such a change; the directory is locked. Throws code 3, and code 10
// "The plan of the change is damaged" for one that was decided and cannot be read: nothing is
// touched then.
Recovery RecoverChange(const ZK::file::directory &root);

} // namespace Kelvane
