#include "ProgressBar.hpp"

#include "Diagnostics.hpp"
#include "Units.hpp"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <sys/ioctl.h>
#include <unistd.h>

namespace tool {

namespace {

constexpr auto kRedrawInterval = std::chrono::milliseconds(100);
constexpr std::size_t kDefaultColumns = 80;

std::size_t terminalColumns() {
    winsize size{};
    if (ioctl(STDERR_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_col == 0) {
        return kDefaultColumns;
    }
    return size.ws_col;
}

} // namespace

ProgressBar::ProgressBar(std::int64_t totalBytes)
    : active_(isatty(STDERR_FILENO) == 1), total_(std::max<std::int64_t>(totalBytes, 0)) {
    if (active_) {
        SetBeforeMessage([this] { Hide(); });
        draw();
    }
}

ProgressBar::~ProgressBar() {
    Hide();
    SetBeforeMessage(nullptr);
}

void ProgressBar::Advance(std::int64_t bytes) {
    // Sizes come from the backup and may be anything.
    const std::int64_t step = std::max<std::int64_t>(bytes, 0);
    done_ = step > INT64_MAX - done_ ? INT64_MAX : done_ + step;
    const auto now = Clock::now();
    if (active_ && now - drawn_ >= kRedrawInterval) {
        drawn_ = now;
        draw();
    }
}

void ProgressBar::Hide() {
    if (shown_) {
        std::fputs("\r\033[K", stderr);
        std::fflush(stderr);
        shown_ = false;
    }
}

std::string ProgressBar::line() const {
    const double elapsed = std::chrono::duration<double>(Clock::now() - start_).count();
    const double rate = elapsed > 0 ? static_cast<double>(done_) / elapsed : 0;
    // Sizes in a manifest need not be true, so the total may be passed.
    const double fraction =
        total_ > 0 ? std::min(1.0, static_cast<double>(done_) / static_cast<double>(total_)) : 0;
    std::string text =
        " " + SizeText(done_) + " of " + SizeText(total_) + ", " + SizeText(ToInteger(rate)) + "/s";
    if (rate > 0 && done_ < total_) {
        text += ", " + DurationText(static_cast<double>(total_ - done_) / rate) + " left";
    }
    const std::size_t columns = terminalColumns();
    const std::size_t width = columns > text.size() + 12 ? columns - text.size() - 3 : 10;
    const auto filled = static_cast<std::size_t>(fraction * static_cast<double>(width));
    text = "[" + std::string(filled, '#') + std::string(width - filled, '.') + "]" + text;
    // A line that wraps could not be cleared.
    return text.substr(0, columns - 1);
}

void ProgressBar::draw() {
    const std::string text = "\r" + line() + "\033[K";
    std::fwrite(text.data(), 1, text.size(), stderr);
    std::fflush(stderr);
    shown_ = true;
}

} // namespace tool
