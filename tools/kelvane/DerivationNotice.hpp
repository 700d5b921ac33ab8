// What is said while a password is checked for minutes.
#pragma once

#include "KVBackupContainer.h"

#include <chrono>
#include <cstdint>

namespace tool {

// Silent for the derivations that devices ask for, which take a second or so. For longer ones
// says so, and on a terminal how far they are.
class DerivationNotice {
  public:
    DerivationNotice() = default;
    DerivationNotice(const DerivationNotice &) = delete;
    DerivationNotice &operator=(const DerivationNotice &) = delete;
    // Clears the line.
    ~DerivationNotice();

    // A KVBackupDerivationCallBack; the context is the object.
    static Boolean Report(uint64_t done, uint64_t total, void *context);

  private:
    using Clock = std::chrono::steady_clock;
    static void clear();
    void begin(std::uint64_t total);
    void draw(std::uint64_t done, std::uint64_t total);

    bool drawing_ = false;
    Clock::time_point start_;
    Clock::time_point drawn_;
};

} // namespace tool
