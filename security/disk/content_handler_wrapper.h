// Stands between MSXML's SAX parser, which speaks COM, and a handler in C++: hands elements on, and
// keeps what goes wrong until the parser has returned. No exception may pass through the parser, so
// a failing handler stops the parse by its result, and its exception waits in failure().
#pragma once

#include "security/disk/policy_text.h"

#include <exception>
#include <msxml2.h>
#include <string>
#include <string_view>
#include <vector>

namespace DiskSecurity {

struct XmlAttribute {
    std::wstring_view space; // namespace; empty for an attribute of the element's own
    std::wstring_view name;
    std::wstring_view value;
};

// One start tag. All texts are the parser's, and last as long as the call.
struct XmlElement {
    std::wstring_view name; // without prefix
    std::vector<XmlAttribute> attributes;
    std::size_t number = 0; // of this start tag in the document, from 0
};

class ElementHandler {
public:
    virtual ~ElementHandler() = default;
    virtual void startElement(const XmlElement& element) = 0;
};

// Elements may lie this deep in one another.
inline constexpr int maxElementDepth = 64;

// Owned by who makes it, not by its reference count: it must outlive the reader that it is given
// to.
class ContentHandlerWrapper final : public ISAXContentHandler,
                                    public ISAXErrorHandler,
                                    public ISAXLexicalHandler {
public:
    explicit ContentHandlerWrapper(ElementHandler& handler) : handler_(handler) {}
    virtual ~ContentHandlerWrapper() = default;
    ContentHandlerWrapper(const ContentHandlerWrapper&) = delete;
    ContentHandlerWrapper& operator=(const ContentHandlerWrapper&) = delete;

    // Before each document.
    void reset();

    // What the handler threw, at which start tag; null when it threw nothing.
    std::exception_ptr failure() const { return failure_; }
    std::size_t failureNumber() const { return element_.number; }
    // The parser's complaint, and how far it had come; empty for none.
    const std::wstring& parserMessage() const { return parserMessage_; }
    TextPosition parserPosition() const { return parserPosition_; }

    HRESULT WINAPI QueryInterface(REFIID id, void** object) override;
    ULONG WINAPI AddRef() override { return 1; }
    ULONG WINAPI Release() override { return 1; }

    HRESULT WINAPI putDocumentLocator(ISAXLocator*) override { return S_OK; }
    HRESULT WINAPI startDocument() override { return S_OK; }
    HRESULT WINAPI endDocument() override { return S_OK; }
    HRESULT WINAPI startPrefixMapping(const wchar_t*, int, const wchar_t*, int) override {
        return S_OK;
    }
    HRESULT WINAPI endPrefixMapping(const wchar_t*, int) override { return S_OK; }
    HRESULT WINAPI startElement(const wchar_t* space, int spaceLength, const wchar_t* name,
                                int nameLength, const wchar_t* fullName, int fullNameLength,
                                ISAXAttributes* attributes) override;
    HRESULT WINAPI endElement(const wchar_t*, int, const wchar_t*, int, const wchar_t*,
                              int) override;
    HRESULT WINAPI characters(const wchar_t*, int) override { return S_OK; }
    HRESULT WINAPI ignorableWhitespace(const wchar_t*, int) override { return S_OK; }
    HRESULT WINAPI processingInstruction(const wchar_t*, int, const wchar_t*, int) override {
        return S_OK;
    }
    HRESULT WINAPI skippedEntity(const wchar_t*, int) override { return E_FAIL; }

    HRESULT WINAPI error(ISAXLocator* locator, const wchar_t* message, HRESULT code) override {
        return fatalError(locator, message, code);
    }
    HRESULT WINAPI fatalError(ISAXLocator* locator, const wchar_t* message, HRESULT code) override;
    HRESULT WINAPI ignorableWarning(ISAXLocator*, const wchar_t*, HRESULT) override { return S_OK; }

    HRESULT WINAPI startDTD(const wchar_t*, int, const wchar_t*, int, const wchar_t*,
                            int) override {
        return E_FAIL; // PolicyText lets none through; should it err, this ends it
    }
    HRESULT WINAPI endDTD() override { return S_OK; }
    HRESULT WINAPI startEntity(const wchar_t*, int) override { return S_OK; }
    HRESULT WINAPI endEntity(const wchar_t*, int) override { return S_OK; }
    HRESULT WINAPI startCDATA() override { return S_OK; }
    HRESULT WINAPI endCDATA() override { return S_OK; }
    HRESULT WINAPI comment(const wchar_t*, int) override { return S_OK; }

private:
    void handOn(std::wstring_view name, ISAXAttributes& attributes);

    ElementHandler& handler_;
    XmlElement element_; // kept, so that its list is allocated once
    std::size_t elements_ = 0;
    int depth_ = 0;
    std::exception_ptr failure_;
    TextPosition parserPosition_;
    std::wstring parserMessage_;
};

} // namespace DiskSecurity
