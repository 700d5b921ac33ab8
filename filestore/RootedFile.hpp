// Files that lie below a directory and are reached over no link, whenever they are opened.
#pragma once

#include "filestore/Storage.hpp"
#include "support/cf/String.hpp"
#include "support/zk/File.hpp"
#include "support/zk/RootDirectory.hpp"

#include <memory>
#include <string>

namespace Kelvane {

using RootDirectory = std::shared_ptr<const ZK::file::root_directory>;

// A registered reference to the regular file of that name below the root, which is hashed on the
// way. The name is safe. Throws what KVFileCreateFromFileAtPath reports, and UnsafeStoredName
// for a link in the place of the file or of a directory on the way to it.
OwnedFile ReferenceBelow(const RootDirectory &root, const CF::String &name);

// That file, open for reading. Throws the same.
ZK::file::readable_file OpenBelow(const RootDirectory &root, const CF::String &name);

// A reference of its own to what a file refers to, which must still be there: code 6.
OwnedFile ReferenceAgain(const KVFileClass &file);

// Code 10, "Unsafe stored file name (%@)".
CF::Error UnsafeStoredName(const CF::String &name, const CF::Error &cause = nullptr);

// The same for a name that leads over a link: POSIX error ELOOP hangs underneath.
CF::Error LinkedStoredName(const CF::String &name);

} // namespace Kelvane
