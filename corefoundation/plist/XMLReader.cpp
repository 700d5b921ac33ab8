#include "corefoundation/plist/XMLDocument.hpp"
#include "corefoundation/plist/XMLEncoding.hpp"
#include "corefoundation/plist/XMLTokenizer.hpp"
#include "corefoundation/plist/XMLValues.hpp"

namespace CFInternal::PropertyList {

Owned<> ReadXML(CFAllocatorRef allocator, Bytes document, Mutability mutability) {
    if (document.size() > kMaxXMLSize) {
        ThrowCorrupt("The XML document is longer than " + std::to_string(kMaxXMLSize) + " bytes");
    }
    const XMLText text(document);
    if (!TrimXMLSpace(text.View()).starts_with('<')) {
        ThrowCorrupt("The document is neither a binary nor an XML property list (line 1)");
    }
    XMLDocument objects(allocator, mutability);
    XMLTokenizer(text.View(), objects).Run();
    return objects.Finish();
}

} // namespace CFInternal::PropertyList
