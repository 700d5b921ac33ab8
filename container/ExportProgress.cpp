#include "container/ExportProgress.hpp"

#include <utility>

namespace Kelvane {

namespace {

// No reports before a thousandth is written.
constexpr std::int64_t kSteps = 1000;
constexpr std::int64_t kLowestThreshold = 3;

} // namespace

ExportProgress::ExportProgress(std::function<void(double)> callback)
    : callback_(std::move(callback)) {}

void ExportProgress::Start() {
    if (callback_) {
        callback_(0.0);
    }
}

void ExportProgress::SetTotal(std::int64_t total) {
    total_ = total;
    const std::int64_t step = total / kSteps;
    threshold_ = step >= kLowestThreshold ? step : kLowestThreshold;
}

void ExportProgress::Count(std::size_t bytes) { written_ += static_cast<std::int64_t>(bytes); }

void ExportProgress::FileDone() {
    if (callback_ && written_ >= threshold_) {
        callback_(static_cast<double>(written_) / static_cast<double>(total_));
    }
}

} // namespace Kelvane
