// Ctrl+C, and the other ways in which a console asks a program to end, as something to wait for.
#pragma once

#include <windows.h>

namespace zopconfigsvc {

class StopKey {
public:
    // Catches the keys from now on. One object in the life of the process. Throws vosexception.
    StopKey();
    ~StopKey();
    StopKey(const StopKey&) = delete;
    StopKey& operator=(const StopKey&) = delete;

    void wait();

private:
    static BOOL WINAPI handler(DWORD event);
};

} // namespace zopconfigsvc
