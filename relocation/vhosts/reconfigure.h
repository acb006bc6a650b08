// Settings that name the directory of virtual hosts, brought into line when it moves: one class for
// each kind. WwwRootReconfigure: document roots in the panel's database. AspNetReconfigure and
// PHPSettingsReconfigure: settings of the sites, by the product's utility.
//
// One thread at a time; handlers run on it.
#pragma once

#include "runtime/event.h"

#include <cstdint>
#include <string>

// What those that can be run in both directions have in common.
class Reconfigure {
public:
    virtual ~Reconfigure() = default;
    Reconfigure(const Reconfigure&) = delete;
    Reconfigure& operator=(const Reconfigure&) = delete;

    // Settings below fromPath are pointed at toPath. Backwards is the same with the paths swapped
    // and forward false. A failure goes to errorEvent when forward, and to the log when not. Throws
    // CanceledException when a handler cancels, otherwise returns false.
    bool reconfigure(const std::wstring& fromPath, const std::wstring& toPath, bool forward);
    // As given to the last reconfigure(); empty before.
    const std::wstring& get_fromPath() const noexcept { return fromPath_; }
    const std::wstring& get_toPath() const noexcept { return toPath_; }

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
    virtual void work() = 0;

    Texts texts_;
    std::wstring fromPath_;
    std::wstring toPath_;
};

class WwwRootReconfigure final : public Reconfigure {
public:
    WwwRootReconfigure();

private:
    void work() override;
};

class AspNetReconfigure final : public Reconfigure {
public:
    AspNetReconfigure();

private:
    void work() override;
};

// The applications of sites; no product of today has any to reconfigure.
class AppVaultReconfigure : public Reconfigure {
protected:
    AppVaultReconfigure();
};

class PHPSettingsReconfigure {
public:
    PHPSettingsReconfigure(std::wstring fromPath, std::wstring toPath);

    // Both throw vexception with the cause.
    void reconfigure(const std::wstring& fromPath, const std::wstring& toPath);
    void rollback();

private:
    std::wstring fromPath_;
    std::wstring toPath_;
};
