#include "runtime/registry/registry.h"

#include "runtime/registry/config_values.h"
#include "tests/support/expect_error.h"
#include "tests/support/fault_sweep.h"
#include "tests/support/import_patch.h"
#include "tests/support/registry_override.h"

#include <gmock/gmock.h>

namespace {

using config::configKey;
using registry::setString;

constexpr RegistryView view = RegistryView::View32;

RunTime::AutoRegKey makeKey(const std::wstring& path) {
    RunTime::AutoRegKey key;
    EXPECT_EQ(ERROR_SUCCESS, ::RegCreateKeyExW(HKEY_LOCAL_MACHINE, path.c_str(), 0, nullptr, 0,
                                               KEY_ALL_ACCESS, nullptr, key.put(), nullptr));
    return key;
}

// A value of the configuration key, of any type and bytes.
void setBytes(const wchar_t* name, DWORD type, const std::wstring& text, std::size_t bytes) {
    EXPECT_EQ(ERROR_SUCCESS, ::RegSetKeyValueW(HKEY_LOCAL_MACHINE, configKey, name, type,
                                               text.c_str(), static_cast<DWORD>(bytes)));
}

template <class Value>
LSTATUS read(const std::wstring& name, Value& value) {
    return registry::lookup(HKEY_LOCAL_MACHINE, configKey, name, value, view);
}

std::wstring textOf(const wchar_t* name) {
    return registry::getstr(HKEY_LOCAL_MACHINE, configKey, name, view);
}

// Runs something in front of every call of an import, as another process would.
template <class Function>
struct Meddling;
template <class... Args>
struct Meddling<LSTATUS(WINAPI*)(Args...)> {
    static inline std::function<void(int call)> act;
    static inline LSTATUS(WINAPI* original)(Args...);
    static inline int calls;

    static LSTATUS WINAPI call(Args... args) {
        act(calls++);
        return original(args...);
    }
    Meddling(const char* name, std::function<void(int call)> action) : patch(name, &call) {
        act = std::move(action);
        original = patch.original<decltype(original)>();
        calls = 0;
    }
    const ImportPatch patch;
};

class RegistryTest : public testing::Test {
protected:
    RegistryOverride registry_;
};

} // namespace

TEST_F(RegistryTest, DwordIsReadOrTheStatusTellsWhyNot) {
    RegistryOverride::setDword(L"Debug", 0xFFFFFFFE);
    setBytes(L"short", REG_DWORD, L"abcd", 2);
    setBytes(L"long", REG_DWORD, L"abcd", 8);
    DWORD value = 7;
    EXPECT_EQ(ERROR_FILE_NOT_FOUND, read(L"missing", value));
    EXPECT_EQ(ERROR_FILE_NOT_FOUND,
              registry::lookup(HKEY_LOCAL_MACHINE, L"SOFTWARE\\missing", L"Debug", value, view));
    EXPECT_EQ(ERROR_FILE_NOT_FOUND, read(std::wstring(L"Debug\0x", 7), value));
    EXPECT_EQ(ERROR_INVALID_DATA, read(L"short", value));
    EXPECT_EQ(ERROR_MORE_DATA, read(L"long", value));
    EXPECT_EQ(7u, value) << "a failure leaves it alone";
    EXPECT_EQ(ERROR_SUCCESS, read(L"Debug", value));
    EXPECT_EQ(0xFFFFFFFEu, value);
    for (const std::size_t bytes : {0, 4, 8}) {
        setBytes(L"text", REG_SZ, L"abcd", bytes);
        expectError<vexception>(std::wstring(L"RegQueryValueEx invalid type of '") + configKey +
                                    L"\\text'",
                                [&] { read(L"text", value); });
    }
}

TEST_F(RegistryTest, StringsOfEveryLengthAndShapeAreRead) {
    for (const std::size_t length : {0u, 1u, 259u, 260u, 261u, 100000u}) {
        const std::wstring text(length, L'\u00e4');
        const std::size_t bytes = length * sizeof(wchar_t);
        for (const std::size_t more : {0, 1, 2, 6}) { // none, half, the terminator, another text
            setBytes(L"text", REG_SZ, text + std::wstring(L"\0ab", 3), bytes + more);
            EXPECT_EQ(text, textOf(L"text")) << length << " and " << more << " bytes";
        }
    }
    ::SetEnvironmentVariableW(L"ZOP_TEST", std::wstring(1000, L'e').c_str());
    setBytes(L"expandable", REG_EXPAND_SZ, L"%ZOP_TEST%", 20);
    EXPECT_EQ(std::wstring(1000, L'e'), textOf(L"expandable"));

    std::wstring text = L"kept";
    EXPECT_EQ(ERROR_FILE_NOT_FOUND, read(L"missing", text));
    setBytes(L"number", REG_DWORD, L"ab", 4);
    expectError<vexception>(std::wstring(L"RegGetValue invalid type of '") + configKey +
                                L"\\number'",
                            [&] { read(L"number", text); });
    EXPECT_EQ(L"kept", text);
    try {
        textOf(L"PRODUCT_ROOT_D");
        ADD_FAILURE() << "nothing was thrown";
    } catch (const vexception& error) {
        EXPECT_EQ(toUtf8(std::wstring(L"lookup subKey=") + configKey + L" value=PRODUCT_ROOT_D: " +
                         systemTextOf(ERROR_FILE_NOT_FOUND) +
                         L" (Error code 2)\n   at (registry::getstr line 736)"),
                  toUtf8(error.what()));
    }

    text = std::wstring(300, L'1');
    const auto grow = [&](int) {
        text += std::wstring(text.size() < 10000 ? 2 * text.size() : 0, L'2');
        setBytes(L"growing", REG_SZ, text, text.size() * sizeof(wchar_t));
    };
    grow(0);
    const Meddling<decltype(&::RegGetValueW)> other("RegGetValueW", grow);
    EXPECT_EQ(std::wstring(300, L'1') + std::wstring(24000, L'2'), textOf(L"growing"));
}

