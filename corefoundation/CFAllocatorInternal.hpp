#pragma once

#include "corefoundation/CFInternal.hpp"

namespace CFInternal {

// Frees an allocator object that lives in its own memory (kCFAllocatorUseContext), then
// drops its context's info.
void deallocateSelfHosted(CFAllocatorRef allocator) noexcept;

} // namespace CFInternal
