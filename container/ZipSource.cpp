#include "container/BackupSource.hpp"
#include "container/ZipError.hpp"
#include "container/ZipLayout.hpp"
#include "container/ZipRecord.hpp"

#include "Kelvane/Error.hpp"
#include "filestore/Storage.hpp"
#include "foundation/Boundary.hpp"

#include <boost/filesystem/operations.hpp>
#include <minizip/unzip.h>

#include <cerrno>
#include <string>
#include <unordered_map>
#include <vector>

namespace Kelvane {

namespace {

// One read from a record.
constexpr std::size_t kReadSize = 32768;
// The longest name a zip record can have, plus the terminator that minizip adds.
constexpr std::size_t kNameBufferSize = 65536 + 1;

[[noreturn]] void throwZipError(KVError code, int status, CFStringRef reason) {
    throw Error(code, CF::Error::Adopt(ZK::zipCreateError(status)), CF::String(reason));
}

// Closes the open record however the reading of it ends.
class OpenRecord {
  public:
    explicit OpenRecord(unzFile archive) : archive_(archive) {
        errno = 0;
        const int status = unzOpenCurrentFile(archive);
        if (status != UNZ_OK) {
            throwZipError(kKVErrorArchive, status, CFSTR("Failed to open file record"));
        }
    }
    OpenRecord(const OpenRecord &) = delete;
    OpenRecord &operator=(const OpenRecord &) = delete;
    ~OpenRecord() {
        if (open_) {
            unzCloseCurrentFile(archive_);
        }
    }
    // The status of closing tells whether the checksum fits what was read.
    int Close() {
        open_ = false;
        return unzCloseCurrentFile(archive_);
    }

  private:
    unzFile archive_;
    bool open_ = true;
};

class ZipSource : public BackupSource {
  public:
    ZipSource(CF::String path, unzFile archive) : path_(std::move(path)), archive_(archive) {}
    ~ZipSource() override { unzClose(archive_); }

    bool Holds(const CF::String &name) const override {
        requireIndex();
        return positions_.contains(name.GetUTF8());
    }

    void ListFiles(const SourceFileConsumer &consumer, ListedSizes) const override {
        const int status = forEachRecord([&](const std::string &name, const auto &info) {
            // Zips of directories mostly hold records for the directories too.
            return (name.ends_with('/') && info.uncompressed_size == 0) ||
                   consumer({SourceFileName(name), info.uncompressed_size, true});
        });
        if (status != UNZ_END_OF_LIST_OF_FILE && status != UNZ_OK) {
            throwZipError(kKVErrorArchive, status, CFSTR("Failed to read file metadata"));
        }
    }

    std::shared_ptr<BackupSource> Reopen() const override { return OpenZipSource(path_); }

  protected:
    FileRef LoadNamed(const CF::String &name, std::uint64_t limit) const override {
        locate(name.GetUTF8());
        OpenRecord record(archive_);
        const std::uint64_t size = recordSize();
        RequireSizeWithin(size, limit);
        LocalError error;
        FileRef file(CF::adopt, KVFileCreateAppendable(error.out()));
        if (!file) {
            throw error.get();
        }
        // A part of a record is of no use to anybody, and nobody else knows where it lies.
        ScratchFile unfinished(CF::String::GetUTF8(KVFileGetLocalPath(file.get())));
        unpack(file, size);
        const int closed = record.Close();
        if (closed != UNZ_OK) {
            throwZipError(kKVErrorArchive, closed, CFSTR("Failed to extract file data"));
        }
        if (!KVFileFinalizeAppendable(file.get(), error.out())) {
            throw error.get();
        }
        unfinished.Keep();
        return file;
    }

  private:
    std::uint64_t recordSize() const {
        unz_file_info64 info;
        errno = 0;
        const int status =
            unzGetCurrentFileInfo64(archive_, &info, nullptr, 0, nullptr, 0, nullptr, 0);
        if (status != UNZ_OK) {
            throwZipError(kKVErrorArchive, status, CFSTR("Failed to read file metadata"));
        }
        try {
            RequirePossibleSize(info);
        } catch (const CF::Error &cause) {
            throw Error(kKVErrorArchive, cause, "Failed to extract file data");
        }
        return info.uncompressed_size;
    }

