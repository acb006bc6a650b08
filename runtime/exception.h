// The errors of the native layer: one hierarchy under vexception. A failed system call throws
// vosexception, or the subclass of its code, through _throwError right after the call:
//
//     if (!::SetSecurityDescriptorDacl(descriptor, TRUE, acl, FALSE)) {
//         const DWORD code = ::GetLastError(); // first: building the record allocates
//         _throwError(L"Unable to set SECURITY_DESCRIPTOR DACL", code,
//                     {L"", "RunTime::SecurityDescriptor::setDacl", __LINE__});
//     }
//
// None of them ever leaves the library: the frame around each public method turns them into
// zopobsolete::Exception. Objects are plain values of one thread.
#pragma once

#include <cstdint>
#include <list>
#include <string>
#include <string_view>
#include <windows.h>

// Root of the hierarchy. Not a std::exception: the public frame tells the two apart.
class vexception {
public:
    // One place that the failure passed on its way out.
    struct CallStackInfo {
        std::wstring text;    // details of that place, usually empty
        std::string function; // qualified name, such as "RunTime::Acl::add", in UTF-8
        std::int32_t line;

        // Views, so that the many sites that write {L"", "...", __LINE__} build no strings inline.
        CallStackInfo(std::wstring_view siteText, std::string_view siteFunction,
                      std::int32_t siteLine);
    };

    explicit vexception(std::wstring message);
    vexception(std::wstring message, CallStackInfo frame);
    vexception(const vexception&) = default;
    vexception& operator=(const vexception&) = default;
    virtual ~vexception();

    // The message, then one line "   at text(function line n)" per frame, innermost first.
    std::wstring what() const;

    const std::wstring& message() const noexcept { return message_; }
    const std::list<CallStackInfo>& frames() const noexcept { return frames_; }

    // Adds an outer place at the end.
    vexception& operator+=(const CallStackInfo& frame);

private:
    std::wstring message_;
    std::list<CallStackInfo> frames_;
};

// A system call failed. The message is the system's own text of the code, the code in decimal and
// the detail.
class vosexception : public vexception {
public:
    // errorCode  from GetLastError(), or the status that a registry or NetAPI call returned
    // detail     what could not be done ("Unable to ..."); null leaves it out
    vosexception(DWORD errorCode, const wchar_t* detail, CallStackInfo frame);

    DWORD get_errorCode() const noexcept { return errorCode_; }

private:
    DWORD errorCode_;
};

// The codes that callers tell apart by type. They add nothing but the type.
class VFileNotFoundException : public vosexception {
    using vosexception::vosexception;
};
class VPathNotFoundException : public vosexception {
    using vosexception::vosexception;
};
class VAccessDeniedException : public vosexception {
    using vosexception::vosexception;
};
class VInvalidHandleException : public vosexception {
    using vosexception::vosexception;
};
class VOutOfMemoryException : public vosexception {
    using vosexception::vosexception;
};
class VInvalidDriveException : public vosexception {
    using vosexception::vosexception;
};
class VNotDosDiskException : public vosexception {
    using vosexception::vosexception;
};
class VSharingViolationException : public vosexception {
    using vosexception::vosexception;
};
class VLockViolationException : public vosexception {
    using vosexception::vosexception;
};
class VWrongDiskException : public vosexception {
    using vosexception::vosexception;
};
class VSharingBufferExceededException : public vosexception {
    using vosexception::vosexception;
};
class VEOFException : public vosexception {
    using vosexception::vosexception;
};
class VFileExistsException : public vosexception {
    using vosexception::vosexception;
};
class VInsufficientBufferException : public vosexception {
    using vosexception::vosexception;
};
class VInvalidNameException : public vosexception {
    using vosexception::vosexception;
};
class VDirectoryNotEmptyException : public vosexception {
    using vosexception::vosexception;
};
class VInvalidPathException : public vosexception {
    using vosexception::vosexception;
};
class VAlreadyExistsException : public vosexception {
    using vosexception::vosexception;
};
class VPipeClosedException : public vosexception {
    using vosexception::vosexception;
};
class VInvalidDirectoryNameException : public vosexception {
    using vosexception::vosexception;
};
class VServiceDoesNotExistException : public vosexception {
    using vosexception::vosexception;
};
class VServiceMarkedForDeleteException : public vosexception {
    using vosexception::vosexception;
};
class VServiceAlreadyExistsException : public vosexception {
    using vosexception::vosexception;
};
class VNoneMappedException : public vosexception {
    using vosexception::vosexception;
};
class VNoSuchMemberException : public vosexception {
    using vosexception::vosexception;
};
class VTrustedRelationshipFailureException : public vosexception {
    using vosexception::vosexception;
};
class VPasswordTooShortException : public vosexception {
    using vosexception::vosexception;
};

// A bad argument or a text that could not be formatted.
class ArgumentException : public vexception {
    using vexception::vexception;
};

// A progress handler, or a request to the thread, cancelled the operation. The message is
// "Canceled!" unless another is given.
class CanceledException : public vexception {
public:
    CanceledException();
    explicit CanceledException(CallStackInfo origin);
    CanceledException(std::wstring message, CallStackInfo origin);
};

// Throws the class that belongs to errorCode, a plain vosexception for a code without a class of
// its own. Zero is a code like any other.
[[noreturn]] void _throwError(const wchar_t* detail, DWORD errorCode,
                              const vexception::CallStackInfo& frame);
