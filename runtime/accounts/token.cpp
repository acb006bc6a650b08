#include "runtime/accounts/token.h"

#include "runtime/exception.h"

namespace RunTime {

AutoHandle openTokenInForce(DWORD access, const char* function, int line) {
    AutoHandle token;
    if (!::OpenThreadToken(::GetCurrentThread(), access, TRUE, token.put())) {
        DWORD code = ::GetLastError();
        if (code == ERROR_NO_TOKEN) {
            code = ::OpenProcessToken(::GetCurrentProcess(), access, token.put())
                       ? ERROR_SUCCESS
                       : ::GetLastError();
        }
        if (code != ERROR_SUCCESS) {
            _throwError(L"Unable to open token", code, {L"", function, line});
        }
    }
    return token;
}

} // namespace RunTime
