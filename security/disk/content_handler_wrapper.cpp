#include "security/disk/content_handler_wrapper.h"

#include "runtime/format_string.h"
#include "security/disk/sax_reader.h"

namespace DiskSecurity {

namespace {

TextPosition positionOf(ISAXLocator* locator) {
    TextPosition position;
    if (locator != nullptr && (FAILED(locator->getLineNumber(&position.line)) ||
                               FAILED(locator->getColumnNumber(&position.column)))) {
        return {};
    }
    return position;
}

std::wstring_view view(const wchar_t* text, int length) {
    return text == nullptr || length <= 0
               ? std::wstring_view()
               : std::wstring_view(text, static_cast<std::size_t>(length));
}

void check(HRESULT result) {
    if (FAILED(result)) {
        _throwError(L"Unable to read the attributes of an element", static_cast<DWORD>(result),
                    {L"", "DiskSecurity::ContentHandlerWrapper::startElement", __LINE__});
    }
}

} // namespace

void ContentHandlerWrapper::reset() {
    elements_ = 0;
    depth_ = 0;
    failure_ = nullptr;
    parserPosition_ = {};
    parserMessage_.clear();
}

HRESULT ContentHandlerWrapper::QueryInterface(REFIID id, void** object) {
    if (object == nullptr) {
        return E_POINTER;
    }
    if (id == iidUnknown || id == iidContentHandler) {
        *object = static_cast<ISAXContentHandler*>(this);
    } else if (id == iidErrorHandler) {
        *object = static_cast<ISAXErrorHandler*>(this);
    } else if (id == iidLexicalHandler) {
        *object = static_cast<ISAXLexicalHandler*>(this);
    } else {
        *object = nullptr;
        return E_NOINTERFACE;
    }
    return S_OK;
}

HRESULT ContentHandlerWrapper::startElement(const wchar_t*, int, const wchar_t* name,
                                            int nameLength, const wchar_t*, int,
                                            ISAXAttributes* attributes) {
    try {
        try {
            handOn(view(name, nameLength), *attributes);
            return S_OK;
        } catch (vexception& e) {
            e += {L"Unable to call startElement()",
                  "DiskSecurity::ContentHandlerWrapper::startElement", __LINE__};
            throw;
        }
    } catch (...) { // rethrown once the parser has returned
        failure_ = std::current_exception();
        return E_FAIL;
    }
}

HRESULT ContentHandlerWrapper::endElement(const wchar_t*, int, const wchar_t*, int, const wchar_t*,
                                          int) {
    --depth_;
    return S_OK;
}

HRESULT ContentHandlerWrapper::fatalError(ISAXLocator* locator, const wchar_t* message, HRESULT) {
    try {
        if (failure_ == nullptr) { // our own failing result comes back here
            parserPosition_ = positionOf(locator);
            parserMessage_ = message == nullptr ? L"" : message;
            parserMessage_.erase(parserMessage_.find_last_not_of(L"\r\n \t") + 1);
        }
        return S_OK;
    } catch (...) { // for want of memory; rethrown as above
        failure_ = std::current_exception();
        return E_FAIL;
    }
}

void ContentHandlerWrapper::handOn(std::wstring_view name, ISAXAttributes& attributes) {
    element_.number = elements_++;
    if (++depth_ > maxElementDepth) {
        throw vexception(
            formatString(L"Elements lie more than %d deep in one another.", maxElementDepth),
            {L"", "DiskSecurity::ContentHandlerWrapper::startElement", __LINE__});
    }
    int count = 0;
    check(attributes.getLength(&count));
    element_.name = name;
    element_.attributes.clear();
    for (int i = 0; i < count; ++i) {
        const wchar_t* texts[4] = {};
        int lengths[4] = {};
        check(attributes.getName(i, &texts[0], &lengths[0], &texts[1], &lengths[1], &texts[2],
                                 &lengths[2]));
        check(attributes.getValue(i, &texts[3], &lengths[3]));
        // A declaration of a namespace counts as an attribute, with or without a name.
        const std::wstring_view full = view(texts[2], lengths[2]);
        if (full == L"xmlns" || full.starts_with(L"xmlns:")) {
            continue;
        }
        element_.attributes.push_back(
            {view(texts[0], lengths[0]), view(texts[1], lengths[1]), view(texts[3], lengths[3])});
    }
    handler_.startElement(element_);
}

} // namespace DiskSecurity
