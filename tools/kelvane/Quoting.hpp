// Names from a backup, made fit for a terminal.
#pragma once

#include <string>
#include <string_view>

namespace tool {

// Control characters as \n, \t, \e or \xNN, and a backslash doubled where one stands in
// such text, so that the result is one line and moves no cursor. C1 controls (U+0080 to
// U+009F) count. Text without control characters comes back as it is.
std::string EscapeControls(std::string_view utf8);

// For listings: on a terminal a name with control characters is shown in the shell's
// $'...' form; elsewhere, and all other names, as it is.
std::string ForListing(std::string_view utf8, bool terminal);

} // namespace tool
