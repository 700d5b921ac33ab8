// Encrypting and decrypting files and texts.
#include "MB/ManifestEncryption.hpp"

#include "Kelvane/Error.hpp"
#include "crypto/OpenFileDecryption.hpp"
#include "support/zk/Encryption.hpp"
#include "support/zk/File.hpp"
#include "support/zk/Math.hpp"

#include <boost/filesystem/operations.hpp>
#include <boost/system/system_error.hpp>

namespace MB {
namespace {

using ZK::Encryption::Algorithm;
using ZK::Encryption::Cryptor;
using ZK::Encryption::Operation;
using ZK::filesystem::path;

const CFStringRef kCryptFailure = CFSTR("Failed to decrypt/encrypt: %s");

template <std::size_t KeySize>
constexpr Algorithm kAlgorithmOf = KeySize == 16 ? Algorithm::AES128 : Algorithm::AES256;

ZK::file::readable_file openForCrypt(const path &source) {
    try {
        return ZK::file::readable_file(source);
    } catch (const boost::system::system_error &cause) {
        throw Kelvane::MakeFSError(cause.code().value(), kCryptFailure, cause.what());
    }
}

// A decryptor keeps the last block back, which might be padding. Anything fed after it brings it
// out, and stays behind itself.
std::vector<std::uint8_t> lastBlock(Cryptor &decryptor) {
    constexpr std::array<std::uint8_t, 16> kAnything{};
    return decryptor.Update(kAnything);
}

void decryptWithoutPadding(const ManifestEncryption::Key &key, ZK::file::readable_file &input,
                           ZK::file::writable_file &output) {
    constexpr std::size_t kBufferSize = 128 * 1024;
    Cryptor decryptor(Operation::Decrypt, Algorithm::AES256, key, {});
    std::vector<std::uint8_t> stored(kBufferSize);
    std::vector<std::uint8_t> plain;
    while (const std::size_t count = input.read_some(stored)) {
        decryptor.Update(std::span(stored).first(count), plain);
        output.write(plain);
    }
    output.write(lastBlock(decryptor));
}

// Has crypt write into the destination. A part of the plaintext must not stay behind where nobody
// looks for it.
template <class Crypt>
void cryptOrRemove(const path &destination, Crypt crypt) {
    bool created = false;
    auto output = ZK::file::writable_file::open_clobber(destination, &created);
    try {
        crypt(output);
        output.complete();
    } catch (...) {
        if (created) {
            boost::system::error_code ignored; // the failure before it is the one to report
            boost::filesystem::remove(destination, ignored);
        }
        throw;
    }
}

template <class Crypt>
void cryptTo(const path &destination, Crypt crypt) {
    try {
        cryptOrRemove(destination, crypt);
    } catch (const boost::system::system_error &cause) {
        throw Kelvane::MakeFSError(cause.code().value(), kCryptFailure, cause.what());
    } catch (const std::exception &cause) {
        throw Kelvane::Error(kKVErrorCrypto, nullptr, kCryptFailure, cause.what());
    }
}

template <std::size_t KeySize>
void cryptInPlace(bool encrypt, ZK::file::readable_file &input, const path &destination,
                  const std::array<std::uint8_t, KeySize> &key) {
    static_assert(KeySize == 16 || KeySize == 32);
    cryptTo(destination, [&](ZK::file::writable_file &output) {
        Cryptor::Crypt(encrypt ? Operation::Encrypt : Operation::Decrypt, kAlgorithmOf<KeySize>,
                       key, {}, input, output);
    });
}

template <std::size_t KeySize>
void cryptInPlace(bool encrypt, const path &source, const path &destination,
                  const std::array<std::uint8_t, KeySize> &key) {
    ZK::file::readable_file input = openForCrypt(source);
    cryptInPlace(encrypt, input, destination, key);
}

} // namespace

void DecryptOpenFile(ZK::file::readable_file &source, const path &destination,
                     const ManifestEncryption::Key &key) {
    cryptInPlace(false, source, destination, key);
}

void DecryptOpenFileWithoutPadding(ZK::file::readable_file &source, const path &destination,
                                   const ManifestEncryption::Key &key) {
    cryptTo(destination,
            [&](ZK::file::writable_file &output) { decryptWithoutPadding(key, source, output); });
}

std::vector<std::uint8_t> DecryptBlocks(std::span<const std::uint8_t> blocks,
                                        const ManifestEncryption::Key &key) {
    Cryptor decryptor(Operation::Decrypt, Algorithm::AES256, key, {});
    std::vector<std::uint8_t> plain = decryptor.Update(blocks);
    const std::vector<std::uint8_t> last = lastBlock(decryptor);
    plain.insert(plain.end(), last.begin(), last.end());
    return plain;
}

void ManifestEncryption::DecryptFile(const path &source, const path &destination,
                                     const Key128 &key) {
    cryptInPlace(false, source, destination, key);
}
void ManifestEncryption::DecryptFile(const path &source, const path &destination, const Key &key) {
    cryptInPlace(false, source, destination, key);
}
void ManifestEncryption::EncryptFile(const path &source, const path &destination,
                                     const Key128 &key) {
    cryptInPlace(true, source, destination, key);
}
void ManifestEncryption::EncryptFile(const path &source, const path &destination, const Key &key) {
    cryptInPlace(true, source, destination, key);
}

std::vector<std::uint8_t> ManifestEncryption::DecryptString(const std::string &text,
                                                            const Key128 &key) {
    try {
        return Cryptor::Decrypt(Algorithm::AES128, key, {}, ZK::Math::base64_decode(text));
    } catch (const std::exception &cause) {
        throw Kelvane::Error(kKVErrorCrypto, nullptr, CFSTR("Decrypt failed: %s"), cause.what());
    }
}

} // namespace MB
