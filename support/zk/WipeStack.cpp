#include "support/zk/WipeStack.hpp"

#include "support/zk/Secret.hpp"

#include <cstddef>
#include <cstdint>

namespace ZK {
namespace {

// Deeper than what works on keys ever gets, and far less than any thread's stack.
constexpr std::size_t kStackDepth = 16 * 1024;

#if defined(__x86_64__)

// Nothing lives in these registers across a call, so nobody needs to be told.
[[gnu::noinline, gnu::target("avx512f")]] void wipeUpperRegisters() noexcept {
    asm volatile("vpxord %zmm16, %zmm16, %zmm16; vpxord %zmm17, %zmm17, %zmm17;"
                 "vpxord %zmm18, %zmm18, %zmm18; vpxord %zmm19, %zmm19, %zmm19;"
                 "vpxord %zmm20, %zmm20, %zmm20; vpxord %zmm21, %zmm21, %zmm21;"
                 "vpxord %zmm22, %zmm22, %zmm22; vpxord %zmm23, %zmm23, %zmm23;"
                 "vpxord %zmm24, %zmm24, %zmm24; vpxord %zmm25, %zmm25, %zmm25;"
                 "vpxord %zmm26, %zmm26, %zmm26; vpxord %zmm27, %zmm27, %zmm27;"
                 "vpxord %zmm28, %zmm28, %zmm28; vpxord %zmm29, %zmm29, %zmm29;"
                 "vpxord %zmm30, %zmm30, %zmm30; vpxord %zmm31, %zmm31, %zmm31");
}

[[gnu::noinline, gnu::target("avx")]] void wipeWideRegisters() noexcept {
    asm volatile("vzeroall");
}

[[gnu::noinline]] void wipeNarrowRegisters() noexcept {
    asm volatile("pxor %xmm0, %xmm0; pxor %xmm1, %xmm1; pxor %xmm2, %xmm2; pxor %xmm3, %xmm3;"
                 "pxor %xmm4, %xmm4; pxor %xmm5, %xmm5; pxor %xmm6, %xmm6; pxor %xmm7, %xmm7;"
                 "pxor %xmm8, %xmm8; pxor %xmm9, %xmm9; pxor %xmm10, %xmm10;"
                 "pxor %xmm11, %xmm11; pxor %xmm12, %xmm12; pxor %xmm13, %xmm13;"
                 "pxor %xmm14, %xmm14; pxor %xmm15, %xmm15");
}

void wipeRegisters() noexcept {
    if (__builtin_cpu_supports("avx512f")) {
        wipeUpperRegisters();
    }
    if (__builtin_cpu_supports("avx")) {
        wipeWideRegisters();
    } else {
        wipeNarrowRegisters();
    }
}

#else

// Elsewhere the registers that hold parts of keys are few and soon used again.
void wipeRegisters() noexcept {}

#endif

} // namespace

[[gnu::noinline]] void WipeStack() noexcept {
    std::uint8_t dead[kStackDepth];
    Wipe(dead, sizeof dead);
    wipeRegisters();
}

} // namespace ZK
