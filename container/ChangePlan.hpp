// The plan of a change, as text.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Kelvane {

struct PlannedChange {
    bool puts = false; // the new file of that number gets the name; else the name goes
    std::size_t number = 0;
    std::string name;

    bool operator==(const PlannedChange &) const = default;
};

// Lines as container/ChangeJournal.hpp describes them.
std::string FormatPlan(const std::vector<PlannedChange> &changes);

// The changes of such a text; none when it is not whole and sound, or names what lies outside the
// backup or in the folder of changes itself.
std::optional<std::vector<PlannedChange>> ParsePlan(std::string_view text);

// A line with the name in hexadecimal, and the names of such lines; one that is not whole, or names
// what lies outside the backup or in the folder of changes, is passed over.
std::string FormatName(const std::string &name);
std::vector<std::string> ParseNames(std::string_view text);

} // namespace Kelvane
