#include "relocation/vhosts/multiple_key_value_change.h"

#include "runtime/files/path.h"
#include "runtime/log_manager.h"
#include "tests/support/expect_error.h"
#include "tests/support/fault_sweep.h"
#include "tests/support/import_patch.h"
#include "tests/support/temp_directory.h"
#include "tests/support/traced.h"

#include <map>
#include <optional>

namespace {

const std::wstring keyName = L"SOFTWARE\\TARVO\\Installer";

void set(const std::wstring& key, const std::wstring& name, const std::wstring& text,
         DWORD type = REG_SZ) {
    const DWORD bytes = static_cast<DWORD>((text.size() + 1) * sizeof(wchar_t));
    ASSERT_EQ(ERROR_SUCCESS, ::RegSetKeyValueW(HKEY_LOCAL_MACHINE, key.c_str(), name.c_str(), type,
                                               text.c_str(), bytes));
}

// The values below a key, by their path: type and text.
using Image = std::map<std::wstring, std::pair<DWORD, std::wstring>>;

void addTo(Image& image, const std::wstring& key) {
    for (const auto& value : registry::values(HKEY_LOCAL_MACHINE, key, RegistryView::View64)) {
        std::wstring text(50000, L'\0');
        DWORD bytes = static_cast<DWORD>(text.size() * sizeof(wchar_t));
        EXPECT_EQ(ERROR_SUCCESS,
                  ::RegGetValueW(HKEY_LOCAL_MACHINE, key.c_str(), value.name.c_str(),
                                 RRF_RT_ANY | RRF_NOEXPAND, nullptr, text.data(), &bytes));
        image[key + L"\\" + value.name] = {value.type, text.substr(0, bytes / sizeof(wchar_t) - 1)};
    }
    for (const auto& name : registry::subkeys(HKEY_LOCAL_MACHINE, key, RegistryView::View64)) {
        addTo(image, key + L"\\" + name);
    }
}

class MultipleKeyValueChangeTest : public testing::Test {
protected:
    MultipleKeyValueChangeTest()
        : old_(directory_.makeDirectory(L"virtual hosts").substr(4)),
          listener_(LogManager::getInstance().addListener(
              [this](LogType, const std::wstring& line) { log_ += toUtf8(line) + "\n"; })) {}

    static Image image() {
        Image result;
        addTo(result, keyName);
        return result;
    }

    const Traced traced_; // and an empty registry
    const TempDirectory directory_;
    const std::wstring old_;
    const std::wstring new_ = directory_.nice() + L"\\new";
    InstallerPaths paths_{HKEY_LOCAL_MACHINE, keyName};
    std::string log_;
    const LogManager::Registration listener_;
};

} // namespace

