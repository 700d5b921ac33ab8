// Where the backup password comes from: a file, standard input or the terminal.
#pragma once

#include "Secret.hpp"
#include "support/cf/Error.hpp"
#include "support/cf/String.hpp"

#include <string>

namespace tool {

// The first line of the file, without its line end; "-" is standard input. Throws Failure:
// the file cannot be read, or the line is longer than a password can be.
void ReadPasswordFile(const std::string &path, Secret &password);

// Asks on the terminal without echo. Without a terminal it throws the error that says that a
// password is needed, as Failure with status 3.
void AskPassword(Secret &password, const CF::Error &required);

// As a string that is wiped when it is released. Throws Failure with status 3 when the
// password is not UTF-8.
CF::String ToString(const Secret &password);

} // namespace tool
