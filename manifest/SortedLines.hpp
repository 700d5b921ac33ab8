// Lines in sorted order, more of them than memory should hold.
#pragma once

#include "support/zk/File.hpp"

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace Kelvane {

// Gathers lines in a file, of mode 0600, and gives them back sorted by their UTF-16 code
// units. In memory it keeps 32 bytes a line, which hold the beginning, and while it sorts lines
// that begin alike, 20 bytes more for each of them, or some 16 MiB. Throws CF::Error, code 3,
// when the file cannot be made, written or read.
class SortedLines {
  public:
    // Nothing may exist at the path. The file is removed at the end.
    explicit SortedLines(std::string path);
    ~SortedLines();
    SortedLines(const SortedLines &) = delete;
    SortedLines &operator=(const SortedLines &) = delete;

    void Add(std::u16string_view line);
    // Ends the adding.
    void Sort();

    std::size_t Count() const noexcept { return lines_.size(); }
    // The number of code units of all lines together.
    std::uint64_t UnitCount() const noexcept { return unitCount_; }
    // Whether every line is ASCII.
    bool IsAscii() const noexcept { return isAscii_; }
    // The number of code units read so far, for tests.
    std::uint64_t UnitsRead() const noexcept { return unitsRead_; }
    // The line at that place of the sorted order, good until the next call.
    std::u16string_view At(std::size_t place) {
        return Read(lines_[place], 0, lines_[place].Count());
    }

  private:
    // The first units, to be compared as numbers, and where all of them are.
    struct Line {
        std::uint64_t high;
        std::uint64_t low;
        std::uint64_t offset;
        std::uint64_t countAndWidth; // twice the number of units, and 1 for two-byte units

        std::pair<std::uint64_t, std::uint64_t> Key() const noexcept { return {high, low}; }
        std::uint64_t Count() const noexcept { return countAndWidth / 2; }
        bool IsWide() const noexcept { return (countAndWidth & 1) != 0; }
    };
    // Lines from begin up to end that are alike up to the unit start.
    struct Run {
        std::size_t begin;
        std::size_t end;
        std::size_t start;
    };
    // What the lines of a run have from its start on, width units at most. Fewer are the end of
    // a line.
    struct Parts {
        std::size_t width = 0;
        std::vector<char16_t> units;
        std::vector<std::uint32_t> lengths;

        std::u16string_view At(std::size_t i) const {
            return {units.data() + i * width, lengths[i]};
        }
    };

    void Flush();
    void SortAlikeBeginnings();
    void SortRun(const Run &run, std::vector<Run> &runs);
    static void AddRun(std::vector<Run> &runs, const Run &run);
    void Rearrange(std::size_t begin, std::vector<std::uint32_t> &order);
    Parts ReadParts(const Run &run);
    // Units of a line, good until the next call.
    std::u16string_view Read(const Line &line, std::uint64_t start, std::uint64_t count);
    void ReadBytes(std::uint64_t offset, std::vector<std::uint8_t> &bytes);
    [[noreturn]] void Fail(int error) const;

    std::string path_;
    ZK::file::writable_file output_;
    ZK::file::readable_file input_;
    std::vector<std::uint8_t> pending_; // to be written
    std::uint64_t end_ = 0;             // of what was added
    std::vector<Line> lines_;
    std::uint64_t unitCount_ = 0;
    std::uint64_t unitsRead_ = 0;
    bool isAscii_ = true;
    // As it is read.
    std::vector<std::uint8_t> bytes_;
    std::u16string units_;
};

} // namespace Kelvane
