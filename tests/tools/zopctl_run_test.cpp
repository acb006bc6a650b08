// The real program, started as an administrator's shell would start it.
#include "runtime/auto_handle.h"
#include "runtime/text.h"
#include "tests/support/temp_directory.h"
#include "tests/support/tree_image.h"
#include "tests/tools/recording_console.h"

#include <gtest/gtest.h>

namespace {

struct Outcome {
    DWORD exitCode = ~0UL;
    std::string output;
    std::string errors;
};

std::wstring programPath() {
    wchar_t path[MAX_PATH];
    const DWORD length = ::GetModuleFileNameW(nullptr, path, MAX_PATH);
    const std::wstring own(path, length);
    return own.substr(0, own.rfind(L'\\') + 1) + L"zopctl.exe";
}

std::string readAll(const std::wstring& path) {
    const RunTime::AutoHandle file(::CreateFileW(path.c_str(), GENERIC_READ,
                                                 FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                                 OPEN_EXISTING, 0, nullptr));
    std::string text(1 << 20, '\0');
    DWORD length = 0;
    EXPECT_TRUE(
        ::ReadFile(file.get(), text.data(), static_cast<DWORD>(text.size()), &length, nullptr));
    text.resize(length);
    return text;
}

// The command line is taken as it stands, quotation marks and all.
Outcome run(const TempDirectory& directory, const std::wstring& commandLine) {
    SECURITY_ATTRIBUTES inherit{sizeof(inherit), nullptr, TRUE};
    const auto create = [&](const wchar_t* name) {
        return RunTime::AutoHandle(::CreateFileW((directory / name).c_str(), GENERIC_WRITE,
                                                 FILE_SHARE_READ, &inherit, CREATE_ALWAYS, 0,
                                                 nullptr));
    };
    RunTime::AutoHandle output = create(L"stdout");
    RunTime::AutoHandle errors = create(L"stderr");
    STARTUPINFOW startup{};
    startup.cb = sizeof(startup);
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdOutput = output.get();
    startup.hStdError = errors.get();
    PROCESS_INFORMATION process{};
    std::wstring words = L"zopctl " + commandLine;
    Outcome result;
    // Under load Wine now and then fails to set a process up, and says "internal error".
    BOOL started = FALSE;
    for (int attempt = 0; attempt < 3 && !started; ++attempt) {
        started = ::CreateProcessW(programPath().c_str(), words.data(), nullptr, nullptr, TRUE, 0,
                                   nullptr, nullptr, &startup, &process);
        if (!started && ::GetLastError() != ERROR_INTERNAL_ERROR) {
            break;
        }
    }
    if (!started) {
        ADD_FAILURE() << "zopctl.exe cannot be started: " << ::GetLastError();
        return result;
    }
    const RunTime::AutoHandle thread(process.hThread);
    const RunTime::AutoHandle handle(process.hProcess);
    EXPECT_EQ(::WaitForSingleObject(handle.get(), 60000), WAIT_OBJECT_0);
    EXPECT_TRUE(::GetExitCodeProcess(handle.get(), &result.exitCode));
    output.reset();
    errors.reset();
    result.output = readAll(directory / L"stdout");
    result.errors = readAll(directory / L"stderr");
    return result;
}

} // namespace

TEST(ZopctlRunTest, AMoveAComparisonAndAMistakeFromTheShell) {
    const TempDirectory directory;
    const TempDirectory logs;
    TreeBuilder(directory / L"my data \u65E5").file(L"\u00E4.txt", "text").directory(L"sub");
    const TreeImage before = imageOf(directory / L"my data \u65E5");
    const std::wstring source = L"\"" + directory.nice() + L"\\my data \u65E5\"";
    const std::wstring target = L"\"" + directory.nice() + L"\\new place\"";
    const Outcome refused = run(logs, L"data move " + source + L" " + target);
    EXPECT_EQ(refused.exitCode, 3U);
    EXPECT_NE(refused.output.find("\xE6\x97\xA5"), std::string::npos) << "not UTF-8";

    const Outcome moved =
        run(logs, L"data move --json --copy --verify --yes " + source + L" " + target);
    EXPECT_EQ(moved.exitCode, 0U) << moved.output << moved.errors;
    EXPECT_TRUE(sameTree(before, imageOf(directory / L"new place")));
    std::istringstream lines(moved.output);
    for (std::string line; std::getline(lines, line);) {
        EXPECT_TRUE(nlohmann::json::parse(line).contains("event"));
    }

    const std::wstring other = L"\"" + directory.nice() + L"\\other\"";
    TreeBuilder(directory / L"other").file(L"\u00E4.txt", "text").directory(L"sub");
    EXPECT_EQ(run(logs, L"tree compare " + target + L" " + other).exitCode, 0U);
    directory.writeFile(L"other\\\u00E4.txt", "next");
    const Outcome differs = run(logs, L"tree compare --no-times " + target + L" " + other);
    EXPECT_EQ(differs.exitCode, 1U);
    EXPECT_NE(differs.output.find("\xC3\xA4.txt: contents"), std::string::npos) << differs.output;
    EXPECT_EQ(run(logs, L"tree compare " + target + L" C:\\none").exitCode, 4U);

    const Outcome wrong = run(logs, L"");
    EXPECT_EQ(wrong.exitCode, 2U);
    EXPECT_NE(wrong.errors.find("Commands:"), std::string::npos) << wrong.errors;
    EXPECT_EQ(wrong.output, "");
}
