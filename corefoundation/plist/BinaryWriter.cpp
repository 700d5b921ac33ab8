#include "corefoundation/ContentHash.hpp"
#include "corefoundation/MixHash.hpp"
#include "corefoundation/plist/BinaryLeaf.hpp"
#include "corefoundation/plist/Graph.hpp"
#include "corefoundation/plist/NumberTable.hpp"

#include <CoreFoundation/CFArray.h>
#include <CoreFoundation/CFDictionary.h>
#include <algorithm>
#include <string_view>

namespace CFInternal::PropertyList {

namespace {

// Objects are numbered in the order in which a walk from the root first meets them;
// references can be written only when their number, hence their width, is known. So
// the walk encodes leaves and notes references, and Finish puts the document together.
class BinaryWriter {
  public:
    std::uint32_t Add(CFTypeRef object) {
        const std::size_t hash = mixHash(reinterpret_cast<std::uintptr_t>(object));
        const std::uint32_t known = byAddress_.Find(
            hash, [&](std::uint32_t number) { return items_[number].object == object; });
        if (known != NumberTable::kNone) {
            return known;
        }
        switch (typeIDOf(object)) {
        case kArrayTypeID:
            return AddArray(static_cast<CFArrayRef>(object), hash);
        case kDictionaryTypeID:
            return AddDictionary(static_cast<CFDictionaryRef>(object), hash);
        default:
            return AddLeaf(object, hash);
        }
    }

    ByteBuffer Finish() const {
        constexpr std::string_view kHeader = "bplist00";
        ByteBuffer out(kHeader.begin(), kHeader.end());
        const std::size_t referenceWidth = WidthOf(items_.size() - 1);
        constexpr std::size_t kMostPerItem = 16; // Marker, count and offset.
        out.reserve(leaves_.size() + referenceWidth * references_.size() +
                    kMostPerItem * items_.size() + 64);
        std::vector<std::uint64_t> offsets;
        offsets.reserve(items_.size());
        for (const Item &item : items_) {
            offsets.push_back(out.size());
            AppendItem(out, item, referenceWidth);
        }
        AppendTable(out, offsets, referenceWidth);
        return out;
    }

  private:
    struct Item {
        CFTypeRef object;   // the first object that it was made of
        unsigned marker;    // of a container; 0 for a leaf
        std::size_t start;  // in references_, or in leaves_
        std::size_t length; // of what is there
    };

    std::uint32_t AddItem(const Item &item, std::size_t addressHash) {
        const auto number = static_cast<std::uint32_t>(items_.size());
        items_.push_back(item);
        byAddress_.Add(addressHash, number);
        return number;
    }

    // Equal leaves are stored once. They are compared by their bytes, which tell apart
    // what must stay apart, such as the integer 1 and the real 1.
    std::uint32_t AddLeaf(CFTypeRef leaf, std::size_t addressHash) {
        const std::size_t start = leaves_.size();
        AppendLeaf(leaves_, leaf);
        const std::size_t length = leaves_.size() - start;
        const std::size_t hash =
            hashBytes(leaves_.data() + start, static_cast<std::size_t>(length));
        const std::uint32_t known = byContent_.Find(hash, [&](std::uint32_t number) {
            const Item &item = items_[number];
            return item.length == length &&
                   std::equal(leaves_.begin() + static_cast<std::ptrdiff_t>(start), leaves_.end(),
                              leaves_.begin() + static_cast<std::ptrdiff_t>(item.start));
        });
        if (known != NumberTable::kNone) {
            leaves_.resize(start);
            return known;
        }
        const std::uint32_t number = AddItem({leaf, 0, start, length}, addressHash);
        byContent_.Add(hash, number);
        return number;
    }

    std::uint32_t AddArray(CFArrayRef array, std::size_t addressHash) {
        const auto count = static_cast<std::size_t>(CFArrayGetCount(array));
        const std::size_t start = references_.size();
        const std::uint32_t number = AddItem({array, kArrayMarker, start, count}, addressHash);
        references_.resize(start + count);
        for (std::size_t i = 0; i < count; ++i) {
            const std::uint32_t member =
                Add(CFArrayGetValueAtIndex(array, static_cast<CFIndex>(i)));
            references_[start + i] = member;
        }
        return number;
    }

    std::uint32_t AddDictionary(CFDictionaryRef dictionary, std::size_t addressHash) {
        const auto pairs = SortedPairs(dictionary);
        const std::size_t start = references_.size();
        const std::uint32_t number =
            AddItem({dictionary, kDictionaryMarker, start, 2 * pairs.size()}, addressHash);
        references_.resize(start + 2 * pairs.size());
        for (std::size_t i = 0; i < pairs.size(); ++i) {
            const std::uint32_t key = Add(pairs[i].first);
            references_[start + i] = key;
        }
        for (std::size_t i = 0; i < pairs.size(); ++i) {
            const std::uint32_t value = Add(pairs[i].second);
            references_[start + pairs.size() + i] = value;
        }
        return number;
    }

    void AppendItem(ByteBuffer &out, const Item &item, std::size_t referenceWidth) const {
        if (item.marker == 0) {
            const auto leaf = leaves_.begin() + static_cast<std::ptrdiff_t>(item.start);
            out.insert(out.end(), leaf, leaf + static_cast<std::ptrdiff_t>(item.length));
            return;
        }
        AppendMarker(out, item.marker,
                     item.marker == kDictionaryMarker ? item.length / 2 : item.length);
        for (std::size_t i = 0; i < item.length; ++i) {
            AppendBigEndian(out, references_[item.start + i], referenceWidth);
        }
    }

    // The table of offsets and the trailer.
    static void AppendTable(ByteBuffer &out, const std::vector<std::uint64_t> &offsets,
                            std::size_t referenceWidth) {
        const std::uint64_t tableOffset = out.size();
        const std::size_t offsetWidth = WidthOf(tableOffset);
        for (const std::uint64_t offset : offsets) {
            AppendBigEndian(out, offset, offsetWidth);
        }
        AppendBigEndian(out, 0, 6); // Unused, and the sort version.
        out.push_back(static_cast<std::uint8_t>(offsetWidth));
        out.push_back(static_cast<std::uint8_t>(referenceWidth));
        AppendBigEndian(out, offsets.size(), 8);
        AppendBigEndian(out, 0, 8); // The root is object 0.
        AppendBigEndian(out, tableOffset, 8);
    }

    std::vector<Item> items_;
    std::vector<std::uint32_t> references_;
    ByteBuffer leaves_;
    NumberTable byAddress_;
    NumberTable byContent_;
};

} // namespace

Owned<CFDataRef> WriteBinary(CFAllocatorRef allocator, CFTypeRef root) {
    BinaryWriter writer;
    (void)writer.Add(root);
    const ByteBuffer document = writer.Finish();
    return Own(CFDataCreate(allocator, document.data(), static_cast<CFIndex>(document.size())));
}

} // namespace CFInternal::PropertyList
