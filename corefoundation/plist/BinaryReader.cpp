#include "corefoundation/plist/Common.hpp"
#include "support/zk/BinaryPlist.hpp"

#include <CoreFoundation/CFArray.h>
#include <CoreFoundation/CFDate.h>
#include <CoreFoundation/CFKeyedArchiverUID.h>
#include <CoreFoundation/CFNumber.h>
#include <CoreFoundation/CFString.h>
#include <algorithm>
#include <array>
#include <cmath>
#include <memory_resource>
#include <vector>

namespace CFInternal::PropertyList {

namespace {

namespace bplist = ZK::bplist;
using bplist::Object;
using bplist::Type;

[[noreturn]] void ThrowCorruptAt(std::string reason, std::uint64_t offset) {
    if (!reason.empty() && reason[0] >= 'a' && reason[0] <= 'z') {
        reason[0] = static_cast<char>(reason[0] - 'a' + 'A');
    }
    ThrowCorrupt(std::move(reason) + " (offset " + std::to_string(offset) + ")");
}

void Require(bplist::Status status) {
    if (status) [[likely]] {
        return;
    }
    if (status.fault == bplist::Fault::UnknownVersion) {
        throw Failure{kCFPropertyListReadUnknownVersionError,
                      "The version of the binary property list is not supported"};
    }
    ThrowCorruptAt(bplist::Reason(status.fault), status.offset);
}

// Releases an object that no other thread has seen yet, or that is never freed: not a
// locked instruction for each of them, which would be a good part of the whole work.
void ReleaseUnshared(CFTypeRef object) {
    std::uint64_t &info = const_cast<CFRuntimeBase *>(baseOf(object))->_cfinfoa;
    const std::uint64_t count = info >> 32;
    if (count > 1 && count < kImmortalCount) {
        info -= kOneReference;
    } else {
        CFRelease(object);
    }
}

bool IsContainer(Type type) { return type == Type::Array || type == Type::Dictionary; }

class BinaryReader {
  public:
    BinaryReader(CFAllocatorRef allocator, Bytes bytes, Mutability mutability)
        : allocator_(allocator), mutability_(mutability), budget_(bytes.size()) {
        Require(document_.Open(bytes));
        if (document_.ObjectCount() > kMaxValues) {
            ThrowCorruptAt("the document has more than " + std::to_string(kMaxValues) + " objects",
                           bytes.size() - bplist::kTrailerSize + 8);
        }
        slots_.resize(static_cast<std::size_t>(document_.ObjectCount()));
        members_.reserve(kMembersAtOnce);
    }
    BinaryReader(const BinaryReader &) = delete;
    BinaryReader &operator=(const BinaryReader &) = delete;
    ~BinaryReader() {
        for (const Slot &slot : slots_) {
            if (slot.object != nullptr && slot.object != InProgress()) {
                ReleaseUnshared(slot.object);
            }
        }
    }

    Owned<> ReadRoot() {
        CFTypeRef root = Read(document_.RootIndex(), 0).object;
        // Null is an object that some programs write inside; alone it says nothing.
        if (root == kCFNull) {
            ThrowCorrupt("The root object is null");
        }
        return Owned<>(CFRetain(root));
    }

  private:
    // Room for the members of the containers that are open at a time in small documents.
    static constexpr std::size_t kMembersAtOnce = 128;

    // An object by its number: made once, then shared.
    struct Slot {
        CFTypeRef object = nullptr;
        std::uint32_t values = 0; // of the graph below, shared ones counted each time
        std::uint32_t height = 0; // containers within containers, itself included
    };

    // Stands in the slot of a container whose members are being read.
    static CFTypeRef InProgress() {
        static const char marker = 0;
        return &marker;
    }

