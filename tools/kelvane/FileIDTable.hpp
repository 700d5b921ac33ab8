// The file IDs of a backup's entries in little room.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tool {

// File IDs with the indexes of their entries. A backup holds up to a million: an ID of 40
// hexadecimal digits takes 24 bytes here. Add all, sort once, then look.
class FileIDTable {
  public:
    void Add(std::string_view fileID, std::uint32_t index);
    void Sort();

    // Two entries of one ID: of each ID the first entry, with each other one.
    struct Repetition {
        std::uint32_t first;
        std::uint32_t other;
    };
    std::vector<Repetition> Repetitions() const;

    // The number of an ID, below Size(); the same for each look-up of it.
    std::optional<std::size_t> Find(std::string_view fileID) const;
    // True when an ID begins so.
    bool AnyBeginsWith(std::string_view start) const;
    std::size_t Size() const noexcept { return digests_.size() + others_.size(); }

  private:
    using Digest = std::array<std::uint8_t, 20>;
    template <class ID>
    struct Item {
        ID id;
        std::uint32_t index;
        auto operator<=>(const Item &) const = default;
    };
    static std::optional<Digest> parse(std::string_view fileID);

    std::vector<Item<Digest>> digests_;
    std::vector<Item<std::string>> others_;
};

} // namespace tool
