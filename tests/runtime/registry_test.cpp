#include "runtime/registry/registry.h"

#include "runtime/registry/config_values.h"
#include "tests/support/expect_error.h"
#include "tests/support/fault_sweep.h"
#include "tests/support/import_patch.h"
#include "tests/support/registry_override.h"

#include <gmock/gmock.h>

namespace {

using config::configKey;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr RegistryView view = RegistryView::View32;

RunTime::AutoRegKey makeKey(const std::wstring& path, REGSAM flags = 0) {
    RunTime::AutoRegKey key;
    EXPECT_EQ(ERROR_SUCCESS,
              ::RegCreateKeyExW(HKEY_LOCAL_MACHINE, path.c_str(), 0, nullptr, 0,
                                KEY_ALL_ACCESS | flags, nullptr, key.put(), nullptr));
    return key;
}

// A value of any bytes in the configuration key.
void setBytes(const wchar_t* name, DWORD type, const std::string& bytes) {
    ASSERT_EQ(ERROR_SUCCESS, ::RegSetValueExW(makeKey(configKey).get(), name, 0, type,
                                              reinterpret_cast<const BYTE*>(bytes.data()),
                                              static_cast<DWORD>(bytes.size())));
}

std::string bytesOf(const std::wstring& text) {
    return {reinterpret_cast<const char*>(text.data()), text.size() * sizeof(wchar_t)};
}

LSTATUS readText(const std::wstring& name, std::wstring& text) {
    return registry::lookup(HKEY_LOCAL_MACHINE, configKey, name, text, view);
}

std::wstring textOf(const wchar_t* name) {
    return registry::getstr(HKEY_LOCAL_MACHINE, configKey, name, view);
}

class RegistryTest : public testing::Test {
protected:
    RegistryOverride registry_;
};

// The real hive: in an overridden one both views are the same place.
class RegistryViewTest : public testing::Test {
protected:
    RegistryViewTest() { remove(); }
    ~RegistryViewTest() override { remove(); }
    void remove() const {
        for (const REGSAM flag : {KEY_WOW64_32KEY, KEY_WOW64_64KEY}) {
            ::RegDeleteKeyExW(HKEY_LOCAL_MACHINE, (key_ + L"\\below").c_str(), flag, 0);
            ::RegDeleteKeyExW(HKEY_LOCAL_MACHINE, key_.c_str(), flag, 0);
        }
    }
    const std::wstring key_ =
        L"SOFTWARE\\ZopRegistryTest" + std::to_wstring(::GetCurrentProcessId());
};

// Acts in front of every call of a system function from the one with this number on.
template <class Function>
struct Meddler {
    Function original;
    std::function<void()> act;
    int calls = 0;
    int at = 0;

    void step() {
        if (calls++ >= at && act) {
            act();
        }
    }
};
Meddler<decltype(&::RegEnumKeyExW)> enumeration;
Meddler<decltype(&::RegGetValueW)> reading;

LSTATUS WINAPI meddlingEnum(HKEY key, DWORD index, LPWSTR name, LPDWORD length, LPDWORD reserved,
                            LPWSTR classText, LPDWORD classLength, PFILETIME written) {
    enumeration.step();
    return enumeration.original(key, index, name, length, reserved, classText, classLength,
                                written);
}

LSTATUS WINAPI meddlingGet(HKEY key, LPCWSTR subKey, LPCWSTR name, DWORD flags, LPDWORD type,
                           PVOID data, LPDWORD bytes) {
    reading.step();
    return reading.original(key, subKey, name, flags, type, data, bytes);
}

} // namespace