    // depth: how many containers are around the object.
    const Slot &Read(std::uint64_t index, unsigned depth) {
        Slot &slot = slots_[static_cast<std::size_t>(index)];
        if (slot.object == nullptr) {
            Parse(index, slot, depth);
        } else if (slot.object == InProgress()) {
            ThrowLocated("a container holds itself", index);
        } else if (depth + slot.height > kMaxDepth) {
            ThrowTooDeep(index);
        }
        return slot;
    }

    void Parse(std::uint64_t index, Slot &slot, unsigned depth) {
        Object object;
        Require(document_.ObjectAt(index, object));
        Charge(object);
        if (!IsContainer(object.type)) {
            slot.object = MakeLeaf(object).release();
            slot.values = 1;
            return;
        }
        if (depth >= kMaxDepth) {
            ThrowTooDeep(index);
        }
        slot.object = InProgress();
        slot.values = 1;
        slot.height = 1;
        if (object.type == Type::Array) {
            ReadArray(object, slot, depth);
        } else {
            ReadDictionary(object, slot, depth);
        }
    }

    // Objects of a well-formed document do not overlap, so together they are no longer
    // than it. Without this, many small table entries could each name the same large
    // object, and reading would take the square of the document's size.
    void Charge(const Object &object) {
        if (object.payload.size() > budget_) {
            ThrowCorruptAt("objects overlap", object.offset);
        }
        budget_ -= object.payload.size();
    }

    void ReadMember(const Object &container, std::uint64_t position, Slot &total, unsigned depth) {
        std::uint64_t index = 0;
        Require(document_.Member(container, position, index));
        const Slot &member = Read(index, depth + 1);
        total.values += member.values; // Both are at most kMaxValues.
        total.height = std::max(total.height, member.height + 1);
        if (total.values > kMaxValues) {
            ThrowCorruptAt("shared objects make more than " + std::to_string(kMaxValues) +
                               " values",
                           container.offset);
        }
        members_.push_back(member.object);
    }

    void ReadArray(const Object &array, Slot &slot, unsigned depth) {
        const std::size_t start = members_.size();
        for (std::uint64_t i = 0; i < array.count; ++i) {
            ReadMember(array, i, slot, depth);
        }
        slot.object =
            MakeArray(allocator_, std::span(members_).subspan(start), mutability_.containers)
                .release();
        members_.resize(start);
    }

    void ReadDictionary(const Object &dictionary, Slot &slot, unsigned depth) {
        const std::size_t start = members_.size();
        const auto count = static_cast<std::size_t>(dictionary.count);
        for (std::size_t i = 0; i < count; ++i) {
            ReadMember(dictionary, i, slot, depth);
            if (typeIDOf(members_.back()) != kStringTypeID) {
                ThrowCorruptAt("a dictionary key is no string", dictionary.offset);
            }
        }
        for (std::size_t i = 0; i < count; ++i) {
            ReadMember(dictionary, count + i, slot, depth);
        }
        const std::span<const void *> members = std::span(members_).subspan(start);
        slot.object = mutability_.leaves
                          ? MakeWithImmutableKeys(members, count)
                          : MakeDictionary(allocator_, members.first(count), members.subspan(count),
                                           mutability_.containers)
                                .release();
        members_.resize(start);
    }

    // A string may be key here and value there; a key that changes would be lost.
    CFTypeRef MakeWithImmutableKeys(std::span<const void *> members, std::size_t count) {
        std::vector<Owned<CFStringRef>> copies;
        std::vector<const void *> keys;
        for (const void *key : members.first(count)) {
            copies.push_back(Own(CFStringCreateCopy(allocator_, static_cast<CFStringRef>(key))));
            keys.push_back(copies.back().get());
        }
        return MakeDictionary(allocator_, keys, members.subspan(count), true).release();
    }

