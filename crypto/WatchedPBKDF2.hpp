// PBKDF2 for derivations that may take minutes.
#pragma once

#include <cstdint>
#include <functional>
#include <span>

namespace Kelvane {

// Told now and then how many rounds were done since it was last told. False ends the derivation;
// what it throws passes through.
using RoundObserver = std::function<bool(std::uint32_t rounds)>;

struct PBKDF2Input {
    std::span<const std::uint8_t> password;
    std::span<const std::uint8_t> salt;
    std::uint32_t iterations;
};

// What fastpbkdf2_hmac_sha256 and fastpbkdf2_hmac_sha1 do. Each block of output takes all the
// iterations. False when the observer ended it, and the output is then of no use; an empty
// observer is never called.
bool DeriveBySHA256(const PBKDF2Input &input, std::span<std::uint8_t> output,
                    const RoundObserver &observer);
bool DeriveBySHA1(const PBKDF2Input &input, std::span<std::uint8_t> output,
                  const RoundObserver &observer);

} // namespace Kelvane
