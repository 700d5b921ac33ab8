#include "corefoundation/ContentHash.hpp"

#include <array>
#include <cstring>
#include <ctime>
#include <unistd.h>

namespace CFInternal {

namespace {

struct Secret {
    std::array<std::uint64_t, 4> words;
};

Secret drawSecret() noexcept {
    // Stands alone where the kernel has no random bytes to give.
    Secret secret{{0x9E3779B97F4A7C15, 0xC2B2AE3D27D4EB4F, 0x165667B19E3779F9,
                   static_cast<std::uint64_t>(std::time(nullptr))}};
    (void)!getentropy(secret.words.data(), sizeof(secret.words));
    return secret;
}

const Secret &secretOfProcess() noexcept {
    static const Secret secret = drawSecret();
    return secret;
}

// Both halves of the product of all 64 bits: every input bit reaches every output bit.
std::uint64_t multiplyFold(std::uint64_t a, std::uint64_t b) noexcept {
    __extension__ using Wide = unsigned __int128;
    const Wide product = static_cast<Wide>(a) * b;
    return static_cast<std::uint64_t>(product) ^ static_cast<std::uint64_t>(product >> 64);
}

// Eight units from position i as one word, the missing ones of the last word as zero.
struct ByteWords {
    const std::uint8_t *bytes;
    std::uint64_t whole(std::size_t i) const {
        std::uint64_t word;
        std::memcpy(&word, bytes + i, sizeof(word));
        return word;
    }
    std::uint64_t partial(std::size_t i, std::size_t count) const {
        std::uint64_t word = 0;
        std::memcpy(&word, bytes + i, count);
        return word;
    }
};

// The same words from ASCII text stored wide.
struct NarrowingWords {
    const UniChar *units;
    std::uint64_t whole(std::size_t i) const { return partial(i, 8); }
    std::uint64_t partial(std::size_t i, std::size_t count) const {
        std::array<std::uint8_t, 8> bytes{};
        for (std::size_t k = 0; k < count; ++k) {
            bytes[k] = static_cast<std::uint8_t>(units[i + k]);
        }
        std::uint64_t word;
        std::memcpy(&word, bytes.data(), sizeof(word));
        return word;
    }
};

template <class Words>
CFHashCode hashWords(Words words, std::size_t size) noexcept {
    const auto &secret = secretOfProcess().words;
    std::uint64_t state = secret[0];
    std::size_t i = 0;
    for (; size - i >= 16; i += 16) {
        state = multiplyFold(words.whole(i) ^ secret[1], words.whole(i + 8) ^ state);
    }
    std::uint64_t first = 0;
    std::uint64_t second = 0;
    if (size - i >= 8) {
        first = words.whole(i);
        i += 8;
    }
    if (size - i > 0) {
        second = words.partial(i, size - i);
    }
    state = multiplyFold(first ^ secret[2], second ^ state);
    return multiplyFold(state ^ secret[3], size ^ secret[1]);
}

} // namespace

CFHashCode hashBytes(const void *bytes, std::size_t size) noexcept {
    return hashWords(ByteWords{static_cast<const std::uint8_t *>(bytes)}, size);
}

CFHashCode hashText(const TextView &text) noexcept {
    if (text.wide && isASCII(text.wideUnits(), text.length)) {
        return hashWords(NarrowingWords{text.wideUnits()}, static_cast<std::size_t>(text.length));
    }
    return hashBytes(text.data, text.byteSize());
}

} // namespace CFInternal
