// Extended attributes in the form in which devices write them into a manifest database.
#pragma once

#include "support/cf/Dictionary.hpp"

namespace Kelvane {

// The attributes by name, as a binary manifest holds them: strings and data. Null when the data,
// which is a property list in backups of devices, is anything else.
CF::Dictionary DecodeExtendedAttributes(CFDataRef data);

} // namespace Kelvane
