// What the classes have in common that bring settings which name the directory of virtual hosts
// into line when it moves: WwwRootReconfigure (www_root_reconfigure.h), AspNetReconfigure
// (asp_net_reconfigure.h), AppVaultReconfigure (app_vault_reconfigure.h).
//
// One thread at a time; handlers run on it.
#pragma once

#include "runtime/event.h"

#include <cstdint>
#include <string>

class Reconfigure {
public:
    virtual ~Reconfigure() = default;
    Reconfigure(const Reconfigure&) = delete;
    Reconfigure& operator=(const Reconfigure&) = delete;

    // Settings below fromPath are pointed at toPath. Backwards is the same with the paths swapped
    // and forward false; with an empty fromPath, that of a step that has never run, it changes
    // nothing. A failure is logged; forward, it goes to errorEvent besides, and the move goes on,
    // whatever its handlers say. Throws CanceledException when a handler cancels, otherwise returns
    // false.
    bool reconfigure(const std::wstring& fromPath, const std::wstring& toPath, bool forward);
    // As given to the last reconfigure(); empty before.
    const std::wstring& get_fromPath() const noexcept { return fromPath_; }
    const std::wstring& get_toPath() const noexcept { return toPath_; }
    // What the last reconfigure() failed with; empty when it did not.
    const std::wstring& get_failure() const noexcept { return failure_; }

    Event<std::int32_t, bool&> progressEvent_Total;
    Event<const std::wstring&, bool&> progressEvent_Name;
    Event<const std::wstring&, bool&> errorEvent; // message, ignore

protected:
    // What the class is called in events and errors.
    struct Texts {
        const char* function;    // "WwwRootReconfigure::reconfigure"
        const wchar_t* stepName; // "Reconfigure Www Roots"
        const wchar_t* failure;  // "Failed to reconfigure www root: "
    };
    explicit Reconfigure(const Texts& texts) : texts_(texts) {}

private:
    virtual void work(bool forward) = 0;

    Texts texts_;
    std::wstring fromPath_;
    std::wstring toPath_;
    std::wstring failure_;
};
