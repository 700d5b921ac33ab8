#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>

namespace Kelvane {

// Tells the caller of an export how much of the manifest's total size is written.
class ExportProgress {
  public:
    // An empty callable means no reports.
    explicit ExportProgress(std::function<void(double)> callback);

    // Reports 0.0.
    void Start();
    // The size that fractions are taken of, in bytes. Whatever a backup says: 0 makes
    // fractions infinite, and more may be written than it says.
    void SetTotal(std::int64_t total);
    void Count(std::size_t bytes);
    std::int64_t Written() const noexcept { return written_; }
    // Reports the fraction, once a thousandth of the total is written.
    void FileDone();

  private:
    std::function<void(double)> callback_;
    std::int64_t total_ = 0;
    std::int64_t threshold_ = 0;
    std::int64_t written_ = 0;
};

} // namespace Kelvane
