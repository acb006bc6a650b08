// The PHP settings of the sites, which the product's utility brings into line when the directory of
// virtual hosts moves. Raises no events. One thread at a time.
#pragma once

#include <string>

class PHPSettingsReconfigure {
public:
    PHPSettingsReconfigure(std::wstring fromPath, std::wstring toPath);

    // Settings below fromPath follow it to toPath. Throws vexception "Unable to reconfigure PHP
    // settings: " with the cause; CanceledException.
    void reconfigure(const std::wstring& fromPath, const std::wstring& toPath);
    // Settings below the last toPath follow it back; does nothing when that is empty. Throws
    // vexception "Unable to rollback PHP settings reconfiguration: " with the cause;
    // CanceledException.
    void rollback();

private:
    std::wstring fromPath_;
    std::wstring toPath_;
};
