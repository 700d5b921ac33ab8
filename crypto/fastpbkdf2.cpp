// PBKDF2 on the raw block functions of the SHA family.
//
// An HMAC of a message as short as a digest takes two compression-function calls once
// the states after its two pad blocks are known. The general digest interface wraps each
// of them in initialisation, buffering, padding and finalisation that cost more than the
// compression itself where the processor has instructions for it. Only OpenSSL's
// low-level interface offers the bare compression function; it is marked deprecated in
// OpenSSL 3 in favour of that general interface, hence the next line.
#define OPENSSL_SUPPRESS_DEPRECATED

#include "fastpbkdf2.h"

#include "crypto/WatchedPBKDF2.hpp"
#include "support/zk/Secret.hpp"
#include "support/zk/WipeStack.hpp"

#include <openssl/sha.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>

namespace {

static_assert(std::endian::native == std::endian::little,
              "the chaining words are swapped into and out of big-endian blocks");

// The chaining words stand first in all three contexts, without gaps.
static_assert(offsetof(SHA_CTX, h0) == 0 && offsetof(SHA_CTX, h4) == 4 * sizeof(SHA_LONG));
static_assert(offsetof(SHA256_CTX, h) == 0 && offsetof(SHA512_CTX, h) == 0);

struct SHA1Hash {
    using Context = SHA_CTX;
    using Word = std::uint32_t;
    static constexpr std::size_t kBlockSize = SHA_CBLOCK;
    static constexpr std::size_t kDigestSize = SHA_DIGEST_LENGTH;
    static constexpr auto Init = SHA1_Init;
    static constexpr auto Update = SHA1_Update;
    static constexpr auto Final = SHA1_Final;
    static constexpr auto Transform = SHA1_Transform;
};

struct SHA256Hash {
    using Context = SHA256_CTX;
    using Word = std::uint32_t;
    static constexpr std::size_t kBlockSize = SHA256_CBLOCK;
    static constexpr std::size_t kDigestSize = SHA256_DIGEST_LENGTH;
    static constexpr auto Init = SHA256_Init;
    static constexpr auto Update = SHA256_Update;
    static constexpr auto Final = SHA256_Final;
    static constexpr auto Transform = SHA256_Transform;
};

struct SHA512Hash {
    using Context = SHA512_CTX;
    using Word = std::uint64_t;
    static constexpr std::size_t kBlockSize = SHA512_CBLOCK;
    static constexpr std::size_t kDigestSize = SHA512_DIGEST_LENGTH;
    static constexpr auto Init = SHA512_Init;
    static constexpr auto Update = SHA512_Update;
    static constexpr auto Final = SHA512_Final;
    static constexpr auto Transform = SHA512_Transform;
};

template <class Hash>
using Block = std::array<std::uint8_t, Hash::kBlockSize>;

// The processor's 16-byte vectors. The block functions read the message 16 bytes at a
// time, and a read that spans several narrower writes has to wait for all of them: that
// alone would cost a fifth of the time. So digests travel in vectors all the way.
constexpr std::size_t kVectorSize = 16;
template <class Word>
struct VectorOf {
    typedef Word Type __attribute__((vector_size(kVectorSize)));
};
using Vector32 = VectorOf<std::uint32_t>::Type;
using Vector64 = VectorOf<std::uint64_t>::Type;

// Byte swaps by shifts and masks: every processor has those for vectors.
Vector32 swapBytes(Vector32 words) noexcept {
    words = (words << 16) | (words >> 16);
    return ((words & 0x00FF00FFU) << 8) | ((words >> 8) & 0x00FF00FFU);
}
Vector64 swapBytes(Vector64 words) noexcept {
    words = (words << 32) | (words >> 32);
    words = ((words & 0x0000FFFF0000FFFFU) << 16) | ((words >> 16) & 0x0000FFFF0000FFFFU);
    return ((words & 0x00FF00FF00FF00FFU) << 8) | ((words >> 8) & 0x00FF00FF00FF00FFU);
}

// A digest as it stands at the start of a message block, in whole vectors: where it does
// not end on a vector, the padding that follows it fills the last one up.
template <class Hash>
struct Digest {
    using Word = typename Hash::Word;
    using Vector = typename VectorOf<Word>::Type;
    static constexpr std::size_t kVectors = (Hash::kDigestSize + kVectorSize - 1) / kVectorSize;
    static constexpr std::size_t kFullVectors = Hash::kDigestSize / kVectorSize;
    static constexpr std::size_t kLeftBytes = Hash::kDigestSize % kVectorSize;
    static_assert(kLeftBytes == 0 || kLeftBytes == sizeof(Word));
    static_assert(kVectors * kVectorSize + 2 * sizeof(Word) <= Hash::kBlockSize,
                  "the length at the end of the block stays as it is");

    Vector vectors[kVectors];

