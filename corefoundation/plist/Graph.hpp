// Graphs of objects that are to be written or copied.
#pragma once

#include "corefoundation/plist/Common.hpp"

#include <utility>
#include <vector>

namespace CFInternal::PropertyList {

// Throws a write Failure unless the graph is a property list within the limits: only
// property-list types, string keys, no loops, depth and number of values in bounds.
void CheckGraph(CFTypeRef root);

// The pairs of a dictionary whose keys are strings, sorted by the UTF-16 units of the
// keys, so that equal dictionaries are written alike. Borrowed.
std::vector<std::pair<CFStringRef, CFTypeRef>> SortedPairs(CFDictionaryRef dictionary);

// A deep copy of a graph that CheckGraph has passed. Throws a write Failure for mutable copies of
// leaves that are shared so often that they would take too much memory.
Owned<> CopyGraph(CFAllocatorRef allocator, CFTypeRef object, Mutability mutability);

} // namespace CFInternal::PropertyList
