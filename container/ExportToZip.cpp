#include "container/Export.hpp"

#include "Kelvane/Error.hpp"
#include "container/ZipDirectory.hpp"
#include "container/ZipOutput.hpp"
#include "container/ZipPacking.hpp"
#include "container/ZipTime.hpp"
#include "support/cf/Extensions.hpp"

#include <minizip/zip.h>

#include <cstdint>
#include <limits>
#include <optional>
#include <set>
#include <utility>

namespace Kelvane {

namespace {

// The greatest size that a plain record can hold; one more stands for "see zip64".
constexpr std::uint64_t kGreatestPlainSize = 0xfffffffe;
// What a plain archive can count, less one that stands for "see zip64".
constexpr std::uint64_t kMostPlainRecords = 0xfffe;
// Data that does not compress grows by five bytes in each stored block of some 16 KiB.
constexpr std::uint64_t kGrowth = 1024;
constexpr std::uint64_t kSmallestGrowth = 4096;
// The length of a name is a field of two bytes, which the library fills unchecked.
constexpr std::size_t kLongestName = 0xffff;
// Content up to this size is packed in memory as a whole. Nearly all files are smaller.
constexpr std::uint64_t kLargestWhole = 16ULL << 20;
// Longer ones cannot be told to the library.
constexpr std::size_t kLongestPiece = std::numeric_limits<std::uint32_t>::max();

[[noreturn]] void throwTooLarge(std::uint64_t size) {
    throw Error(kKVErrorArchive, nullptr, CFSTR("Too large for a plain zip record (%llu bytes)"),
                static_cast<unsigned long long>(size));
}

// What a step of the zip library failed with: its status, the system's error beneath.
[[noreturn]] void throwZipError(const char *text, int status, int failure) {
    CF::Error cause;
    if (failure != 0) {
        cause = CF::Error::Adopt(
            CF::Made(CFErrorCreatePOSIXError(kCFAllocatorDefault, failure, nullptr)));
    }
    throw Error(kKVErrorArchive, cause, CF::String(text), status);
}

class ZipTarget : public ZipExportTarget {
  public:
    ZipTarget(const CF::String &path, ExportManner manner)
        : zip64Allowed_(manner != ExportManner::Plain), output_(path.GetUTF8()) {
        if (manner == ExportManner::Device) {
            packing_.emplace();
        }
        zlib_filefunc64_def functions = output_.Functions();
        archive_ = zipOpen2_64(path.GetUTF8().c_str(), APPEND_STATUS_CREATE, nullptr, &functions);
    }
    ~ZipTarget() override {
        if (archive_ != nullptr) {
            zipClose(archive_, nullptr); // frees what it holds; the output goes
        }
    }

    bool IsOpen() const noexcept override { return archive_ != nullptr; }
    CFStringRef NotLoaded() const override {
        return CFSTR("File %@ could not be loaded for writing to zip");
    }
    CFStringRef NotWritten() const override { return CFSTR("File %@ could not be written in zip"); }
    void Write(const std::string &name, const ExportPiece &piece,
               ExportProgress &progress) override;
    void Complete() override;

  private:
    // How a record comes about: the library compresses or stores what it is given, or is given
    // what was compressed or is to be stored as a whole.
    enum class Method { Deflate, Store, PackedDeflate, PackedStore };
    class Record;

    void writePieces(const std::string &name, const ExportContent &content, Method method,
                     ExportProgress &progress);
    void writeWhole(const std::string &name, const ExportPiece &piece, ExportProgress &progress);
    std::span<const std::uint8_t> readWhole(const ExportContent &content);

