// A progress bar on standard error, when that is a terminal.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace tool {

// Shows bytes done, the rate and the time left; redraws a few times a second at most.
class ProgressBar {
  public:
    explicit ProgressBar(std::int64_t totalBytes);
    ProgressBar(const ProgressBar &) = delete;
    ProgressBar &operator=(const ProgressBar &) = delete;
    // Clears the line.
    ~ProgressBar();

    void Advance(std::int64_t bytes);
    // Clears the line, which each message does by itself; the next redraw brings the bar back.
    void Hide();

  private:
    using Clock = std::chrono::steady_clock;
    void draw();
    std::string line() const;

    bool active_;
    bool shown_ = false;
    std::int64_t total_;
    std::int64_t done_ = 0;
    Clock::time_point start_ = Clock::now();
    Clock::time_point drawn_{};
};

} // namespace tool
