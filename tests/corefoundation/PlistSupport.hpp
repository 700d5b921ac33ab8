// Property lists for tests: objects in a line, documents in and out, and one text that
// says all about a graph.
#pragma once

#include "tests/support/BinaryPlistBuilder.hpp"

#include <CoreFoundation/CFPropertyList.h>
#include <initializer_list>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace PlistTest {

struct Release {
    void operator()(const void *object) const { CFRelease(object); }
};
// One reference.
using Held = std::unique_ptr<const void, Release>;

Held Text(std::u16string_view text);
Held Text(std::string_view ascii);
Held Integer(std::int64_t value);
Held Unsigned(std::uint64_t value);
Held Wide(std::int64_t high, std::uint64_t low);
Held Real(double value);
Held Float(float value);
Held Truth(bool value);
Held Date(double seconds);
Held Data(const Octets &bytes);
Held Uid(std::uint32_t value);
Held Array(const std::vector<CFTypeRef> &members);
Held Dictionary(const std::vector<std::pair<CFTypeRef, CFTypeRef>> &pairs);
// Arrays within arrays; the innermost is empty.
Held NestedArrays(unsigned depth);

// The line of text that tests/tools/plist_oracle.py writes for the same values.
std::string Dump(CFTypeRef object);

// What an error says; code 0 and no reason when there was none.
struct Fault {
    CFIndex code = 0;
    std::string reason;
    bool isCocoa = false;

    friend bool operator==(const Fault &, const Fault &) = default;
};
std::ostream &operator<<(std::ostream &out, const Fault &fault);
// The faults that functions are expected to report.
Fault Corrupt(std::string reason);
Fault Unwritable(std::string reason);

struct Reading {
    Held root;
    CFPropertyListFormat format = 0;
    Fault fault;
};
Reading Read(const Octets &document, CFOptionFlags options = kCFPropertyListImmutable);
Reading Read(std::string_view document, CFOptionFlags options = kCFPropertyListImmutable);
// What it reads as: the dump, or the reason that it does not.
std::string DumpOf(std::string_view document);
std::string DumpOf(const Octets &document);

struct Writing {
    Octets document;
    Fault fault;
};
Writing Write(CFTypeRef root, CFPropertyListFormat format);
std::string WriteXML(CFTypeRef root);
Octets WriteBinary(CFTypeRef root);

} // namespace PlistTest
