#include "corefoundation/plist/Common.hpp"
#include "corefoundation/plist/XMLDocument.hpp"
#include "corefoundation/plist/XMLValues.hpp"

#include <exception>
#include <expat.h>
#include <memory>
#include <optional>

// From 2.4 on the parser limits by itself what entities can expand to. None is let
// through here, but the limit also covers what is parsed before a handler is called.
#if XML_MAJOR_VERSION < 2 || (XML_MAJOR_VERSION == 2 && XML_MINOR_VERSION < 4)
#error "expat 2.4 or newer is needed"
#endif

namespace CFInternal::PropertyList {

namespace {

// The handlers are called from C, so no exception may leave them: the first failure is
// kept and the parser told to stop. It may still call a handler or two.
class XMLReader {
  public:
    XMLReader(CFAllocatorRef allocator, Mutability mutability)
        : document_(allocator, mutability), parser_(Made(XML_ParserCreate(nullptr))) {
        XML_SetUserData(parser_.get(), this);
        XML_SetElementHandler(parser_.get(), OnStart, OnEnd);
        XML_SetCharacterDataHandler(parser_.get(), OnText);
        XML_SetStartDoctypeDeclHandler(parser_.get(), OnDoctype);
        XML_SetSkippedEntityHandler(parser_.get(), OnSkippedEntity);
    }

    Owned<> Read(Bytes bytes) {
        const auto status = XML_Parse(parser_.get(), reinterpret_cast<const char *>(bytes.data()),
                                      static_cast<int>(bytes.size()), XML_TRUE);
        if (outOfMemory_ || XML_GetErrorCode(parser_.get()) == XML_ERROR_NO_MEMORY) {
            throw std::bad_alloc();
        }
        if (failure_) {
            throw *failure_;
        }
        if (status != XML_STATUS_OK) {
            const XML_LChar *reason = XML_ErrorString(XML_GetErrorCode(parser_.get()));
            ThrowCorrupt(AtLine(std::string("The XML is malformed: ") +
                                (reason == nullptr ? "unknown error" : reason)));
        }
        return document_.Finish();
    }

  private:
    struct Free {
        void operator()(XML_Parser parser) const { XML_ParserFree(parser); }
    };

    template <class Step>
    static void Guard(void *self, Step step) noexcept {
        auto &reader = *static_cast<XMLReader *>(self);
        if (reader.failure_ || reader.outOfMemory_) {
            return;
        }
        try {
            step(reader.document_);
            return;
        } catch (const Failure &failure) {
            reader.Keep(failure);
        } catch (const std::exception &) {
            reader.outOfMemory_ = true;
        }
        (void)XML_StopParser(reader.parser_.get(), XML_FALSE);
    }

    void Keep(const Failure &failure) noexcept {
        try {
            failure_ = Failure{failure.code, AtLine(failure.reason)};
        } catch (const std::exception &) {
            outOfMemory_ = true;
        }
    }

    std::string AtLine(const std::string &reason) const {
        return reason + " (line " + std::to_string(XML_GetCurrentLineNumber(parser_.get())) + ")";
    }

    static void XMLCALL OnStart(void *self, const XML_Char *name, const XML_Char **) {
        Guard(self, [&](XMLDocument &document) { document.Start(name); });
    }
    static void XMLCALL OnEnd(void *self, const XML_Char *) {
        Guard(self, [](XMLDocument &document) { document.End(); });
    }
    static void XMLCALL OnText(void *self, const XML_Char *text, int length) {
        Guard(self, [&](XMLDocument &document) {
            document.Text({text, static_cast<std::size_t>(length)});
        });
    }
    // An internal subset declares entities, or attributes, which have no use here.
    static void XMLCALL OnDoctype(void *self, const XML_Char *, const XML_Char *, const XML_Char *,
                                  int hasInternalSubset) {
        Guard(self, [&](XMLDocument &) {
            if (hasInternalSubset != 0) {
                ThrowCorrupt("A document type with declarations of its own is not allowed");
            }
        });
    }
    // The parser passes over entities that the external document type, which is never
    // loaded, might declare; their text would be missing without a word.
    static void XMLCALL OnSkippedEntity(void *self, const XML_Char *, int) {
        Guard(self, [](XMLDocument &) { ThrowCorrupt("Reference to an unknown entity"); });
    }

    XMLDocument document_;
    std::unique_ptr<XML_ParserStruct, Free> parser_;
    std::optional<Failure> failure_;
    bool outOfMemory_ = false;
};

// Whether the first character could be XML's "<", in one of the encodings.
bool LooksLikeXML(Bytes document) {
    constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";
    std::string_view text(reinterpret_cast<const char *>(document.data()), document.size());
    if (text.starts_with(kByteOrderMark)) {
        text.remove_prefix(kByteOrderMark.size());
    }
    text = TrimXMLSpace(text);
    return text.starts_with('<') || text.starts_with('\xFE') || text.starts_with('\xFF') ||
           text.starts_with('\0');
}

} // namespace

Owned<> ReadXML(CFAllocatorRef allocator, Bytes document, Mutability mutability) {
    if (!LooksLikeXML(document)) {
        ThrowCorrupt("The document is neither a binary nor an XML property list (line 1)");
    }
    if (document.size() > kMaxXMLSize) {
        ThrowCorrupt("The XML document is longer than " + std::to_string(kMaxXMLSize) + " bytes");
    }
    return XMLReader(allocator, mutability).Read(document);
}

} // namespace CFInternal::PropertyList
