// Hashing of content. Keys of dictionaries come from hostile files, so hashes start
// from a secret drawn once per process: colliding keys cannot be prepared in advance.
#pragma once

#include "corefoundation/TextView.hpp"

#include <CoreFoundation/CFBase.h>

#include <cstddef>

namespace CFInternal {

// Hash of size bytes, the same for the same bytes within one process.
CFHashCode hashBytes(const void *bytes, std::size_t size) noexcept;

// Hash of the units, however they are stored.
CFHashCode hashText(const TextView &text) noexcept;

} // namespace CFInternal
