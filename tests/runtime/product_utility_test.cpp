#include "runtime/process/product_utility.h"

#include "tests/support/child_program.h"
#include "tests/support/expect_error.h"
#include "tests/support/registry_override.h"
#include "tests/support/temp_directory.h"

namespace {

using RunTime::execUtil;
using RunTime::execUtil64Bit;
using RunTime::UtilityException;

// A product whose utilities are this program.
class ProductUtilityTest : public testing::Test {
protected:
    ProductUtilityTest() {
        for (const wchar_t* folder : {L"admin\\bin", L"admin\\bin64"}) {
            const std::wstring tool = product_.makeDirectory(folder) + L"\\tool.exe";
            EXPECT_TRUE(::CopyFileW(childProgram().c_str(), tool.c_str(), TRUE));
        }
    }

    static std::wstring outputOf(decltype(execUtil)* run, std::vector<std::wstring> words) {
        return startingAgain([&] { return run(L"tool.exe", childWords(words)).output; });
    }

    const TempDirectory product_;
    const RegistryOverride registry_;
};

} // namespace

TEST_F(ProductUtilityTest, UtilitiesRunInTheirFolderBelowTheProductRoot) {
    for (const wchar_t* end : {L"", L"\\"}) {
        RegistryOverride::setString(L"PRODUCT_ROOT_D", product_.nice() + end);
        EXPECT_EQ(outputOf(execUtil, {L"directory"}), product_.nice() + L"\\admin\\bin");
        EXPECT_EQ(outputOf(execUtil64Bit, {L"directory"}), product_.nice() + L"\\admin\\bin64");
    }
    EXPECT_EQ(outputOf(execUtil, {L"args", L"a b"}), codeUnits(L"a b") + L"\nend");
}

TEST_F(ProductUtilityTest, AFailureHasTheUtilitysMessageAndStatus) {
    RegistryOverride::setString(L"PRODUCT_ROOT_D", product_.nice());
    struct Case {
        const wchar_t* output;
        const wchar_t* errors;
        const wchar_t* message;
        bool own;
    };
    const Case cases[] = {
        {L"working", L"\r\n no site \x65E5 \r\n", L"no site \x65E5", true},
        {L"no site\n", L" \n", L"no site", true},
        {L"", L"", L"The utility (tool.exe) failed with the exit status 3221225477", false},
    };
    for (const Case& c : cases) {
        try {
            outputOf(execUtil64Bit, {L"exit", L"3221225477", c.output, c.errors});
            ADD_FAILURE() << "nothing was thrown";
        } catch (const UtilityException& e) {
            EXPECT_EQ(toUtf8(e.message()), toUtf8(c.message));
            EXPECT_EQ(e.exitStatus(), 3221225477U);
            EXPECT_EQ(e.hasOwnMessage(), c.own);
        }
    }
}

TEST_F(ProductUtilityTest, OnlyAFileOfTheFolderIsStarted) {
    EXPECT_THROW(execUtil(L"tool.exe", {}), vexception) << "no product root";
    RegistryOverride::setString(L"PRODUCT_ROOT_D", product_.nice());
    for (const wchar_t* name :
         {L"", L".", L"..", L"..\\bin64\\tool.exe", L"../bin64/tool.exe", L"C:tool.exe",
          L"tool.exe:stream.exe", L"to?l.exe", L"tool\x1F.exe"}) {
        expectError<VInvalidNameException>(ERROR_INVALID_NAME,
                                           std::wstring(L"Unable to execute (") + name +
                                               L"): a file name is needed",
                                           [&] { execUtil(name, {}); });
    }
    expectError<VFileNotFoundException>(
        ERROR_FILE_NOT_FOUND, L"Unable to execute (" + product_.nice() + L"\\admin\\bin\\none.exe)",
        [&] { execUtil(L"none.exe", {}); });
    RegistryOverride::setString(L"PRODUCT_ROOT_D", L"admin");
    EXPECT_THROW(execUtil(L"tool.exe", {}), vosexception) << "a root that is no whole path";
}

TEST_F(ProductUtilityTest, TheInterpreterGetsAScriptsWholePathAndItsArguments) {
    RegistryOverride::setString(L"PRODUCT_ROOT_D", product_.nice());
    const std::wstring php = product_.nice() + L"\\admin\\bin64\\php.exe";
    EXPECT_TRUE(::CopyFileW(childProgram().c_str(), php.c_str(), TRUE));
    const std::wstring script = product_.writeFile(L"a b\\repair.php");
    const std::wstring nice = product_.nice() + L"\\a b\\repair.php";
    const auto run = [](const std::wstring& path, std::vector<std::wstring> words) {
        return startingAgain([&] { return RunTime::execScript(path, childWords(words)); });
    };
    EXPECT_EQ(run(script, {L"line", L"50 %\\"}).output,
              L"\"" + php + L"\" \"" + nice + L"\" --child line \"50 %\\\\\"");
    const RunTime::Execute::Result failed = run(nice, {L"exit", L"3", L"\xE4", L"\x65E5"});
    EXPECT_EQ(failed.exitStatus, 3U) << "not thrown: the caller judges it";
    EXPECT_EQ(failed.output, L"\xE4\x65E5");
    for (const wchar_t* missing : {L"a b", L"none.php"}) {
        expectError<VFileNotFoundException>(
            ERROR_FILE_NOT_FOUND, L"Unable to execute (" + product_.nice() + L"\\" + missing + L")",
            [&] { run(product_ / missing, {}); });
    }
    expectError<vosexception>(ERROR_INVALID_PARAMETER,
                              L"Unable to execute (repair.php): the whole path is needed",
                              [&] { run(L"repair.php", {}); });
}
