#include "support/zk/WipeStack.hpp"

#include "tests/support/Bytes.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>

#include <fcntl.h>
#include <unistd.h>

namespace {

using testing_support::Bytes;
using testing_support::Pattern;

// What the process's memory holds at an address, whatever the language says of the object there.
class Memory {
  public:
    Memory() : fd_(::open("/proc/self/mem", O_RDONLY | O_CLOEXEC)) {}
    Memory(const Memory &) = delete;
    Memory &operator=(const Memory &) = delete;
    ~Memory() { ::close(fd_); }
    bool isOpen() const { return fd_ >= 0; }
    Bytes at(std::uintptr_t address, std::size_t size) const {
        Bytes bytes(size);
        const auto count = ::pread(fd_, bytes.data(), size, static_cast<::off_t>(address));
        EXPECT_EQ(count, static_cast<::ssize_t>(size));
        return bytes;
    }

  private:
    int fd_;
};

// Leaves the bytes in its frame, deeper than what looks at them gets, and returns where that was.
[[gnu::noinline]] std::uintptr_t leaveBehind(const Bytes &bytes) {
    volatile std::uint8_t frame[8192];
    std::copy(bytes.begin(), bytes.end(), frame);
    static std::uintptr_t address = 0;
    address = reinterpret_cast<std::uintptr_t>(&frame[0]);
    return address;
}

TEST(WipeStack, LeavesNothingOfFunctionsThatHaveReturned) {
    const Memory memory;
    if (!memory.isOpen()) {
        GTEST_SKIP() << "the process cannot read its own memory here";
    }
    const Bytes secret = Pattern(64, 7);
    const std::uintptr_t address = leaveBehind(secret);
    ASSERT_EQ(memory.at(address, secret.size()), secret) << "it is not even there before";
    ZK::WipeStack();
    EXPECT_NE(memory.at(address, secret.size()), secret);
}

TEST(WipeStack, IsDoneWhenAScopeIsLeft) {
    const Memory memory;
    if (!memory.isOpen()) {
        GTEST_SKIP() << "the process cannot read its own memory here";
    }
    const Bytes secret = Pattern(64, 8);
    std::uintptr_t address = 0;
    {
        const ZK::WipeStackOnExit wipe;
        address = leaveBehind(secret);
    }
    EXPECT_NE(memory.at(address, secret.size()), secret);
}

#if defined(__x86_64__)
TEST(WipeStack, LeavesNothingInVectorRegisters) {
    const Bytes secret = Pattern(16, 9);
    Bytes after(16);
    asm volatile("movdqu (%0), %%xmm7" : : "r"(secret.data()) : "xmm7", "memory");
    ZK::WipeStack();
    asm volatile("movdqu %%xmm7, (%0)" : : "r"(after.data()) : "memory");
    EXPECT_EQ(after, Bytes(16));
}
#endif

} // namespace
