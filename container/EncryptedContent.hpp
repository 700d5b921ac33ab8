// Content that is encrypted or decrypted on its way, in one pass.
#pragma once

#include "container/ExportContent.hpp"
#include "support/zk/Secret.hpp"

#include <array>
#include <optional>

namespace Kelvane {

using ContentKey = std::array<std::uint8_t, 32>;

// An open file's plaintext, encrypted as backups have it: AES-256 in CBC mode with a zero initial
// value and PKCS #7 padding. That of an empty file is one block of padding.
class EncryptedContent : public ExportContent {
  public:
    // Throws what StoredContent throws.
    EncryptedContent(const ZK::file::readable_file &plain, const ContentKey &key);

    std::uint64_t Size() const override;
    CF::Pointer<CFDateRef> ModifiedDate() const override { return plain_.ModifiedDate(); }
    void Read(const ContentConsumer &consumer) const override;

  private:
    StoredContent plain_;
    ZK::SecretArray<32> key_;
};

// What there is to know of a file once it is decrypted.
struct PlainFacts {
    std::uint64_t storedSize = 0;
    std::uint64_t size = 0;
    std::array<std::uint8_t, 20> digest{};
};

// The plaintext of an open file that is encrypted so.
class DecryptedContent : public ExportContent {
  public:
    // facts receive what is known: the sizes now, the digest with the last piece. They must outlive
    // the object. Throws code 18 "Failed to decrypt: %s" for content that cannot be such a
    // ciphertext, and code 3 "The stored file could not be read - %s".
    DecryptedContent(ZK::file::unique_descriptor stored, const ContentKey &key, PlainFacts &facts);

    std::uint64_t Size() const override { return facts_.size; }
    CF::Pointer<CFDateRef> ModifiedDate() const override { return stored_.ModifiedDate(); }
    // Throws the same errors.
    void Read(const ContentConsumer &consumer) const override;

  private:
    std::uint64_t plainSize() const;

    StoredContent stored_;
    ZK::SecretArray<32> key_;
    PlainFacts &facts_;
};

// The SHA-1 of what an empty file is stored as.
std::array<std::uint8_t, 20> DigestOfEncryptedNothing(const ContentKey &key);

} // namespace Kelvane
