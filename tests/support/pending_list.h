// The list of operations for the next restart, kept aside for a test and put back afterwards. It is
// the machine's own: MoveFileExW writes to the real key whatever predefined key is overridden. Test
// programs that run side by side take turns.
#pragma once

#include "runtime/auto_handle.h"

#include <optional>
#include <string>
#include <windows.h>

class PendingList {
public:
    PendingList();  // the list is empty then
    ~PendingList(); // and as it was before
    PendingList(const PendingList&) = delete;
    PendingList& operator=(const PendingList&) = delete;

    // The list with "|" for each zero, or "none" when there is no list.
    std::wstring shown() const;
    // Sets it from such a text; the last cut bytes are left out.
    void write(std::wstring text, DWORD type = REG_MULTI_SZ, DWORD cut = 0) const;

private:
    std::optional<std::wstring> data() const;

    RunTime::AutoHandle turn_;
    RunTime::AutoRegKey key_;
    std::optional<std::wstring> before_;
};
