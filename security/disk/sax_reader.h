// MSXML's SAX parser, set to look at nothing but the text that it is given.
#pragma once

#include "runtime/com.h"
#include "security/disk/content_handler_wrapper.h"

#include <string_view>

namespace DiskSecurity {

// No library of the compiler has these.
inline constexpr GUID iidUnknown = {
    0x00000000, 0x0000, 0x0000, {0xc0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x46}};
inline constexpr GUID clsidSaxReader60 = {
    0x88d96a0c, 0xf192, 0x11d4, {0xa6, 0x5f, 0x00, 0x40, 0x96, 0x32, 0x51, 0xe5}};
inline constexpr GUID iidSaxReader = {
    0xa4f96ed0, 0xf829, 0x476e, {0x81, 0xc0, 0xcd, 0xc7, 0xbd, 0x2a, 0x08, 0x02}};
inline constexpr GUID iidContentHandler = {
    0x1545cdfa, 0x9e4e, 0x4497, {0xa8, 0xa4, 0x2b, 0xf7, 0xd0, 0x11, 0x2c, 0x44}};
inline constexpr GUID iidErrorHandler = {
    0xa60511c4, 0xccf5, 0x479e, {0x98, 0xa3, 0xdc, 0x8d, 0xc5, 0x45, 0xb7, 0xd0}};
inline constexpr GUID iidLexicalHandler = {
    0x7f85d5f5, 0x47a8, 0x4497, {0xbd, 0xa5, 0x84, 0xba, 0x04, 0x81, 0x9e, 0xa6}};

// Of the thread that makes it. One reader parses any number of documents, one after the other.
class SaxReader {
public:
    explicit SaxReader(ElementHandler& handler);
    SaxReader(const SaxReader&) = delete;
    SaxReader& operator=(const SaxReader&) = delete;

    // Throws what the handler threw, or vosexception "Unable to parse XML: ..." with the parser's
    // result as its code; failurePosition() then tells where in the file.
    void parse(PolicyText& document);
    TextPosition failurePosition() const { return failurePosition_; }

private:
    RunTime::ComScope com_;
    ContentHandlerWrapper wrapper_; // before the reader, which knows its address
    RunTime::ComPtr<ISAXXMLReader> reader_;
    TextPosition failurePosition_;
};

} // namespace DiskSecurity
