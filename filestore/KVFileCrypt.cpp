#include "KVFile.h"

#include "Kelvane/Error.hpp"
#include "filestore/KVFileClass.hpp"
#include "filestore/Reading.hpp"

#include <stdexcept>

namespace {

using Kelvane::CryptMode;
using Kelvane::Error;
using ZK::Encryption::Operation;

void hashByPieces(KVFileClass &file) {
    ZK::Encryption::Hasher hasher;
    std::uint64_t size = 0;
    KVFileGetData(&file, kKVFileDefaultDataChunkSize, [&](const std::vector<std::uint8_t> &bytes) {
        hasher.Update(bytes);
        size += bytes.size();
        return true;
    });
    file.hash = hasher.Finalize();
    file.size = size;
}

void recalculateHashAndSize(KVFileClass &file) {
    try {
        if (const auto content = Kelvane::ReadWhole(file)) {
            file.hash = ZK::Encryption::Hash(*content);
            file.size = content->size();
        } else {
            hashByPieces(file);
        }
    } catch (const std::runtime_error &exception) {
        throw Error(kKVErrorCrypto, nullptr, CFSTR("Failed to rehash crypted file data: %s"),
                    exception.what());
    }
}

void enableCrypt(const KVFileClass *constFile, CryptMode mode, Operation operation,
                 const std::array<std::uint8_t, 32> &key) {
    // An appendable file's hash and size are still to come, and would be those of the
    // stored bytes.
    if (constFile == nullptr || KVFileIsAppendable(constFile)) {
        throw Error(kKVErrorInvalidArgument);
    }
    // Objects are never const themselves; the setting is seen as no change of content.
    auto &file = *const_cast<KVFileClass *>(constFile);
    if (file.cryptMode != CryptMode::None) {
        return;
    }
    file.cryptMode = mode;
    file.cryptOperation = operation;
    file.key = key;
    recalculateHashAndSize(file);
}

} // namespace

void KVFileEnableDecryption(const KVFileClass *file, const std::array<std::uint8_t, 32> &key) {
    enableCrypt(file, CryptMode::Decrypt, Operation::Decrypt, key);
}

void KVFileEnableEncryption(const KVFileClass *file, const std::array<std::uint8_t, 32> &key) {
    enableCrypt(file, CryptMode::Encrypt, Operation::Encrypt, key);
}
