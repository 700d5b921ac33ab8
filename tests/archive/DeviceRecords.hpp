// Records as devices write them, made by Python's plistlib, with what they say.
#pragma once

#include "MB/File.hpp"
#include "support/cf/CF.hpp"
#include "tests/support/RunCommand.hpp"

#include <cstdint>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace ArchiveTest {

using Octets = std::vector<std::uint8_t>;

struct DeviceRecord {
    Octets blob;
    MB::File expected;
    bool usual = true; // of the shape that nearly all records have
};

// Prints count records, one a line: the blob, the fields in hexadecimal ("-" for absent),
// the numbers, whether it is a usual one, the names of the extended attributes.
inline constexpr std::string_view kRecordMaker = R"py(
import plistlib, random, sys
from plistlib import UID
count, seed = int(sys.argv[1]), int(sys.argv[2])
rng = random.Random(seed)

def some_path():
    names = ['Library', 'Media', 'a', 'Grüße', 'данные', '🌍', 'e\u0301', 'x' * 40, 'quo"te', 'new\nline']
    return '/'.join(rng.choice(names) for _ in range(rng.randrange(0, 6)))

def number(bits):
    return rng.choice([0, 1, 127, 128, 255, 256, 65535, 65536, 2**31 - 1, 2**bits - 1, rng.randrange(2**bits)])

def record():
    objects = ['$null', None]
    def add(value):
        objects.append(value)
        return UID(len(objects) - 1)
    usual = True
    path = some_path()
    fields = {'path': path, 'target': None, 'digest': None, 'key': None}
    body = {'RelativePath': add(path), 'Flags': 0, 'Mode': number(16), 'UserID': number(32),
            'GroupID': number(32), 'LastModified': number(32), 'LastStatusChange': number(32),
            'Birth': rng.choice([number(32), -number(40)]), 'Size': number(45),
            'InodeNumber': number(62), 'ProtectionClass': rng.randrange(5)}
    if rng.random() < 0.3:
        fields['target'] = some_path()
        body['Target'] = add(fields['target'])
    if rng.random() < 0.7:
        fields['digest'] = rng.randbytes(20)
        body['Digest'] = add(fields['digest'])
    if rng.random() < 0.6:
        fields['key'] = rng.randbytes(44)
        wrapper = {'NS.data': fields['key']}
        body['EncryptionKey'] = add(wrapper)
        wrapper['$class'] = add({'$classname': 'NSMutableData',
                                 '$classes': ['NSMutableData', 'NSData', 'NSObject']})
    attributes = []
    attributes_data = None
    if rng.random() < 0.2:
        attributes_data = plistlib.dumps({'com.example': b'x'}, fmt=plistlib.FMT_BINARY)
        body['ExtendedAttributes'] = add(attributes_data)
    elif rng.random() < 0.1:
        usual = False
        attributes = ['com.example.%d' % i for i in range(rng.randrange(1, 4))]
        holder = {}
        body['ExtendedAttributes'] = add(holder)
        holder['NS.keys'] = [add(name) for name in attributes]
        holder['NS.objects'] = [add(name.encode()) for name in attributes]
        holder['$class'] = add({'$classname': 'NSDictionary', '$classes': ['NSDictionary', 'NSObject']})
    if rng.random() < 0.1:
        del body['Flags']
    if rng.random() < 0.05:
        usual = False
        holder = {'NS.number': body['Size']}
        body['Size'] = add(holder)
        holder['$class'] = add({'$classname': 'NSNumber', '$classes': ['NSNumber', 'NSValue', 'NSObject']})
        fields['size'] = holder['NS.number']
    size = fields.get('size', body['Size'])
    body['$class'] = add({'$classname': 'MBFile', '$classes': ['MBFile', 'NSObject']})
    items = list(body.items())
    rng.shuffle(items)
    objects[1] = dict(items)
    top = [('$version', 100000), ('$archiver', 'NSKeyedArchiver'), ('$top', {'root': UID(1)}), ('$objects', objects)]
    rng.shuffle(top)
    blob = plistlib.dumps(dict(top), fmt=plistlib.FMT_BINARY, sort_keys=False)
    def text(value):
        if value is None: return '-'
        return 'h' + (value.encode() if isinstance(value, str) else value).hex()
    numbers = [body['Mode'], body['UserID'], body['GroupID'], body['LastModified'],
               body['LastStatusChange'], body['Birth'], size, body['InodeNumber'], body['ProtectionClass']]
    print(blob.hex(), text(fields['path']), text(fields['target']), text(fields['digest']),
          text(fields['key']), *numbers, int(usual), len(attributes),
          text(attributes_data))

for _ in range(count):
    record()
)py";

inline Octets FromHex(std::string_view digits) {
    Octets bytes;
    for (std::size_t i = 0; i + 1 < digits.size(); i += 2) {
        bytes.push_back(
            static_cast<std::uint8_t>(std::stoi(std::string(digits.substr(i, 2)), nullptr, 16)));
    }
    return bytes;
}

inline CF::String TextField(const std::string &field) {
    if (field == "-") {
        return {};
    }
    const Octets bytes = FromHex(std::string_view(field).substr(1));
    return CF::String(std::string(bytes.begin(), bytes.end()));
}

inline CF::Data DataField(const std::string &field) {
    return field == "-" ? CF::Data() : CF::Data(FromHex(std::string_view(field).substr(1)));
}

inline CF::Dictionary AttributesField(int count) {
    if (count == 0) {
        return {};
    }
    auto attributes = CF::Dictionary::Mutable();
    for (int i = 0; i < count; ++i) {
        const std::string name = "com.example." + std::to_string(i);
        attributes.Set(CF::String(name).get(), CF::Data(Octets(name.begin(), name.end())).get());
    }
    return attributes;
}

inline DeviceRecord ParseRecordLine(const std::string &line) {
    std::istringstream stream(line);
    std::string blob, path, target, digest, key;
    DeviceRecord record;
    MB::File &file = record.expected;
    int attributes = 0;
    std::string attributesData;
    stream >> blob >> path >> target >> digest >> key >> file.Mode >> file.UserID >> file.GroupID >>
        file.LastModified >> file.LastStatusChange >> file.Birth >> file.Size >> file.InodeNumber >>
        file.ProtectionClass >> record.usual >> attributes >> attributesData;
    if (!stream) {
        throw std::runtime_error("cannot read the line " + line);
    }
    record.blob = FromHex(blob);
    file.RelativePath = TextField(path);
    file.Target = TextField(target);
    file.Digest = DataField(digest);
    file.EncryptionKey = DataField(key);
    file.ExtendedAttributes = AttributesField(attributes);
    file.ExtendedAttributesData = DataField(attributesData);
    return record;
}

inline std::vector<DeviceRecord> MakeDeviceRecords(int count, int seed) {
    const auto result =
        testing_support::RunPython(kRecordMaker, {std::to_string(count), std::to_string(seed)});
    if (result.status != 0) {
        throw std::runtime_error(result.errors);
    }
    std::vector<DeviceRecord> records;
    std::istringstream lines(result.output);
    for (std::string line; std::getline(lines, line);) {
        records.push_back(ParseRecordLine(line));
    }
    return records;
}

} // namespace ArchiveTest
