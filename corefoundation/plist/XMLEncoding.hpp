// The encodings of XML property lists.
#pragma once

#include "corefoundation/plist/Common.hpp"

#include <string>
#include <string_view>

namespace CFInternal::PropertyList {

// A document as UTF-8, or nearly so: bytes that are no UTF-8 are left as they are, and halves
// of surrogate pairs, which UTF-16 and character references can hold, take the three bytes
// that UTF-8 would give them.
class XMLText {
  public:
    // Finds the encoding by the byte order mark, by the zeros of wide encodings, or by the XML
    // declaration; UTF-8 otherwise. Throws a read Failure for an unknown encoding. The bytes
    // are borrowed.
    explicit XMLText(Bytes document);

    // Without a byte order mark.
    std::string_view View() const noexcept { return view_; }

  private:
    void FindInDeclaration();

    // Empty when the document is UTF-8 as it is.
    std::string converted_;
    std::string_view view_;
};

void AppendUTF8(std::string &out, std::uint32_t scalar);

} // namespace CFInternal::PropertyList
