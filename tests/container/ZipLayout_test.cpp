// Archives whose directories contradict themselves, and those that merely look unusual.
#include "tests/container/BackupFixture.hpp"

#include "container/BackupSource.hpp"

namespace container_tests {
namespace {

// What the scripts share: a zip is put together byte by byte, as no library would do it.
constexpr const char *kBuilder = R"(
import struct, sys, zlib

def local(name, packed, size, crc, extra=b'', flags=0):
    return struct.pack('<IHHHHHIIIHH', 0x04034b50, 20, flags, 8, 0, 0x21, crc, packed, size,
                       len(name), len(extra)) + name + extra

def central(name, packed, size, crc, offset, extra=b'', flags=0):
    return struct.pack('<IHHHHHHIIIHHHHHII', 0x02014b50, 45, 45, flags, 8, 0, 0x21, crc, packed,
                       size, len(name), len(extra), 0, 0, 0, 0, offset) + name + extra

def end(count, size, start, comment=b''):
    return struct.pack('<IHHHHIIH', 0x06054b50, 0, 0, count & 0xffff, count & 0xffff, size, start,
                       len(comment)) + comment

def deflate(data):
    packer = zlib.compressobj(9, zlib.DEFLATED, -15)
    return packer.compress(data) + packer.flush()

def archive(records, headers, count=None, comment=b''):
    directory = b''.join(headers)
    return records + directory + end(len(headers) if count is None else count, len(directory),
                                     len(records), comment)

def plain(names, data=b'content'):
    packed, crc, records, headers = deflate(data), zlib.crc32(data), bytearray(), []
    for name in names:
        headers.append(central(name, len(packed), len(data), crc, len(records)))
        records += local(name, len(packed), len(data), crc) + packed
    return records, headers

def write(data):
    with open(sys.argv[1], 'wb') as file:
        file.write(data)
)";

class ZipLayout : public testing::Test {
  protected:
    ZipLayout() { testing_support::LibraryTemporaryPath(); }

    // The script's zip, and why it was refused; null when it was not.
    CF::Error errorOf(const std::string &script) {
        const auto result = testing_support::RunPython(kBuilder + script, {path()});
        EXPECT_EQ(result.status, 0) << result.errors;
        try {
            source_ = Kelvane::OpenZipSource(CF::String(path()));
            return {};
        } catch (const CF::Error &error) {
            EXPECT_TRUE(
                IsError(error, kKVErrorInvalidBackup, "Failed to open zip file (" + path() + ")"));
            return error.GetUnderlying();
        }
    }
    std::string content(const char *name) const {
        const std::vector<std::uint8_t> bytes = ReadContent(source_->Load(name).get());
        return {bytes.begin(), bytes.end()};
    }
    std::string path() const { return (directory_ / "made.zip").string(); }

