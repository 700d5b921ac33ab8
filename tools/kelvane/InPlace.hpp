// Changing a backup in its own directory.
#pragma once

#include "OpenBackup.hpp"

namespace tool {

// Throws Failure for what cannot be changed in place, before anything else is asked or done.
void RequireChangeable(const BackupOptions &backup);

// Completes or takes back a change that did not come to its end, and says so. True when there was
// one. Throws Failure.
bool RecoverBackup(const BackupOptions &backup);

// Saves the changes of the container that was opened from the backup, and says what that was.
// Returns the exit status or throws Failure.
int SaveInPlace(const Container &container, const BackupOptions &backup);

} // namespace tool
