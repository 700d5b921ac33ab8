// The folder of a change, as its writer and its recovery see it.
#pragma once

#include "container/ChangePlan.hpp"
#include "support/zk/Directory.hpp"

#include <boost/system/system_error.hpp>

#include <cstdint>
#include <string>
#include <vector>

namespace Kelvane::journal {

inline constexpr const char *kPlanName = "plan";
// Until it is whole and on the disk.
inline constexpr const char *kUndecidedPlanName = "plan.new";
// When the change has come to its end, and the folder is only to be cleared away.
inline constexpr const char *kDoneName = "done";
// The folders of the backup that were made for the change, a name in hexadecimal a line: an
// undecided one takes them with it.
inline constexpr const char *kFoldersName = "folders";
// The largest file of names that is read or written: that of a million names.
inline constexpr std::uint64_t kMaxTextSize = 256ULL << 20;

// The steps below throw boost::system::system_error.

// The name of the new file of that number.
std::string NewName(std::size_t number);
// The part of a stored name before the last slash, and the part behind it.
std::string ParentOf(const std::string &name);
std::string LastOf(const std::string &name);
// The directory that holds the file of that stored name, reached over no link; not open when
// there is none.
ZK::file::directory OpenParent(const ZK::file::directory &root, const std::string &name);

// A file of the folder; empty when it is no regular one or too large.
std::string ReadText(const ZK::file::directory &folder, const char *name);

// Brings a decided change to its end, from wherever it stands, and clears the folder away.
void Complete(const ZK::file::directory &root, const ZK::file::directory &folder,
              const std::vector<PlannedChange> &changes);
// Removes the folder with all that is in it, and first of all folders that an undecided change
// made.
void TakeBack(const ZK::file::directory &root, const ZK::file::directory &folder);
// Removes the folder of a change that has come to its end.
void ClearAway(const ZK::file::directory &root, const ZK::file::directory &folder);

[[noreturn]] void Raise(const char *step);
void RaiseIf(const boost::system::error_code &error, const char *step);

} // namespace Kelvane::journal
