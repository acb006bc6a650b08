#include "runtime/exception.h"

#include "runtime/format_string.h"
#include "runtime/text.h"

#include <lmerr.h>
#include <memory>
#include <utility>

namespace {

// The system's text for a code, without the line end that it comes with; empty where it has none.
std::wstring systemText(DWORD code) {
    wchar_t* text = nullptr;
    const DWORD length = ::FormatMessageW(
        FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_IGNORE_INSERTS | FORMAT_MESSAGE_FROM_SYSTEM,
        nullptr, code, MAKELANGID(LANG_NEUTRAL, SUBLANG_DEFAULT), reinterpret_cast<wchar_t*>(&text),
        0, nullptr);
    if (length == 0) {
        return {};
    }
    const std::unique_ptr<wchar_t, decltype(&::LocalFree)> owner(text, &::LocalFree);
    std::wstring result(text, length);
    while (!result.empty() && (result.back() == L'\r' || result.back() == L'\n')) {
        result.pop_back();
    }
    return result;
}

std::wstring messageOf(DWORD code, const wchar_t* detail) {
    std::wstring message = systemText(code) + formatString(L" (Error code %lu)", code);
    if (detail != nullptr) {
        message += L" at ";
        message += detail;
    }
    return message;
}

using Raise = void (*)(DWORD, const wchar_t*, const vexception::CallStackInfo&);

template <class Exception>
[[noreturn]] void raise(DWORD code, const wchar_t* detail, const vexception::CallStackInfo& frame) {
    throw Exception(code, detail, frame);
}

struct ErrorClass {
    DWORD code;
    Raise raise;
};

// A code without a row becomes a plain vosexception. ERROR_FILE_EXISTS and ERROR_ALREADY_EXISTS
// mean much the same and stay apart, because callers catch them apart.
constexpr ErrorClass errorClasses[] = {
    {ERROR_FILE_NOT_FOUND, raise<VFileNotFoundException>},
    {ERROR_PATH_NOT_FOUND, raise<VPathNotFoundException>},
    {ERROR_ACCESS_DENIED, raise<VAccessDeniedException>},
    {ERROR_INVALID_HANDLE, raise<VInvalidHandleException>},
    {ERROR_OUTOFMEMORY, raise<VOutOfMemoryException>},
    {ERROR_INVALID_DRIVE, raise<VInvalidDriveException>},
    {ERROR_NOT_DOS_DISK, raise<VNotDosDiskException>},
    {ERROR_SHARING_VIOLATION, raise<VSharingViolationException>},
    {ERROR_LOCK_VIOLATION, raise<VLockViolationException>},
    {ERROR_WRONG_DISK, raise<VWrongDiskException>},
    {ERROR_SHARING_BUFFER_EXCEEDED, raise<VSharingBufferExceededException>},
    {ERROR_HANDLE_EOF, raise<VEOFException>},
    {ERROR_FILE_EXISTS, raise<VFileExistsException>},
    {ERROR_INSUFFICIENT_BUFFER, raise<VInsufficientBufferException>},
    {ERROR_INVALID_NAME, raise<VInvalidNameException>},
    {ERROR_DIR_NOT_EMPTY, raise<VDirectoryNotEmptyException>},
    {ERROR_BAD_PATHNAME, raise<VInvalidPathException>},
    {ERROR_ALREADY_EXISTS, raise<VAlreadyExistsException>},
    {ERROR_NO_DATA, raise<VPipeClosedException>},
    {ERROR_DIRECTORY, raise<VInvalidDirectoryNameException>},
    {ERROR_SERVICE_DOES_NOT_EXIST, raise<VServiceDoesNotExistException>},
    {ERROR_SERVICE_MARKED_FOR_DELETE, raise<VServiceMarkedForDeleteException>},
    {ERROR_SERVICE_EXISTS, raise<VServiceAlreadyExistsException>},
    {ERROR_NONE_MAPPED, raise<VNoneMappedException>},
    {ERROR_NO_SUCH_MEMBER, raise<VNoSuchMemberException>},
    {ERROR_TRUSTED_RELATIONSHIP_FAILURE, raise<VTrustedRelationshipFailureException>},
    {NERR_PasswordTooShort, raise<VPasswordTooShortException>},
};

} // namespace

void _throwError(const wchar_t* detail, DWORD errorCode, const vexception::CallStackInfo& frame) {
    for (const ErrorClass& row : errorClasses) {
        if (row.code == errorCode) {
            row.raise(errorCode, detail, frame);
        }
    }
    throw vosexception(errorCode, detail, frame);
}

vexception::CallStackInfo::CallStackInfo(std::wstring_view siteText, std::string_view siteFunction,
                                         std::int32_t siteLine)
    : text(siteText), function(siteFunction), line(siteLine) {}

vexception::vexception(std::wstring message) : message_(std::move(message)) {}

vexception::vexception(std::wstring message, CallStackInfo frame) : message_(std::move(message)) {
    frames_.push_back(std::move(frame));
}

vexception::~vexception() = default;

std::wstring vexception::what() const {
    std::wstring result = message_;
    for (const CallStackInfo& frame : frames_) {
        result += L"\n   at " + frame.text + L"(" + toWide(frame.function) + L" line " +
                  std::to_wstring(frame.line) + L")";
    }
    return result;
}

vexception& vexception::operator+=(const CallStackInfo& frame) {
    frames_.push_back(frame);
    return *this;
}

vosexception::vosexception(DWORD errorCode, const wchar_t* detail, CallStackInfo frame)
    : vexception(messageOf(errorCode, detail), std::move(frame)), errorCode_(errorCode) {}

CanceledException::CanceledException() : vexception(L"Canceled!") {}

CanceledException::CanceledException(CallStackInfo origin)
    : vexception(L"Canceled!", std::move(origin)) {}

CanceledException::CanceledException(std::wstring message, CallStackInfo origin)
    : vexception(std::move(message), std::move(origin)) {}