    // From the chaining words.
    explicit Digest(const typename Hash::Context &context) noexcept {
        const auto *bytes = reinterpret_cast<const std::uint8_t *>(&context);
        std::memcpy(vectors, bytes, kFullVectors * kVectorSize);
        if constexpr (kLeftBytes != 0) {
            Word last;
            std::memcpy(&last, bytes + kFullVectors * kVectorSize, sizeof(last));
            vectors[kFullVectors] = Vector{last, Word{0x80} << (8 * (sizeof(Word) - 1))};
        }
        for (auto &vector : vectors) {
            vector = swapBytes(vector);
        }
    }
    // From a message block.
    explicit Digest(const Block<Hash> &message) noexcept {
        std::memcpy(vectors, message.data(), sizeof(vectors));
    }
    void storeInto(Block<Hash> &message) const noexcept {
        std::memcpy(message.data(), vectors, sizeof(vectors));
    }
    void operator^=(const Digest &other) noexcept {
        for (std::size_t i = 0; i < kVectors; ++i) {
            vectors[i] ^= other.vectors[i];
        }
    }
};

// PBKDF2 for one password. Everything that it keeps is wiped when it goes.
template <class Hash>
class Derivation {
  public:
    Derivation(const std::uint8_t *password, std::size_t length) noexcept {
        Block<Hash> key{};
        prepareKey(password, length, key);
        startPad(key, 0x36, inner_);
        startPad(key, 0x5c, outer_);
        ZK::Wipe(key);
    }
    Derivation(const Derivation &) = delete;
    Derivation &operator=(const Derivation &) = delete;
    ~Derivation() {
        ZK::Wipe(&inner_, sizeof(inner_));
        ZK::Wipe(&outer_, sizeof(outer_));
        ZK::Wipe(&scratch_, sizeof(scratch_));
        ZK::Wipe(message_);
        ZK::Wipe(result_);
    }

    // The output block of the index (from 1). Borrowed until the next call.
    const std::uint8_t *deriveBlock(const std::uint8_t *salt, std::size_t saltLength,
                                    std::uint32_t index, std::uint32_t iterations) noexcept {
        firstRound(salt, saltLength, index);
        if (iterations >= 2) {
            furtherRounds(iterations - 1);
        }
        return result_.data();
    }

    // The same slice by slice; null when the observer ended it.
    const std::uint8_t *deriveBlock(const Kelvane::PBKDF2Input &input, std::uint32_t index,
                                    const Kelvane::RoundObserver &observer) {
        firstRound(input.salt.data(), input.salt.size(), index);
        std::uint32_t done = 1;
        for (std::uint32_t told = 0; done < input.iterations; told = done) {
            const std::uint32_t rounds = std::min(input.iterations - done, kRoundsOfSlice);
            furtherRounds(rounds);
            done += rounds;
            if (!observer(done - told)) {
                return nullptr;
            }
        }
        return result_.data();
    }

  private:
    using Context = typename Hash::Context;
    // Some hundredths of a second, beside which an observer costs nothing.
    static constexpr std::uint32_t kRoundsOfSlice = 1U << 17;

    // A key longer than a block is replaced by its hash; zeros fill the block up.
    static void prepareKey(const std::uint8_t *password, std::size_t length,
                           Block<Hash> &key) noexcept {
        if (length > key.size()) {
            Context context;
            Hash::Init(&context);
            Hash::Update(&context, password, length);
            Hash::Final(key.data(), &context);
            ZK::Wipe(&context, sizeof(context));
        } else {
            std::copy_n(password, length, key.begin());
        }
    }

    static void startPad(const Block<Hash> &key, std::uint8_t pad, Context &context) noexcept {
        Block<Hash> padded;
        std::transform(key.begin(), key.end(), padded.begin(),
                       [pad](std::uint8_t byte) { return static_cast<std::uint8_t>(byte ^ pad); });
        Hash::Init(&context);
        Hash::Update(&context, padded.data(), padded.size());
        ZK::Wipe(padded);
    }

    // U1 = HMAC(salt, index), by the general interface since the salt has any length.
    // Leaves U1 in the result and at the start of the message block.
    void firstRound(const std::uint8_t *salt, std::size_t saltLength,
                    std::uint32_t index) noexcept {
        const std::array<std::uint8_t, 4> counter = {
            static_cast<std::uint8_t>(index >> 24), static_cast<std::uint8_t>(index >> 16),
            static_cast<std::uint8_t>(index >> 8), static_cast<std::uint8_t>(index)};
        padMessage();
        scratch_ = inner_;
        Hash::Update(&scratch_, salt, saltLength);
        Hash::Update(&scratch_, counter.data(), counter.size());
        Hash::Final(message_.data(), &scratch_);
        scratch_ = outer_;
        Hash::Update(&scratch_, message_.data(), Hash::kDigestSize);
        Hash::Final(message_.data(), &scratch_);
        result_ = message_;
    }

