#include "manifest/SortedLines.hpp"

#include "Kelvane/Error.hpp"

#include <boost/filesystem/operations.hpp>
#include <boost/system/system_error.hpp>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <tuple>
#include <utility>

#include <unistd.h>

namespace Kelvane {

namespace {

constexpr std::size_t kWriteSize = std::size_t{1} << 20;

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
    boost::system::error_code ignored;
    boost::filesystem::remove(path_, ignored);
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
              [this](const Line &a, const Line &b) { return Precedes(a, b); });
}

bool SortedLines::Precedes(const Line &a, const Line &b) {
    const auto keyOf = [](const Line &line) { return std::tie(line.high, line.low); };
    if (keyOf(a) != keyOf(b)) {
        return keyOf(a) < keyOf(b);
    }
    return a.offset != b.offset && Read(a, first_) < Read(b, second_);
}

std::u16string_view SortedLines::Read(const Line &line, Text &text) {
    const auto count = static_cast<std::size_t>(line.countAndWidth / 2);
    const bool wide = (line.countAndWidth & 1) != 0;
    text.bytes.resize(wide ? count * sizeof(char16_t) : count);
    ReadBytes(line.offset, text.bytes);
    if (wide) {
        text.units.resize(count);
        std::memcpy(text.units.data(), text.bytes.data(), text.bytes.size());
    } else {
        text.units.assign(text.bytes.begin(), text.bytes.end());
    }
    return text.units;
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