TEST_F(RegistryTest, DwordIsReadOrTheStatusTellsWhyNot) {
    RegistryOverride::setDword(L"Debug", 0xFFFFFFFE);
    setBytes(L"short", REG_DWORD, "ab");
    setBytes(L"long", REG_DWORD, "abcdefgh");
    const auto read = [](const wchar_t* key, const std::wstring& name, DWORD& value) {
        return registry::lookup(HKEY_LOCAL_MACHINE, key, name, value, view);
    };
    DWORD value = 7;
    EXPECT_EQ(ERROR_FILE_NOT_FOUND, read(configKey, L"missing", value));
    EXPECT_EQ(ERROR_FILE_NOT_FOUND, read(L"SOFTWARE\\missing", L"Debug", value));
    EXPECT_EQ(ERROR_FILE_NOT_FOUND, read(configKey, std::wstring(L"Debug\0x", 7), value));
    EXPECT_EQ(ERROR_INVALID_DATA, read(configKey, L"short", value));
    EXPECT_EQ(ERROR_MORE_DATA, read(configKey, L"long", value));
    EXPECT_EQ(7u, value) << "a failure leaves it alone";
    EXPECT_EQ(ERROR_SUCCESS, read(configKey, L"Debug", value));
    EXPECT_EQ(0xFFFFFFFEu, value);

    for (const char* bytes : {"", "1234", "much longer than a DWORD"}) {
        setBytes(L"text", REG_SZ, bytes);
        expectError<vexception>(std::wstring(L"RegQueryValueEx invalid type of '") + configKey +
                                    L"\\text'",
                                [&] { read(configKey, L"text", value); });
    }
}

TEST_F(RegistryTest, StringsOfEveryLengthAndShapeAreRead) {
    for (const std::size_t length : {0u, 1u, 258u, 259u, 260u, 261u, 5000u, 100000u}) {
        std::wstring text(length, L'\u00e4');
        setBytes(L"terminated", REG_SZ, bytesOf(text) + std::string(2, '\0'));
        setBytes(L"bare", REG_SZ, bytesOf(text));
        setBytes(L"odd", REG_SZ, bytesOf(text) + "x");
        setBytes(L"two texts", REG_SZ, bytesOf(text + L'\0' + L"rest"));
        for (const wchar_t* name : {L"terminated", L"bare", L"odd", L"two texts"}) {
            EXPECT_EQ(text, textOf(name)) << toUtf8(name) << " of " << length;
        }
    }
    ::SetEnvironmentVariableW(L"ZOP_TEST", std::wstring(1000, L'e').c_str());
    setBytes(L"expandable", REG_EXPAND_SZ, bytesOf(L"%ZOP_TEST%"));
    EXPECT_EQ(std::wstring(1000, L'e'), textOf(L"expandable"));
    ::SetEnvironmentVariableW(L"ZOP_TEST", nullptr);

    setBytes(L"", REG_SZ, bytesOf(L"default"));
    EXPECT_EQ(L"default", textOf(L""));
    std::wstring text = L"kept";
    EXPECT_EQ(ERROR_FILE_NOT_FOUND, readText(L"missing", text));
    for (const DWORD type : {REG_DWORD, REG_BINARY, REG_MULTI_SZ, REG_NONE}) {
        setBytes(L"number", type, "1234");
        expectError<vexception>(std::wstring(L"RegGetValue invalid type of '") + configKey +
                                    L"\\number'",
                                [&] { readText(L"number", text); });
    }
    EXPECT_EQ(L"kept", text);
}

TEST_F(RegistryTest, StringThatGrowsWhileItIsReadIsReadWhole) {
    std::wstring text(300, L'1');
    const auto grow = [&] {
        text += std::wstring(text.size() < 10000 ? 2 * text.size() : 0, L'2');
        setBytes(L"growing", REG_SZ, bytesOf(text));
    };
    grow();
    const ImportPatch patch("RegGetValueW", &meddlingGet);
    reading = {patch.original<decltype(&::RegGetValueW)>(), grow};
    const std::wstring read = textOf(L"growing");
    EXPECT_EQ(24300u, read.size());
    EXPECT_EQ(text, read);
}