    testing_support::TemporaryDirectory directory_;
    std::shared_ptr<Kelvane::BackupSource> source_;
};

TEST_F(ZipLayout, OfAnOrdinaryArchiveIsAccepted) {
    EXPECT_FALSE(errorOf("write(archive(*plain([b'a', b'b', b'c'])))"));
    EXPECT_EQ(content("c"), "content");
}

TEST_F(ZipLayout, WithMoreRecordsThanTheEndCountsIsNamed) {
    for (const auto &[script, count] :
         {std::pair("write(archive(*plain([b'a', b'b', b'c']), count=2))", 2),
          std::pair("write(archive(*plain([b'%d' % i for i in range(65536)])))", 0),
          std::pair("write(archive(*plain([b'%d' % i for i in range(65600)])))", 64)}) {
        EXPECT_TRUE(IsError(errorOf(script), kKVErrorArchive,
                            "The zip's directory holds more records than its end record counts "
                            "(more than " +
                                std::to_string(count) + ")"));
    }
}

TEST_F(ZipLayout, WithAsManyRecordsAsTheEndCanCountIsAccepted) {
    EXPECT_FALSE(errorOf("write(archive(*plain([b'%d' % i for i in range(65534)])))"));
    EXPECT_EQ(content("65533"), "content");
}

TEST_F(ZipLayout, WithRecordsOverOneStretchIsRefused) {
    EXPECT_TRUE(IsError(errorOf(R"(
data = bytes(10 << 20)
records, headers = plain([b'0'], data)
size = len(deflate(data))
headers += [central(b'%d' % i, size, len(data), zlib.crc32(data), 0) for i in range(1, 3000)]
write(archive(records, headers))
)"),
                        kKVErrorArchive, "Two parts of the zip overlap (at byte 0)"));
}

// Each record's data is what follows its header: the next header, and so on to the last data.
TEST_F(ZipLayout, WithRecordsThatQuoteTheNextIsRefused) {
    const CF::Error error = errorOf(R"(
kernel = deflate(bytes(1 << 20))
records, headers = b'', []
for i in reversed(range(50)):
    name = b'%02d' % i
    head = local(name, len(records) + len(kernel), 1 << 20, 0)
    records = head + records
total = len(records)
for i in range(50):
    name = b'%02d' % i
    offset = i * (30 + 2)
    headers.append(central(name, total - offset - 32 + len(kernel), 1 << 20, 0, offset))
write(archive(records + kernel, headers))
)");
    EXPECT_TRUE(IsError(error, kKVErrorArchive, "Two parts of the zip overlap (at byte 32)"));
}

TEST_F(ZipLayout, WithARecordInTheDirectoryIsRefused) {
    const CF::Error error = errorOf(R"(
records, headers = plain([b'a', b'b'])
headers[1] = central(b'b', len(records), 7, 0, len(records) // 2)
write(archive(records, headers))
)");
    EXPECT_EQ(error.GetCode(), static_cast<CFIndex>(kKVErrorArchive));
    EXPECT_TRUE(error.GetFailureReason().GetUTF8().starts_with("Two parts of the zip overlap"));
}

TEST_F(ZipLayout, WithRecordsInAnyOrderIsAccepted) {
    EXPECT_FALSE(errorOf(R"(
records, headers = plain([b'a', b'b', b'c'])
write(archive(records, headers[::-1]))
)"));
    EXPECT_EQ(content("a"), "content");
}

TEST_F(ZipLayout, WithSomethingBeforeTheArchiveIsAccepted) {
    EXPECT_FALSE(errorOf("write(b'#!/bin/sh\\n' * 1000 + archive(*plain([b'a', b'b'])))"));
    EXPECT_EQ(content("b"), "content");
}

TEST_F(ZipLayout, WithACommentIsAccepted) {
    EXPECT_FALSE(errorOf("write(archive(*plain([b'a', b'b']), comment=b'x' * 60000))"));
    EXPECT_EQ(content("b"), "content");
}

TEST_F(ZipLayout, WithSizesBehindTheDataIsAccepted) {
    EXPECT_FALSE(errorOf(R"(
data, records, headers = b'content', b'', []
packed, crc = deflate(data), zlib.crc32(data)
for name in b'a', b'b':
    headers.append(central(name, len(packed), len(data), crc, len(records), flags=8))
    records += local(name, 0, 0, 0, flags=8) + packed
    records += struct.pack('<IIII', 0x08074b50, crc, len(packed), len(data))
write(archive(records, headers))
)"));
    EXPECT_EQ(content("b"), "content");
}

// The end of the archive, and sizes or places of records, in their 64-bit forms.
constexpr const char *kZip64 = R"(
records, headers = plain([b'a', b'b'])
data, size = b'content', len(deflate(b'content'))
CHANGE
directory = b''.join(headers)
tail = struct.pack('<IQHHIIQQQQ', 0x06064b50, 44, 45, 45, 0, 0, COUNT, COUNT, len(directory),
                   len(records))
tail += struct.pack('<IIQI', 0x07064b50, 0, len(records) + len(directory), 1)
write(records + directory + tail + end(0xffff, 0xffffffff, 0xffffffff))
)";

std::string zip64(int count, const std::string &change = "") {
    std::string script = kZip64;
    script.replace(script.find("CHANGE"), 6, change);
    return "COUNT = " + std::to_string(count) + script;
}

TEST_F(ZipLayout, WithALongEndIsReadLikeTheOther) {
    EXPECT_FALSE(errorOf(zip64(2)));
    EXPECT_EQ(content("b"), "content");
    EXPECT_TRUE(IsError(errorOf(zip64(1)), kKVErrorArchive,
                        "The zip's directory holds more records than its end record counts "
                        "(more than 1)"));
}

TEST_F(ZipLayout, WithOverlapsInLongFormIsRefused) {
    const char *places = "headers[1] = central(b'b', size, 7, zlib.crc32(data), 0xffffffff, "
                         "struct.pack('<HHQ', 1, 8, 0))";
    EXPECT_TRUE(IsError(errorOf(zip64(2, places)), kKVErrorArchive,
                        "Two parts of the zip overlap (at byte 0)"));
    const char *sizes = "headers[0] = central(b'a', 0xffffffff, 7, zlib.crc32(data), 0, "
                        "struct.pack('<HHQ', 1, 8, size + 1))";
    EXPECT_EQ(errorOf(zip64(2, sizes)).GetCode(), static_cast<CFIndex>(kKVErrorArchive));
    const char *huge = "headers[0] = central(b'a', 0xffffffff, 7, zlib.crc32(data), 0, "
                       "struct.pack('<HHQ', 1, 8, 2**64 - 20))";
    EXPECT_TRUE(errorOf(zip64(2, huge))
                    .GetFailureReason()
                    .GetUTF8()
                    .starts_with("The zip's directory contradicts itself (at byte "));
}

TEST_F(ZipLayout, WithSmallSizesInLongFormIsAccepted) {
    EXPECT_FALSE(errorOf(zip64(2, "headers[0] = central(b'a', 0xffffffff, 7, zlib.crc32(data), 0, "
                                  "struct.pack('<HHQ', 1, 8, size))")));
    EXPECT_EQ(content("b"), "content");
}

TEST_F(ZipLayout, OfWhatArchiversMakeIsAccepted) {
    const BackupCopy copy(kPlain);
    for (const std::string command :
         {"zip -q -r -X \"$2\" .", "zip -q -r - . | cat > \"$2\"", "zip -q -r -0 \"$2\" ."}) {
        fs::remove(path());
        const auto result = testing_support::RunCommand(
            {"sh", "-c", "cd \"$1\" && " + command, "zip", copy.root(), path()});
        ASSERT_EQ(result.status, 0) << result.errors;
        EXPECT_TRUE(OpenPath(path()).container) << command;
    }
}

// Names are only ever compared with those that are asked for.
TEST_F(ZipLayout, WithNamesThatLeadElsewhereIsNoDanger) {
    EXPECT_FALSE(errorOf("write(archive(*plain([b'../out', b'/etc/out', b'a/../b', b'a'])))"));
    EXPECT_EQ(content("a"), "content");
    for (const char *name : {"../out", "/etc/out", "a/../b"}) {
        try {
            source_->Load(name);
            ADD_FAILURE() << name;
        } catch (const CF::Error &error) {
            EXPECT_TRUE(IsError(error, kKVErrorInvalidBackup,
                                std::string("Unsafe stored file name (") + name + ")"));
        }
    }
}

} // namespace
} // namespace container_tests