TEST_F(MultipleKeyValueChangeTest, ValuesThatNameTheOldDirectoryFollowItAndNoOthers) {
    directory_.makeDirectory(L"virtual hosts\\example of a site");
    directory_.makeDirectory(L"virtual hosts2\\site");
    const std::wstring deep = L"\\" + std::wstring(100, L'a') + L" " + std::wstring(100, L'b') +
                              L"\\" + std::wstring(100, L'c') + L" d";
    directory_.makeDirectory(L"virtual hosts" + deep);
    const std::wstring alias = RunTime::shortPath(old_);
    ASSERT_FALSE(RunTime::equalNames(alias, old_)) << "no 8.3 names here";
    std::wstring upper = old_;
    ::CharUpperW(upper.data());
    std::wstring slashes = old_;
    std::replace(slashes.begin(), slashes.end(), L'\\', L'/');
    const std::wstring parent = RunTime::parentPath(old_);
    wchar_t before[MAX_PATH];
    ::GetCurrentDirectoryW(MAX_PATH, before);
    ::SetCurrentDirectoryW(old_.c_str());

    const std::wstring same = L"\\example of a site";
    const std::pair<std::wstring, std::optional<std::wstring>> rows[] = {
        {old_, new_},
        {old_ + L"\\", new_ + L"\\"},
        {upper + L"\\Site\\a.b", new_ + L"\\Site\\a.b"},
        {slashes + L"/x/y", new_ + L"\\x\\y"},
        {L"\\\\?\\" + old_ + L"\\x", new_ + L"\\x"},
        {old_ + L"\\a\\..\\b", new_ + L"\\b"},
        {old_ + L"\\x.exe /run \\\\s\\t", new_ + L"\\x.exe /run \\\\s\\t"},
        {old_ + L"\\" + std::wstring(30000, L'x'), new_ + L"\\" + std::wstring(30000, L'x')},
        {old_ + L'\0' + L"behind the end", new_ + L'\0' + L"behind the end"},
        {alias, new_},
        {RunTime::shortPath(old_ + same), new_ + same},
        {RunTime::shortPath(old_ + deep), new_ + deep},
        {old_ + RunTime::shortPath(old_ + same).substr(alias.size()), new_ + same},
        // not in it, and no paths
        {old_ + L"2", {}},
        {old_ + L"2\\site", {}},
        {RunTime::shortPath(old_ + L"2\\site"), {}},
        {alias + L"\\missing", {}},
        {parent, {}},
        {old_ + L"\\..\\other", {}},
        {L"\\\\?\\" + old_ + L"\\..\\other", {}},
        {L"", {}},
        {L"5.1", {}},
        {L"example of a site", {}}, // there, from the current directory
        {old_.substr(2), {}},
        {L"https://example.com/" + old_, {}},
        {L"text with " + old_ + L" inside", {}},
        {L"\"" + old_ + L"\\x.exe\" /run", {}},
        {L"\\\\.\\" + old_, {}},
        {old_ + L"\\" + std::wstring(40000, L'x'), {}},
    };
    for (const DWORD type : {REG_EXPAND_SZ, REG_MULTI_SZ, REG_BINARY}) {
        set(keyName, L"type " + std::to_wstring(type), old_, type);
    }
    Image saved = image();
    Image expected = saved;
    std::size_t followed = 0;
    for (const auto& [text, follows] : rows) {
        const std::wstring name = std::to_wstring(expected.size());
        set(keyName, name, text);
        expected[keyName + L"\\" + name] = {REG_SZ, follows.value_or(text)};
        followed += follows ? 1 : 0;
    }
    saved = image();
    paths_.save(old_);
    paths_.change(new_ + L"\\");
    const Image changed = image();
    for (const auto& [name, value] : expected) {
        EXPECT_EQ(value, changed.at(name)) << toUtf8(name);
    }
    EXPECT_EQ(followed, paths_.entries().size());
    paths_.restore();
    EXPECT_EQ(saved, image());
    // The directory may be given in any form, too.
    for (const std::wstring& form : {slashes + L"/", L"\\\\?\\" + old_}) {
        paths_.save(form);
        EXPECT_EQ(followed, paths_.entries().size()) << toUtf8(form);
    }
    paths_.save(alias); // what is there is found, by its long form
    EXPECT_EQ(8u, paths_.entries().size());
    EXPECT_EQ("", log_);
    ::SetCurrentDirectoryW(before);
}

TEST_F(MultipleKeyValueChangeTest, KeysAreWalkedDepthFirstHoweverDeep) {
    paths_.save(old_); // no such key
    paths_.change(new_);
    paths_.restore();
    EXPECT_TRUE(paths_.entries().empty());

    std::wstring key = keyName;
    std::vector<std::wstring> keys;
    for (int i = 0; i < 100; ++i, key += L"\\" + std::to_wstring(i)) {
        set(key, L"", old_);
        keys.insert(keys.begin(), key);
    }
    const Image before = image();
    paths_.save(old_);
    std::vector<std::wstring> found;
    for (const RegValueTraits& entry : paths_.entries()) {
        found.push_back(entry.getKeyName());
    }
    EXPECT_EQ(keys, found);
    paths_.change(new_);
    paths_.save(new_);
    paths_.change(old_);
    EXPECT_EQ(before, image());
}

