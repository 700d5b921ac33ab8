// Records in the devices' form against what Python's plistlib makes of the same.
#include "archive/DeviceRecord.hpp"

#include "Archives.hpp"
#include "NativeRecords.hpp"
#include "SameRecord.hpp"
#include "tests/support/TemporaryDirectory.hpp"

#include <gtest/gtest.h>

using namespace ArchiveTest;
using Kelvane::RecordField;

namespace {

// Prints count records, one a line: the archive, the texts and data, the numbers.
constexpr std::string_view kMaker = R"py(
import random, sys
count, rng = int(sys.argv[1]), random.Random(int(sys.argv[2]))
NAMES = ['Library', 'Media', 'a', 'Grüße', 'данные', '🌍', 'x' * 40, 'quo"te', 'MBFile', 'Size', '$null']

def text():
    return '/'.join(rng.choice(NAMES) for _ in range(rng.randrange(0, 6))) or rng.choice(['', 'RelativePath'])

def number(bits):
    return rng.choice([0, 1, 127, 128, 255, 256, 501, 65535, 65536, 2**31 - 1, 2**bits - 1, rng.randrange(2**bits)])

def fields():
    fields = {name: number(40) for name in NUMBERS}
    fields |= {'UserID': rng.choice([501, 0, -2, -2**31]), 'Birth': rng.choice([315532800, -1, number(40)]),
               'InodeNumber': number(64), 'Size': number(63), 'Flags': rng.choice([0, 128]), 'RelativePath': text()}
    if rng.random() < 0.3: fields['Target'] = rng.choice([text(), fields['RelativePath'] or 't'])
    if rng.random() < 0.5: fields['Digest'] = rng.randbytes(20)
    if rng.random() < 0.5: fields['EncryptionKey'] = rng.randbytes(44)
    if rng.random() < 0.2:
        fields['ExtendedAttributes'] = plistlib.dumps({'com.example': rng.randbytes(rng.choice([1, 300, 70000]))},
                                                      fmt=plistlib.FMT_BINARY)
    return fields

def show(value):
    return '-' if value is None else 'h' + (value.encode() if isinstance(value, str) else value).hex()

for _ in range(count):
    f = fields()
    print(archive(f).hex(), *(show(f.get(name)) for name in
          ('RelativePath', 'Target', 'Digest', 'EncryptionKey', 'ExtendedAttributes')),
          *(f[name] - 2**64 if f[name] >= 2**63 else f[name] for name in NUMBERS))
)py";

struct Example {
    Octets blob;
    OwnedRecord record;
};

std::vector<Example> makeExamples(int count, int seed) {
    const auto result =
        testing_support::RunPython(std::string(kNativeArchive) + std::string(kMaker),
                                   {std::to_string(count), std::to_string(seed)});
    EXPECT_EQ(result.status, 0) << result.errors;
    std::vector<Example> examples;
    std::istringstream lines(result.output);
    for (std::string line; std::getline(lines, line);) {
        std::istringstream stream(line);
        std::string blob, path, target, digest, key, attributes;
        Example example;
        stream >> blob >> path >> target >> digest >> key >> attributes;
        for (std::int64_t &number : example.record.numbers) {
            stream >> number;
        }
        EXPECT_TRUE(stream) << line;
        example.blob = FromHex(blob);
        example.record.path = TextField(path);
        example.record.target = TextField(target);
        example.record.digest = DataField(digest);
        example.record.key = DataField(key);
        example.record.attributes = DataField(attributes);
        examples.push_back(std::move(example));
    }
    return examples;
}

Octets encode(const OwnedRecord &record) {
    Octets archive;
    Kelvane::DeviceRecordEncoder().Encode(record.View(), archive);
    return archive;
}

} // namespace

TEST(DeviceRecord, HasTheBytesThatPythonMakesOfIt) {
    const auto examples = makeExamples(400, 1);
    ASSERT_EQ(examples.size(), 400u);
    Kelvane::DeviceRecordEncoder encoder;
    Octets archive;
    for (const Example &example : examples) {
        encoder.Encode(example.record.View(), archive);
        EXPECT_EQ(archive, example.blob);
    }
}

TEST(DeviceRecord, IsReadByTheQuickDecoderAndByTheCodec) {
    for (const Example &example : makeExamples(100, 2)) {
        if (example.blob.size() > 60000) {
            continue; // too large for the quick one
        }
        Kelvane::MBFileView view;
        const Octets archive = encode(example.record);
        EXPECT_TRUE(Kelvane::DecodeMBFile(archive, view));
        const auto record = ZK::extract_keyed_archive<MB::File>(
            CF::PropertyListType<CF::Dictionary>::FromPropertyListData(CF::Data(archive)));
        ASSERT_TRUE(record.has_value());
        EXPECT_TRUE(SameRecord(view, *record));
        EXPECT_EQ(view.Birth, example.record.View()[RecordField::Birth]);
        EXPECT_EQ(view.Flags, example.record.View()[RecordField::Flags]);
    }
}

TEST(DeviceRecord, WritesHalvesOfSurrogatePairsAsTheyAre) {
    const UniChar half = 0xD83D;
    OwnedRecord record;
    record.path = CF::String::Adopt(CFStringCreateWithCharacters(nullptr, &half, 1));
    const Octets archive = encode(record);
    const Octets expected = {0x61, 0xD8, 0x3D};
    EXPECT_NE(std::search(archive.begin(), archive.end(), expected.begin(), expected.end()),
              archive.end());
}

TEST(DeviceRecord, IsAValidPropertyListForOtherReaders) {
    OwnedRecord record;
    record.path = "a/b";
    record.key = CF::Data(Octets(44, 7));
    record[RecordField::UserID] = -2;
    const Octets archive = encode(record);
    const testing_support::TemporaryDirectory directory;
    const auto path = directory.write("record", archive);
    EXPECT_EQ(testing_support::RunCommand({"plistutil", "-i", path.string()}).status, 0);
}

TEST(PlistBuilder, WidensReferencesAndOffsetsAsTheyAreNeeded) {
    for (const std::size_t count : {3U, 254U, 255U, 256U, 300U, 70000U}) {
        Kelvane::PlistBuilder builder;
        builder.Clear();
        const auto root = builder.Container(Kelvane::PlistBuilder::Kind::Array, count);
        for (std::size_t i = 0; i < count; ++i) {
            builder.Set(root, i, builder.Integer(static_cast<std::int64_t>(i)));
        }
        Octets document;
        builder.Finish(document);
        const auto result = testing_support::RunPython(
            "import plistlib, sys\n"
            "print(plistlib.loads(sys.stdin.buffer.read()) == list(range(int(sys.argv[1]))), "
            "end='')",
            {std::to_string(count)}, std::string(document.begin(), document.end()));
        EXPECT_EQ(result.output, "True") << result.errors;
    }
}
