// The rows of a Manifest.db as CSV.
#include "KVManifest.h"
#include "Kelvane/Error.hpp"
#include "Kelvane/ManifestDB.hpp"
#include "Kelvane/SharedState.hpp"
#include "MB/File.hpp"
#include "ZK/keyed_unarchiver.hpp"
#include "archive/FastMBFile.hpp"
#include "foundation/Boundary.hpp"
#include "manifest/CSVText.hpp"
#include "manifest/ManifestDatabaseFile.hpp"
#include "manifest/ManifestRows.hpp"
#include "manifest/SortedLines.hpp"
#include "support/cf/CF.hpp"
#include "support/zk/BinaryPlist.hpp"
#include "support/zk/Log.hpp"
#include "support/zk/Math.hpp"

#include <boost/filesystem/operations.hpp>
#include <boost/system/system_error.hpp>

#include <algorithm>
#include <cstdlib>
#include <exception>
#include <memory>
#include <new>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>

namespace Kelvane {

namespace {

constexpr std::u16string_view kHeader =
    uR"("fileID","domain","relativePath","fileTypeFlags","relativePath2","target","digest",)"
    uR"("encryptionKey","mode","inodeNumber","userID","groupID","lastModified",)"
    uR"("lastStatusChange","birth","size","protectionClass","extendedAttributes")";

// Texts of devices' records are as long as the database, or shorter. Only records whose
// attributes refer to one value over and over come to more than this.
constexpr std::uint64_t kUnitsPerByte = 16;
// A small database may have a few odd records.
constexpr std::uint64_t kUnitsOfAnyDump = std::uint64_t{1} << 20;

std::span<const std::uint8_t> BytesOf(std::string_view text) {
    return {reinterpret_cast<const std::uint8_t *>(text.data()), text.size()};
}

void AddColumn(CSVLine &line, std::string_view utf8) {
    if (ZK::bplist::IsAscii(BytesOf(utf8))) {
        line.AddAscii(utf8);
        return;
    }
    const StringPointer text = TextFromUTF8(utf8);
    if (!text) {
        throw std::invalid_argument("A column of the row is not valid UTF-8");
    }
    line.AddText(text.get());
}

void AddColumns(CSVLine &line, const ManifestRow &row) {
    AddColumn(line, row.fileID);
    AddColumn(line, row.domain);
    AddColumn(line, row.relativePath);
    line.AddSigned(row.flags);
}

void AddText(CSVLine &line, const MBFileView::Text &text) {
    if (text.utf16) {
        line.AddUTF16BE(text.bytes.data(), text.bytes.size());
    } else {
        line.AddAscii({reinterpret_cast<const char *>(text.bytes.data()), text.bytes.size()});
    }
}
void AddText(CSVLine &line, const CF::String &text) { line.AddText(text.get()); }

void AddBase64(CSVLine &line, std::span<const std::uint8_t> bytes) {
    line.AddAscii(ZK::Math::base64_encode(bytes));
}
void AddBase64(CSVLine &line, const CF::Data &data) { AddBase64(line, data.GetBytes()); }

void AddAttributes(CSVLine &line, const MBFileView &) { line.AddAscii({}); }
void AddAttributes(CSVLine &line, const MB::File &record) {
    const CFDictionaryRef attributes = record.ExtendedAttributes.get();
    line.AddText(attributes == nullptr ? nullptr
                                       : CF::String::Adopt(CFCopyDescription(attributes)).get());
}

// The record as a whole or as a view.
template <class Record>
void AddRecord(CSVLine &line, const Record &record) {
    AddText(line, record.RelativePath);
    AddText(line, record.Target);
    AddBase64(line, record.Digest);
    AddBase64(line, record.EncryptionKey);
    line.AddSigned(record.Mode);
    // Signed like all numbers of 64 bits, so from 2^63 on it shows as negative.
    line.AddSigned(static_cast<std::int64_t>(record.InodeNumber));
    line.AddUnsigned(record.UserID);
    line.AddUnsigned(record.GroupID);
    line.AddSigned(record.LastModified);
    line.AddSigned(record.LastStatusChange);
    line.AddSigned(record.Birth);
    line.AddSigned(record.Size);
    line.AddSigned(record.ProtectionClass);
    AddAttributes(line, record);
}

MB::File DecodeRecord(std::span<const std::uint8_t> bytes) {
    const auto data = CF::Data::Adopt(CF::Made(CFDataCreateWithBytesNoCopy(
        kCFAllocatorDefault, bytes.data(), static_cast<CFIndex>(bytes.size()), kCFAllocatorNull)));
    const auto archive = CF::PropertyListType<CF::Dictionary>::FromPropertyListData(data);
    auto record = archive ? ZK::extract_keyed_archive<MB::File>(archive) : std::nullopt;
    if (!record) {
        throw std::invalid_argument("Missing or invalid MBFile structure");
    }
    return *std::move(record);
}

void FormatRow(CSVLine &line, const ManifestRow &row) {
    line.Clear();
    AddColumns(line, row);
    MBFileView view;
    if (DecodeMBFile(row.file, view)) {
        AddRecord(line, view);
    } else {
        AddRecord(line, DecodeRecord(row.file));
    }
}

[[noreturn]] void ThrowTooLarge() {
    throw Error(kKVErrorUnknown, nullptr, "The text is too large for memory");
}

std::uint64_t MostUnits(const std::string &path) {
    try {
        return kUnitsPerByte * boost::filesystem::file_size(path) + kUnitsOfAnyDump;
    } catch (const boost::system::system_error &exception) {
        throw MakeFSError(exception, path);
    }
}

void CollectLines(ManifestDB &database, SortedLines &lines) {
    const std::uint64_t mostUnits = MostUnits(database.GetLocalPath().GetUTF8());
    ManifestRows rows(database);
    ManifestRow row;
    CSVLine line;
    while (rows.Next(row)) {
        try {
            FormatRow(line, row);
        } catch (const std::bad_alloc &) {
            throw; // says nothing about the row
        } catch (const std::exception &exception) {
            throw Error(kKVErrorInvalidMBFile, nullptr, CFSTR("%s"), exception.what());
        }
        if (lines.UnitCount() + line.Units().size() > mostUnits) {
            throw Error(kKVErrorInvalidMBFile, nullptr,
                        "The text would be far larger than the database");
        }
        lines.Add(line.Units());
    }
}

struct Free {
    void operator()(void *memory) const noexcept { std::free(memory); }
};

CFStringRef CreateNoCopy(const std::uint8_t *units, CFIndex count) {
    return CFStringCreateWithBytesNoCopy(kCFAllocatorDefault, units, count, kCFStringEncodingASCII,
                                         false, kCFAllocatorMalloc);
}
CFStringRef CreateNoCopy(const UniChar *units, CFIndex count) {
    return CFStringCreateWithCharactersNoCopy(kCFAllocatorDefault, units, count,
                                              kCFAllocatorMalloc);
}

// The string is made around the memory that the lines are put into: at any time there is
// one copy of the text.
template <class Unit>
CF::String Join(SortedLines &lines) {
    const auto count = kHeader.size() + lines.Count() + lines.UnitCount();
    std::unique_ptr<Unit[], Free> memory(static_cast<Unit *>(std::malloc(count * sizeof(Unit))));
    if (!memory) {
        ThrowTooLarge();
    }
    const auto narrowed = [](char16_t unit) { return static_cast<Unit>(unit); };
    Unit *end = std::transform(kHeader.begin(), kHeader.end(), memory.get(), narrowed);
    for (std::size_t i = 0; i < lines.Count(); ++i) {
        const std::u16string_view line = lines.At(i);
        *end++ = '\n';
        end = std::transform(line.begin(), line.end(), end, narrowed);
    }
    auto text = CF::String::Adopt(CreateNoCopy(memory.get(), static_cast<CFIndex>(count)));
    if (!text) {
        ThrowTooLarge();
    }
    (void)memory.release(); // it is the string's now
    return text;
}

CF::String DumpDatabase(ManifestDB &database) {
    SortedLines lines(database.GetLocalPath().GetUTF8() + "-lines");
    CollectLines(database, lines);
    lines.Sort();
    return lines.IsAscii() ? Join<std::uint8_t>(lines) : Join<UniChar>(lines);
}

// A working copy that goes when it has been read.
class WorkingCopy {
  public:
    explicit WorkingCopy(CFStringRef path)
        : database_(CF::String(path)), localPath_(database_.GetLocalPath().GetUTF8()) {}
    ~WorkingCopy() {
        database_.Close();
        RemoveManifestDatabaseFile(localPath_);
    }
    WorkingCopy(const WorkingCopy &) = delete;
    WorkingCopy &operator=(const WorkingCopy &) = delete;
    ManifestDB &Database() noexcept { return database_; }

  private:
    ManifestDB database_;
    std::string localPath_; // there may be no memory to ask for it
};

// A host in C can be told of an error, but not of an exception.
void RequireTemporaryPath() {
    try {
        (void)GetTemporaryPath();
    } catch (const std::runtime_error &exception) {
        throw Error(kKVErrorInvalidArgument, nullptr, CFSTR("%s"), exception.what());
    }
}

CF::String Dump(CFStringRef path) {
    try {
        RequireTemporaryPath();
        WorkingCopy copy(path);
        return DumpDatabase(copy.Database());
    } catch (const CF::Error &cause) {
        const auto error = Error(kKVErrorInvalidManifestDatabase, cause,
                                 "Failed to parse records from manifest database");
        ZLLogError(error.get(), GetLogDomain(), nullptr);
        throw error;
    }
}

} // namespace

} // namespace Kelvane

CFStringRef KVManifestDBCopyCSVRepresentation(CFStringRef databasePath, CFErrorRef *error) {
    return Kelvane::AtBoundary<CFStringRef>(error, nullptr,
                                            [&] { return Kelvane::Dump(databasePath).detach(); });
}
