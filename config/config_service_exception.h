// A call of the configuration service failed. The message names the call; the text of the first
// frame tells why, for people; the status tells it to programs.
#pragma once

#include "runtime/exception.h"

#include <cstdint>
#include <string>
#include <windows.h>

class ConfigServiceException : public vexception {
public:
    // The codes that callers tell apart. The service or the system may give others.
    static constexpr DWORD noSuchValue = ERROR_FILE_NOT_FOUND;
    static constexpr DWORD wrongType = ERROR_DATATYPE_MISMATCH;
    static constexpr DWORD accessDenied = ERROR_ACCESS_DENIED;
    static constexpr DWORD badArgument = ERROR_INVALID_PARAMETER;
    static constexpr DWORD notRunning = ERROR_SERVICE_NOT_ACTIVE;
    static constexpr DWORD timedOut = ERROR_TIMEOUT;
    static constexpr DWORD untrustedServer = ERROR_INVALID_OWNER;
    static constexpr DWORD badMessage = ERROR_INVALID_DATA; // the other end sends nonsense
    static constexpr DWORD otherVersion = ERROR_REVISION_MISMATCH;

    ConfigServiceException(std::wstring message, DWORD status, CallStackInfo frame)
        : vexception(std::move(message), std::move(frame)), status_(status) {}

    DWORD status() const noexcept { return status_; }

    // Why, for people, without a full stop; the message where there is no more to say.
    const std::wstring& cause() const noexcept {
        const bool isTold = !frames().empty() && !frames().front().text.empty();
        return isTold ? frames().front().text : message();
    }

private:
    DWORD status_;
};
