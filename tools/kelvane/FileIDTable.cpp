#include "FileIDTable.hpp"

#include <algorithm>
#include <span>
#include <tuple>

namespace tool {

namespace {

// -1 for what is no lower-case hexadecimal digit: file IDs that differ in case are different.
int digitValue(char c) {
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    return c >= 'a' && c <= 'f' ? c - 'a' + 10 : -1;
}

std::string textOf(std::span<const std::uint8_t> digest) {
    constexpr const char *kDigits = "0123456789abcdef";
    std::string text;
    for (const std::uint8_t byte : digest) {
        text += kDigits[byte >> 4];
        text += kDigits[byte & 15];
    }
    return text;
}

template <class Items>
void appendRepetitions(const Items &items, std::vector<FileIDTable::Repetition> &result) {
    std::size_t first = 0;
    for (std::size_t i = 1; i < items.size(); ++i) {
        if (items[i].id == items[first].id) {
            result.push_back({items[first].index, items[i].index});
        } else {
            first = i;
        }
    }
}

template <class Items, class ID>
std::optional<std::size_t> positionOf(const Items &items, const ID &id) {
    const auto found = std::ranges::lower_bound(
        items, id, {}, [](const auto &item) -> const ID & { return item.id; });
    if (found == items.end() || found->id != id) {
        return std::nullopt;
    }
    return static_cast<std::size_t>(found - items.begin());
}

} // namespace

std::optional<FileIDTable::Digest> FileIDTable::parse(std::string_view fileID) {
    Digest digest;
    if (fileID.size() != 2 * digest.size()) {
        return std::nullopt;
    }
    for (std::size_t i = 0; i < digest.size(); ++i) {
        const int high = digitValue(fileID[2 * i]);
        const int low = digitValue(fileID[2 * i + 1]);
        if (high < 0 || low < 0) {
            return std::nullopt;
        }
        digest[i] = static_cast<std::uint8_t>(high * 16 + low);
    }
    return digest;
}

void FileIDTable::Add(std::string_view fileID, std::uint32_t index) {
    if (const auto digest = parse(fileID)) {
        digests_.push_back({*digest, index});
    } else {
        others_.push_back({std::string(fileID), index});
    }
}

void FileIDTable::Sort() {
    std::ranges::sort(digests_);
    std::ranges::sort(others_);
}

std::vector<FileIDTable::Repetition> FileIDTable::Repetitions() const {
    std::vector<Repetition> result;
    appendRepetitions(digests_, result);
    appendRepetitions(others_, result);
    return result;
}

std::optional<std::size_t> FileIDTable::Find(std::string_view fileID) const {
    if (const auto digest = parse(fileID)) {
        return positionOf(digests_, *digest);
    }
    const auto position = positionOf(others_, std::string(fileID));
    return position ? std::optional(digests_.size() + *position) : std::nullopt;
}

bool FileIDTable::AnyBeginsWith(std::string_view start) const {
    std::string least(start);
    least.resize(std::max(start.size(), 2 * std::tuple_size_v<Digest>), '0');
    if (const auto digest = parse(least)) {
        const auto found = std::ranges::lower_bound(digests_, *digest, {}, &Item<Digest>::id);
        if (found != digests_.end() && textOf(found->id).starts_with(start)) {
            return true;
        }
    }
    const auto found =
        std::ranges::lower_bound(others_, std::string(start), {}, &Item<std::string>::id);
    return found != others_.end() && found->id.starts_with(start);
}

} // namespace tool
