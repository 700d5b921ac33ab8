// Unfinished outputs of runs that were killed.
#pragma once

#include <string>

namespace tool {

// The name of an output that a run of this process is making: ".kelvane-PID-NUMBER.partial".
std::string PartialName(unsigned long number);

// Says of each unfinished output of this user in the directory whose run is gone that it may be
// removed. It is not removed: the process may be one of another machine that shares the
// directory, and nobody can tell.
void ReportAbandonedOutputs(const std::string &directory);

} // namespace tool
