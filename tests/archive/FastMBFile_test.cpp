// The quick decoder against the general codec: whatever it accepts, the codec reads
// the same.

#include "archive/FastMBFile.hpp"

#include "Archives.hpp"
#include "DeviceRecords.hpp"
#include "SameRecord.hpp"
#include "ZK/keyed_archiver.hpp"
#include "ZK/keyed_unarchiver.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <exception>
#include <memory>
#include <optional>
#include <random>

using namespace ArchiveTest;

namespace {

using PropertyList = CF::PropertyListType<CF::Dictionary>;

// In memory of exactly its size, so that a sanitizer sees a read beyond the end.
class ExactCopy {
  public:
    explicit ExactCopy(const Octets &bytes)
        : size_(bytes.size()), bytes_(std::make_unique<std::uint8_t[]>(size_)) {
        std::copy(bytes.begin(), bytes.end(), bytes_.get());
    }
    std::span<const std::uint8_t> get() const { return {bytes_.get(), size_}; }

  private:
    std::size_t size_;
    std::unique_ptr<std::uint8_t[]> bytes_;
};

std::optional<MB::File> decodeGenerally(const Octets &blob) {
    const auto archive = PropertyList::FromPropertyListData(CF::Data(blob));
    try {
        return ZK::extract_keyed_archive<MB::File>(archive);
    } catch (const std::exception &) {
        return std::nullopt;
    }
}

bool isHandled(const Octets &blob) {
    const ExactCopy copy(blob);
    Kelvane::MBFileView view;
    return Kelvane::DecodeMBFile(copy.get(), view);
}

// How the two decoders fared over many blobs.
struct Tally {
    int blobs = 0;
    int handled = 0;
    int disagreements = 0;

    void check(const Octets &blob) {
        ++blobs;
        const ExactCopy copy(blob);
        Kelvane::MBFileView view;
        if (!Kelvane::DecodeMBFile(copy.get(), view)) {
            return;
        }
        ++handled;
        const auto file = decodeGenerally(blob);
        if (!file || !SameRecord(view, *file)) {
            ++disagreements;
        }
    }
};

Octets archiveOf(const MB::File &file) {
    return PropertyList::ToPropertyListData(ZK::make_keyed_archive(file),
                                            kCFPropertyListBinaryFormat_v1_0)
        .GetVector();
}

MB::File ourRecord() {
    MB::File file;
    file.RelativePath = "Library/file";
    file.Digest = CF::Data(Octets(20, 1));
    file.EncryptionKey = CF::Data(Octets(44, 2));
    file.Mode = 0100644;
    file.Size = 1LL << 40;
    file.LastModified = -5;
    file.InodeNumber = ~std::uint64_t{0};
    file.ProtectionClass = 4;
    return file;
}

} // namespace

TEST(FastMBFile, HandlesEveryUsualRecord) {
    int usual = 0;
    for (const DeviceRecord &record : MakeDeviceRecords(400, 1)) {
        EXPECT_EQ(isHandled(record.blob), record.usual);
        usual += record.usual ? 1 : 0;
    }
    EXPECT_GT(usual, 300);
}

TEST(FastMBFile, ReadsWhatTheRecordSays) {
    for (const DeviceRecord &record : MakeDeviceRecords(400, 2)) {
        Kelvane::MBFileView view;
        if (Kelvane::DecodeMBFile(record.blob, view)) {
            EXPECT_TRUE(SameRecord(view, record.expected));
        }
    }
}

TEST(FastMBFile, HandlesTheRecordsThatWeWrite) {
    for (const MB::File &file : {MB::File(), ourRecord()}) {
        const Octets blob = archiveOf(file);
        Kelvane::MBFileView view;
        ASSERT_TRUE(Kelvane::DecodeMBFile(blob, view));
        EXPECT_TRUE(SameRecord(view, file));
    }
}

TEST(FastMBFile, AgreesWithTheCodecOnNumbersBeyondTheirFields) {
    Tally tally;
    for (const char *field : {"Mode", "UserID", "GroupID", "LastModified", "LastStatusChange",
                              "Birth", "Size", "InodeNumber", "ProtectionClass"}) {
        for (unsigned bit = 0; bit < 64; ++bit) {
            for (const std::uint64_t value : {std::uint64_t{1} << bit, ~(std::uint64_t{1} << bit),
                                              (std::uint64_t{1} << bit) - 1}) {
                for (const CF::Number &number :
                     {CF::Number::FromUInt64(value),
                      CF::Number::FromInt64(static_cast<std::int64_t>(value))}) {
                    const auto archive =
                        Archive({Dictionary({{field, number.get()}, {"$class", UID(2)}}),
                                 Class({"MBFile", "NSObject"})});
                    tally.check(
                        PropertyList::ToPropertyListData(archive, kCFPropertyListBinaryFormat_v1_0)
                            .GetVector());
                }
            }
        }
    }
    EXPECT_EQ(tally.disagreements, 0);
    EXPECT_GT(tally.handled, tally.blobs / 2);
}

TEST(FastMBFile, LeavesAttributesToTheCodec) {
    MB::File file = ourRecord();
    file.ExtendedAttributes = AttributesField(2);
    EXPECT_FALSE(isHandled(archiveOf(file)));
}

