// Ctrl+C at the n-th look at the clock: every step of a long command takes one.
//
//     PressingClock clock;
//     clock.pressAt(3);
//     ... the command ...
//     if (clock.wasPressed()) { ... }
#pragma once

#include "tests/support/import_patch.h"

namespace zopctl {

class PressingClock {
public:
    PressingClock() { original() = clock_.original<decltype(&::GetTickCount64)>(); }
    ~PressingClock() { pressAt(0); }

    void pressAt(long n) {
        at() = n;
        looks() = 0;
    }
    bool wasPressed() const { return at() != 0 && looks() >= at(); }

private:
    static BOOL WINAPI keepHandler(PHANDLER_ROUTINE given, BOOL add) {
        handler() = add ? given : nullptr;
        return TRUE;
    }
    static ULONGLONG WINAPI look() {
        if (++looks() == at() && handler() != nullptr) {
            handler()(CTRL_C_EVENT);
        }
        return original()();
    }

    template <class Value, int>
    static Value& shared() {
        static Value value{};
        return value;
    }
    static PHANDLER_ROUTINE& handler() { return shared<PHANDLER_ROUTINE, 0>(); }
    static long& at() { return shared<long, 1>(); }
    static long& looks() { return shared<long, 2>(); }
    static decltype(&::GetTickCount64)& original() {
        return shared<decltype(&::GetTickCount64), 3>();
    }

    ImportPatch keep_{"SetConsoleCtrlHandler", &keepHandler};
    ImportPatch clock_{"GetTickCount64", &look};
};

} // namespace zopctl