TEST_F(MultipleKeyValueChangeTest, RefusedWriteEndsTheChangeAndIsPassedByOnRestore) {
    for (const wchar_t* name : {L"a", L"b", L"c"}) {
        set(keyName, name, old_ + L"\\" + name);
    }
    const auto refuse = [](long n, const std::function<void()>& run) {
        FaultPoint fault("RegSetValueExW");
        fault.failAt = n;
        fault.result = ERROR_ACCESS_DENIED;
        run();
    };
    Image expected = image();
    paths_.save(old_);
    expectError<VAccessDeniedException>(ERROR_ACCESS_DENIED,
                                        L"Unable to set registry value (" + keyName + L"\\b)",
                                        [&] { refuse(1, [this] { paths_.change(new_); }); });
    EXPECT_EQ(new_ + L"\\a", paths_.entries()[0].getValue());
    EXPECT_EQ(old_ + L"\\b", paths_.entries()[1].getValue());
    EXPECT_EQ(new_ + L"\\a", image()[keyName + L"\\a"].second);
    paths_.restore();
    EXPECT_EQ(expected, image());

    paths_.change(new_);
    takeTraces();
    refuse(0, [this] { paths_.restore(); });
    const std::string line = "Unable to restore old value (" + toUtf8(keyName) +
                             "\\a): base exception: " + toUtf8(systemTextOf(ERROR_ACCESS_DENIED));
    EXPECT_EQ(0u, log_.find(line)) << log_;
    EXPECT_NE(std::string::npos,
              takeTraces().find("tag MultipleKeyValueChange::restore if_error [" + line));
    expected[keyName + L"\\a"].second = new_ + L"\\a";
    EXPECT_EQ(expected, image());
}

TEST_F(MultipleKeyValueChangeTest, RestoreUndoesTheChangeWhicheverCallFailed) {
    directory_.makeDirectory(L"virtual hosts\\long name");
    set(keyName, L"plain", old_ + L"\\long name");
    set(keyName + L"\\below", L"alias", RunTime::shortPath(old_ + L"\\long name"));
    set(keyName + L"\\below\\deeper", L"other", L"5.1");
    const Image before = image();
    paths_.save(old_);
    paths_.change(new_);
    const Image changed = image();
    paths_.restore();
    // Paths are then used with their prefix, with which Wine finds no long names.
    const FaultExclusion excluded({"GetFullPathNameW"});
    FaultOutcome outcome;
    for (long n = 1; n == 1 || outcome.fired; ++n) {
        log_.clear();
        outcome = runWithFault(n, ERROR_NOACCESS, [&] {
            paths_.save(old_);
            paths_.change(new_);
        });
        SCOPED_TRACE(outcome.text());
        if (outcome.error.empty() && image() != changed) { // a value stays: the log says so
            EXPECT_EQ(0u, log_.find("Unable to fix string "));
            EXPECT_NE(log_.npos,
                      log_.find(toUtf8(L", old value " + old_ + L", new value " + new_)));
        }
        paths_.restore();
        ASSERT_EQ(before, image());
    }
}

TEST_F(MultipleKeyValueChangeTest, TheDiskIsAskedForNothingButTheValuesThatMayMatch) {
    constexpr int values = 10000;
    for (int i = 0; i < values; ++i) {
        const std::wstring name = std::to_wstring(i);
        const std::wstring texts[] = {L"5.1." + name, old_ + L"2\\" + name, L"C:\\other\\" + name,
                                      L"\\\\server\\share\\" + name, old_ + L"\\" + name};
        set(keyName + L"\\" + std::to_wstring(i / 500), name, texts[i % std::size(texts)]);
    }
    auto calls = countCalls([&] { paths_.save(old_); });
    EXPECT_EQ(static_cast<std::size_t>(values / 5), paths_.entries().size());
    EXPECT_EQ(values, calls["RegGetValueW"]);
    EXPECT_EQ(1, calls["GetFileAttributesW"]);
    EXPECT_EQ(1, calls["GetLongPathNameW"]);
}
