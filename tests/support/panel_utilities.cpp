#include "tests/support/panel_utilities.h"

#include "tests/support/child_program.h"

#include <sstream>

namespace {

decltype(&::CreateProcessW) realCreateProcess;

BOOL WINAPI createProcessAgain(LPCWSTR program, LPWSTR line, LPSECURITY_ATTRIBUTES process,
                               LPSECURITY_ATTRIBUTES thread, BOOL inherit, DWORD flags,
                               LPVOID environment, LPCWSTR directory, LPSTARTUPINFOW startup,
                               LPPROCESS_INFORMATION created) {
    const auto create = [&] {
        return realCreateProcess(program, line, process, thread, inherit, flags, environment,
                                 directory, startup, created);
    };
    BOOL done = create();
    for (int again = 0; again < 5 && !done && ::GetLastError() == ERROR_INTERNAL_ERROR; ++again) {
        done = create();
    }
    return done;
}

} // namespace

PanelUtilities::PanelUtilities(const std::vector<std::wstring>& of64Bit,
                               const std::vector<std::wstring>& of32Bit)
    : createProcess_("CreateProcessW", &createProcessAgain) {
    realCreateProcess = createProcess_.original<decltype(&::CreateProcessW)>();
    RegistryOverride::setString(L"PRODUCT_ROOT_D", root_.nice() + L"\\");
    const auto put = [&](const wchar_t* folder, const std::vector<std::wstring>& names) {
        const std::wstring directory = root_.makeDirectory(folder);
        for (const std::wstring& name : names) {
            const std::wstring copy = directory + L"\\" + name;
            EXPECT_TRUE(::CreateHardLinkW(copy.c_str(), childProgram().c_str(), nullptr) ||
                        ::CopyFileW(childProgram().c_str(), copy.c_str(), TRUE));
        }
    };
    put(L"admin\\bin64", of64Bit);
    put(L"admin\\bin", of32Bit);
}

void PanelUtilities::answer(const std::wstring& utility, const std::string& bytes) const {
    root_.writeFile(utility + L".answer", bytes);
}

void PanelUtilities::refuse(int n) const {
    root_.writeFile(L"refuse", std::to_string(n));
}

std::vector<std::string> PanelUtilities::calls() const {
    std::vector<std::string> lines;
    std::istringstream text(root_.has(L"calls") ? root_.readFile(L"calls") : "");
    for (std::string line; std::getline(text, line);) {
        lines.push_back(line);
    }
    return lines;
}

void PanelUtilities::forget() const {
    ::DeleteFileW((root_ / L"calls").c_str());
}
