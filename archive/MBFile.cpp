#include "MB/File.hpp"

#include "ZK/keyed_archiver.hpp"
#include "ZK/keyed_unarchiver.hpp"

#include <stdexcept>

namespace MB {

namespace {

template <class T>
void encodeIfPresent(const T &value, CFStringRef key, ZK::keyed_archiver &archiver) {
    if (value) {
        archiver._encodeObject(value, key, false);
    }
}

void encodeNumber(const CF::Number &number, CFStringRef key, ZK::keyed_archiver &archiver) {
    archiver._setObjectInCurrentEncodingContext(number, key, true);
}

template <class T, class Field>
void decodeField(Field &field, CFStringRef key, ZK::keyed_unarchiver &unarchiver) {
    if (auto value = unarchiver.decode<T>(key)) {
        field = *std::move(value);
    }
}

// A record says all that is needed without them, so that none is invalid for its flags.
std::int32_t decodeFlags(ZK::keyed_unarchiver &unarchiver) {
    try {
        return unarchiver.decode<int>(CFSTR("Flags")).value_or(0);
    } catch (const std::invalid_argument &) {
        return 0;
    }
}

} // namespace

std::string class_name(const File &) { return "MBFile"; }

void encode(const File &file, ZK::keyed_archiver &archiver) {
    encodeIfPresent(file.RelativePath, CFSTR("RelativePath"), archiver);
    encodeIfPresent(file.Target, CFSTR("Target"), archiver);
    encodeIfPresent(file.Digest, CFSTR("Digest"), archiver);
    encodeIfPresent(file.EncryptionKey, CFSTR("EncryptionKey"), archiver);
    encodeNumber(CF::Number::FromInt32(file.Mode), CFSTR("Mode"), archiver);
    encodeNumber(CF::Number::FromUInt32(file.UserID), CFSTR("UserID"), archiver);
    encodeNumber(CF::Number::FromUInt32(file.GroupID), CFSTR("GroupID"), archiver);
    encodeNumber(CF::Number::FromInt64(file.LastModified), CFSTR("LastModified"), archiver);
    encodeNumber(CF::Number::FromInt64(file.LastStatusChange), CFSTR("LastStatusChange"), archiver);
    encodeNumber(CF::Number::FromInt64(file.Birth), CFSTR("Birth"), archiver);
    encodeNumber(CF::Number::FromInt64(file.Size), CFSTR("Size"), archiver);
    encodeNumber(CF::Number::FromUInt64(file.InodeNumber), CFSTR("InodeNumber"), archiver);
    encodeNumber(CF::Number::FromInt32(file.ProtectionClass), CFSTR("ProtectionClass"), archiver);
    if (file.ExtendedAttributes) {
        encodeIfPresent(file.ExtendedAttributes, CFSTR("ExtendedAttributes"), archiver);
    } else {
        encodeIfPresent(file.ExtendedAttributesData, CFSTR("ExtendedAttributes"), archiver);
    }
}

File decode(File *, ZK::keyed_unarchiver &unarchiver) {
    File file;
    decodeField<CF::String>(file.RelativePath, CFSTR("RelativePath"), unarchiver);
    decodeField<CF::String>(file.Target, CFSTR("Target"), unarchiver);
    decodeField<CF::Data>(file.Digest, CFSTR("Digest"), unarchiver);
    decodeField<CF::Data>(file.EncryptionKey, CFSTR("EncryptionKey"), unarchiver);
    decodeField<int>(file.Mode, CFSTR("Mode"), unarchiver);
    decodeField<unsigned int>(file.UserID, CFSTR("UserID"), unarchiver);
    decodeField<unsigned int>(file.GroupID, CFSTR("GroupID"), unarchiver);
    decodeField<long long>(file.LastModified, CFSTR("LastModified"), unarchiver);
    decodeField<long long>(file.LastStatusChange, CFSTR("LastStatusChange"), unarchiver);
    decodeField<long long>(file.Birth, CFSTR("Birth"), unarchiver);
    decodeField<long long>(file.Size, CFSTR("Size"), unarchiver);
    decodeField<unsigned long long>(file.InodeNumber, CFSTR("InodeNumber"), unarchiver);
    decodeField<int>(file.ProtectionClass, CFSTR("ProtectionClass"), unarchiver);
    file.Flags = decodeFlags(unarchiver);
    decodeField<CF::Dictionary>(file.ExtendedAttributes, CFSTR("ExtendedAttributes"), unarchiver);
    if (!file.ExtendedAttributes) {
        decodeField<CF::Data>(file.ExtendedAttributesData, CFSTR("ExtendedAttributes"), unarchiver);
    }
    return file;
}

} // namespace MB