    bool zip64Allowed_;
    std::optional<ZipPacking> packing_; // where records need not be those of the plain form
    // The content of the last record that was read whole, which has kLargestWhole bytes at most.
    std::unique_ptr<std::uint8_t[]> whole_;
    ZipOutput output_;
    zipFile archive_ = nullptr;
    // The library lists records that failed all the same, and counts no more than 65,535:
    // programs take an archive of more for damaged.
    bool needsOwnDirectory(std::uint64_t start) const;
    std::set<std::string> failed_;
    std::uint64_t records_ = 0;
};

// A record that is no part of the archive unless it was completed.
class ZipTarget::Record {
  public:
    Record(ZipTarget &target, const std::string &name, const ExportContent &content, Method method)
        : target_(target), name_(name), start_(target.output_.Position()) {
        const int status = open(content, method);
        if (status != ZIP_OK) {
            const int failure = target_.output_.Failure();
            discard();
            throwZipError("The zip record could not be opened (%d)", status, failure);
        }
    }
    Record(const Record &) = delete;
    Record &operator=(const Record &) = delete;
    ~Record() {
        if (open_) {
            zipCloseFileInZip(target_.archive_);
            discard();
        }
    }

    // Of a packed record: as it is to lie in the archive.
    void Append(std::span<const std::uint8_t> bytes) {
        size_ += bytes.size();
        requireFits(size_); // content may turn out larger than it said to be
        const int status = zipWriteInFileInZip(target_.archive_, bytes.data(),
                                               static_cast<unsigned>(bytes.size()));
        throwIfFailed("ZipWriteInFile failed (%d)", status);
    }
    void Complete() { complete(zipCloseFileInZip(target_.archive_)); }
    // Of a packed record, whose content the library has not seen.
    void Complete(std::uint64_t size, std::uint32_t checksum) {
        complete(zipCloseFileInZipRaw64(target_.archive_, size, checksum));
    }

  private:
    void complete(int status) {
        open_ = false;
        // Whether it is on the disk must be known while it can still be taken back.
        target_.output_.Flush();
        try {
            throwIfFailed("The zip record could not be completed (%d)", status);
            requireFits(target_.output_.Position() - start_); // the header is some bytes too many
        } catch (...) {
            discard();
            throw;
        }
    }

    // minizip uses its memory for a record's header without asking whether there was any. What
    // it will take is still free when it has just been given back.
    void requireMemory() const {
        constexpr std::size_t kHeaderSize = 512;
        // Volatile, or compilers leave the pair out.
        void *volatile memory = CF::Made(std::malloc(kHeaderSize + name_.size()));
        std::free(memory);
    }

    int open(const ExportContent &content, Method method) {
        zip_fileinfo info{};
        info.tmz_date = ZipTime(content.ModifiedDate().get());
        zip64_ = target_.zip64Allowed_ && MayNeedZip64(content.Size());
        const bool deflated = method == Method::Deflate || method == Method::PackedDeflate;
        const bool packed = method == Method::PackedDeflate || method == Method::PackedStore;
        requireMemory();
        const int status = zipOpenNewFileInZip2_64(
            target_.archive_, name_.c_str(), &info, nullptr, 0, nullptr, 0, nullptr,
            deflated ? Z_DEFLATED : 0, Z_DEFAULT_COMPRESSION, packed ? 1 : 0, zip64_ ? 1 : 0);
        open_ = status == ZIP_OK;
        return status;
    }
    void throwIfFailed(const char *text, int status) const {
        const int failure = target_.output_.Failure();
        if (status != ZIP_OK || failure != 0) {
            throwZipError(text, status != ZIP_OK ? status : ZIP_ERRNO, failure);
        }
    }
    // The library writes sizes that do not fit as if they did.
    void requireFits(std::uint64_t size) const {
        if (!zip64_ && size > kGreatestPlainSize) {
            throwTooLarge(size);
        }
    }
    void discard() {
        if (target_.IsOpen()) {
            target_.output_.Rewind(start_);
            target_.failed_.insert(name_);
        }
    }

