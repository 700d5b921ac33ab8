// How the tool ends.
#pragma once

namespace tool {

enum ExitStatus : int {
    kDone = 0,
    kFailed = 1,   // something failed; what and how many is said
    kUsage = 2,    // the command line is wrong
    kPassword = 3, // the password is missing, wrong, or was given for a plain backup
};

} // namespace tool
