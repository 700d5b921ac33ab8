// Names from a backup, made fit for a terminal.
#pragma once

#include <string>
#include <string_view>

namespace tool {

// What is unsafe on a terminal, which may obey it or show text in another order than it has:
// control characters (C0, DEL, C1), separators of lines and paragraphs, controls of direction,
// invisible tags and marks, and bytes that are no UTF-8.

// Unsafe characters as \n, \t, \e or \xNN for each byte, and a backslash doubled where one
// stands in such text, so that the result is one line and moves no cursor. Other text comes
// back as it is.
std::string EscapeControls(std::string_view utf8);

// For listings: on a terminal a name with unsafe characters is shown in the shell's $'...'
// form; elsewhere, and all other names, as it is.
std::string ForListing(std::string_view utf8, bool terminal);

// For CSV on a terminal, given piece by piece: unsafe characters as above, but the line ends
// between rows. A backslash stays as it is.
class CSVForTerminal {
  public:
    // A piece ends between characters.
    std::string Convert(std::string_view utf8);

  private:
    bool inField_ = false;
};

} // namespace tool
