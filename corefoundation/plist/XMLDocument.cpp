#include "corefoundation/plist/XMLDocument.hpp"

#include "corefoundation/CFNumberInternal.hpp"
#include "corefoundation/TextEncoding.hpp"
#include "corefoundation/plist/XMLValues.hpp"

#include <CoreFoundation/CFDate.h>
#include <CoreFoundation/CFKeyedArchiverUID.h>
#include <CoreFoundation/CFNumber.h>
#include <CoreFoundation/CFString.h>
#include <algorithm>
#include <iterator>
#include <optional>

namespace CFInternal::PropertyList {

namespace {

// In the order of XMLDocument::Tag.
constexpr const char *kTagNames[] = {"plist", "dict", "array", "key",  "string", "integer",
                                     "real",  "true", "false", "date", "data"};

// How much of an unknown tag's name an error repeats.
constexpr std::size_t kMaxQuotedName = 40;

[[noreturn]] void ThrowMalformed(const char *what) {
    ThrowCorrupt(std::string("<") + what + "> has a malformed value");
}

[[noreturn]] void ThrowTooDeep() {
    ThrowCorrupt("Containers nest more than " + std::to_string(kMaxDepth) + " deep");
}

// The half of a surrogate pair in the three bytes that UTF-8 would give it, which some writers
// produce and XMLText does.
std::optional<UniChar> SurrogateAt(CFInternal::Bytes bytes) {
    if (bytes.size() < 3 || bytes[0] != 0xED || (bytes[1] & 0xE0) != 0xA0 ||
        (bytes[2] & 0xC0) != 0x80) {
        return std::nullopt;
    }
    return static_cast<UniChar>(0xD000 | (bytes[1] & 0x3F) << 6 | (bytes[2] & 0x3F));
}

std::vector<UniChar> DecodeLeniently(std::string_view text) {
    std::vector<UniChar> units;
    units.reserve(text.size());
    const auto emit = [&](UniChar unit) { units.push_back(unit); };
    CFInternal::Bytes bytes(reinterpret_cast<const std::uint8_t *>(text.data()), text.size());
    while (!bytes.empty()) {
        if (const auto surrogate = SurrogateAt(bytes)) {
            emit(*surrogate);
            bytes = bytes.subspan(3);
            continue;
        }
        const DecodedScalar next = decodeUTF8(bytes);
        emitScalar(next.wellFormed ? next.scalar : kReplacementCharacter, emit);
        bytes = bytes.subspan(next.length);
    }
    return units;
}

std::string Bracketed(std::string_view name) { return "<" + std::string(name) + ">"; }

} // namespace

XMLDocument::Tag XMLDocument::TagNamed(std::string_view name) {
    const auto *found = std::find(std::begin(kTagNames), std::end(kTagNames), name);
    if (found == std::end(kTagNames)) {
        ThrowCorrupt("Unknown tag " + Bracketed(name.substr(0, kMaxQuotedName)));
    }
    return static_cast<Tag>(found - std::begin(kTagNames));
}

const char *XMLDocument::NameOf(Tag tag) { return kTagNames[static_cast<std::size_t>(tag)]; }

bool XMLDocument::HoldsText(Tag tag) {
    return tag >= Tag::Key && tag != Tag::True && tag != Tag::False;
}

void XMLDocument::Start(std::string_view name) {
    const Tag tag = TagNamed(name);
    RequireAllowed(tag);
    // A dictionary below all others may turn out to be a UID, which is no container.
    if ((tag == Tag::Array && Depth() >= kMaxDepth) || (tag == Tag::Dict && Depth() > kMaxDepth)) {
        ThrowTooDeep();
    }
    if (tag != Tag::Plist && ++values_ > kMaxValues) {
        ThrowCorrupt("The document has more than " + std::to_string(kMaxValues) + " values");
    }
    frames_.push_back({tag, members_.size()});
    text_.clear();
}

// Of the containers that are open. <plist> is around them and none itself.
std::size_t XMLDocument::Depth() const {
    const bool inPlist = !frames_.empty() && frames_.front().tag == Tag::Plist;
    return frames_.size() - (inPlist ? 1 : 0);
}

void XMLDocument::RequireAllowed(Tag tag) const {
    if (!frames_.empty()) {
        RequireAllowedIn(frames_.back(), tag);
    } else if (tag == Tag::Key) {
        ThrowCorrupt("<key> outside of <dict>");
    }
}

void XMLDocument::RequireAllowedIn(const Frame &parent, Tag tag) const {
    const std::size_t count = members_.size() - parent.members;
    const bool keyIsNext = parent.tag == Tag::Dict && count % 2 == 0;
    if (parent.tag > Tag::Array || tag == Tag::Plist) {
        ThrowCorrupt(Bracketed(NameOf(tag)) + " inside of " + Bracketed(NameOf(parent.tag)));
    }
    if (parent.tag == Tag::Plist && count != 0) {
        ThrowCorrupt("<plist> has more than one value");
    }
    if (keyIsNext && tag != Tag::Key) {
        ThrowCorrupt(Bracketed(NameOf(tag)) + " without a <key> before it");
    }
    if (!keyIsNext && tag == Tag::Key) {
        ThrowCorrupt(parent.tag == Tag::Dict ? "<key> without a value after it"
                                             : "<key> outside of <dict>");
    }
}

void XMLDocument::Text(std::string_view text) {
    if (!frames_.empty() && HoldsText(frames_.back().tag)) {
        text_ += text;
    } else if (!TrimXMLSpace(text).empty()) {
        ThrowCorrupt("Text outside of a value");
    }
}

void XMLDocument::End() {
    const Frame frame = frames_.back();
    if (frame.tag == Tag::Plist) {
        if (members_.empty()) {
            ThrowCorrupt("<plist> has no value");
        }
    } else {
        Owned<> made = Make(frame);
        members_.erase(members_.begin() + static_cast<std::ptrdiff_t>(frame.members),
                       members_.end());
        members_.push_back(std::move(made));
    }
    frames_.pop_back();
    text_.clear();
}

Owned<> XMLDocument::Finish() { return std::move(members_.front()); }

Owned<> XMLDocument::Make(const Frame &frame) {
    switch (frame.tag) {
    case Tag::Dict:
    case Tag::Array:
        return MakeContainer(frame);
    case Tag::Integer:
    case Tag::Real:
        return MakeNumber(frame.tag);
    case Tag::True:
    case Tag::False:
        return Owned<>(CFRetain(frame.tag == Tag::True ? kCFBooleanTrue : kCFBooleanFalse));
    case Tag::Date:
    case Tag::Data:
        return MakeDateOrData(frame.tag);
    default:
        // A key that changes would be lost in its dictionary.
        return MakeText(frame.tag == Tag::String && mutability_.leaves);
    }
}

// One bad byte must not cost the whole document: it becomes U+FFFD.
Owned<> XMLDocument::MakeText(bool isMutable) const {
    Owned<CFStringRef> string(
        CFStringCreateWithBytes(allocator_, reinterpret_cast<const UInt8 *>(text_.data()),
                                static_cast<CFIndex>(text_.size()), kCFStringEncodingUTF8, false));
    if (!string) {
        const std::vector<UniChar> units = DecodeLeniently(text_);
        string = Own(CFStringCreateWithCharacters(allocator_, units.data(),
                                                  static_cast<CFIndex>(units.size())));
    }
    return MakeString(allocator_, std::move(string), isMutable);
}

Owned<> XMLDocument::MakeNumber(Tag tag) const {
    if (tag == Tag::Integer) {
        const auto integer = ParseInteger(text_);
        if (!integer) {
            ThrowMalformed("integer");
        }
        return MakeInteger(allocator_, integer->high, integer->low);
    }
    const auto real = ParseReal(text_);
    if (!real) {
        ThrowMalformed("real");
    }
    return Own<CFTypeRef>(CFNumberCreate(allocator_, kCFNumberFloat64Type, &*real));
}

Owned<> XMLDocument::MakeDateOrData(Tag tag) const {
    if (tag == Tag::Date) {
        const auto seconds = ParseDate(text_);
        if (!seconds) {
            ThrowMalformed("date");
        }
        return Own<CFTypeRef>(CFDateCreate(allocator_, *seconds));
    }
    const auto bytes = ParseBase64(text_);
    if (!bytes) {
        ThrowMalformed("data");
    }
    return MakeData(allocator_, *bytes, mutability_.leaves);
}

Owned<> XMLDocument::MakeContainer(const Frame &frame) {
    if (frame.tag == Tag::Dict) {
        Owned<> uid = MakeUidIfOne(frame);
        if (!uid && Depth() > kMaxDepth) {
            ThrowTooDeep();
        }
        return uid ? std::move(uid) : MakePairs(frame);
    }
    std::vector<const void *> members;
    members.reserve(members_.size() - frame.members);
    for (std::size_t i = frame.members; i < members_.size(); ++i) {
        members.push_back(members_[i].get());
    }
    return MakeArray(allocator_, members, mutability_.containers);
}

Owned<> XMLDocument::MakePairs(const Frame &frame) const {
    if ((members_.size() - frame.members) % 2 != 0) {
        ThrowCorrupt("<key> without a value after it");
    }
    std::vector<const void *> keys;
    std::vector<const void *> values;
    for (std::size_t i = frame.members; i < members_.size(); i += 2) {
        keys.push_back(members_[i].get());
        values.push_back(members_[i + 1].get());
    }
    return MakeDictionary(allocator_, keys, values, mutability_.containers);
}

// XML has no UIDs of its own: {CF$UID: n} stands for one. Null for any other dictionary.
Owned<> XMLDocument::MakeUidIfOne(const Frame &frame) const {
    if (members_.size() - frame.members != 2 ||
        !CFEqual(members_[frame.members].get(), CFSTR("CF$UID"))) {
        return {};
    }
    CFTypeRef number = members_.back().get();
    std::int64_t high = 0;
    std::uint64_t low = 0;
    if (typeIDOf(number) != kNumberTypeID ||
        !_CFNumberGetInt128(static_cast<CFNumberRef>(number), &high, &low) || high != 0 ||
        low > UINT32_MAX) {
        return {};
    }
    return Own<CFTypeRef>(_CFKeyedArchiverUIDCreate(allocator_, static_cast<std::uint32_t>(low)));
}

} // namespace CFInternal::PropertyList
