// Binary property lists made object by object, in an order of the caller's choosing.
//
// The platform's own writer sorts the keys of dictionaries. Devices write records in other orders,
// which their rows keep, so records are put together here. Documents come out as the platform's
// writer makes them otherwise: equal leaves are one object, objects are numbered as they are made,
// and offsets and references are as narrow as the document allows.
#pragma once

#include <CoreFoundation/CoreFoundation.h>

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

namespace Kelvane {

// Makes one document after another in the same memory. The first object is the root; a container
// is made before its members, and every place in it must be set. Fails only when memory is out.
class PlistBuilder {
  public:
    using Bytes = std::span<const std::uint8_t>;
    using Number = std::uint32_t; // of an object

    enum class Kind : std::uint8_t { Array = 0xA0, Set = 0xC0, Dictionary = 0xD0 };

    // Begins a document.
    void Clear();

    // Leaves.
    Number Name(std::string_view ascii);
    Number Text(CFStringRef text);
    Number Data(Bytes data);
    Number Integer(std::int64_t value);
    Number Unsigned(std::uint64_t value);
    Number UID(std::uint32_t value);
    // One that another document holds, marker and all.
    Number Leaf(Bytes encoded);

    // A container of that many members, or pairs.
    Number Container(Kind kind, std::size_t count);
    // Sets the member at a position; of a dictionary those are the keys, then the values.
    void Set(Number container, std::size_t position, Number member);

    // Makes document what was built.
    void Finish(std::vector<std::uint8_t> &document);

  private:
    struct Item {
        std::uint8_t marker; // of a container; 0 for a leaf
        std::size_t start;   // in members_, or in leaves_
        std::size_t length;  // of what is there
    };

    void Append(std::uint64_t value, std::size_t width);
    void AppendCounted(unsigned marker, std::size_t count);
    void AppendText(CFStringRef text);
    Number Intern(std::size_t start);
    std::uint32_t &SlotOf(std::size_t start, std::size_t length);
    void GrowSlots();

    std::vector<Item> items_;
    std::vector<Number> members_;
    std::vector<std::uint8_t> leaves_;
    std::vector<std::size_t> offsets_;
    // The leaves by their bytes: 0, or the number of an object and 1.
    std::vector<std::uint32_t> slots_;
    std::size_t leafCount_ = 0;
};

} // namespace Kelvane
