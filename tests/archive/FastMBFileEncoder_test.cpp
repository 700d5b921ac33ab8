// The quick encoder against the general codec: the same bytes for every record.

#include "archive/FastMBFileEncoder.hpp"

#include "Archives.hpp"
#include "DeviceRecords.hpp"
#include "SameRecord.hpp"
#include "archive/FastMBFile.hpp"

#include <gtest/gtest.h>

#include <limits>
#include <random>

using namespace ArchiveTest;

namespace {

using PropertyList = CF::PropertyListType<CF::Dictionary>;

Octets generally(const MB::File &record) {
    return PropertyList::ToPropertyListData(ZK::make_keyed_archive(record),
                                            kCFPropertyListBinaryFormat_v1_0)
        .GetVector();
}

Octets quickly(const MB::File &record, Octets archive = {}) {
    Kelvane::MBFileFields fields;
    fields.RelativePath = record.RelativePath.get();
    fields.Target = record.Target.get();
    fields.Digest = record.Digest.get();
    fields.EncryptionKey = record.EncryptionKey.get();
    fields.Mode = record.Mode;
    fields.UserID = record.UserID;
    fields.GroupID = record.GroupID;
    fields.LastModified = record.LastModified;
    fields.LastStatusChange = record.LastStatusChange;
    fields.Birth = record.Birth;
    fields.Size = record.Size;
    fields.InodeNumber = record.InodeNumber;
    fields.ProtectionClass = record.ProtectionClass;
    Kelvane::EncodeMBFile(fields, archive);
    return archive;
}

void expectSame(const MB::File &record) { EXPECT_EQ(quickly(record), generally(record)); }

MB::File recordOf(const char *path, const char *target = nullptr) {
    MB::File record;
    record.RelativePath = path;
    record.Target = target;
    return record;
}

CF::String textOf(std::size_t length, UniChar unit) {
    const std::vector<UniChar> units(length, unit);
    return CF::String::Adopt(CFStringCreateWithCharacters(kCFAllocatorDefault, units.data(),
                                                          static_cast<CFIndex>(length)));
}

// Random records that are not too random: values that other fields, names and references have
// too, and those around which the format changes.
class RandomRecords {
  public:
    explicit RandomRecords(unsigned seed) : random_(seed) {}

    MB::File Next() {
        MB::File record;
        record.RelativePath = Text();
        record.Target = Chance(4) ? record.RelativePath : Text();
        record.Digest = Data();
        record.EncryptionKey = Chance(4) ? record.Digest : Data();
        record.Mode = static_cast<std::int32_t>(Number());
        record.UserID = static_cast<std::uint32_t>(Number());
        record.GroupID = static_cast<std::uint32_t>(Number());
        record.LastModified = static_cast<std::int64_t>(Number());
        record.LastStatusChange = static_cast<std::int64_t>(Number());
        record.Birth = static_cast<std::int64_t>(Number());
        record.Size = static_cast<std::int64_t>(Number());
        record.InodeNumber = Number();
        record.ProtectionClass = static_cast<std::int32_t>(Number());
        return record;
    }

  private:
    bool Chance(unsigned of) { return random_() % of == 0; }
    template <class T>
    T OneOf(std::initializer_list<T> values) {
        return values.begin()[random_() % values.size()];
    }
    std::size_t Length() {
        return Chance(50) ? OneOf<std::size_t>({65534, 65535, 65536})
                          : OneOf<std::size_t>({0, 1, 13, 14, 15, 16, 17, 254, 255, 256, 257});
    }
    CF::String Text() {
        if (Chance(4)) {
            return {};
        }
        if (Chance(3)) {
            return OneOf<const char *>({"$archiver",
                                        "$objects",
                                        "$top",
                                        "$version",
                                        "NSKeyedArchiver",
                                        "$null",
                                        "$class",
                                        "Birth",
                                        "Digest",
                                        "EncryptionKey",
                                        "GroupID",
                                        "InodeNumber",
                                        "LastModified",
                                        "LastStatusChange",
                                        "Mode",
                                        "ProtectionClass",
                                        "RelativePath",
                                        "Size",
                                        "Target",
                                        "UserID",
                                        "CF$UID",
                                        "$classes",
                                        "$classname",
                                        "MBFile",
                                        "NSObject",
                                        "root"});
        }
        return textOf(Length(), OneOf<UniChar>({'a', 'b', 0, 0x7F, 0x80, 0xE9, 0x20AC, 0xD83D}));
    }
    CF::Data Data() {
        return Chance(3) ? CF::Data() : CF::Data(Octets(Length(), OneOf<std::uint8_t>({0, 1})));
    }
    std::uint64_t Number() {
        if (Chance(3)) {
            return OneOf<std::uint64_t>({0, 1, 2, 3, 4, 5, 6, 7, 100000});
        }
        const std::uint64_t power = std::uint64_t{1} << OneOf<unsigned>({7, 8, 15, 16, 31, 32, 63});
        return power + OneOf<std::uint64_t>({0, 1, std::numeric_limits<std::uint64_t>::max()}) *
                           OneOf<std::uint64_t>({0, 1, power});
    }

    std::mt19937 random_;
};

} // namespace

TEST(FastMBFileEncoder, WritesTheDefaultRecord) { expectSame(MB::File()); }

