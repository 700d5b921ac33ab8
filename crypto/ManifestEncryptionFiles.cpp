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

// A part of the plaintext must not stay behind where nobody looks for it.
template <std::size_t KeySize>
void cryptOrRemove(Operation operation, ZK::file::readable_file &input, const path &destination,
                   const std::array<std::uint8_t, KeySize> &key) {
    bool created = false;
    auto output = ZK::file::writable_file::open_clobber(destination, &created);
    try {
        Cryptor::Crypt(operation, kAlgorithmOf<KeySize>, key, {}, input, output);
        output.complete();
    } catch (...) {
        if (created) {
            boost::system::error_code ignored; // the failure before it is the one to report
            boost::filesystem::remove(destination, ignored);
        }
        throw;
    }
}

template <std::size_t KeySize>
void cryptInPlace(bool encrypt, ZK::file::readable_file &input, const path &destination,
                  const std::array<std::uint8_t, KeySize> &key) {
    static_assert(KeySize == 16 || KeySize == 32);
    try {
        cryptOrRemove(encrypt ? Operation::Encrypt : Operation::Decrypt, input, destination, key);
    } catch (const boost::system::system_error &cause) {
        throw Kelvane::MakeFSError(cause.code().value(), kCryptFailure, cause.what());
    } catch (const std::exception &cause) {
        throw Kelvane::Error(kKVErrorCrypto, nullptr, kCryptFailure, cause.what());
    }
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
