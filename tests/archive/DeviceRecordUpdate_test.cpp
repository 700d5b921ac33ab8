// Old records of any form, brought up to date in the devices' form.
#include "archive/DeviceRecord.hpp"

#include "Archives.hpp"
#include "NativeRecords.hpp"

#include <gtest/gtest.h>

#include <initializer_list>
#include <stdexcept>

using namespace ArchiveTest;
using Kelvane::RecordField;
using Kelvane::RecordFields;
using enum Kelvane::RecordField;

namespace {

RecordFields fieldsOf(std::initializer_list<RecordField> list) {
    RecordFields fields;
    for (const RecordField field : list) {
        fields.Add(field);
    }
    return fields;
}

Octets update(const Octets &old, const OwnedRecord &record,
              std::initializer_list<RecordField> changed) {
    Octets archive;
    Kelvane::DeviceRecordEncoder().Update(old, record.View(), fieldsOf(changed), archive);
    return archive;
}

// What Python makes; the script prints it in hexadecimal.
Octets made(const std::string &script) {
    const auto result = testing_support::RunPython(std::string(kNativeArchive) + R"py(
FIELDS = {name: 7 for name in NUMBERS} | {'RelativePath': 'a/b', 'Digest': b'd' * 20, 'EncryptionKey': b'k' * 44}
def tail(*without, **others):
    return {key: value for key, value in (FIELDS | others).items() if key not in without}
)py" + script);
    EXPECT_EQ(result.status, 0) << result.errors;
    return FromHex(result.output);
}

// The record that FIELDS are.
OwnedRecord fields() {
    OwnedRecord record;
    record.path = "a/b";
    record.digest = CF::Data(Octets(20, 'd'));
    record.key = CF::Data(Octets(44, 'k'));
    record.numbers.fill(7);
    return record;
}

// What the script says of the archive, in which references must be UID values.
std::string said(const Octets &archive, const std::string &script) {
    const auto result = testing_support::RunPython(R"py(
import plistlib, sys
from plistlib import UID
archive = plistlib.loads(sys.stdin.buffer.read())
objects = archive['$objects']
record = objects[archive['$top']['root'].data]
def get(name): return objects[record[name].data]
)py" + script,
                                                   {}, std::string(archive.begin(), archive.end()));
    EXPECT_EQ(result.status, 0) << result.errors;
    return result.output;
}

const std::string kPrintFields = "print(archive(tail()).hex(), end='')";

} // namespace

TEST(DeviceRecordUpdate, OfNothingGivesADevicesRecordBack) {
    const Octets old = made(kPrintFields);
    EXPECT_EQ(update(old, fields(), {}), old);
}

TEST(DeviceRecordUpdate, GivesTheBytesOfANewRecord) {
    OwnedRecord record = fields();
    record.digest = CF::Data(Octets(20, 'e'));
    record.key = CF::Data(Octets(44, 'l'));
    record[Size] = 70000;
    EXPECT_EQ(
        update(made(kPrintFields), record, {Digest, EncryptionKey, Size}),
        made("print(archive(tail(Digest=b'e' * 20, EncryptionKey=b'l' * 44, Size=70000)).hex(), "
             "end='')"));
}

TEST(DeviceRecordUpdate, TakesFieldsAwayWithTheirObjects) {
    OwnedRecord record = fields();
    record.key = nullptr;
    EXPECT_EQ(update(made(kPrintFields), record, {EncryptionKey}),
              made("print(archive(tail('EncryptionKey')).hex(), end='')"));
}

TEST(DeviceRecordUpdate, AddsFieldsWithTheirObjects) {
    OwnedRecord record = fields();
    record.target = "t";
    EXPECT_EQ(update(made("print(archive(tail('EncryptionKey', 'Digest')).hex(), end='')"), record,
                     {EncryptionKey, Digest, Target}),
              made("print(archive(tail(Target='t')).hex(), end='')"));
}

TEST(DeviceRecordUpdate, LeavesTheRecordThatItIsToldNotToChange) {
    OwnedRecord other;
    other.path = "other";
    other.numbers.fill(9);
    const Octets old = made(kPrintFields);
    Octets archive;
    Kelvane::DeviceRecordEncoder().Update(old, other.View(), fieldsOf({Mode}), archive);
    EXPECT_EQ(archive, made("print(archive(tail(Mode=9)).hex(), end='')"));
}

