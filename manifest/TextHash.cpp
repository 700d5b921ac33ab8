#include "manifest/TextHash.hpp"

#include "support/zk/Encryption.hpp"

#include <algorithm>
#include <array>
#include <cstring>
#include <exception>
#include <vector>

namespace Kelvane {

namespace {

// Hashed at a time: most paths in one go. A multiple of the units of a step.
constexpr CFIndex kChunk = 96;
constexpr CFIndex kStep = 8;
static_assert(kChunk % kStep == 0);

using Units = std::array<UniChar, kChunk>;
using Secret = std::array<std::uint64_t, 3>;

Secret DrawSecret() noexcept {
    Secret secret = {0x9E3779B97F4A7C15, 0xC2B2AE3D27D4EB4F, 0x165667B19E3779F9};
    try {
        const std::vector<std::uint8_t> random = ZK::Encryption::RandomBytes(sizeof secret);
        std::memcpy(secret.data(), random.data(), sizeof secret);
    } catch (const std::exception &) {
        // Without random bytes the constants stand: lookups work, if less guarded.
        return secret;
    }
    return secret;
}

// Both halves of the product of all 64 bits: every input bit reaches every output bit.
std::uint64_t MultiplyFold(std::uint64_t a, std::uint64_t b) noexcept {
    __extension__ using Wide = unsigned __int128;
    const Wide product = static_cast<Wide>(a) * b;
    return static_cast<std::uint64_t>(product) ^ static_cast<std::uint64_t>(product >> 64);
}

// The units past the length are overwritten with zeros up to a whole step.
std::uint64_t MixUnits(std::uint64_t state, Units &units, CFIndex length, const Secret &secret) {
    const CFIndex end = (length + kStep - 1) / kStep * kStep;
    std::fill(units.begin() + length, units.begin() + end, UniChar{0});
    for (CFIndex i = 0; i < end; i += kStep) {
        std::array<std::uint64_t, 2> words;
        std::memcpy(words.data(), units.data() + i, sizeof words);
        state = MultiplyFold(words[0] ^ secret[1], words[1] ^ state);
    }
    return state;
}

} // namespace

std::uint32_t HashText(CFStringRef text) noexcept {
    static const Secret secret = DrawSecret();
    const CFIndex length = text == nullptr ? 0 : CFStringGetLength(text);
    std::uint64_t state = secret[0];
    Units units;
    for (CFIndex at = 0; at < length; at += kChunk) {
        const CFIndex count = std::min(kChunk, length - at);
        CFStringGetCharacters(text, CFRangeMake(at, count), units.data());
        state = MixUnits(state, units, count, secret);
    }
    const auto size = static_cast<std::uint64_t>(length);
    return static_cast<std::uint32_t>(MultiplyFold(state ^ secret[2], size ^ secret[1]));
}

} // namespace Kelvane
