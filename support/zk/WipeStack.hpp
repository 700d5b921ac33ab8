// What working with keys leaves behind where nobody looks for it.
#pragma once

namespace ZK {

// Overwrites what functions that have returned left on the stack below the caller's frame, and in
// the processor's vector registers: libcrypto's and the compiler's copies of keys, and what the
// dynamic linker saved of those registers. What is still on the stack is not touched.
void WipeStack() noexcept;

// Does so when the scope is left, however it is left. To be the first object of the scope.
class WipeStackOnExit {
  public:
    WipeStackOnExit() noexcept = default;
    WipeStackOnExit(const WipeStackOnExit &) = delete;
    WipeStackOnExit &operator=(const WipeStackOnExit &) = delete;
    ~WipeStackOnExit() { WipeStack(); }
};

} // namespace ZK
