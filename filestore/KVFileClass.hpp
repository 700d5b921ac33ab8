// The body of a KVFile object.
#pragma once

#include "KVFile.h"
#include "support/cf/Date.hpp"
#include "support/cf/String.hpp"
#include "support/zk/Encryption.hpp"
#include "support/zk/File.hpp"
#include "support/zk/Secret.hpp"

#include <CoreFoundation/CFRuntime.h>
#include <openssl/evp.h>

#include <cstdint>
#include <memory>
#include <vector>

namespace Kelvane {

// What happens to the bytes on their way from the disk to the reader.
enum class CryptMode : std::uint32_t { None = 0, Decrypt = 1, Encrypt = 2 };

struct FreeDigestContext {
    void operator()(EVP_MD_CTX *context) const noexcept { EVP_MD_CTX_free(context); }
};
using DigestContext = std::unique_ptr<EVP_MD_CTX, FreeDigestContext>;

} // namespace Kelvane

struct KVFileClass {
    CFRuntimeBase base;
    // Size of the content as it is delivered; of what was appended so far while appendable.
    std::uint64_t size = 0;
    // SHA-1 of the bytes on disk, under which the file manager counts this object;
    // empty when it does not.
    std::vector<std::uint8_t> referenceHash;
    // SHA-1 of the content as it is delivered; empty when unknown.
    std::vector<std::uint8_t> hash;
    CF::Date modifiedDate;
    CF::String localPath;
    // Open exactly while the file is appendable; digest runs along with it.
    ZK::file::writable_file writer;
    Kelvane::DigestContext digest;
    // Set once, by the first enabling call.
    Kelvane::CryptMode cryptMode = Kelvane::CryptMode::None;
    ZK::SecretArray<32> key;
    ZK::Encryption::Operation cryptOperation = ZK::Encryption::Operation::Encrypt;

    KVFileClass() noexcept = default;
    KVFileClass(const KVFileClass &) = delete;
    KVFileClass &operator=(const KVFileClass &) = delete;
    // Gives up the registration; a refusal by the file manager is logged.
    ~KVFileClass();
};
