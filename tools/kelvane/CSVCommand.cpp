#include "BackupOutput.hpp"
#include "BackupPlace.hpp"
#include "Commands.hpp"
#include "Diagnostics.hpp"
#include "ExitStatus.hpp"
#include "KVFile.h"
#include "KVManifest.h"
#include "NewOutput.hpp"
#include "Output.hpp"
#include "Quoting.hpp"
#include "Selection.hpp"

#include <algorithm>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <span>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace tool {

namespace {

using FileReference = CF::Pointer<KVFileClass *>;
using Writer = std::function<void(std::span<const std::uint8_t>)>;

constexpr std::string_view kDatabaseMark("SQLite format 3\0", 16);
constexpr std::string_view kZipMark = "PK";
// Code units of the text that are converted at a time.
constexpr CFIndex kPieceLength = 1 << 20;
// Of one code unit in UTF-8.
constexpr CFIndex kMaxUnitSize = 3;
constexpr std::string_view kReplacement = "\xEF\xBF\xBD"; // U+FFFD
// Of a row in a message: the quoted file ID.
constexpr CFIndex kShownOfARow = 42;

bool isHighSurrogate(UniChar unit) { return (unit & 0xFC00) == 0xD800; }

// The first bytes of a regular file; empty for anything else.
std::string startOf(const std::string &path) {
    struct stat status;
    // Opening a FIFO would wait for a writer.
    if (stat(path.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) {
        return "";
    }
    std::string start(kDatabaseMark.size(), '\0');
    std::ifstream file(path, std::ios::binary);
    file.read(start.data(), static_cast<std::streamsize>(start.size()));
    start.resize(static_cast<std::size_t>(file.gcount()));
    return start;
}

class Descriptor {
  public:
    explicit Descriptor(const std::string &path)
        : fd_(open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600)) {
        if (fd_ < 0) {
            throw Failure("'" + path + "' could not be made", SystemError());
        }
    }
    Descriptor(const Descriptor &) = delete;
    Descriptor &operator=(const Descriptor &) = delete;
    ~Descriptor() {
        if (fd_ >= 0) {
            close(fd_);
        }
    }
    int get() const noexcept { return fd_; }
    // Some file systems report a full disk here and not before.
    void Close() {
        const int closed = close(fd_);
        fd_ = -1;
        if (closed != 0) {
            throw Failure("The file could not be written", SystemError());
        }
    }

  private:
    int fd_;
};

FileReference sourceManifest(const Container &container) {
    CFErrorRef raised = nullptr;
    FileReference file(CF::adopt, KVBackupContainerCopySourceManifest(container.get(), &raised));
    if (!file) {
        throw Failure(CF::Error::Adopt(raised));
    }
    return file;
}

void requireDatabase(const Container &container) {
    if (!UsesDatabase(container)) {
        throw Failure("This backup has a binary manifest and no Manifest.db that could be dumped;"
                      " see 'kelvane ls --all'");
    }
}

// A readable copy of the backup's database in the private directory.
std::string copyDatabase(const BackupOptions &backup, const TemporaryArea &area) {
    const Container container = OpenBackup(backup);
    requireDatabase(container);
    WarnOfUnreadChanges(container);
    const FileReference manifest = sourceManifest(container);
    const std::string path = area.Path() + "/Manifest.db";
    Descriptor copy(path);
    try {
        KVFileGetData(manifest.get(), 0, [&](const std::vector<std::uint8_t> &chunk) {
            WriteFileBytes(copy.get(), chunk);
            return true;
        });
    } catch (const CF::Error &error) {
        throw Failure(error);
    }
    copy.Close();
    return path;
}

std::string databasePath(const BackupOptions &backup, const TemporaryArea &area) {
    const std::string start = startOf(backup.backup);
    if (!start.empty() && start != kDatabaseMark && !start.starts_with(kZipMark)) {
        throw Failure("'" + backup.backup + "' is no backup and no database; that of an encrypted" +
                      " backup is read with its backup");
    }
    if (start != kDatabaseMark) {
        return copyDatabase(backup, area);
    }
    if (!backup.passwordFile.empty()) {
        throw Failure("A password was given, but '" + backup.backup + "' is a plain database")
            .WithStatus(kPassword);
    }
    return std::filesystem::absolute(backup.backup);
}

CF::String dump(const std::string &database) {
    CFErrorRef raised = nullptr;
    const auto text =
        CF::String::Adopt(KVManifestDBCopyCSVRepresentation(ArgumentText(database).get(), &raised));
    if (!text) {
        throw Failure(CF::Error::Adopt(raised));
    }
    return text;
}

// Lone surrogates of a dump, which have no form in UTF-8.
struct LoneSurrogates {
    CFIndex count = 0;
    CFIndex first = 0; // its place in the text
};

// A piece of the text in UTF-8, into a buffer that is large enough for it. Gives the bytes used.
CFIndex convert(const CF::String &text, CFRange range, std::span<std::uint8_t> buffer,
                LoneSurrogates &lone) {
    CFIndex used = 0;
    while (range.length > 0) {
        const auto room = buffer.subspan(static_cast<std::size_t>(used));
        CFIndex size = 0;
        const CFIndex done =
            CFStringGetBytes(text.get(), range, kCFStringEncodingUTF8, 0, false, room.data(),
                             static_cast<CFIndex>(room.size()), &size);
        used += size;
        range = CFRangeMake(range.location + done, range.length - done);
        if (range.length > 0) {
            lone.first = lone.count++ == 0 ? range.location : lone.first;
            const auto end = buffer.subspan(static_cast<std::size_t>(used));
            std::copy(kReplacement.begin(), kReplacement.end(), end.begin());
            used += static_cast<CFIndex>(kReplacement.size());
            range = CFRangeMake(range.location + 1, range.length - 1);
        }
    }
    return used;
}

// Piece by piece: of a large backup it is hundreds of megabytes.
LoneSurrogates write(const CF::String &text, const Writer &writer) {
    // A piece may be longer by the second half of a pair.
    std::vector<std::uint8_t> buffer(static_cast<std::size_t>((kPieceLength + 1) * kMaxUnitSize));
    const CFIndex length = text.GetLength();
    LoneSurrogates lone;
    for (CFIndex start = 0; start < length;) {
        CFIndex count = std::min(kPieceLength, length - start);
        const UniChar last = CFStringGetCharacterAtIndex(text.get(), start + count - 1);
        // Both halves of a surrogate pair make one character.
        if (isHighSurrogate(last) && start + count < length) {
            ++count;
        }
        const CFIndex used = convert(text, CFRangeMake(start, count), buffer, lone);
        writer(std::span(buffer).first(static_cast<std::size_t>(used)));
        start += count;
    }
    return lone;
}

// The beginning of the row around that place.
std::string rowAt(const CF::String &text, CFIndex place) {
    CFRange found;
    const bool behindAnother =
        CFStringFindWithOptions(text.get(), CFSTR("\n\""), CFRangeMake(0, place),
                                kCFCompareBackwards, &found) != 0;
    const CFIndex start = behindAnother ? found.location + 1 : 0;
    const CFIndex length = std::min(kShownOfARow, place - start);
    return CF::String::Adopt(CFStringCreateWithSubstring(kCFAllocatorDefault, text.get(),
                                                         CFRangeMake(start, length)))
        .GetUTF8();
}

int report(const CF::String &text, const LoneSurrogates &lone) {
    if (lone.count == 0) {
        return kDone;
    }
    PrintMessage(std::to_string(lone.count) +
                 " lone surrogates, which have no form in UTF-8, were written as U+FFFD; the first"
                 " is in the row " +
                 rowAt(text, lone.first) + "...");
    return kFailed;
}

IfPresent ifPresent(const CSVOptions &options) {
    return options.force ? IfPresent::Replace : IfPresent::AskForForce;
}

LoneSurrogates writeToFile(const CF::String &text, const CSVOptions &options) {
    NewOutput output(options.output, ifPresent(options));
    Descriptor file(output.PartialPath());
    const LoneSurrogates lone = write(
        text, [&](std::span<const std::uint8_t> bytes) { WriteFileBytes(file.get(), bytes); });
    file.Close();
    output.Publish();
    return lone;
}

LoneSurrogates writeToTerminal(const CF::String &text) {
    CSVForTerminal terminal;
    const LoneSurrogates lone = write(text, [&](std::span<const std::uint8_t> bytes) {
        Print(terminal.Convert({reinterpret_cast<const char *>(bytes.data()), bytes.size()}));
    });
    // The text's last line has no end, which would leave the prompt behind it.
    PrintLine("");
    return lone;
}

} // namespace

int RunCSV(const BackupOptions &backup, const TemporaryArea &area, const CSVOptions &options) {
    if (!options.output.empty()) {
        RequireVacant(options.output, ifPresent(options));
        BackupPlace(backup.backup).RequireOutside(options.output);
    }
    const CF::String text = dump(databasePath(backup, area));
    if (!options.output.empty()) {
        return report(text, writeToFile(text, options));
    }
    return report(text, OutputIsTerminal() ? writeToTerminal(text) : write(text, &WriteOutput));
}

} // namespace tool
