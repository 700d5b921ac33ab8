// Helpers over libcrypto that the crypto sources share.
#pragma once

#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/evp.h>

#include <memory>
#include <new>
#include <stdexcept>
#include <string>

namespace ZK::Encryption::detail {

// The reason that libcrypto gives for its last failure, and an empty error queue, which
// is the host's too. The fallback stands in when it gives none.
inline std::string TakeReason(const char *fallback) {
    const char *reason = ERR_reason_error_string(ERR_peek_last_error());
    std::string text = reason == nullptr ? fallback : reason;
    ERR_clear_error();
    return text;
}

[[noreturn]] inline void Fail(const char *fallback) {
    throw std::runtime_error(TakeReason(fallback));
}

struct FreeCipherContext {
    void operator()(EVP_CIPHER_CTX *context) const noexcept { EVP_CIPHER_CTX_free(context); }
};
using CipherContext = std::unique_ptr<EVP_CIPHER_CTX, FreeCipherContext>;

// libcrypto looks algorithms up in its global context without asking whether there was memory
// for one.
inline void RequireLibrary() {
    if (OSSL_LIB_CTX_get0_global_default() == nullptr) {
        throw std::bad_alloc();
    }
}

// A cipher by name, looked up once: the look-up costs more than a small message. The
// result is kept for the life of the process.
inline const EVP_CIPHER *FetchCipher(const char *name) {
    RequireLibrary();
    const EVP_CIPHER *cipher = EVP_CIPHER_fetch(nullptr, name, nullptr);
    if (cipher == nullptr) {
        Fail("Cipher is not available");
    }
    return cipher;
}

} // namespace ZK::Encryption::detail
