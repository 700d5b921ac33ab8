#include "manifest/SortedLines.hpp"

#include "Kelvane/Error.hpp"

#include <boost/system/system_error.hpp>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <numeric>
#include <utility>

#include <unistd.h>

namespace Kelvane {

namespace {

constexpr std::size_t kWriteSize = std::size_t{1} << 20;

// What a key holds of its line.
constexpr std::size_t kKeyUnits = 8;
// Of lines that begin alike, as many units are read at a time, 16 MiB; fewer of each the more
// lines there are, but no fewer than a key holds.
constexpr std::size_t kMostUnits = std::size_t{8} << 20;
constexpr std::size_t kMostUnitsOfALine = std::size_t{32} << 10;

ZK::file::writable_file CreateFile(const std::string &path) {
    try {
        return ZK::file::writable_file::create_new(path);
    } catch (const boost::system::system_error &exception) {
        throw MakeFSError(exception, path);
    }
}

// Four units as one number that compares as they do; missing ones are 0.
std::uint64_t Packed(std::u16string_view line, std::size_t start) {
    std::uint64_t word = 0;
    for (std::size_t i = start; i < start + 4; ++i) {
        word = word << 16 | (i < line.size() ? line[i] : 0);
    }
    return word;
}

bool AllAscii(std::u16string_view line) {
    char16_t all = 0;
    for (const char16_t unit : line) {
        all = static_cast<char16_t>(all | unit);
    }
    return all < 0x80;
}

} // namespace

SortedLines::SortedLines(std::string path) : path_(std::move(path)), output_(CreateFile(path_)) {}

SortedLines::~SortedLines() {
    std::remove(path_.c_str()); // which takes no memory
}

void SortedLines::Add(std::u16string_view line) {
    const bool wide = !AllAscii(line);
    // The first unit is passed over: it is the quote that every line begins with.
    lines_.push_back({Packed(line, 1), Packed(line, 5), end_, 2 * line.size() + (wide ? 1 : 0)});
    const std::size_t size = line.size() * (wide ? sizeof(char16_t) : 1);
    const std::size_t start = pending_.size();
    pending_.resize(start + size);
    if (wide) {
        std::memcpy(pending_.data() + start, line.data(), size);
    } else {
        std::transform(line.begin(), line.end(),
                       pending_.begin() + static_cast<std::ptrdiff_t>(start),
                       [](char16_t unit) { return static_cast<std::uint8_t>(unit); });
    }
    end_ += size;
    unitCount_ += line.size();
    isAscii_ = isAscii_ && !wide;
    if (pending_.size() >= kWriteSize) {
        Flush();
    }
}

void SortedLines::Flush() {
    boost::system::error_code error;
    output_.write(pending_, error);
    if (error) {
        Fail(error.value());
    }
    pending_.clear();
}

void SortedLines::Sort() {
    Flush();
    // Its lock keeps readers out.
    boost::system::error_code error;
    output_.close(error);
    if (error) {
        Fail(error.value());
    }
    input_ = ZK::file::readable_file(path_, error);
    if (error) {
        Fail(error.value());
    }
    std::sort(lines_.begin(), lines_.end(),
              [](const Line &a, const Line &b) { return a.Key() < b.Key(); });
    SortAlikeBeginnings();
}

// Lines that begin alike are sorted by their next units, then those that are alike in these by
// the ones behind them, and so on: each unit is read once, and never to compare two lines.
void SortedLines::SortAlikeBeginnings() {
    std::vector<Run> runs;
    std::size_t begin = 0;
    for (std::size_t i = 1; i <= lines_.size(); ++i) {
        if (i == lines_.size() || lines_[i].Key() != lines_[begin].Key()) {
            AddRun(runs, {begin, i, kKeyUnits + 1});
            begin = i;
        }
    }
    while (!runs.empty()) {
        const Run run = runs.back();
        runs.pop_back();
        SortRun(run, runs);
    }
}

void SortedLines::AddRun(std::vector<Run> &runs, const Run &run) {
    if (run.end - run.begin > 1) {
        runs.push_back(run);
    }
}

void SortedLines::SortRun(const Run &run, std::vector<Run> &runs) {
    const std::size_t count = run.end - run.begin;
    const Parts parts = ReadParts(run);
    // Lines that are alike up to their ends can differ in the NULs there, which look like
    // missing units in a key.
    const auto keyOf = [&](std::uint32_t i) {
        const bool ended = parts.At(i).size() < parts.width;
        return std::pair(parts.At(i), ended ? lines_[run.begin + i].Count() : 0);
    };
    std::vector<std::uint32_t> order(count);
    std::iota(order.begin(), order.end(), 0U);
    std::sort(order.begin(), order.end(),
              [&](std::uint32_t a, std::uint32_t b) { return keyOf(a) < keyOf(b); });
    std::size_t begin = 0;
    for (std::size_t i = 1; i <= count; ++i) {
        if (i == count || parts.At(order[i]) != parts.At(order[begin])) {
            if (parts.At(order[begin]).size() == parts.width) {
                AddRun(runs, {run.begin + begin, run.begin + i, run.start + parts.width});
            }
            begin = i;
        }
    }
    Rearrange(run.begin, order);
}

// In place, cycle by cycle: there may be a million lines. Uses up the order.
void SortedLines::Rearrange(std::size_t begin, std::vector<std::uint32_t> &order) {
    for (std::uint32_t i = 0; i < order.size(); ++i) {
        const Line first = lines_[begin + i];
        std::uint32_t at = i;
        while (order[at] != i) {
            const std::uint32_t next = order[at];
            lines_[begin + at] = lines_[begin + next];
            order[at] = at;
            at = next;
        }
        lines_[begin + at] = first;
        order[at] = at;
    }
}

SortedLines::Parts SortedLines::ReadParts(const Run &run) {
    Parts parts;
    const std::size_t count = run.end - run.begin;
    parts.width = std::clamp(kMostUnits / count, kKeyUnits, kMostUnitsOfALine);
    parts.lengths.reserve(count);
    parts.units.resize(count * parts.width);
    for (std::size_t i = 0; i < count; ++i) {
        const Line &line = lines_[run.begin + i];
        const std::uint64_t start = std::min<std::uint64_t>(run.start, line.Count());
        const std::uint64_t length = std::min<std::uint64_t>(parts.width, line.Count() - start);
        const std::u16string_view part = Read(line, start, length);
        std::copy(part.begin(), part.end(), parts.units.data() + i * parts.width);
        parts.lengths.push_back(static_cast<std::uint32_t>(length));
    }
    return parts;
}

std::u16string_view SortedLines::Read(const Line &line, std::uint64_t start, std::uint64_t count) {
    const std::size_t unitSize = line.IsWide() ? sizeof(char16_t) : 1;
    unitsRead_ += count;
    bytes_.resize(static_cast<std::size_t>(count) * unitSize);
    ReadBytes(line.offset + start * unitSize, bytes_);
    if (line.IsWide()) {
        units_.resize(static_cast<std::size_t>(count));
        if (count > 0) { // of nothing there is no address to copy from
            std::memcpy(units_.data(), bytes_.data(), bytes_.size());
        }
    } else {
        units_.assign(bytes_.begin(), bytes_.end());
    }
    return units_;
}

void SortedLines::ReadBytes(std::uint64_t offset, std::vector<std::uint8_t> &bytes) {
    std::size_t done = 0;
    while (done < bytes.size()) {
        const ::ssize_t count = ::pread(input_.native_handle(), bytes.data() + done,
                                        bytes.size() - done, static_cast<::off_t>(offset + done));
        if (count > 0) {
            done += static_cast<std::size_t>(count);
        } else if (count == 0 || errno != EINTR) {
            Fail(count == 0 ? EIO : errno);
        }
    }
}

void SortedLines::Fail(int error) const {
    throw MakeFSError(error, CFSTR("Failed to sort lines in temporary file: %s"), path_.c_str());
}

} // namespace Kelvane
