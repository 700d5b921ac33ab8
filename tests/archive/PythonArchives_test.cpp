// Archives that Python writes are read, and Python reads those that we write.

#include "Archives.hpp"
#include "DeviceRecords.hpp"

using namespace ArchiveTest;
using ZK::extract_keyed_archive;
using ZK::make_keyed_archive;

namespace {

using PropertyList = CF::PropertyListType<CF::Dictionary>;

std::string bytesOf(const CF::Data &data) {
    const auto bytes = data.GetBytes();
    return {bytes.begin(), bytes.end()};
}

// What Python says about our archive of the record, through a script that finds the
// archive in `archive` and the objects in `objects`.
std::string askPython(const MB::File &record, CFPropertyListFormat format,
                      const std::string &script) {
    const auto data = PropertyList::ToPropertyListData(make_keyed_archive(record), format);
    const auto result =
        testing_support::RunPython("import plistlib, sys\n"
                                   "archive = plistlib.loads(sys.stdin.buffer.read())\n"
                                   "objects = archive['$objects']\n" +
                                       script,
                                   {}, bytesOf(data));
    EXPECT_EQ(result.status, 0) << result.errors;
    return result.output;
}

MB::File smallRecord() {
    MB::File record;
    record.RelativePath = "p/Ä";
    record.EncryptionKey = CF::Data(Octets{1, 2});
    record.Size = 70000;
    record.LastModified = -1;
    return record;
}

} // namespace

TEST(PythonArchives, AreReadFieldForField) {
    const auto records = MakeDeviceRecords(500, 11);
    ASSERT_EQ(records.size(), 500u);
    for (const DeviceRecord &record : records) {
        const auto archive = PropertyList::FromPropertyListData(CF::Data(record.blob));
        const MB::File file = extract_keyed_archive<MB::File>(archive).value();
        const MB::File &expected = record.expected;
        EXPECT_EQ(file.RelativePath, expected.RelativePath);
        EXPECT_EQ(file.Target, expected.Target);
        EXPECT_EQ(file.Digest, expected.Digest);
        EXPECT_EQ(file.EncryptionKey, expected.EncryptionKey);
        EXPECT_EQ(file.Mode, expected.Mode);
        EXPECT_EQ(file.UserID, expected.UserID);
        EXPECT_EQ(file.GroupID, expected.GroupID);
        EXPECT_EQ(file.LastModified, expected.LastModified);
        EXPECT_EQ(file.LastStatusChange, expected.LastStatusChange);
        EXPECT_EQ(file.Birth, expected.Birth);
        EXPECT_EQ(file.Size, expected.Size);
        EXPECT_EQ(file.InodeNumber, expected.InodeNumber);
        EXPECT_EQ(file.ProtectionClass, expected.ProtectionClass);
        EXPECT_EQ(file.ExtendedAttributes, expected.ExtendedAttributes);
        EXPECT_EQ(file.ExtendedAttributesData, expected.ExtendedAttributesData);
    }
}

TEST(PythonArchives, MayHoldNumbersOf128Bits) {
    const auto result = testing_support::RunPython(R"py(
import plistlib, sys
from plistlib import UID
sys.stdout.buffer.write(plistlib.dumps({'$version': 100000, '$archiver': 'NSKeyedArchiver',
    '$top': {'root': UID(1)}, '$objects': ['$null', {'InodeNumber': 2**64 - 2, 'Size': 2**40}]},
    fmt=plistlib.FMT_BINARY))
)py");
    const Octets blob(result.output.begin(), result.output.end());
    const auto record =
        extract_keyed_archive<MB::File>(PropertyList::FromPropertyListData(CF::Data(blob)));
    ASSERT_TRUE(record);
    EXPECT_EQ(record->InodeNumber, 0xFFFFFFFFFFFFFFFEu);
    EXPECT_EQ(record->Size, 1LL << 40);
}

TEST(PythonArchives, SeeTheStructureOfOurArchives) {
    EXPECT_EQ(askPython(smallRecord(), kCFPropertyListBinaryFormat_v1_0, R"py(
print(sorted(archive), archive['$archiver'], archive['$version'], archive['$top'])
print(objects[0], objects[2], list(objects[3]), objects[4])
record = objects[1]
print(*('%s=%s' % item for item in sorted(record.items())), sep='\n')
)py"),
              "['$archiver', '$objects', '$top', '$version'] NSKeyedArchiver 100000 "
              "{'root': {'CF$UID': 1}}\n"
              "$null p/Ä [1, 2] {'$classes': ['MBFile', 'NSObject'], '$classname': 'MBFile'}\n"
              "$class={'CF$UID': 4}\nBirth=0\nEncryptionKey={'CF$UID': 3}\nGroupID=0\n"
              "InodeNumber=0\nLastModified=-1\nLastStatusChange=0\nMode=0\nProtectionClass=0\n"
              "RelativePath={'CF$UID': 2}\nSize=70000\nUserID=0\n");
}

TEST(PythonArchives, SeeOurArchivesInXML) {
    EXPECT_EQ(askPython(smallRecord(), kCFPropertyListXMLFormat_v1_0,
                        "print(archive['$top']['root'], objects[1]['Size'])"),
              "{'CF$UID': 1} 70000\n");
}

TEST(PythonArchives, SurviveOurOwnXML) {
    const auto xml = PropertyList::ToPropertyListData(make_keyed_archive(smallRecord()),
                                                      kCFPropertyListXMLFormat_v1_0);
    const auto record = extract_keyed_archive<MB::File>(PropertyList::FromPropertyListData(xml));
    ASSERT_TRUE(record);
    EXPECT_EQ(record->RelativePath.GetUTF8(), "p/Ä");
    EXPECT_EQ(record->LastModified, -1);
}