TEST(FastMBFile, LeavesLongClassNamesToTheCodec) {
    const auto blobWithAncestor = [](std::size_t length) {
        const auto archive =
            Archive({Dictionary({{"EncryptionKey", UID(2)}, {"$class", UID(4)}}),
                     Dictionary({{"NS.data", Data({1})}, {"$class", UID(3)}}),
                     Class({"NSData", std::string(length, 'N')}), Class({"MBFile", "NSObject"})});
        return PropertyList::ToPropertyListData(archive, kCFPropertyListBinaryFormat_v1_0)
            .GetVector();
    };
    EXPECT_TRUE(isHandled(blobWithAncestor(256)));
    EXPECT_TRUE(decodeGenerally(blobWithAncestor(256)));
    EXPECT_FALSE(isHandled(blobWithAncestor(257)));
    EXPECT_FALSE(decodeGenerally(blobWithAncestor(257)));
}

TEST(FastMBFile, LeavesOtherFormatsToTheCodec) {
    const auto xml = PropertyList::ToPropertyListData(ZK::make_keyed_archive(ourRecord()),
                                                      kCFPropertyListXMLFormat_v1_0);
    EXPECT_FALSE(isHandled(xml.GetVector()));
    EXPECT_FALSE(isHandled({}));
    EXPECT_FALSE(isHandled({'b', 'p', 'l', 'i', 's', 't', '0', '0'}));
}

TEST(FastMBFile, AgreesWithTheCodecOnTruncatedRecords) {
    Tally tally;
    for (const DeviceRecord &record : MakeDeviceRecords(8, 3)) {
        for (std::size_t length = 0; length < record.blob.size(); ++length) {
            tally.check(Octets(record.blob.begin(),
                               record.blob.begin() + static_cast<std::ptrdiff_t>(length)));
        }
    }
    EXPECT_EQ(tally.disagreements, 0);
    EXPECT_EQ(tally.handled, 0);
}

TEST(FastMBFile, AgreesWithTheCodecOnFlippedBits) {
    Tally tally;
    auto records = MakeDeviceRecords(6, 4);
    records.push_back({archiveOf(ourRecord()), {}, true});
    for (const DeviceRecord &record : records) {
        Octets blob = record.blob;
        for (std::size_t bit = 0; bit < blob.size() * 8; ++bit) {
            blob[bit / 8] ^= static_cast<std::uint8_t>(1u << bit % 8);
            tally.check(blob);
            blob[bit / 8] ^= static_cast<std::uint8_t>(1u << bit % 8);
        }
    }
    EXPECT_EQ(tally.disagreements, 0);
    EXPECT_GT(tally.handled, tally.blobs / 10);
    EXPECT_LT(tally.handled, tally.blobs);
}

TEST(FastMBFile, AgreesWithTheCodecOnOverwrittenBytes) {
    Tally tally;
    std::mt19937 random(5);
    for (const DeviceRecord &record : MakeDeviceRecords(100, 5)) {
        for (int i = 0; i < 60; ++i) {
            Octets blob = record.blob;
            const int changes = 1 + static_cast<int>(random() % 4);
            for (int change = 0; change < changes; ++change) {
                blob[random() % blob.size()] = static_cast<std::uint8_t>(random());
            }
            tally.check(blob);
        }
    }
    EXPECT_EQ(tally.disagreements, 0);
    EXPECT_GT(tally.handled, 300);
}

TEST(FastMBFile, AgreesWithTheCodecOnSwappedBytes) {
    // Objects refer to one another in single bytes, so swapping two bytes of a
    // container often makes another well-formed document.
    Tally tally;
    std::mt19937 random(6);
    for (const DeviceRecord &record : MakeDeviceRecords(100, 6)) {
        for (int i = 0; i < 60; ++i) {
            Octets blob = record.blob;
            const std::size_t first = random() % blob.size();
            const std::size_t distance = 1 + random() % 24;
            std::swap(blob[first], blob[(first + distance) % blob.size()]);
            tally.check(blob);
        }
    }
    EXPECT_EQ(tally.disagreements, 0);
    EXPECT_GT(tally.handled, 300);
}

TEST(FastMBFile, AgreesWithTheCodecOnReorderedOffsets) {
    // Every entry of the offset table in turn takes the offset of every other one.
    Tally tally;
    for (const DeviceRecord &record : MakeDeviceRecords(4, 7)) {
        const std::size_t size = record.blob.size();
        const auto table =
            static_cast<std::size_t>(record.blob[size - 2] << 8 | record.blob[size - 1]);
        const std::size_t width = record.blob[size - 26];
        const std::size_t count = record.blob[size - 17];
        ASSERT_EQ(table + width * count + 32, size);
        for (std::size_t i = 0; i < count * count; ++i) {
            Octets blob = record.blob;
            const auto from =
                record.blob.begin() + static_cast<std::ptrdiff_t>(table + i / count * width);
            std::copy(from, from + static_cast<std::ptrdiff_t>(width),
                      blob.begin() + static_cast<std::ptrdiff_t>(table + i % count * width));
            tally.check(blob);
        }
    }
    EXPECT_EQ(tally.disagreements, 0);
    EXPECT_GT(tally.handled, 100);
}
