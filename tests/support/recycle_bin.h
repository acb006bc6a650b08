// Stands in for the recycle bin, which would lie in the home directory of whoever runs the tests.
#pragma once

#include "tests/support/import_patch.h"

#include <functional>
#include <shellapi.h>
#include <string>
#include <vector>

class RecycleBin {
public:
    RecycleBin() : patch_("SHFileOperationW", &operate) {
        taken().clear();
        works() = true;
        meanwhile() = {};
    }

    // What was put into it; whether it takes anything; what happens just before it does.
    static std::vector<std::wstring>& taken() {
        static std::vector<std::wstring> list;
        return list;
    }
    static bool& works() {
        static bool value;
        return value;
    }
    static std::function<void()>& meanwhile() {
        static std::function<void()> function;
        return function;
    }

private:
    static int WINAPI operate(LPSHFILEOPSTRUCTW operation) {
        if (meanwhile()) {
            meanwhile()();
        }
        const bool asked = operation->wFunc == FO_DELETE && (operation->fFlags & FOF_ALLOWUNDO) &&
                           (operation->fFlags & FOF_NO_CONNECTED_ELEMENTS);
        if (!asked || !works()) {
            return ERROR_CALL_NOT_IMPLEMENTED;
        }
        taken().emplace_back(operation->pFrom);
        return ::DeleteFileW(operation->pFrom) ? 0 : ERROR_ACCESS_DENIED;
    }

    ImportPatch patch_;
};