TEST(DeviceRecordUpdate, MakesADevicesRecordOfOneOfTheGeneralCodec) {
    MB::File file;
    file.RelativePath = "a/b";
    file.Digest = CF::Data(Octets(20, 'd'));
    file.EncryptionKey = CF::Data(Octets(44, 'k'));
    file.Mode = 7;
    const Octets old = CF::PropertyListType<CF::Dictionary>::ToPropertyListData(
                           ZK::make_keyed_archive(file), kCFPropertyListBinaryFormat_v1_0)
                           .GetVector();
    OwnedRecord record = fields();
    record.numbers.fill(0);
    record[Mode] = 7;
    EXPECT_EQ(said(update(old, record, {}), R"py(
print(get('EncryptionKey')['NS.data'] == b'k' * 44, objects[get('EncryptionKey')['$class'].data]['$classes'],
      get('Digest') == b'd' * 20, record['Flags'], record['Mode'], get('RelativePath'), get('$class')['$classname'])
)py"),
              "True ['NSMutableData', 'NSData', 'NSObject'] True 0 7 a/b MBFile\n");
}

TEST(DeviceRecordUpdate, KeepsWhatItDoesNotKnow) {
    const Octets old = made(R"py(
archived = plistlib.loads(archive(tail()))
objects = archived['$objects']
objects[1]['Future'] = UID(len(objects))
objects.append({'list': [UID(3), 1.5, True, 'text'], '$class': UID(len(objects) + 1)})
objects.append({'$classname': 'Future', '$classes': ['Future', 'NSObject']})
objects[1]['Inline'] = -5
archived['$further'] = {'reference': UID(len(objects) - 2)}
print(plistlib.dumps(archived, fmt=plistlib.FMT_BINARY, sort_keys=False).hex(), end='')
)py");
    OwnedRecord record = fields();
    record.key = nullptr;
    const std::string kept = said(update(old, record, {EncryptionKey}), R"py(
future = get('Future')
print(objects[future['list'][0].data] == get('Digest') == b'd' * 20, future['list'][1:], record['Inline'],
      objects[future['$class'].data]['$classname'], objects[archive['$further']['reference'].data] is future,
      'EncryptionKey' in record, len(objects))
)py");
    EXPECT_EQ(kept, "True [1.5, True, 'text'] -5 Future True False 7\n");
}

TEST(DeviceRecordUpdate, KeepsObjectsThatOthersNeed) {
    const Octets old = made(R"py(
archived = plistlib.loads(archive(tail()))
archived['$objects'][1]['Same'] = archived['$objects'][1]['Digest']
print(plistlib.dumps(archived, fmt=plistlib.FMT_BINARY, sort_keys=False).hex(), end='')
)py");
    OwnedRecord record = fields();
    record.digest = CF::Data(Octets(20, 'e'));
    EXPECT_EQ(said(update(old, record, {Digest}),
                   "print(get('Same') == b'd' * 20, get('Digest') == b'e' * 20)"),
              "True True\n");
}

TEST(DeviceRecordUpdate, KeepsAttributesInWhicheverForm) {
    const Octets old = made(R"py(
archived = plistlib.loads(archive(tail()))
objects = archived['$objects']
objects[1]['ExtendedAttributes'] = UID(len(objects))
objects += [{'NS.keys': [UID(len(objects) + 1)], 'NS.objects': [UID(len(objects) + 2)], '$class': UID(len(objects) + 3)},
            'name', b'value', {'$classname': 'NSDictionary', '$classes': ['NSDictionary', 'NSObject']}]
print(plistlib.dumps(archived, fmt=plistlib.FMT_BINARY, sort_keys=False).hex(), end='')
)py");
    OwnedRecord record = fields();
    record.digest = nullptr;
    EXPECT_EQ(said(update(old, record, {Digest}), R"py(
attributes = get('ExtendedAttributes')
print([objects[uid.data] for uid in attributes['NS.keys'] + attributes['NS.objects']])
)py"),
              "['name', b'value']\n");
}

