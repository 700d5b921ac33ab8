// Why the stored content of an entry cannot be had.
#pragma once

#include "Diagnostics.hpp"

namespace tool {

struct Unloadable {
    const char *kind;    // a word for machines
    const char *message; // for people
};

// What the library's error says about the content.
Unloadable WhyUnloadable(const CF::Error &error);

// The same to be thrown or printed, with the causes that tell a user something.
Failure UnloadableContent(const CF::Error &error);

} // namespace tool
