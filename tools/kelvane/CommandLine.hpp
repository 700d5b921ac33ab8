// The command line as options of the commands.
#pragma once

#include "Commands.hpp"

#include <variant>

namespace tool {

struct CommandLine {
    BackupOptions backup;
    int verbosity = 0;
    std::variant<InfoOptions, ListOptions, CatOptions, ExtractOptions, VerifyOptions, ExportOptions,
                 DecryptOptions, EditOptions, RecoverOptions, CSVOptions>
        command;
};

// Parses; prints help or the version or what is wrong, and ends the process, when there is
// nothing to run.
CommandLine ParseCommandLine(int argc, char **argv);

} // namespace tool
