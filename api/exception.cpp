#include "api/exception.h"

#include "runtime/text.h"

namespace zopobsolete {

struct Exception::Text {
    std::wstring wide;
    std::string utf8;
};

namespace {

const std::wstring unexpectedError = L"Unexpected error"; // ready before memory runs out

} // namespace

Exception::Exception() noexcept = default;

Exception::Exception(const std::wstring& message)
    : text_(std::make_shared<const Text>(Text{message, toUtf8(message)})) {}

Exception::Exception(const Exception&) noexcept = default;

Exception& Exception::operator=(const Exception&) noexcept = default;

Exception::~Exception() = default;

const std::wstring& Exception::message() const noexcept {
    return text_ ? text_->wide : unexpectedError;
}

const char* Exception::what() const noexcept {
    return text_ ? text_->utf8.c_str() : "Unexpected error";
}

} // namespace zopobsolete
