// Extended attributes in the form in which devices write them into a manifest database.
#pragma once

#include "support/cf/Dictionary.hpp"

namespace Kelvane {

// The attributes that an entry keeps as they were, by name, as a binary manifest holds them:
// strings and data. Null when they are a dictionary, which then holds more, or when the data,
// which is a property list in backups of devices, is anything else.
CF::Dictionary DecodeExtendedAttributes(CFTypeRef kept);

} // namespace Kelvane
