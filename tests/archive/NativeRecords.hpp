// What Python's plistlib makes of a record in a device's order of objects and keys.
#pragma once

#include "archive/DeviceRecord.hpp"
#include "tests/archive/DeviceRecords.hpp"

#include <array>

namespace ArchiveTest {

// A record with what it borrows.
struct OwnedRecord {
    CF::String path = "";
    CF::String target;
    CF::Data digest;
    CF::Data key;
    CF::Data attributes;
    // In the order of Kelvane::RecordField.
    std::array<std::int64_t, Kelvane::kRecordNumbers> numbers{};

    Kelvane::DeviceRecord View() const {
        return {numbers, path.get(), target.get(), digest.get(), key.get(), attributes.get()};
    }
    std::int64_t &operator[](Kelvane::RecordField number) {
        return numbers[static_cast<std::size_t>(number)];
    }
};

// The names of the numbers in the order of Kelvane::RecordField, and a function that archives the
// fields of a record.
inline constexpr std::string_view kNativeArchive = R"py(
import plistlib
from plistlib import UID
NUMBERS = ['LastModified', 'LastStatusChange', 'Birth', 'Size', 'InodeNumber', 'Mode', 'UserID', 'GroupID',
           'ProtectionClass', 'Flags']
PLAIN = ['LastModified', 'Flags', 'GroupID', 'Target', '$class', 'LastStatusChange', 'RelativePath', 'Birth', 'Size',
         'InodeNumber', 'Mode', 'UserID', 'ProtectionClass', 'Digest', 'ExtendedAttributes']
WITH_KEY = ['LastModified', 'Flags', 'GroupID', 'Target', '$class', 'LastStatusChange', 'RelativePath', 'Birth',
            'EncryptionKey', 'Size', 'Mode', 'UserID', 'InodeNumber', 'ProtectionClass', 'ExtendedAttributes']
WITH_BOTH = ['LastModified', 'ProtectionClass', 'Flags', 'GroupID', 'Target', '$class', 'LastStatusChange',
             'RelativePath', 'Birth', 'EncryptionKey', 'Size', 'Mode', 'UserID', 'Digest', 'InodeNumber',
             'ExtendedAttributes']

def archive(fields):
    objects = ['$null', None]
    def add(value):
        objects.append(value)
        return UID(len(objects) - 1)
    body = {name: fields[name] for name in NUMBERS}
    body['RelativePath'] = add(fields['RelativePath'])
    if 'Target' in fields: body['Target'] = add(fields['Target'])
    if 'Digest' in fields: body['Digest'] = add(fields['Digest'])
    if 'EncryptionKey' in fields:
        wrapper = {'NS.data': fields['EncryptionKey'], '$class': None}
        body['EncryptionKey'] = add(wrapper)
        wrapper['$class'] = add({'$classname': 'NSMutableData', '$classes': ['NSMutableData', 'NSData', 'NSObject']})
    if 'ExtendedAttributes' in fields: body['ExtendedAttributes'] = add(fields['ExtendedAttributes'])
    body['$class'] = add({'$classname': 'MBFile', '$classes': ['MBFile', 'NSObject']})
    order = PLAIN if 'EncryptionKey' not in fields else WITH_BOTH if 'Digest' in fields else WITH_KEY
    objects[1] = {name: body[name] for name in order if name in body}
    return plistlib.dumps({'$version': 100000, '$archiver': 'NSKeyedArchiver', '$top': {'root': UID(1)},
                           '$objects': objects}, fmt=plistlib.FMT_BINARY, sort_keys=False)
)py";

} // namespace ArchiveTest
