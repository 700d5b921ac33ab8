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

// A word made of the eight units from position i on, and one made of 1 to 7 units.
struct ByteWords {
    const std::uint8_t *bytes;
    std::uint64_t whole(std::size_t i) const {
        std::uint64_t word;
        std::memcpy(&word, bytes + i, sizeof(word));
        return word;
    }
    std::uint8_t unit(std::size_t i) const { return bytes[i]; }
};

// The same words from ASCII text stored wide.
struct NarrowingWords {
    const UniChar *units;
    std::uint64_t whole(std::size_t i) const {
        std::array<std::uint8_t, 8> bytes;
        for (std::size_t k = 0; k < bytes.size(); ++k) {
            bytes[k] = unit(i + k);
        }
        return ByteWords{bytes.data()}.whole(0);
    }
    std::uint8_t unit(std::size_t i) const { return static_cast<std::uint8_t>(units[i]); }
};

template <class Words>
std::uint64_t shortWord(Words words, std::size_t size) noexcept {
    std::uint64_t word = 0;
    for (std::size_t i = 0; i < size; ++i) {
        word = word << 8 | words.unit(i);
    }
    return word;
}

template <class Words>
CFHashCode hashWords(Words words, std::size_t size) noexcept {
    const auto &secret = secretOfProcess().words;
    std::uint64_t state = secret[0];
    std::uint64_t first = 0;
    std::uint64_t second = 0;
    if (size < 8) {
        first = shortWord(words, size);
    } else {
        for (std::size_t i = 0; size - i > 16; i += 16) {
            state = multiplyFold(words.whole(i) ^ secret[1], words.whole(i + 8) ^ state);
        }
        // The last words may overlap the ones before: cheaper than a partial word.
        first = words.whole(size < 16 ? 0 : size - 16);
        second = words.whole(size - 8);
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