    // Appends the open record's bytes, all that the archive says it has.
    void unpack(const FileRef &file, std::uint64_t expected) const {
        std::vector<std::uint8_t> buffer(kReadSize);
        std::uint64_t total = 0;
        for (;;) {
            errno = 0;
            const int count =
                unzReadCurrentFile(archive_, buffer.data(), static_cast<unsigned>(buffer.size()));
            if (count < 0) {
                throwZipError(kKVErrorArchive, count, CFSTR("Failed to extract file data"));
            }
            if (count == 0) {
                break;
            }
            // What is written is bounded by what the archive says, whatever it unpacks to.
            if (static_cast<std::uint64_t>(count) > expected - total) {
                errno = 0;
                throwZipError(kKVErrorArchive, UNZ_BADZIPFILE,
                              CFSTR("Failed to extract file data"));
            }
            LocalError error;
            if (!KVFileAppendBytes(file.get(), buffer.data(), count, error.out())) {
                throw error.get();
            }
            total += static_cast<std::uint64_t>(count);
        }
        // A deflate stream that ends early reads like a good end of the record, and its
        // checksum is then not looked at.
        if (total != expected) {
            errno = 0;
            throwZipError(kKVErrorArchive, UNZ_BADZIPFILE, CFSTR("Failed to extract file data"));
        }
    }

    // Makes the record of exactly that name the current one.
    void locate(const std::string &name) const {
        requireIndex();
        const auto found = positions_.find(name);
        int status = indexStatus_ == UNZ_OK ? UNZ_BADZIPFILE : indexStatus_;
        errno = indexErrno_;
        if (found != positions_.end()) {
            errno = 0;
            unz64_file_pos position = found->second;
            status = unzGoToFilePos64(archive_, &position);
        }
        if (status != UNZ_OK) {
            throwZipError(kKVErrorInvalidBackup, status,
                          CFSTR("Could not locate file record in zip"));
        }
    }

    // Calls the visitor with each record's name and information while it is the current one,
    // until it returns false. Returns minizip's status: UNZ_END_OF_LIST_OF_FILE after the last.
    template <class Visitor>
    int forEachRecord(Visitor visit) const {
        std::string buffer(kNameBufferSize, '\0');
        errno = 0;
        int status = unzGoToFirstFile(archive_);
        while (status == UNZ_OK) {
            unz_file_info64 info;
            status = unzGetCurrentFileInfo64(archive_, &info, buffer.data(), buffer.size(), nullptr,
                                             0, nullptr, 0);
            if (status != UNZ_OK || !visit(std::string(buffer.data(), info.size_filename), info)) {
                break;
            }
            status = unzGoToNextFile(archive_);
        }
        return status;
    }

    void requireIndex() const {
        if (!indexed_) {
            buildIndex();
        }
    }

    // One walk over the directory, since a search by name walks it for every file. Of two
    // records with one name the first counts, as in a search. Records behind a place where
    // the directory cannot be read are not found, for that reason.
    void buildIndex() const {
        indexStatus_ = forEachRecord([this](const std::string &name, const auto &) {
            unz64_file_pos position;
            const bool known = unzGetFilePos64(archive_, &position) == UNZ_OK;
            if (known) {
                positions_.emplace(name, position);
            }
            return known;
        });
        indexErrno_ = errno;
        indexed_ = true;
    }

    CF::String path_;
    unzFile archive_;
    mutable bool indexed_ = false;
    mutable int indexStatus_ = UNZ_END_OF_LIST_OF_FILE; // how the walk ended
    mutable int indexErrno_ = 0;
    mutable std::unordered_map<std::string, unz64_file_pos> positions_;
};

[[noreturn]] void throwUnopened(const CF::String &zipPath, const CF::Error &cause) {
    throw Error(kKVErrorInvalidBackup, cause, CFSTR("Failed to open zip file (%@)"), zipPath.get());
}

void checkLayout(const CF::String &zipPath, unzFile archive) {
    unz_global_info64 info;
    // An archive without a record that can be read has nothing to be checked.
    if (unzGetGlobalInfo64(archive, &info) != UNZ_OK || unzGoToFirstFile(archive) != UNZ_OK) {
        return;
    }
    try {
        CheckZipLayout(zipPath.GetUTF8(), {unzGetOffset64(archive), info.number_entry});
    } catch (const CF::Error &cause) {
        throwUnopened(zipPath, cause);
    }
}

} // namespace

std::shared_ptr<BackupSource> OpenZipSource(const CF::String &zipPath) {
    const std::string path = zipPath.GetUTF8();
    boost::system::error_code error;
    unzFile archive = nullptr;
    // Opening a FIFO would wait for a writer that may never come.
    if (path.find('\0') == std::string::npos && boost::filesystem::is_regular_file(path, error)) {
        errno = 0;
        archive = unzOpen(path.c_str());
        error.assign(errno, boost::system::generic_category());
    }
    if (archive == nullptr) {
        CF::Error cause;
        if (error) {
            errno = error.value();
            cause = CF::Error::Adopt(ZK::zipCreateError(UNZ_ERRNO));
        }
        throwUnopened(zipPath, cause);
    }
    auto source = std::make_shared<ZipSource>(zipPath, archive);
    checkLayout(zipPath, archive);
    return source;
}

} // namespace Kelvane
