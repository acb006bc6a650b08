#include "security/disk/sax_reader.h"

#include "runtime/auto_handle.h"

#include <algorithm>
#include <exception>
#include <oleauto.h>

namespace DiskSecurity {

namespace {

struct SafeArrayTraits {
    using Value = SAFEARRAY*;
    static Value none() noexcept { return nullptr; }
    static void close(Value value) noexcept { ::SafeArrayDestroy(value); }
};
using AutoSafeArray = RunTime::AutoResource<SafeArrayTraits>;

void check(HRESULT result, int line) {
    if (FAILED(result)) {
        _throwError(L"Unable to set up the XML reader", static_cast<DWORD>(result),
                    {L"", "DiskSecurity::SaxReader::SaxReader", line});
    }
}

} // namespace

SaxReader::SaxReader(ElementHandler& handler) : wrapper_(handler) {
    check(::CoCreateInstance(clsidSaxReader60, nullptr, CLSCTX_INPROC_SERVER, iidSaxReader,
                             reader_.putVoid()),
          __LINE__);
    check(reader_->putFeature(L"prohibit-dtd", VARIANT_TRUE), __LINE__);
    check(reader_->putFeature(L"http://xml.org/sax/features/external-general-entities",
                              VARIANT_FALSE),
          __LINE__);
    check(reader_->putFeature(L"http://xml.org/sax/features/external-parameter-entities",
                              VARIANT_FALSE),
          __LINE__);
    check(reader_->putContentHandler(&wrapper_), __LINE__);
    check(reader_->putErrorHandler(&wrapper_), __LINE__);
    VARIANT lexical;
    ::VariantInit(&lexical);
    lexical.vt = VT_UNKNOWN;
    lexical.punkVal = static_cast<ISAXLexicalHandler*>(&wrapper_);
    check(reader_->putProperty(L"http://xml.org/sax/properties/lexical-handler", lexical),
          __LINE__);
}

void SaxReader::parse(PolicyText& document) {
    constexpr const char* function = "DiskSecurity::SaxReader::parse";
    const std::string_view text = document.forParser();
    failurePosition_ = {};
    wrapper_.reset();
    const AutoSafeArray bytes(::SafeArrayCreateVector(VT_UI1, 0, static_cast<ULONG>(text.size())));
    void* data = nullptr;
    const HRESULT access = bytes ? ::SafeArrayAccessData(bytes.get(), &data) : E_OUTOFMEMORY;
    if (FAILED(access)) {
        _throwError(L"Unable to hand the text to the XML reader", static_cast<DWORD>(access),
                    {L"", function, __LINE__});
    }
    std::copy(text.begin(), text.end(), static_cast<char*>(data));
    ::SafeArrayUnaccessData(bytes.get());
    VARIANT input;
    ::VariantInit(&input);
    input.vt = VT_ARRAY | VT_UI1;
    input.parray = bytes.get();
    const HRESULT result = reader_->parse(input);
    if (const std::exception_ptr failure = wrapper_.failure()) {
        failurePosition_ = document.startTag(wrapper_.failureNumber());
        std::rethrow_exception(failure);
    }
    if (FAILED(result)) {
        failurePosition_ = document.inFile(wrapper_.parserPosition());
        _throwError((L"Unable to parse XML: " + wrapper_.parserMessage()).c_str(),
                    static_cast<DWORD>(result), {L"", function, __LINE__});
    }
}

} // namespace DiskSecurity
