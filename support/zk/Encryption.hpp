// Digests, AES-CBC, RFC 3394 key wrap and random bytes, on OpenSSL.
#pragma once

#include "support/zk/File.hpp"
#include "support/zk/Path.hpp"

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <vector>

typedef struct evp_md_ctx_st EVP_MD_CTX;
typedef struct evp_cipher_ctx_st EVP_CIPHER_CTX;

namespace ZK::Encryption {

// The digest algorithms by selector; 1 is SHA-1.
enum class HashAlgorithm : std::uint32_t { SHA1 = 1 };

// A digest in progress. Throws std::runtime_error when OpenSSL refuses.
class Hasher {
  public:
    explicit Hasher(HashAlgorithm algorithm = HashAlgorithm::SHA1);
    ~Hasher();
    Hasher(const Hasher &) = delete;
    Hasher &operator=(const Hasher &) = delete;
    void Update(std::span<const std::uint8_t> bytes);
    // The digest; the hasher is of no further use.
    std::vector<std::uint8_t> Finalize();

  private:
    EVP_MD_CTX *context_;
};

// SHA-1 of the bytes: 20 bytes.
std::vector<std::uint8_t> Hash(std::span<const std::uint8_t> bytes,
                               HashAlgorithm algorithm = HashAlgorithm::SHA1);
std::array<std::uint8_t, 20> SHA1(std::span<const std::uint8_t> bytes);
// Digest of a regular file's content, read in pieces. Throws boost::system::system_error
// when it cannot be opened (never blocking on what is no regular file) or read.
std::vector<std::uint8_t> HashOfFile(const filesystem::path &path,
                                     HashAlgorithm algorithm = HashAlgorithm::SHA1);
// The same of an open file, from its current position to its end.
std::vector<std::uint8_t> HashOfFile(file::readable_file &file,
                                     HashAlgorithm algorithm = HashAlgorithm::SHA1);

enum class Operation : std::uint32_t { Encrypt = 0, Decrypt = 1 };
// By selector: 0 takes a 16-byte key (AES-128), 1 a 32-byte key (AES-256).
enum class Algorithm : std::uint32_t { AES128 = 0, AES256 = 1 };

// AES in CBC mode with PKCS #7 padding. An empty initial value means 16 zero bytes.
// Throws std::invalid_argument for a key or initial value of the wrong size and
// std::runtime_error when OpenSSL fails, for decryption that is: the input is no
// multiple of 16 bytes, or its padding is wrong. A cryptor that was fed nothing
// finalises to nothing when it decrypts.
class Cryptor {
  public:
    Cryptor(Operation operation, Algorithm algorithm, std::span<const std::uint8_t> key,
            std::span<const std::uint8_t> iv);
    ~Cryptor();
    Cryptor(const Cryptor &) = delete;
    Cryptor &operator=(const Cryptor &) = delete;

    // The output that the input completes; may be empty.
    std::vector<std::uint8_t> Update(std::span<const std::uint8_t> bytes);
    // The same into a buffer of the caller's, which is resized; its storage is
    // reused from call to call. The buffer must not overlap the input.
    void Update(std::span<const std::uint8_t> bytes, std::vector<std::uint8_t> &output);
    std::vector<std::uint8_t> Finalize();

    // One-shot forms.
    static std::vector<std::uint8_t> Crypt(Operation operation, Algorithm algorithm,
                                           std::span<const std::uint8_t> key,
                                           std::span<const std::uint8_t> iv,
                                           std::span<const std::uint8_t> bytes);
    static std::vector<std::uint8_t> Decrypt(Algorithm algorithm, std::span<const std::uint8_t> key,
                                             std::span<const std::uint8_t> iv,
                                             std::span<const std::uint8_t> bytes);
    // Streams source into destination.
    static void Crypt(Operation operation, Algorithm algorithm, std::span<const std::uint8_t> key,
                      std::span<const std::uint8_t> iv, file::readable_file &source,
                      file::writable_file &destination);

  private:
    EVP_CIPHER_CTX *context_;
    bool decrypting_;
    bool fed_ = false;
};

// RFC 3394 key wrap under AES-256; without an initial value the standard's default
// (A6 eight times). Unwrap throws CF::Error, domain "ZK.EncryptionErrorDomain" and code
// kKeyUnwrapIntegrityError, when the integrity check fails (wrong key or damaged bytes);
// both throw std::exception on other faults, such as a length that is no multiple of 8
// or too short.
inline constexpr long kKeyUnwrapIntegrityError = 1;
using KeyEncryptionKey = std::array<std::uint8_t, 32>;
using WrapInitialValue = std::array<std::uint8_t, 8>;
std::vector<std::uint8_t> RFC3394Wrap(const KeyEncryptionKey &key,
                                      const std::optional<WrapInitialValue> &iv,
                                      std::span<const std::uint8_t> plain);
std::vector<std::uint8_t> RFC3394Unwrap(const KeyEncryptionKey &key,
                                        const std::optional<WrapInitialValue> &iv,
                                        std::span<const std::uint8_t> wrapped);

// Cryptographically random bytes. Throws std::runtime_error when there are none.
std::vector<std::uint8_t> RandomBytes(std::size_t count);

} // namespace ZK::Encryption
