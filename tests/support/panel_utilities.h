// A product whose command-line utilities are this program, under their names: each notes how it was
// called, prints the answer that a test has given it, and fails when the test wants it to.
//
//     PanelUtilities panel({L"webhostctl.exe"}, {L"relink_tool.exe"});
//     panel.answer(L"webhostctl.exe", "<sites/>");
//     ...
//     EXPECT_EQ(panel.calls(), ...);
#pragma once

#include "tests/support/import_patch.h"
#include "tests/support/registry_override.h"
#include "tests/support/temp_directory.h"

#include <string>
#include <vector>

class PanelUtilities {
public:
    // The names of the utilities in "admin\bin64" and of those in "admin\bin".
    PanelUtilities(const std::vector<std::wstring>& of64Bit,
                   const std::vector<std::wstring>& of32Bit);

    const TempDirectory& root() const noexcept { return root_; }

    void answer(const std::wstring& utility, const std::string& bytes) const;
    // The n-th of the calls noted, from 1, fails; 0: none.
    void refuse(int n) const;

    // "utility|argument|argument", UTF-8, since the last forget().
    std::vector<std::string> calls() const;
    void forget() const;

private:
    TempDirectory root_;
    RegistryOverride registry_;
    ImportPatch createProcess_; // tries again where startingAgain() would
};
