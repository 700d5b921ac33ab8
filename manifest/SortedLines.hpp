// Lines in sorted order, more of them than memory should hold.
#pragma once

#include "support/zk/File.hpp"

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace Kelvane {

// Gathers lines in a file, of mode 0600, and gives them back sorted by their UTF-16 code
// units. In memory it keeps 32 bytes a line, which hold the beginning: the file is read to
// compare lines only when they begin alike. Throws CF::Error, code 3, when the file cannot
// be made, written or read.
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
    // The line at that place of the sorted order, good until the next call.
    std::u16string_view At(std::size_t place) { return Read(lines_[place], first_); }

  private:
    // The first units, to be compared as numbers, and where all of them are.
    struct Line {
        std::uint64_t high;
        std::uint64_t low;
        std::uint64_t offset;
        std::uint64_t countAndWidth; // twice the number of units, and 1 for two-byte units
    };
    // A line as it is read: its bytes in the file and its units.
    struct Text {
        std::vector<std::uint8_t> bytes;
        std::u16string units;
    };

    void Flush();
    bool Precedes(const Line &a, const Line &b);
    std::u16string_view Read(const Line &line, Text &text);
    void ReadBytes(std::uint64_t offset, std::vector<std::uint8_t> &bytes);
    [[noreturn]] void Fail(int error) const;

    std::string path_;
    ZK::file::writable_file output_;
    ZK::file::readable_file input_;
    std::vector<std::uint8_t> pending_; // to be written
    std::uint64_t end_ = 0;             // of what was added
    std::vector<Line> lines_;
    std::uint64_t unitCount_ = 0;
    bool isAscii_ = true;
    Text first_;
    Text second_;
};

} // namespace Kelvane