TEST(FastMBFileEncoder, WritesADeviceLikeRecord) {
    MB::File record = recordOf("Library/Caches/com.example/file");
    record.Digest = CF::Data(Octets(20, 0xAB));
    record.EncryptionKey = CF::Data(Octets(44, 0x11));
    record.Mode = 0100644;
    record.UserID = record.GroupID = 501;
    record.LastModified = record.LastStatusChange = 1700000000;
    record.Birth = 1600000000;
    record.Size = 123456;
    record.InodeNumber = 12884901888;
    record.ProtectionClass = 3;
    expectSame(record);
}

TEST(FastMBFileEncoder, StoresEqualTextsOnce) {
    const auto record = recordOf("same/path", "same/path");
    expectSame(record);
    EXPECT_LT(quickly(record).size(), quickly(recordOf("same/path", "same/pata")).size());
}

TEST(FastMBFileEncoder, StoresEqualDataOnce) {
    MB::File record;
    record.Digest = record.EncryptionKey = CF::Data(Octets(20, 1));
    expectSame(record);
}

TEST(FastMBFileEncoder, SharesTextsWithNames) {
    for (const char *name : {"$null", "root", "MBFile", "NSKeyedArchiver", "LastStatusChange",
                             "CF$UID", "Target", "$classes"}) {
        SCOPED_TRACE(name);
        expectSame(recordOf(name));
        expectSame(recordOf("path", name));
        expectSame(recordOf(name, "root"));
    }
}

TEST(FastMBFileEncoder, WritesEveryWidthOfNumbers) {
    for (unsigned bits = 0; bits < 64; ++bits) {
        for (const std::uint64_t value : {std::uint64_t{1} << bits, (std::uint64_t{1} << bits) - 1,
                                          ~(std::uint64_t{1} << bits)}) {
            SCOPED_TRACE(value);
            MB::File record = recordOf("p");
            record.InodeNumber = value;
            record.Size = static_cast<std::int64_t>(value);
            record.Mode = static_cast<std::int32_t>(value);
            record.UserID = static_cast<std::uint32_t>(value);
            expectSame(record);
        }
    }
}

TEST(FastMBFileEncoder, WritesLargeInodeNumbersAsTheCodecDoes) {
    MB::File record = recordOf("p");
    record.InodeNumber = std::numeric_limits<std::uint64_t>::max();
    record.Size = -1;
    expectSame(record);
}

TEST(FastMBFileEncoder, WritesEveryLengthWhereTheFormatChanges) {
    for (const std::size_t length : {0U, 14U, 15U, 255U, 256U, 65535U, 65536U, 70000U}) {
        SCOPED_TRACE(length);
        for (const int unit : {0x61, 0x1062}) {
            MB::File record;
            record.RelativePath = textOf(length, static_cast<UniChar>(unit));
            expectSame(record);
            record.Target = textOf(length, static_cast<UniChar>(unit + 1));
            record.Digest = CF::Data(Octets(length, 7));
            expectSame(record);
        }
    }
}

TEST(FastMBFileEncoder, KeepsHalvesOfSurrogatePairs) {
    MB::File record;
    record.RelativePath = textOf(3, 0xDE00);
    expectSame(record);
}

TEST(FastMBFileEncoder, UsesItsMemoryAgain) {
    const MB::File record = recordOf("p");
    EXPECT_EQ(quickly(record, Octets(100000, 0xEE)), generally(record));
    EXPECT_EQ(quickly(record, Octets(1, 0xEE)), generally(record));
}

TEST(FastMBFileEncoder, AgreesWithTheGeneralCodecOnRandomRecords) {
    for (unsigned seed = 0; seed < 20; ++seed) {
        RandomRecords records(seed);
        for (int i = 0; i < 500; ++i) {
            const MB::File record = records.Next();
            ASSERT_EQ(quickly(record), generally(record)) << "seed " << seed << ", record " << i;
        }
    }
}

TEST(FastMBFileEncoder, WritesWhatTheQuickDecoderReads) {
    for (const DeviceRecord &device : MakeDeviceRecords(300, 5)) {
        MB::File record = device.expected;
        record.ExtendedAttributes = CF::Dictionary();
        record.ExtendedAttributesData = CF::Data();
        const Octets archive = quickly(record);
        Kelvane::MBFileView view;
        ASSERT_TRUE(Kelvane::DecodeMBFile(archive, view));
        EXPECT_TRUE(SameRecord(view, record));
    }
}

TEST(FastMBFileEncoder, WritesWhatPythonReads) {
    MB::File record = recordOf("p/\xC3\x84", "t");
    record.EncryptionKey = CF::Data(Octets{1, 2});
    record.Size = 70000;
    record.Birth = -1;
    record.InodeNumber = std::numeric_limits<std::uint64_t>::max();
    const Octets archive = quickly(record);
    const auto result = testing_support::RunPython(
        "import plistlib, sys\n"
        "archive = plistlib.loads(sys.stdin.buffer.read())\n"
        "objects = archive['$objects']\n"
        "record = objects[archive['$top']['root']['CF$UID']]\n"
        "follow = lambda key: objects[record[key]['CF$UID']]\n"
        "print(ascii(follow('RelativePath')), follow('Target'), follow('EncryptionKey').hex(),\n"
        "      record['Size'], record['Birth'], record['InodeNumber'],\n"
        "      follow('$class')['$classes'], sorted(record) == sorted(set(record)))\n",
        {}, std::string(archive.begin(), archive.end()));
    EXPECT_EQ(result.output, "'p/\\xc4' t 0102 70000 -1 18446744073709551615 "
                             "['MBFile', 'NSObject'] True\n")
        << result.errors;
}