TEST_F(RegistryTest, StringThatMustBeThereNamesKeyValueAndReason) {
    try {
        textOf(L"PRODUCT_ROOT_D");
        ADD_FAILURE() << "nothing was thrown";
    } catch (const vexception& error) {
        EXPECT_EQ(toUtf8(std::wstring(L"lookup subKey=") + configKey + L" value=PRODUCT_ROOT_D: " +
                         systemTextOf(ERROR_FILE_NOT_FOUND) +
                         L" (Error code 2)\n   at (registry::getstr line 736)"),
                  toUtf8(error.what()));
    }
}

TEST_F(RegistryViewTest, EveryAccessKeepsToItsView) {
    registry::setString(HKEY_LOCAL_MACHINE, key_, L"text", L"32", view,
                        registry::MissingKey::Create);
    EXPECT_TRUE(registry::keyExists(HKEY_LOCAL_MACHINE, key_, RegistryView::View32));
    EXPECT_FALSE(registry::keyExists(HKEY_LOCAL_MACHINE, key_, RegistryView::View64));

    registry::setDWORD(HKEY_LOCAL_MACHINE, key_ + L"\\below", L"number", 64, RegistryView::View64,
                       registry::MissingKey::Create);
    registry::setString(HKEY_LOCAL_MACHINE, key_, L"text", L"64", RegistryView::View64);
    const auto text = [&](int number) {
        return registry::getstr(HKEY_LOCAL_MACHINE, key_, L"text",
                                static_cast<RegistryView>(number));
    };
    EXPECT_EQ(L"32", text(1));
    for (const int number : {0, 2, 3, 4}) {
        EXPECT_EQ(L"64", text(number)) << number;
    }
    EXPECT_THAT(registry::subkeys(HKEY_LOCAL_MACHINE, key_, RegistryView::View32), IsEmpty());
    EXPECT_THAT(registry::subkeys(HKEY_LOCAL_MACHINE, key_, RegistryView::View64),
                ElementsAre(L"below"));
    const auto values =
        registry::values(HKEY_LOCAL_MACHINE, key_ + L"\\below", RegistryView::View64Alternative);
    ASSERT_EQ(1u, values.size());
    EXPECT_EQ(L"number", values[0].name);
    EXPECT_EQ(static_cast<DWORD>(REG_DWORD), values[0].type);
}

TEST_F(RegistryTest, ListsHoldWhatIsThereAfterTheLastChange) {
    std::vector<std::wstring> names;
    for (int i = 0; i < 20; ++i) {
        names.push_back(L"key" + std::to_wstring(10 + i));
        makeKey(L"list\\" + names.back());
    }
    const auto list = [] { return registry::subkeys(HKEY_LOCAL_MACHINE, L"list", view); };
    EXPECT_EQ(names, list());

    const ImportPatch patch("RegEnumKeyExW", &meddlingEnum);
    const auto original = patch.original<decltype(&::RegEnumKeyExW)>();
    const std::wstring longName(255, L'n');
    enumeration = {original,
                   [&] { // those behind the removed one move up, past the index
                       ::RegDeleteKeyW(HKEY_LOCAL_MACHINE, L"list\\key12");
                       makeKey(L"list\\" + longName);
                       enumeration.at = INT_MAX;
                   },
                   0, 5};
    names.erase(names.begin() + 2);
    names.push_back(longName);
    EXPECT_THAT(list(), testing::UnorderedElementsAreArray(names));

    enumeration = {original, [] {
                       if (enumeration.calls % 16 == 0) {
                           makeKey(L"list\\more" + std::to_wstring(enumeration.calls));
                       }
                   }};
    expectError<vosexception>(ERROR_BUSY, L"Unable to list registry keys (list)", list);
    enumeration = {original, [] { ::RegDeleteTreeW(HKEY_LOCAL_MACHINE, L"list"); }, 0, 5};
    expectError<vosexception>(ERROR_KEY_DELETED, L"Unable to list registry keys (list)", list);
    enumeration = {original, nullptr};
    expectError<VFileNotFoundException>(ERROR_FILE_NOT_FOUND, L"Unable to open registry key (list)",
                                        list);
    EXPECT_FALSE(registry::keyExists(HKEY_LOCAL_MACHINE, L"list", view));
}

