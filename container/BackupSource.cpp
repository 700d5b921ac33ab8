#include "container/BackupSource.hpp"

#include "container/StoredName.hpp"

namespace Kelvane {

FileRef BackupSource::Load(const CF::String &name) const {
    if (!IsSafeStoredName(name)) {
        ThrowUnsafeStoredName(name);
    }
    return LoadNamed(name);
}

} // namespace Kelvane