    ZipTarget &target_;
    const std::string name_;
    std::uint64_t start_;
    std::uint64_t size_ = 0;
    bool zip64_ = false;
    bool open_ = false;
};

void ZipTarget::Write(const std::string &name, const ExportPiece &piece, ExportProgress &progress) {
    const ExportContent &content = *piece.content;
    if (!zip64Allowed_ && content.Size() > kGreatestPlainSize) {
        throwTooLarge(content.Size());
    }
    if (name.size() > kLongestName) {
        throw Error(kKVErrorArchive, nullptr, CFSTR("Name too long for a zip record (%llu bytes)"),
                    static_cast<unsigned long long>(name.size()));
    }
    if (packing_ && content.Size() <= kLargestWhole) {
        writeWhole(name, piece, progress);
    } else {
        const bool stored = packing_ && !piece.compressible;
        writePieces(name, content, stored ? Method::Store : Method::Deflate, progress);
    }
    ++records_;
}

void ZipTarget::writePieces(const std::string &name, const ExportContent &content, Method method,
                            ExportProgress &progress) {
    Record record(*this, name, content, method);
    std::uint64_t written = 0;
    content.Read([&](std::span<const std::uint8_t> bytes) {
        if (!bytes.empty() && bytes.size() < kLongestPiece) {
            written += bytes.size();
            progress.Count(bytes.size());
            record.Append(bytes);
        }
    });
    RequireWhole(content, written);
    record.Complete();
}

void ZipTarget::writeWhole(const std::string &name, const ExportPiece &piece,
                           ExportProgress &progress) {
    const std::span<const std::uint8_t> whole = readWhole(*piece.content);
    const auto packed =
        piece.compressible ? packing_->Deflate(whole) : std::span<const std::uint8_t>();
    Record record(*this, name, *piece.content,
                  packed.empty() ? Method::PackedStore : Method::PackedDeflate);
    record.Append(packed.empty() ? whole : packed);
    record.Complete(whole.size(), ZipPacking::Checksum(whole));
    progress.Count(whole.size());
}

// Good until the next one is read.
std::span<const std::uint8_t> ZipTarget::readWhole(const ExportContent &content) {
    if (whole_ == nullptr) {
        whole_ = std::make_unique_for_overwrite<std::uint8_t[]>(kLargestWhole);
    }
    std::uint64_t read = 0;
    content.Read([&](std::span<const std::uint8_t> bytes) {
        // A file that grew is refused below, and need not fit.
        if (read + bytes.size() <= kLargestWhole) {
            std::copy(bytes.begin(), bytes.end(), whole_.get() + read);
        }
        read += bytes.size();
    });
    RequireWhole(content, read);
    return {whole_.get(), static_cast<std::size_t>(read)};
}

bool ZipTarget::needsOwnDirectory(std::uint64_t start) const {
    return !failed_.empty() || records_ > kMostPlainRecords || start > kGreatestPlainSize;
}

void ZipTarget::Complete() {
    const std::uint64_t directory = output_.Position();
    int status = zipClose(std::exchange(archive_, nullptr), nullptr);
    if (status == ZIP_OK && needsOwnDirectory(directory) &&
        !RewriteZipDirectory(output_, directory, failed_)) {
        status = output_.Failure() != 0 ? ZIP_ERRNO : ZIP_BADZIPFILE;
    }
    if (status == ZIP_OK && !output_.Keep()) {
        status = ZIP_ERRNO;
    }
    if (status != ZIP_OK) {
        throwZipError("The archive could not be completed (%d)", status, output_.Failure());
    }
}

} // namespace

// True when the size, or that of the compressed data, may be too much for a plain record.
bool MayNeedZip64(std::uint64_t size) {
    const std::uint64_t room = size / kGrowth + kSmallestGrowth;
    return size > kGreatestPlainSize || room > kGreatestPlainSize - size;
}

std::unique_ptr<ZipExportTarget> CreateZipTarget(const CF::String &path, ExportManner manner) {
    return std::make_unique<ZipTarget>(path, manner);
}

} // namespace Kelvane