TEST(DeviceRecordUpdate, TakesValuesInOtherPlacesAndWidths) {
    // Everything inline, wide numbers, wide references, the table in another order.
    const Octets old = made(R"py(
objects = ['$null', {'$classname': 'MBFile', '$classes': ['MBFile', 'NSObject']},
           {'$class': UID(1), 'RelativePath': 'inline', 'Digest': b'inline', 'EncryptionKey': b'k' * 44, 'Mode': 2**40,
            'LongText': 'ä' * 70000, 'Empty': '', 'None': b'', 'Many': list(range(300))}]
print(plistlib.dumps({'$top': {'root': UID(2)}, '$objects': objects, '$version': 100000,
                      '$archiver': 'NSKeyedArchiver'}, fmt=plistlib.FMT_BINARY).hex(), end='')
)py");
    OwnedRecord record = fields();
    record[Size] = 5;
    EXPECT_EQ(said(update(old, record, {Size}), R"py(
print(record['RelativePath'], record['Digest'], record['Mode'], record['Size'], record['LongText'] == 'ä' * 70000,
      repr(record['Empty']), record['None'], record['Many'] == list(range(300)), get('EncryptionKey')['NS.data'] == b'k' * 44)
)py"),
              "inline b'inline' 1099511627776 5 True '' b'' True True\n");
}

TEST(DeviceRecordUpdate, OfRandomRecordsIsReadBackAsMeant) {
    Kelvane::DeviceRecordEncoder encoder;
    Octets archive;
    for (const DeviceRecord &old : MakeDeviceRecords(300, 5)) {
        OwnedRecord record = fields();
        record.path = old.expected.RelativePath;
        encoder.Update(old.blob, record.View(), fieldsOf({Digest, Birth, UserID}), archive);
        const auto updated = ZK::extract_keyed_archive<MB::File>(
            CF::PropertyListType<CF::Dictionary>::FromPropertyListData(CF::Data(archive)));
        ASSERT_TRUE(updated.has_value());
        EXPECT_EQ(updated->Digest, record.digest);
        EXPECT_EQ(updated->Birth, 7);
        EXPECT_EQ(updated->UserID, 7u);
        EXPECT_EQ(updated->RelativePath, old.expected.RelativePath);
        EXPECT_EQ(updated->Target, old.expected.Target);
        EXPECT_EQ(updated->EncryptionKey, old.expected.EncryptionKey);
        EXPECT_EQ(updated->Size, old.expected.Size);
        EXPECT_EQ(updated->InodeNumber, old.expected.InodeNumber);
        EXPECT_EQ(updated->ExtendedAttributes, old.expected.ExtendedAttributes);
        EXPECT_EQ(updated->ExtendedAttributesData, old.expected.ExtendedAttributesData);
    }
}

TEST(DeviceRecordUpdate, RefusesWhatIsNoRecord) {
    EXPECT_THROW(update({1, 2, 3}, fields(), {Size}), std::invalid_argument);
    EXPECT_THROW(
        update(made("print(plistlib.dumps({'a': 1}, fmt=plistlib.FMT_BINARY).hex(), end='')"),
               fields(), {Size}),
        std::invalid_argument);
}

TEST(DeviceRecordUpdate, RefusesContainersThatHoldThemselves) {
    Octets old = made(R"py(
archived = plistlib.loads(archive(tail()))
archived['$objects'][1]['Loop'] = [[1, 2, 3]]
print(plistlib.dumps(archived, fmt=plistlib.FMT_BINARY, sort_keys=False).hex(), end='')
)py");
    // The inner array becomes the outer one's.
    const auto inner = std::find(old.begin(), old.end(), 0xA3);
    ASSERT_NE(inner, old.end());
    const auto outer = static_cast<std::uint8_t>(*(inner - 1) - 1);
    ASSERT_EQ(*(inner - 2), 0xA1);
    *(inner - 1) = outer;
    EXPECT_THROW(update(old, fields(), {Size}), std::invalid_argument);
}

TEST(DeviceRecordUpdate, NeverFailsInAnotherWayForDamagedRecords) {
    const Octets old = made(kPrintFields);
    OwnedRecord record = fields();
    record.key = nullptr;
    Kelvane::DeviceRecordEncoder encoder;
    Octets archive;
    for (std::size_t at = 8; at < old.size(); ++at) {
        for (const std::uint8_t value : Octets{0x00, 0x0F, 0x55, 0x80, 0xA1, 0xD1, 0xDF, 0xFF}) {
            Octets damaged = old;
            damaged[at] = value;
            try {
                encoder.Update(damaged, record.View(), fieldsOf({EncryptionKey}), archive);
            } catch (const std::invalid_argument &) {
            }
        }
    }
    encoder.Update(old, record.View(), fieldsOf({EncryptionKey}), archive);
    EXPECT_EQ(archive, made("print(archive(tail('EncryptionKey')).hex(), end='')"));
}
