#include "ForeignFile.hpp"

#include <algorithm>
#include <array>
#include <string>

namespace tool {

namespace {

// In lower case, since the file systems they come from do not tell the case.
constexpr std::array<std::string_view, 3> kNames = {".ds_store", "thumbs.db", "desktop.ini"};
// What an archiver or a foreign file system keeps of a file's attributes.
constexpr std::string_view kAttributes = "._";
constexpr std::string_view kArchiversFolder = "__MACOSX/";

std::string inLowerCase(std::string_view text) {
    std::string lower(text);
    std::ranges::transform(lower, lower.begin(), [](char character) {
        const bool isCapital = character >= 'A' && character <= 'Z';
        return isCapital ? static_cast<char>(character - 'A' + 'a') : character;
    });
    return lower;
}

} // namespace

bool IsLeftByOthers(std::string_view storedName) {
    const std::string_view name = storedName.substr(storedName.rfind('/') + 1);
    return storedName.starts_with(kArchiversFolder) || name.starts_with(kAttributes) ||
           std::ranges::find(kNames, inLowerCase(name)) != kNames.end();
}

} // namespace tool