    // The padding of a digest-sized message that follows one pad block: 0x80, zeros, and
    // the length of both in bits. The same for the inner and the outer hash in every
    // round, so it is laid out once.
    void padMessage() noexcept {
        constexpr std::size_t bits = (Hash::kBlockSize + Hash::kDigestSize) * 8;
        message_.fill(0);
        message_[Hash::kDigestSize] = 0x80;
        message_[Hash::kBlockSize - 2] = static_cast<std::uint8_t>(bits >> 8);
        message_[Hash::kBlockSize - 1] = static_cast<std::uint8_t>(bits & 0xFF);
    }

    // U(j+1) = HMAC(U(j)), each XORed into the result: two block transforms a round.
    void furtherRounds(std::uint32_t rounds) noexcept {
        Digest<Hash> result(result_);
        for (; rounds > 0; --rounds) {
            compressFrom(inner_);
            result ^= compressFrom(outer_);
        }
        result.storeInto(result_);
        ZK::Wipe(&result, sizeof(result));
    }

    // Compresses the message block into a copy of the state. The outcome becomes the
    // next message.
    Digest<Hash> compressFrom(const Context &state) noexcept {
        std::memcpy(static_cast<void *>(&scratch_), &state, Hash::kDigestSize);
        Hash::Transform(&scratch_, message_.data());
        const Digest<Hash> digest(scratch_);
        digest.storeInto(message_);
        return digest;
    }

    Context inner_;
    Context outer_;
    Context scratch_;
    alignas(kVectorSize) Block<Hash> message_;
    Block<Hash> result_; // the digest at the start counts
};

template <class Hash>
void derive(const std::uint8_t *password, std::size_t passwordLength, const std::uint8_t *salt,
            std::size_t saltLength, std::uint32_t iterations, std::uint8_t *output,
            std::size_t outputLength) noexcept {
    constexpr std::size_t digest = Hash::kDigestSize;
    // In 32 bits on purpose: hosts may depend on the number of blocks that results.
    const std::uint32_t blocks =
        static_cast<std::uint32_t>(outputLength + digest - 1) / static_cast<std::uint32_t>(digest);
    const ZK::WipeStackOnExit wipeStack;
    Derivation<Hash> derivation(password, passwordLength);
    for (std::uint32_t i = 0; i < blocks; ++i) {
        const std::size_t offset = i * digest;
        std::copy_n(derivation.deriveBlock(salt, saltLength, i + 1, iterations),
                    std::min(digest, outputLength - offset), output + offset);
    }
}

template <class Hash>
bool deriveWatched(const Kelvane::PBKDF2Input &input, std::span<std::uint8_t> output,
                   const Kelvane::RoundObserver &observer) {
    if (!observer) {
        derive<Hash>(input.password.data(), input.password.size(), input.salt.data(),
                     input.salt.size(), input.iterations, output.data(), output.size());
        return true;
    }
    const ZK::WipeStackOnExit wipeStack;
    Derivation<Hash> derivation(input.password.data(), input.password.size());
    std::uint32_t index = 0;
    for (auto rest = output; !rest.empty();) {
        const std::uint8_t *const block = derivation.deriveBlock(input, ++index, observer);
        if (block == nullptr) {
            ZK::Wipe(output.data(), output.size()); // the blocks before are a part of a key
            return false;
        }
        const std::size_t length = std::min<std::size_t>(Hash::kDigestSize, rest.size());
        std::copy_n(block, length, rest.begin());
        rest = rest.subspan(length);
    }
    return true;
}

} // namespace

bool Kelvane::DeriveBySHA1(const PBKDF2Input &input, std::span<std::uint8_t> output,
                           const RoundObserver &observer) {
    return deriveWatched<SHA1Hash>(input, output, observer);
}

bool Kelvane::DeriveBySHA256(const PBKDF2Input &input, std::span<std::uint8_t> output,
                             const RoundObserver &observer) {
    return deriveWatched<SHA256Hash>(input, output, observer);
}

void fastpbkdf2_hmac_sha1(const uint8_t *password, size_t passwordLength, const uint8_t *salt,
                          size_t saltLength, uint32_t iterations, uint8_t *output,
                          size_t outputLength) {
    derive<SHA1Hash>(password, passwordLength, salt, saltLength, iterations, output, outputLength);
}

void fastpbkdf2_hmac_sha256(const uint8_t *password, size_t passwordLength, const uint8_t *salt,
                            size_t saltLength, uint32_t iterations, uint8_t *output,
                            size_t outputLength) {
    derive<SHA256Hash>(password, passwordLength, salt, saltLength, iterations, output,
                       outputLength);
}

void fastpbkdf2_hmac_sha512(const uint8_t *password, size_t passwordLength, const uint8_t *salt,
                            size_t saltLength, uint32_t iterations, uint8_t *output,
                            size_t outputLength) {
    derive<SHA512Hash>(password, passwordLength, salt, saltLength, iterations, output,
                       outputLength);
}
