// A stand-in for wtsapi32.dll: keeps who may log on by remote desktop.
#include "tests/panel/netapi32/account_store.h"

extern "C" BOOL WINAPI WTSSetUserConfigW(LPWSTR, LPWSTR user, int, LPWSTR value, DWORD) {
    const std::wstring path = panel::userPath(user);
    if (!panel::accountKey(path)) {
        ::SetLastError(ERROR_NO_SUCH_USER);
        return FALSE;
    }
    panel::setNumber(path, L"rdp", *reinterpret_cast<const DWORD*>(value));
    return TRUE;
}
