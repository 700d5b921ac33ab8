// What one row of Manifest.db costs beyond SQLite. Reading: decoding its record, by the
// quick decoder and by the general codec, and making the entry. Writing: encoding the
// record, by the quick encoder and by the general codec. The records that are read are as
// devices write them, about 520 bytes each.

#include "ZK/keyed_archiver.hpp"
#include "ZK/keyed_unarchiver.hpp"
#include "archive/FastMBFile.hpp"
#include "archive/FastMBFileEncoder.hpp"
#include "manifest/EntryFromMBFile.hpp"
#include "support/cf/CF.hpp"

#include <CoreFoundation/CFKeyedArchiverUID.h>
#include <benchmark/benchmark.h>

#include <cstdint>
#include <string>
#include <vector>

namespace {

using PropertyList = CF::PropertyListType<CF::Dictionary>;

CF::AutoPointer uid(std::uint32_t number) {
    return CF::Adopt<CFTypeRef>(_CFKeyedArchiverUIDCreate(kCFAllocatorDefault, number));
}

void setNumber(const CF::Dictionary &dictionary, const char *key, std::int64_t value) {
    dictionary.Set(CF::String(key).get(), CF::Number::FromInt64(value).get());
}

CF::Dictionary classDictionary(const std::vector<const char *> &chain) {
    const auto names = CF::Array::Mutable();
    for (const char *name : chain) {
        names.Append(CF::String(name).get());
    }
    auto dictionary = CF::Dictionary::Mutable();
    dictionary.Set(CFSTR("$classname"), names.GetAt(0));
    dictionary.Set(CFSTR("$classes"), names.get());
    return dictionary;
}

CF::Dictionary recordObject(int index) {
    auto record = CF::Dictionary::Mutable();
    setNumber(record, "LastModified", 1700000000 + index);
    setNumber(record, "LastStatusChange", 1700000100 + index);
    setNumber(record, "Birth", 1690000000 + index);
    setNumber(record, "Flags", 0);
    setNumber(record, "GroupID", 501);
    setNumber(record, "UserID", 501);
    setNumber(record, "Size", 4096LL * index);
    setNumber(record, "InodeNumber", 12884901888LL + index);
    setNumber(record, "Mode", 0100644);
    setNumber(record, "ProtectionClass", 3);
    record.Set(CFSTR("RelativePath"), uid(2).get());
    record.Set(CFSTR("Digest"), uid(3).get());
    record.Set(CFSTR("$class"), uid(4).get());
    return record;
}

CF::Data makeBlob(int index) {
    const auto objects = CF::Array::Mutable();
    objects.Append(CFSTR("$null"));
    objects.Append(recordObject(index).get());
    objects.Append(CF::String::Format(CFSTR("Library/Caches/com.example.app/file-%06d"), index));
    objects.Append(CF::Data(std::vector<std::uint8_t>(20, static_cast<std::uint8_t>(index))));
    objects.Append(classDictionary({"MBFile", "NSObject"}).get());
    const auto top = CF::Dictionary::Mutable();
    top.Set(CFSTR("root"), uid(1).get());
    const auto archive = CF::Dictionary::Mutable();
    setNumber(archive, "$version", 100000);
    archive.Set(CFSTR("$archiver"), CFSTR("NSKeyedArchiver"));
    archive.Set(CFSTR("$top"), top.get());
    archive.Set(CFSTR("$objects"), objects.get());
    return PropertyList::ToPropertyListData(archive, kCFPropertyListBinaryFormat_v1_0);
}

const std::vector<CF::Data> &blobs() {
    static const std::vector<CF::Data> all = [] {
        std::vector<CF::Data> made;
        for (int index = 0; index < 1000; ++index) {
            made.push_back(makeBlob(index));
        }
        return made;
    }();
    return all;
}

template <class Body>
void forEachBlob(benchmark::State &state, Body body) {
    std::size_t bytes = 0;
    std::size_t i = 0;
    for (auto _ : state) {
        const CF::Data &blob = blobs()[i++ % blobs().size()];
        bytes += static_cast<std::size_t>(blob.GetLength());
        body(blob);
    }
    state.SetItemsProcessed(state.iterations());
    state.SetBytesProcessed(static_cast<std::int64_t>(bytes));
}

void decodeQuickly(benchmark::State &state) {
    forEachBlob(state, [&](const CF::Data &blob) {
        Kelvane::MBFileView view;
        if (!Kelvane::DecodeMBFile(blob.GetBytes(), view)) {
            state.SkipWithError("a record is not of the usual shape");
        }
        benchmark::DoNotOptimize(view);
    });
}

void decodeGenerally(benchmark::State &state) {
    forEachBlob(state, [](const CF::Data &blob) {
        auto record = ZK::extract_keyed_archive<MB::File>(PropertyList::FromPropertyListData(blob));
        benchmark::DoNotOptimize(record);
    });
}

// Entries are kept, as a manifest keeps them.
void makeEntry(benchmark::State &state) {
    const CF::String domain("AppDomain-com.example.app");
    const CF::String path("Library/Caches/com.example.app/file-000000");
    const CF::String fileID("3d0d7e5fb2ce288813306e4d4636395e047a3d28");
    const auto loader = Kelvane::ShareFileLoader(
        [](CFStringRef, CFErrorRef *) -> KVFileClass * { return nullptr; });
    std::vector<Kelvane::EntryPointer> kept(4096);
    std::size_t i = 0;
    forEachBlob(state, [&](const CF::Data &blob) {
        kept[i++ % kept.size()] = Kelvane::CreateEntryFromMBFileData(nullptr, fileID, domain, path,
                                                                     1, blob.GetBytes(), loader);
    });
}

MB::File writtenRecord(int index) {
    MB::File record;
    record.RelativePath =
        CF::String::Format(CFSTR("Library/Caches/com.example.app/file-%06d"), index);
    record.Digest = CF::Data(std::vector<std::uint8_t>(20, static_cast<std::uint8_t>(index)));
    record.EncryptionKey = CF::Data(std::vector<std::uint8_t>(44, 7));
    record.Mode = 0100644;
    record.UserID = record.GroupID = 501;
    record.LastModified = 1700000000 + index;
    record.LastStatusChange = 1700000100 + index;
    record.Birth = 1690000000 + index;
    record.Size = 4096LL * index;
    record.InodeNumber = 12884901888ULL + static_cast<std::uint64_t>(index);
    record.ProtectionClass = 3;
    return record;
}

const std::vector<MB::File> &records() {
    static const std::vector<MB::File> all = [] {
        std::vector<MB::File> made;
        for (int index = 0; index < 1000; ++index) {
            made.push_back(writtenRecord(index));
        }
        return made;
    }();
    return all;
}

template <class Body>
void forEachRecord(benchmark::State &state, Body body) {
    std::size_t i = 0;
    for (auto _ : state) {
        body(records()[i++ % records().size()]);
    }
    state.SetItemsProcessed(state.iterations());
}

void encodeQuickly(benchmark::State &state) {
    std::vector<std::uint8_t> archive;
    forEachRecord(state, [&](const MB::File &record) {
        Kelvane::EncodeMBFile({.RelativePath = record.RelativePath.get(),
                               .Target = record.Target.get(),
                               .Digest = record.Digest.get(),
                               .EncryptionKey = record.EncryptionKey.get(),
                               .Mode = record.Mode,
                               .UserID = record.UserID,
                               .GroupID = record.GroupID,
                               .LastModified = record.LastModified,
                               .LastStatusChange = record.LastStatusChange,
                               .Birth = record.Birth,
                               .Size = record.Size,
                               .InodeNumber = record.InodeNumber,
                               .ProtectionClass = record.ProtectionClass},
                              archive);
        benchmark::DoNotOptimize(archive.data());
    });
}

void encodeGenerally(benchmark::State &state) {
    forEachRecord(state, [](const MB::File &record) {
        const auto archive = PropertyList::ToPropertyListData(ZK::make_keyed_archive(record),
                                                              kCFPropertyListBinaryFormat_v1_0);
        benchmark::DoNotOptimize(archive.get());
    });
}

BENCHMARK(decodeQuickly);
BENCHMARK(decodeGenerally);
BENCHMARK(makeEntry);
BENCHMARK(encodeQuickly);
BENCHMARK(encodeGenerally);

} // namespace

BENCHMARK_MAIN();
