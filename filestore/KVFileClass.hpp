// The body of a KVFile object.
#pragma once

#include "KVFile.h"
#include "support/cf/Date.hpp"
#include "support/cf/String.hpp"
#include "support/zk/Encryption.hpp"
#include "support/zk/File.hpp"
#include "support/zk/RootDirectory.hpp"
#include "support/zk/Secret.hpp"

#include <CoreFoundation/CFRuntime.h>
#include <openssl/evp.h>

#include <cstdint>
#include <memory>
#include <string>
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
    // For a file that is opened below a directory and over no link; else null, and the local
    // path is opened as it is. The local path then is the root's, a slash, and the name.
    std::shared_ptr<const ZK::file::root_directory> root;
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

    // What follows the root's path in the local path. Not kept beside it: a million files take
    // more memory for a second copy of their names than for anything else that they hold.
    std::string nameBelowRoot() const {
        return localPath.GetUTF8().substr(root->path().size() + 1);
    }
};
