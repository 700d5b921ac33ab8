#include "DerivationNotice.hpp"

#include "Diagnostics.hpp"
#include "Units.hpp"

#include <cstdio>
#include <string>
#include <unistd.h>

namespace tool {

namespace {

// Devices ask for ten million, a second or two of work.
constexpr std::uint64_t kWorthAWord = 50'000'000;
constexpr auto kRedrawInterval = std::chrono::milliseconds(200);

// "999,999,998".
std::string grouped(std::uint64_t number) {
    std::string text = std::to_string(number);
    for (auto i = static_cast<std::ptrdiff_t>(text.size()) - 3; i > 0; i -= 3) {
        text.insert(static_cast<std::size_t>(i), ",");
    }
    return text;
}

} // namespace

DerivationNotice::~DerivationNotice() {
    if (drawing_) {
        clear();
        SetBeforeMessage(nullptr);
    }
}

void DerivationNotice::clear() {
    std::fputs("\r\033[K", stderr);
    std::fflush(stderr);
}

Boolean DerivationNotice::Report(uint64_t done, uint64_t total, void *context) {
    auto &notice = *static_cast<DerivationNotice *>(context);
    if (total >= kWorthAWord) {
        if (done == 0) {
            notice.begin(total);
        } else if (notice.drawing_ && Clock::now() - notice.drawn_ >= kRedrawInterval) {
            notice.draw(done, total);
        }
    }
    return true;
}

void DerivationNotice::begin(std::uint64_t total) {
    PrintMessage("The password is being checked: " + grouped(total) +
                 " iterations, this takes minutes");
    start_ = Clock::now();
    drawing_ = isatty(STDERR_FILENO) == 1;
    if (drawing_) {
        SetBeforeMessage(&DerivationNotice::clear);
    }
}

void DerivationNotice::draw(std::uint64_t done, std::uint64_t total) {
    drawn_ = Clock::now();
    const double elapsed = std::chrono::duration<double>(drawn_ - start_).count();
    const double share = static_cast<double>(done) / static_cast<double>(total);
    const std::string line = "\r" + std::to_string(static_cast<int>(share * 100)) + " %, " +
                             DurationText(elapsed / share - elapsed) + " left\033[K";
    std::fwrite(line.data(), 1, line.size(), stderr);
    std::fflush(stderr);
}

} // namespace tool