TEST_F(RegistryTest, NamesThatWin32CannotReachAreNeitherListedNorWritten) {
    const RunTime::AutoRegKey key = makeKey(L"hidden");
    struct CountedText {
        USHORT bytes;
        USHORT capacity;
        const wchar_t* text;
    };
    wchar_t name[] = L"seen\0not";
    const CountedText counted{sizeof name - sizeof *name, sizeof name, name};
    using SetValue = LONG(WINAPI*)(HANDLE, const CountedText*, ULONG, ULONG, const void*, ULONG);
    const auto setValue = reinterpret_cast<SetValue>(reinterpret_cast<void*>(
        ::GetProcAddress(::GetModuleHandleW(L"ntdll.dll"), "NtSetValueKey")));
    ASSERT_EQ(0, setValue(key.get(), &counted, 0, REG_SZ, L"x", 4));
    const std::wstring longName(16383, L'v');
    registry::setDWORD(HKEY_LOCAL_MACHINE, L"hidden", longName, 1, view);
    const auto values = registry::values(HKEY_LOCAL_MACHINE, L"hidden", view);
    ASSERT_EQ(1u, values.size());
    EXPECT_EQ(longName, values[0].name);

    const std::wstring zero(L"a\0b", 3);
    EXPECT_FALSE(registry::keyExists(HKEY_LOCAL_MACHINE, L"hidden" + zero.substr(1), view));
    using registry::setString;
    EXPECT_THROW(setString(HKEY_LOCAL_MACHINE, L"hidden", zero, L"", view), ArgumentException);
    EXPECT_THROW(setString(HKEY_LOCAL_MACHINE, zero, L"", L"", view), ArgumentException);
    EXPECT_THROW(setString(HKEY_LOCAL_MACHINE, L"hidden", L"", zero, view), ArgumentException);
}

TEST_F(RegistryTest, FailureOfAnyCallIsReportedWithItsCode) {
    using registry::MissingKey;
    RegistryOverride::setString(L"text", L"old");
    DWORD number = 0;
    const std::function<LSTATUS()> operations[] = {
        [&] { return registry::lookup(HKEY_LOCAL_MACHINE, configKey, L"missing", number, view); },
        [] {
            std::wstring text;
            return readText(L"text", text);
        },
        [] { return textOf(L"text").empty() ? 1L : 0L; },
        [] { return registry::keyExists(HKEY_LOCAL_MACHINE, configKey, view) ? 0L : 1L; },
        [] { return registry::subkeys(HKEY_LOCAL_MACHINE, configKey, view).empty() ? 0L : 1L; },
        [] { return registry::values(HKEY_LOCAL_MACHINE, configKey, view).empty() ? 1L : 0L; },
        [] {
            registry::setString(HKEY_LOCAL_MACHINE, configKey, L"text", L"new", view);
            return 0L;
        },
        [] {
            registry::setDWORD(HKEY_LOCAL_MACHINE, L"new", L"n", 1, view, MissingKey::Create);
            return 0L;
        },
    };
    for (const auto& operation : operations) {
        FaultOutcome outcome;
        for (long n = 1; n == 1 || outcome.fired; ++n) {
            LSTATUS status = ERROR_SUCCESS;
            outcome = runWithFault(n, ERROR_NOACCESS, [&] { status = operation(); });
            SCOPED_TRACE(outcome.text());
            if (outcome.fired && status != ERROR_NOACCESS) {
                EXPECT_NE(std::string::npos, outcome.error.find("(Error code 998)"));
            }
        }
    }
    EXPECT_EQ(L"new", textOf(L"text")) << "of the last round, without a fault";
}