// In the real hive: in an overridden one both views are the same place.
TEST(RegistryViewTest, EveryAccessKeepsToItsView) {
    const std::wstring key = L"SOFTWARE\\ZopTest" + std::to_wstring(::GetCurrentProcessId());
    auto remove = [&key](const void*) {
        for (const REGSAM flag : {KEY_WOW64_32KEY, KEY_WOW64_64KEY}) {
            ::RegDeleteKeyExW(HKEY_LOCAL_MACHINE, (key + L"\\below").c_str(), flag, 0);
            ::RegDeleteKeyExW(HKEY_LOCAL_MACHINE, key.c_str(), flag, 0);
        }
    };
    const std::unique_ptr<const void, decltype(remove)> removal(&key, remove);
    const auto create = registry::MissingKey::Create;
    setString(HKEY_LOCAL_MACHINE, key, L"text", L"32", view, create);
    EXPECT_FALSE(registry::keyExists(HKEY_LOCAL_MACHINE, key, RegistryView::View64));
    registry::setDWORD(HKEY_LOCAL_MACHINE, key + L"\\below", L"number", 64, RegistryView::View64,
                       create);
    setString(HKEY_LOCAL_MACHINE, key, L"text", L"64", RegistryView::View64);
    for (const int number : {0, 1, 2, 3, 4}) {
        const auto each = static_cast<RegistryView>(number);
        EXPECT_EQ(number == 1 ? L"32" : L"64",
                  registry::getstr(HKEY_LOCAL_MACHINE, key, L"text", each));
        EXPECT_EQ(number == 1 ? 0u : 1u, registry::subkeys(HKEY_LOCAL_MACHINE, key, each).size());
    }
    const auto values =
        registry::values(HKEY_LOCAL_MACHINE, key + L"\\below", RegistryView::View64);
    ASSERT_EQ(1u, values.size());
    EXPECT_EQ(L"number", values[0].name);
    EXPECT_EQ(static_cast<DWORD>(REG_DWORD), values[0].type);
}

TEST_F(RegistryTest, ListsHoldWhatIsThereAfterTheLastChange) {
    for (int i = 10; i < 30; ++i) {
        makeKey(L"list\\" + std::to_wstring(i));
    }
    const auto list = [] { return registry::subkeys(HKEY_LOCAL_MACHINE, L"list", view); };
    std::vector<std::wstring> names = list();
    EXPECT_EQ(20u, names.size());
    using Enumeration = Meddling<decltype(&::RegEnumKeyExW)>;
    const auto listWhile = [&](const std::function<void(int)>& action) {
        const Enumeration other("RegEnumKeyExW", action);
        return list();
    };
    names.front() = std::wstring(255, L'n');
    EXPECT_THAT(listWhile([&](int call) {
                    if (call == 5) { // those behind the removed one move up, past the index
                        ::RegDeleteKeyW(HKEY_LOCAL_MACHINE, L"list\\10");
                        makeKey(L"list\\" + names.front());
                    }
                }),
                testing::UnorderedElementsAreArray(names));
    expectError<vosexception>(ERROR_BUSY, L"Unable to list registry key (list)", [&] {
        listWhile([](int call) {
            if (call % 16 == 0) {
                makeKey(L"list\\more" + std::to_wstring(call));
            }
        });
    });
    expectError<vosexception>(ERROR_KEY_DELETED, L"Unable to list registry key (list)", [&] {
        listWhile([](int) { ::RegDeleteTreeW(HKEY_LOCAL_MACHINE, L"list"); });
    });
    expectError<VFileNotFoundException>(ERROR_FILE_NOT_FOUND, L"Unable to open registry key (list)",
                                        list);
}

TEST_F(RegistryTest, NamesWithAZeroCharacterAreNotCutAtIt) {
    const std::wstring longName(16383, L'v');
    const std::wstring zero(L"\0b", 2);
    makeKey(L"key");
    registry::setDWORD(HKEY_LOCAL_MACHINE, L"key", longName, 1, view);
    EXPECT_EQ(longName, registry::values(HKEY_LOCAL_MACHINE, L"key", view).at(0).name);
    EXPECT_FALSE(registry::keyExists(HKEY_LOCAL_MACHINE, L"key" + zero, view));
    EXPECT_THROW(setString(HKEY_LOCAL_MACHINE, L"key", zero, L"", view), ArgumentException);
    EXPECT_THROW(setString(HKEY_LOCAL_MACHINE, L"key" + zero, L"", L"", view), ArgumentException);
    EXPECT_THROW(setString(HKEY_LOCAL_MACHINE, L"key", L"", zero, view), ArgumentException);
}
