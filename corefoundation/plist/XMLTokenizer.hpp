// Reads the syntax of XML, as far as property lists use it.
//
// This is no parser of XML in general but the counterpart of the platform's reader of property
// lists, which takes what XML forbids and property lists hold: control characters, white
// space before the declaration, anything behind the root. There are no entities but XML's own
// five and character references, and no declarations: nothing in a document stands for more
// than it says.
#pragma once

#include "corefoundation/plist/XMLDocument.hpp"

#include <string>
#include <string_view>
#include <vector>

namespace CFInternal::PropertyList {

class XMLTokenizer {
  public:
    // The text is borrowed; it need not be UTF-8 but where tags are concerned.
    XMLTokenizer(std::string_view text, XMLDocument &document) : text_(text), document_(document) {}

    // Hands the document all tags and texts up to the root's end. Throws a read Failure whose
    // reason ends with the line, or bad_alloc.
    void Run();

  private:
    void ReadAll();
    void ReadMarkup();
    void ReadDeclaration();
    void ReadDocumentType();
    void ReadStartTag();
    void ReadEndTag();
    void ReadText();
    void ReadReference(std::string_view reference);
    void Start(std::string_view name);
    void End();

    // Hands over text in which lines end as they come: all ends become line feeds.
    void PassLines(std::string_view text);
    std::string_view TakeName();
    // What is left before the mark, which is passed over with it.
    std::string_view TakeUntil(std::string_view mark, const char *inside);
    bool Take(std::string_view expected);
    bool IsAtEnd() const noexcept { return at_ == text_.size(); }
    // Of the token that is being read.
    std::string AtLine(const std::string &reason) const;

    std::string_view text_;
    std::size_t at_ = 0;
    // Where the token that is being read begins.
    std::size_t token_ = 0;
    XMLDocument &document_;
    // Names of the tags that are open, innermost last.
    std::vector<std::string_view> open_;
    bool rootIsRead_ = false;
    bool hasDocumentType_ = false;
    // Of a character reference.
    std::string character_;
};

} // namespace CFInternal::PropertyList
