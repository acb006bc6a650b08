#include "relocation/vhosts/site_list.h"

#include "runtime/auto_handle.h"
#include "runtime/com.h"
#include "runtime/exception.h"
#include "runtime/format_string.h"
#include "runtime/text.h"
#include "security/disk/policy_text.h"

#include <msxml2.h>
#include <oleauto.h>

// Not in every compiler's header.
#ifndef __IXMLDOMDocument3_INTERFACE_DEFINED__
// NOLINTNEXTLINE(cppcoreguidelines-virtual-class-destructor): interfaces of COM have none
struct IXMLDOMDocument3 : IXMLDOMDocument2 {
    virtual HRESULT WINAPI validateNode(IXMLDOMNode*, IXMLDOMParseError**) = 0;
    virtual HRESULT WINAPI importNode(IXMLDOMNode*, VARIANT_BOOL, IXMLDOMNode**) = 0;
};
#endif

namespace {

using DiskSecurity::TextPosition;
using RunTime::ComPtr;

constexpr GUID clsidDomDocument60 = {
    0x88d96a05, 0xf192, 0x11d4, {0xa6, 0x5f, 0x00, 0x40, 0x96, 0x32, 0x51, 0xe5}};
constexpr GUID iidDomDocument3 = {
    0x2933bf96, 0x7b36, 0x11d2, {0xb2, 0x0e, 0x00, 0xc0, 0x4f, 0x98, 0x3e, 0x60}};
constexpr GUID iidDomElement = {
    0x2933bf86, 0x7b36, 0x11d2, {0xb2, 0x0e, 0x00, 0xc0, 0x4f, 0x98, 0x3e, 0x60}};

struct BstrTraits {
    using Value = BSTR;
    static Value none() noexcept { return nullptr; }
    static void close(Value value) noexcept { ::SysFreeString(value); }
};
using AutoBstr = RunTime::AutoResource<BstrTraits>;

std::wstring textOf(BSTR text) {
    return text == nullptr ? std::wstring() : std::wstring(text, ::SysStringLen(text));
}

void check(HRESULT result, const wchar_t* what, int line) {
    if (FAILED(result)) {
        _throwError(what, static_cast<DWORD>(result), {L"", "parseSiteList", line});
    }
}

AutoBstr newBstr(std::wstring_view text) {
    AutoBstr result(::SysAllocStringLen(text.data(), static_cast<UINT>(text.size())));
    check(result ? S_OK : E_OUTOFMEMORY, L"Unable to hand a text to the XML parser", __LINE__);
    return result;
}

[[noreturn]] void refuse(TextPosition position, const std::wstring& reason, int line) {
    throw vexception(formatString(L"Unable to read the list of IIS sites (line %d, column %d): %s",
                                  position.line, position.column, reason.c_str()),
                     {L"", "parseSiteList", line});
}

// The document, vetted and in a form that the parser takes without looking at anything but it.
DiskSecurity::PolicyText vetted(const std::wstring& document) {
    // As UTF-16 it is what it is, whatever encoding the utility had named.
    std::string bytes("\xFF\xFE");
    bytes.append(reinterpret_cast<const char*>(document.data()), document.size() * sizeof(wchar_t));
    try {
        return DiskSecurity::PolicyText(bytes);
    } catch (const DiskSecurity::PolicyTextException& e) {
        refuse(e.position(), e.message(), __LINE__);
    }
}

ComPtr<IXMLDOMDocument3> newDocument() {
    constexpr const wchar_t* failure = L"Unable to set up the XML parser";
    ComPtr<IXMLDOMDocument3> document;
    check(::CoCreateInstance(clsidDomDocument60, nullptr, CLSCTX_INPROC_SERVER, iidDomDocument3,
                             document.putVoid()),
          failure, __LINE__);
    check(document->put_async(VARIANT_FALSE), failure, __LINE__);
    check(document->put_resolveExternals(VARIANT_FALSE), failure, __LINE__);
    check(document->put_validateOnParse(VARIANT_FALSE), failure, __LINE__);
    VARIANT yes;
    ::VariantInit(&yes);
    yes.vt = VT_BOOL;
    yes.boolVal = VARIANT_TRUE;
    check(document->setProperty(newBstr(L"ProhibitDTD").get(), yes), failure, __LINE__);
    return document;
}

void load(IXMLDOMDocument3& document, DiskSecurity::PolicyText& text) {
    constexpr const wchar_t* failure = L"Unable to load the list of IIS sites";
    const AutoBstr xml = newBstr(toWide(text.forParser()));
    VARIANT_BOOL loaded = VARIANT_FALSE;
    check(document.loadXML(xml.get(), &loaded), failure, __LINE__);
    if (loaded != VARIANT_FALSE) {
        return;
    }
    ComPtr<IXMLDOMParseError> error;
    check(document.get_parseError(error.put()), failure, __LINE__);
    long line = 0;
    long column = 0;
    AutoBstr reason;
    error->get_line(&line);
    error->get_linepos(&column);
    error->get_reason(reason.put());
    std::wstring why = textOf(reason.get());
    why.erase(why.find_last_not_of(L"\r\n \t") + 1);
    refuse(text.inFile({static_cast<int>(line), static_cast<int>(column)}), why, __LINE__);
}

std::wstring attributeOf(IXMLDOMElement& element, const AutoBstr& name) {
    VARIANT value;
    ::VariantInit(&value);
    check(element.getAttribute(name.get(), &value), L"Unable to read the list of IIS sites",
          __LINE__);
    const AutoBstr text(value.vt == VT_BSTR ? value.bstrVal : nullptr); // VT_NULL for none
    return textOf(text.get());
}

} // namespace

std::vector<IisSite> parseSiteList(const std::wstring& document) {
    constexpr const wchar_t* failure = L"Unable to read the list of IIS sites";
    DiskSecurity::PolicyText text = vetted(document);
    const ComPtr<IXMLDOMDocument3> parsed = newDocument();
    load(*parsed.get(), text);
    ComPtr<IXMLDOMNodeList> nodes;
    check(parsed->selectNodes(newBstr(L"/sites/site").get(), nodes.put()), failure, __LINE__);
    const AutoBstr name = newBstr(L"name");
    const AutoBstr path = newBstr(L"path");
    std::vector<IisSite> sites;
    for (;;) {
        ComPtr<IXMLDOMNode> node;
        check(nodes->nextNode(node.put()), failure, __LINE__);
        if (!node) {
            return sites;
        }
        ComPtr<IXMLDOMElement> element;
        check(node->QueryInterface(iidDomElement, element.putVoid()), failure, __LINE__);
        sites.push_back({attributeOf(*element.get(), name), attributeOf(*element.get(), path)});
    }
}
