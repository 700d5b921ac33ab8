// Where entries stood in the manifest that they were read from.
//
// A manifest that is written again keeps the rows and records of its source wherever nobody
// changed an entry, so each entry remembers its place there. A place means something in one
// source only: entries of another backup, which hosts may put into a manifest, must not be taken
// for it. Each reading of a manifest therefore has a number of its own, which its entries bear.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

namespace Kelvane {

// An entry's place; eight bytes, for there are a million of them.
class EntryOrigin {
  public:
    // The largest ordinal; sources have far fewer entries.
    static constexpr std::uint32_t kHighestOrdinal = 0x7FFFFFFF;

    // None: the entry was not read from a manifest.
    constexpr EntryOrigin() noexcept : ordinal_(0), changed_(0) {}
    constexpr EntryOrigin(std::uint32_t reading, std::uint32_t ordinal) noexcept
        : reading_(reading), ordinal_(ordinal & kHighestOrdinal), changed_(0) {}

    bool IsOf(std::uint32_t reading) const noexcept { return reading_ == reading && reading != 0; }
    // Among the entries of the source, counted from 0 in the order in which it has them.
    std::uint32_t Ordinal() const noexcept { return ordinal_; }
    // What the entry says is no longer what its row says.
    bool IsChanged() const noexcept { return changed_ != 0; }
    void MarkChanged() noexcept { changed_ = 1; }

  private:
    std::uint32_t reading_ = 0; // 0 for none
    std::uint32_t ordinal_ : 31;
    std::uint32_t changed_ : 1;
};

// One reading of a manifest: its number, and where its entries' rows are. Completed by the reader
// and shared by the manifest and its copies, which never change it.
class ManifestSource {
  public:
    // With a number that no other has in this process.
    ManifestSource() noexcept;

    // The origin of the next entry in order. The row ID is that of its row in a database; a
    // source has them for all entries or for none.
    EntryOrigin AddEntry(std::optional<std::int64_t> rowID = std::nullopt);

    std::uint32_t Reading() const noexcept { return reading_; }
    std::uint32_t EntryCount() const noexcept { return entryCount_; }
    // The row ID of an entry; none when the source has none.
    std::optional<std::int64_t> RowIDOf(std::uint32_t ordinal) const noexcept;

  private:
    // Entries one after another whose rows are numbered one after another, as nearly all are.
    struct Run {
        std::uint32_t firstOrdinal;
        std::int64_t firstRowID;
    };

    std::uint32_t reading_;
    std::uint32_t entryCount_ = 0;
    std::vector<Run> runs_;
};

} // namespace Kelvane
