// Builds the objects of an XML property list from its tags, in order. Knows the rules
// of property lists and nothing of XML's syntax.
#pragma once

#include "corefoundation/plist/Common.hpp"

#include <string_view>
#include <vector>

namespace CFInternal::PropertyList {

class XMLDocument {
  public:
    XMLDocument(CFAllocatorRef allocator, Mutability mutability)
        : allocator_(allocator), mutability_(mutability) {}

    // Each throws a Failure, whose reason lacks the line, or bad_alloc.
    void Start(std::string_view tag);
    void Text(std::string_view text);
    void End();

    // The root, after the last tag.
    Owned<> Finish();

  private:
    enum class Tag { Plist, Dict, Array, Key, String, Integer, Real, True, False, Date, Data };

    // A tag that is open. members is where in members_ its values begin.
    struct Frame {
        Tag tag;
        std::size_t members;
    };

    static Tag TagNamed(std::string_view name);
    static const char *NameOf(Tag tag);
    static bool HoldsText(Tag tag);

    std::size_t Depth() const;
    void RequireAllowed(Tag tag) const;
    void RequireAllowedIn(const Frame &parent, Tag tag) const;
    Owned<> Make(const Frame &frame);
    Owned<> MakeText(bool isMutable) const;
    Owned<> MakeNumber(Tag tag) const;
    Owned<> MakeDateOrData(Tag tag) const;
    Owned<> MakeContainer(const Frame &frame);
    Owned<> MakePairs(const Frame &frame) const;
    Owned<> MakeUidIfOne(const Frame &frame) const;

    CFAllocatorRef allocator_;
    Mutability mutability_;
    std::vector<Frame> frames_;
    // Values of the open tags, innermost last; a dictionary's keys and values alternate.
    std::vector<Owned<>> members_;
    // Of the innermost tag, if it holds text.
    std::string text_;
    std::uint32_t values_ = 0;
};

} // namespace CFInternal::PropertyList
