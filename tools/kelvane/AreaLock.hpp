// Tells whether the owner of a temporary area lives.
//
// Each area holds a file that its owner keeps locked; the lock goes with the process, however it
// ends. A file system that knows no locks keeps none, and then an area is never taken for
// abandoned. The file is the last one to be removed from an area, so that one whose removal was
// cut short is still known for what it is.
#pragma once

#include <string>

namespace tool {

// Areas are called this and six more characters.
inline constexpr const char *kAreaPrefix = "kelvane-";
inline constexpr const char *kAreaLockName = "owner.lock";

class AreaLock {
  public:
    AreaLock() noexcept = default;
    AreaLock(AreaLock &&other) noexcept;
    AreaLock &operator=(AreaLock &&other) noexcept;
    ~AreaLock();

    // Makes and takes the lock of an area that was just made, an open directory. Not held
    // afterwards, with errno, when that failed: EAGAIN or ENOENT when another process took the
    // area for abandoned before the lock was taken.
    static AreaLock Make(int area) noexcept;
    // Takes the lock of an area whose owner is gone. Not held when it lives, or when nobody can
    // tell; with ENOENT in errno when there is no lock.
    static AreaLock TakeOver(int area) noexcept;

    bool IsHeld() const noexcept { return fd_ >= 0; }

  private:
    explicit AreaLock(int fd) noexcept : fd_(fd) {}
    int fd_ = -1;
};

} // namespace tool
