#include "KVFile.h"

#include "Kelvane/Error.hpp"
#include "Kelvane/FileManager.hpp"
#include "filestore/KVFileClass.hpp"
#include "filestore/Reading.hpp"
#include "filestore/RootedFile.hpp"
#include "foundation/Boundary.hpp"

#include <boost/system/system_error.hpp>

#include <algorithm>
#include <cerrno>
#include <stdexcept>

namespace {

using Bytes = std::vector<std::uint8_t>;
using Kelvane::Error;

// Larger files always take the chunked way, whatever the memory limit allows.
constexpr std::uint64_t kMaxWholeFile = 32768;

void requireFile(const KVFileClass *file) {
    if (file == nullptr) {
        throw Error(kKVErrorInvalidArgument);
    }
}

ZK::filesystem::path localPath(const KVFileClass &file) { return file.localPath.GetUTF8(); }

// Without an error code it throws.
template <class... ErrorCode>
ZK::file::readable_file openLocalFile(const KVFileClass &file, ErrorCode &...error) {
    return file.root != nullptr
               ? ZK::file::readable_file(*file.root, file.nameBelowRoot(), error...)
               : ZK::file::readable_file(localPath(file), error...);
}

// Fills the buffer from the file; false when the file ends earlier or cannot be read.
bool readFully(ZK::file::readable_file &source, std::span<std::uint8_t> buffer) {
    boost::system::error_code error;
    while (!buffer.empty()) {
        const std::size_t count = source.read_some(buffer, error);
        if (count == 0) {
            return false;
        }
        buffer = buffer.subspan(count);
    }
    return true;
}

std::uint64_t sizeOf(const ZK::file::readable_file &source, const ZK::filesystem::path &path) {
    try {
        return source.size();
    } catch (const boost::system::system_error &exception) {
        throw Kelvane::MakeFSError(exception, path);
    }
}

// All bytes on disk, if they are few enough.
std::optional<Bytes> readSmallFile(const KVFileClass &file) {
    boost::system::error_code error;
    ZK::file::readable_file source = openLocalFile(file, error);
    if (error) {
        return std::nullopt;
    }
    const std::uint64_t size = sizeOf(source, localPath(file));
    if (size > kMaxWholeFile) {
        return std::nullopt;
    }
    Bytes content(static_cast<std::size_t>(size));
    std::uint8_t beyond = 0;
    // A file that changes its length meanwhile is left to the chunked way.
    const bool complete =
        readFully(source, content) && source.read_some({&beyond, 1}, error) == 0 && !error;
    return complete ? std::optional(std::move(content)) : std::nullopt;
}

// Runs a step of the cipher; its failure becomes code 18 with the text.
template <class Step>
auto cryptStep(CFStringRef text, Step step) {
    try {
        return step();
    } catch (const std::exception &exception) {
        throw Error(kKVErrorCrypto, nullptr, text, exception.what());
    }
}

// Delivers a file's content piece by piece out of two buffers that are reused.
class ContentReader {
  public:
    ContentReader(const KVFileClass &file, unsigned long chunkSize)
        : path_(localPath(file)), source_(Kelvane::OpenContent(file)) {
        // No more than the file holds: callers may ask for pieces of any size.
        chunkSize_ = static_cast<std::size_t>(
            std::min<std::uint64_t>(chunkSize, sizeOf(source_, path_) + 1));
        if (file.cryptMode != Kelvane::CryptMode::None) {
            cryptStep(CFSTR("Cryptor creation failed: %s"), [&] {
                cryptor_.emplace(file.cryptOperation, ZK::Encryption::Algorithm::AES256,
                                 file.key.get(), std::span<const std::uint8_t>());
            });
        }
    }

    // The next piece; null at the end of the file. Throws code 3 when it cannot be read.
    const Bytes *next() {
        boost::system::error_code error;
        input_.resize(chunkSize_);
        input_.resize(source_.read_some(input_, error));
        if (error) {
            throw Kelvane::MakeFSError(error.value(), CFSTR("Failed to read local file (%s)"),
                                       path_.c_str());
        }
        if (input_.empty()) {
            return nullptr;
        }
        if (!cryptor_) {
            return &input_;
        }
        fed_ = true;
        cryptStep(CFSTR("Cryptor failed: %s"), [&] { cryptor_->Update(input_, output_); });
        return &output_;
    }

    // What the cipher still held; null for a file without one.
    const Bytes *rest() {
        if (!cryptor_) {
            return nullptr;
        }
        output_.clear();
        // An empty file stays empty both ways, as its size and hash say.
        if (fed_) {
            cryptStep(CFSTR("Cryptor finalize failed: %s"),
                      [&] { output_ = cryptor_->Finalize(); });
        }
        return &output_;
    }

  private:
    ZK::filesystem::path path_;
    ZK::file::readable_file source_;
    std::size_t chunkSize_ = 0;
    std::optional<ZK::Encryption::Cryptor> cryptor_;
    bool fed_ = false;
    Bytes input_;
    Bytes output_;
};

} // namespace

namespace Kelvane {

ZK::file::readable_file OpenContent(const KVFileClass &file) {
    try {
        return openLocalFile(file);
    } catch (const boost::system::system_error &exception) {
        if (file.root != nullptr && exception.code().value() == ELOOP) {
            throw LinkedStoredName(CF::String(file.nameBelowRoot()));
        }
        throw MakeFSError(exception, localPath(file));
    }
}

std::optional<Bytes> ReadWhole(const KVFileClass &file) {
    if (file.size == 0) {
        return Bytes();
    }
    if (file.size > FileManager::GetMaxMemorySize()) {
        return std::nullopt;
    }
    std::optional<Bytes> content = readSmallFile(file);
    if (!content || content->empty() || file.cryptMode == CryptMode::None) {
        return content;
    }
    return ZK::Encryption::Cryptor::Crypt(file.cryptOperation, ZK::Encryption::Algorithm::AES256,
                                          file.key.get(), {}, *content);
}

} // namespace Kelvane

std::optional<Bytes> KVFileGetDataQuickly(const KVFileClass *file) {
    requireFile(file);
    return cryptStep(CFSTR("Cryptor failed: %s"), [&] { return Kelvane::ReadWhole(*file); });
}

void KVFileGetData(const KVFileClass *file, unsigned long chunkSize,
                   std::function<bool(const Bytes &)> consumer) {
    requireFile(file);
    if (!consumer) {
        throw std::bad_function_call();
    }
    ContentReader reader(*file, chunkSize == 0 ? kKVFileDefaultDataChunkSize : chunkSize);
    while (const Bytes *piece = reader.next()) {
        if (!consumer(*piece)) {
            return;
        }
    }
    if (const Bytes *rest = reader.rest()) {
        consumer(*rest);
    }
}

Boolean KVFileReadData(const KVFileClass *file, unsigned long chunkSize,
                       KVFileDataConsumer consumer, void *context, CFErrorRef *error) {
    return Kelvane::AtClosedBoundary<Boolean>(error, false, [&] {
        requireFile(file);
        if (consumer == nullptr) {
            throw Error(kKVErrorInvalidArgument);
        }
        KVFileGetData(file, chunkSize, [&](const Bytes &bytes) {
            return consumer(bytes.data(), static_cast<CFIndex>(bytes.size()), context) != 0;
        });
        return true;
    });
}