    Owned<> MakeLeaf(const Object &object) {
        switch (object.type) {
        case Type::False:
        case Type::True:
            return Owned<>(CFRetain(object.type == Type::True ? kCFBooleanTrue : kCFBooleanFalse));
        case Type::Null:
            return Owned<>(CFRetain(kCFNull));
        case Type::Integer: {
            const bplist::Int128 value = object.Integer();
            return MakeInteger(allocator_, value.high, value.low);
        }
        case Type::Real:
            return MakeReal(object);
        case Type::Date:
            return MakeDate(object);
        case Type::Data:
            return MakeData(allocator_, object.payload, mutability_.leaves);
        case Type::AsciiString:
            return MakeAscii(object);
        case Type::Utf16String:
            return MakeUtf16(object);
        case Type::Uid:
            return MakeUid(object);
        case Type::Set:
            ThrowCorruptAt("sets are not supported", object.offset);
        default:
            ThrowCorruptAt("an object is a fill byte", object.offset);
        }
    }

    Owned<> MakeReal(const Object &object) const {
        if (object.payload.size() == 4) {
            const float value = object.Float();
            return Own<CFTypeRef>(CFNumberCreate(allocator_, kCFNumberFloat32Type, &value));
        }
        const double value = object.Real();
        return Own<CFTypeRef>(CFNumberCreate(allocator_, kCFNumberFloat64Type, &value));
    }

    Owned<> MakeDate(const Object &object) const {
        const double seconds = object.Real();
        if (!std::isfinite(seconds)) {
            ThrowCorruptAt("a date is not a finite number", object.offset);
        }
        return Own<CFTypeRef>(CFDateCreate(allocator_, seconds));
    }

    Owned<> MakeUid(const Object &object) const {
        std::uint32_t uid = 0;
        Require(object.Uid(uid));
        return Own<CFTypeRef>(_CFKeyedArchiverUIDCreate(allocator_, uid));
    }

    Owned<> MakeAscii(const Object &object) const {
        Owned<CFStringRef> string(CFStringCreateWithBytes(
            allocator_, object.payload.data(), static_cast<CFIndex>(object.payload.size()),
            kCFStringEncodingASCII, false));
        // Which characters bytes from 0x80 on were meant to be, nothing says.
        if (!string && !bplist::IsAscii(object.payload)) {
            ThrowCorruptAt("an ASCII string has bytes beyond ASCII", object.offset);
        }
        return MakeString(allocator_, Own(string.release()), mutability_.leaves);
    }

    // Unit by unit, since unpaired surrogates are kept as they are.
    Owned<> MakeUtf16(const Object &object) {
        units_.resize(static_cast<std::size_t>(object.count));
        for (std::size_t i = 0; i < units_.size(); ++i) {
            units_[i] = object.Unit(i);
        }
        return MakeString(allocator_,
                          Own(CFStringCreateWithCharacters(allocator_, units_.data(),
                                                           static_cast<CFIndex>(units_.size()))),
                          mutability_.leaves);
    }

    [[noreturn]] void ThrowLocated(const char *reason, std::uint64_t index) const {
        std::uint64_t offset = 0;
        Require(document_.OffsetOf(index, offset));
        ThrowCorruptAt(reason, offset);
    }
    [[noreturn]] void ThrowTooDeep(std::uint64_t index) const {
        ThrowLocated(("containers nest more than " + std::to_string(kMaxDepth) + " deep").c_str(),
                     index);
    }

    CFAllocatorRef allocator_;
    Mutability mutability_;
    bplist::Document document_;
    std::uint64_t budget_;
    // Small documents, which come by the hundred thousand, are read without allocating
    // anything but their objects.
    std::array<std::byte, 4096> buffer_;
    std::pmr::monotonic_buffer_resource pool_{buffer_.data(), buffer_.size()};
    std::pmr::vector<Slot> slots_{&pool_};
    // Members of the containers being read, innermost last; owned by the slots.
    std::pmr::vector<const void *> members_{&pool_};
    std::vector<UniChar> units_;
};

} // namespace

Owned<> ReadBinary(CFAllocatorRef allocator, Bytes document, Mutability mutability) {
    return BinaryReader(allocator, document, mutability).ReadRoot();
}

} // namespace CFInternal::PropertyList
