// The real program, started as an administrator's shell would start it.
#include "runtime/process/execute.h"
#include "runtime/text.h"
#include "tests/support/child_program.h"
#include "tests/support/temp_directory.h"
#include "tests/support/tree_image.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <sstream>

namespace {

RunTime::Execute::Result run(const std::vector<std::wstring>& words) {
    return runBeside(L"zopctl.exe", words);
}

} // namespace

TEST(ZopctlRunTest, AMoveAComparisonAndAMistakeFromTheShell) {
    const TempDirectory directory;
    const std::wstring source = directory.nice() + L"\\my data \u65E5";
    const std::wstring target = directory.nice() + L"\\new place";
    TreeBuilder(source).file(L"\u00E4.txt", "text").directory(L"sub");
    const TreeImage before = imageOf(source);
    const auto refused = run({L"data", L"move", source, target});
    EXPECT_EQ(refused.exitStatus, 3U);
    EXPECT_NE(refused.output.find(L'\u65E5'), std::wstring::npos) << "not UTF-8";

    const auto moved =
        run({L"data", L"move", L"--json", L"--copy", L"--verify", L"--yes", source, target});
    EXPECT_EQ(moved.exitStatus, 0U) << toUtf8(moved.output + moved.errors);
    EXPECT_TRUE(sameTree(before, imageOf(target)));
    std::istringstream lines(toUtf8(moved.output));
    for (std::string line; std::getline(lines, line);) {
        EXPECT_TRUE(nlohmann::json::parse(line).contains("event"));
    }

    const std::wstring other = directory / L"other";
    TreeBuilder(other).file(L"\u00E4.txt", "text").directory(L"sub");
    EXPECT_EQ(run({L"tree", L"compare", target, other}).exitStatus, 0U);
    directory.writeFile(L"other\\\u00E4.txt", "next");
    const auto differs = run({L"tree", L"compare", L"--no-times", target, other});
    EXPECT_EQ(differs.exitStatus, 1U);
    EXPECT_NE(differs.output.find(L"\u00E4.txt: contents"), std::wstring::npos)
        << toUtf8(differs.output);
    EXPECT_EQ(run({L"tree", L"compare", target, L"C:\\none"}).exitStatus, 4U);

    const auto wrong = run({});
    EXPECT_EQ(wrong.exitStatus, 2U);
    EXPECT_NE(wrong.errors.find(L"Commands:"), std::wstring::npos) << toUtf8(wrong.errors);
    EXPECT_EQ(wrong.output, L"");
}
