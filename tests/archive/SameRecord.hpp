// Whether the quick decoder's view of a record says what the codec's record says.
#pragma once

#include "MB/File.hpp"
#include "archive/FastMBFile.hpp"
#include "support/cf/CF.hpp"

#include <algorithm>
#include <string>

namespace ArchiveTest {

inline std::u16string UnitsOf(const Kelvane::MBFileView::Text &text) {
    std::u16string units;
    const std::size_t width = text.utf16 ? 2 : 1;
    for (std::size_t i = 0; i < text.bytes.size(); i += width) {
        units.push_back(static_cast<char16_t>(text.utf16 ? text.bytes[i] << 8 | text.bytes[i + 1]
                                                         : text.bytes[i]));
    }
    return units;
}

inline std::u16string UnitsOf(const CF::String &string) {
    std::u16string units(static_cast<std::size_t>(string.GetLength()), 0);
    if (!units.empty()) {
        CFStringGetCharacters(string.get(), CFRangeMake(0, string.GetLength()),
                              reinterpret_cast<UniChar *>(units.data()));
    }
    return units;
}

// Absent texts and data count as empty.
inline bool SameRecord(const Kelvane::MBFileView &view, const MB::File &file) {
    return UnitsOf(view.RelativePath) == UnitsOf(file.RelativePath) &&
           UnitsOf(view.Target) == UnitsOf(file.Target) &&
           std::ranges::equal(view.Digest, file.Digest.GetBytes()) &&
           std::ranges::equal(view.EncryptionKey, file.EncryptionKey.GetBytes()) &&
           view.Mode == file.Mode && view.UserID == file.UserID && view.GroupID == file.GroupID &&
           view.LastModified == file.LastModified &&
           view.LastStatusChange == file.LastStatusChange && view.Birth == file.Birth &&
           view.Size == file.Size && view.InodeNumber == file.InodeNumber &&
           view.ProtectionClass == file.ProtectionClass && view.Flags == file.Flags &&
           file.ExtendedAttributes.IsNull() &&
           std::ranges::equal(view.ExtendedAttributesData, file.ExtendedAttributesData.GetBytes());
}

} // namespace ArchiveTest
