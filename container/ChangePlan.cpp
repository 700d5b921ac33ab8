#include "container/ChangePlan.hpp"

#include "container/ChangeJournal.hpp"
#include "container/StoredName.hpp"
#include "support/zk/Encryption.hpp"
#include "support/zk/Math.hpp"
#include "support/zk/RootDirectory.hpp"

#include <charconv>
#include <span>

namespace Kelvane {

namespace {

constexpr std::string_view kForm = "kelvane changes 1\n";
constexpr std::string_view kPut = "put ";
constexpr std::string_view kRemove = "remove ";
constexpr std::string_view kEnd = "end ";

std::span<const std::uint8_t> bytesOf(std::string_view text) {
    return {reinterpret_cast<const std::uint8_t *>(text.data()), text.size()};
}

std::string digestOf(std::string_view text) {
    return ZK::Math::hex_encode(ZK::Encryption::SHA1(bytesOf(text)));
}

int digitOf(char character) {
    if (character >= '0' && character <= '9') {
        return character - '0';
    }
    return character >= 'a' && character <= 'f' ? character - 'a' + 10 : -1;
}

std::optional<std::string> decodeName(std::string_view text) {
    if (text.size() % 2 != 0) {
        return std::nullopt;
    }
    std::string name;
    for (std::size_t i = 0; i < text.size(); i += 2) {
        const int high = digitOf(text[i]);
        const int low = digitOf(text[i + 1]);
        if (high < 0 || low < 0) {
            return std::nullopt;
        }
        name += static_cast<char>(high * 16 + low);
    }
    const bool inFolder = name.substr(0, name.find('/')) == kJournalName;
    if (!ZK::file::is_safe_name(name) || inFolder) {
        return std::nullopt;
    }
    return name;
}

std::optional<PlannedChange> parseLine(std::string_view line) {
    PlannedChange change;
    if (line.starts_with(kPut)) {
        change.puts = true;
        const char *const first = line.data() + kPut.size();
        const char *const last = line.data() + line.size();
        const auto [end, error] = std::from_chars(first, last, change.number);
        if (error != std::errc() || end == last || *end != ' ') {
            return std::nullopt;
        }
        line.remove_prefix(static_cast<std::size_t>(end + 1 - line.data()));
    } else if (line.starts_with(kRemove)) {
        line.remove_prefix(kRemove.size());
    } else {
        return std::nullopt;
    }
    const auto name = decodeName(line);
    if (!name) {
        return std::nullopt;
    }
    // No change takes the manifest or metadata away.
    if (!change.puts && IsMetadataName(CF::String(*name).get())) {
        return std::nullopt;
    }
    change.name = *name;
    return change;
}

} // namespace

std::string FormatPlan(const std::vector<PlannedChange> &changes) {
    std::string text(kForm);
    for (const PlannedChange &change : changes) {
        text += change.puts ? std::string(kPut) + std::to_string(change.number) + " "
                            : std::string(kRemove);
        text += FormatName(change.name);
    }
    return text + std::string(kEnd) + digestOf(text) + "\n";
}

std::string FormatName(const std::string &name) {
    return ZK::Math::hex_encode(bytesOf(name)) + "\n";
}

std::vector<std::string> ParseNames(std::string_view text) {
    std::vector<std::string> names;
    for (std::size_t end = text.find('\n'); end != std::string_view::npos; end = text.find('\n')) {
        if (const auto name = decodeName(text.substr(0, end))) {
            names.push_back(*name);
        }
        text.remove_prefix(end + 1);
    }
    return names;
}

std::optional<std::vector<PlannedChange>> ParsePlan(std::string_view text) {
    const std::size_t end = text.rfind(kEnd);
    if (!text.starts_with(kForm) || end == std::string_view::npos || text[end - 1] != '\n' ||
        text.substr(end) != std::string(kEnd) + digestOf(text.substr(0, end)) + "\n") {
        return std::nullopt;
    }
    std::vector<PlannedChange> changes;
    std::string_view lines = text.substr(kForm.size(), end - kForm.size());
    while (!lines.empty()) {
        const std::size_t length = lines.find('\n');
        const auto change = parseLine(lines.substr(0, length));
        if (!change) {
            return std::nullopt;
        }
        changes.push_back(*change);
        lines.remove_prefix(length + 1);
    }
    return changes;
}

} // namespace Kelvane
