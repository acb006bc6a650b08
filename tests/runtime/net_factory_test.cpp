// Users, groups and quotas by the NetAPI. The functions of netapi32.dll and wtsapi32.dll are those
// of the stand-ins beside the tests (tests/panel/netapi32), behind a hook that notes each call and
// can make one fail.
#include "runtime/accounts/factory.h"
#include "runtime/com.h"
#include "tests/support/expect_error.h"
#include "tests/support/import_patch.h"
#include "tests/support/registry_override.h"

#include <deque>
#include <dskquota.h>
#include <functional>
#include <lm.h>

using namespace UserManagement;

namespace {

constexpr wchar_t accountsKey[] = L"Software\\ZopTests\\Accounts";
constexpr wchar_t secret[] = L"s3cret!";

struct Import {
    std::string name;
    void** slot = nullptr;
    void* system = nullptr;
    void* standIn = nullptr;
    void* thunk = nullptr;
};
std::deque<Import> imports; // thunks know their addresses
std::vector<std::string> calls;
long failAt = 0; // counted down
std::uintptr_t failure = 0;

// Server and level, where the function has them: r9, r8, rdx, rcx are the first four arguments.
std::uintptr_t decide(void* self, const std::uintptr_t* arguments) {
    const Import& import = *static_cast<const Import*>(self);
    if (import.name == "NetApiBufferFree") {
        return 0;
    }
    std::string call = import.name;
    const auto level = import.name.ends_with("Add")    ? arguments[2]
                       : import.name.ends_with("Info") ? arguments[1]
                                                       : 0;
    call += level != 0 ? " " + std::to_string(static_cast<DWORD>(level)) : "";
    if (arguments[3] != 0) {
        call += " at " + toUtf8(reinterpret_cast<const wchar_t*>(arguments[3]));
    }
    calls.push_back(call);
    if (--failAt != 0) {
        return 0;
    }
    ::SetLastError(ERROR_ACCESS_DENIED);
    failure = import.name.starts_with("WTS") ? FALSE : ERROR_ACCESS_DENIED;
    return 1;
}

HMODULE standIn(const wchar_t* name) {
    wchar_t path[MAX_PATH];
    ::GetModuleFileNameW(nullptr, path, MAX_PATH);
    const std::wstring program = path;
    return ::LoadLibraryW(
        (program.substr(0, program.rfind(L'\\')) + L"\\panel\\panel_" + name).c_str());
}

void findImports() {
    const HMODULE net = standIn(L"netapi32.dll");
    const HMODULE terminal = standIn(L"wtsapi32.dll");
    forEachImport(nullptr, [&](const char* dll, const char* name, void** slot) {
        const HMODULE module = _stricmp(dll, "netapi32.dll") == 0   ? net
                               : _stricmp(dll, "wtsapi32.dll") == 0 ? terminal
                                                                    : nullptr;
        const FARPROC function = module != nullptr ? ::GetProcAddress(module, name) : nullptr;
        if (function != nullptr) { // tests use more than the library does
            imports.push_back({name, slot, *slot, reinterpret_cast<void*>(function), nullptr});
            Import& import = imports.back();
            import.thunk = newImportThunk(&import, decide, &failure, &import.standIn);
            DWORD protection = 0;
            ::VirtualProtect(slot, sizeof *slot, PAGE_READWRITE, &protection);
        }
    });
}

class NetFactoryTest : public testing::Test {
protected:
    void SetUp() override {
        failAt = 0;
        if (imports.empty()) {
            findImports();
        }
        for (const Import& import : imports) {
            *import.slot = import.thunk;
        }
        ::SetEnvironmentVariableW(L"ZOP_PANEL_ACCOUNTS", accountsKey);
        useComputer();
    }
    void TearDown() override {
        for (const Import& import : imports) {
            *import.slot = import.system;
        }
        ::RegDeleteTreeW(HKEY_CURRENT_USER, accountsKey);
    }

    void useComputer() {
        ::RegDeleteTreeW(HKEY_CURRENT_USER, accountsKey);
        open();
    }
    // With a global group, too.
    void useDomain() {
        RegistryOverride::setDword(L"active_directory_mode", 1);
        ::RegDeleteTreeW(HKEY_CURRENT_USER, accountsKey);
        ::RegSetKeyValueW(HKEY_CURRENT_USER, accountsKey, L"controller", REG_SZ, L"dc1", 8);
        const DWORD global = 1;
        ::RegSetKeyValueW(HKEY_CURRENT_USER,
                          (std::wstring(accountsKey) + L"\\Groups\\world").c_str(), L"global",
                          REG_DWORD, &global, sizeof global);
        open();
    }
    void open() {
        information = UserInformation::createInstance();
        factory = Factory::createInstance(information);
        calls.clear();
    }

    std::shared_ptr<IUser> makeUser(const std::wstring& name) const {
        NewUser user;
        user.name = name;
        user.password = secret;
        user.fullName = L"Full";
        user.comment = L"Comment";
        user.description = L"Description";
        return factory->createUser(user);
    }

    static std::string allOf(IUser& user) {
        std::wstring text = user.getName();
        for (const std::wstring& part : {user.getFullName(), user.getComment(),
                                         user.getDescription(), user.getHomeDirectory()}) {
            text += L"," + part;
        }
        for (const bool flag : {user.getFlagPasswordNeverExpires(),
                                user.getFlagCannotChangePassword(), user.isEnabled()}) {
            text += flag ? L",1" : L",0";
        }
        return toUtf8(text);
    }
    static std::string namesOf(IGroup& group) {
        std::string names;
        for (const std::wstring& name : group.getMembers()) {
            names += toUtf8(name) + " ";
        }
        return names;
    }
    static DWORD stored(const std::wstring& account, const wchar_t* value) {
        DWORD number = 0xFFFF;
        DWORD size = sizeof number;
        ::RegGetValueW(HKEY_CURRENT_USER, (std::wstring(accountsKey) + L"\\" + account).c_str(),
                       value, RRF_RT_REG_DWORD, nullptr, &number, &size);
        return number;
    }
    static long liveBuffers() {
        using Count = long(WINAPI*)();
        return reinterpret_cast<Count>(
            reinterpret_cast<void*>(::GetProcAddress(standIn(L"netapi32.dll"), "panelBuffers")))();
    }

    RegistryOverride registry;
    std::shared_ptr<IUserInformation> information;
    std::shared_ptr<IFactory> factory;
};

// What a quota is asked for and given, by objects made of two tables of functions.
struct QuotaFake {
    static inline std::wstring volume;
    static inline DWORD rid = 0;
    static inline LONGLONG limit = -1;
    static inline int living = 0;
    static inline HRESULT failures[4] = {}; // of create, open, find, access

    using Function = void (*)();
    template <class Typed>
    static Function slot(Typed* function) {
        return reinterpret_cast<Function>(function);
    }
    static ULONG WINAPI release(void*) { return static_cast<ULONG>(--living); }
    static HRESULT WINAPI initialize(void*, LPCWSTR path, WINBOOL) {
        volume = path;
        return failures[1];
    }
    static HRESULT WINAPI find(void*, PSID sid, DWORD, void** found) {
        rid = *::GetSidSubAuthority(sid, 4);
        if (SUCCEEDED(failures[2])) {
            ++living;
            *found = user;
        }
        return failures[2];
    }
    static HRESULT WINAPI getLimit(void*, LONGLONG* bytes) {
        *bytes = limit;
        return failures[3];
    }
    static HRESULT WINAPI setLimit(void*, LONGLONG bytes, WINBOOL now) {
        limit = SUCCEEDED(failures[3]) && now != FALSE ? bytes : limit;
        return failures[3];
    }
    static HRESULT WINAPI create(REFCLSID, LPUNKNOWN, DWORD, REFIID, LPVOID* made) {
        userTable[2] = controlTable[2] = slot(release); // places in the interfaces
        userTable[9] = slot(getLimit);
        userTable[15] = slot(setLimit);
        controlTable[5] = slot(initialize);
        controlTable[16] = controlTable[19] = slot(find);
        if (SUCCEEDED(failures[0])) {
            ++living;
            *made = control;
        }
        return failures[0];
    }
    static inline Function userTable[16] = {};
    static inline Function controlTable[20] = {};
    static inline Function* user[1] = {userTable};
    static inline Function* control[1] = {controlTable};
};

} // namespace

TEST_F(NetFactoryTest, EveryFieldOfAUserIsSetByItselfOnTheServerThatHasIt) {
    for (const std::string at : {"", " at dc1"}) {
        if (!at.empty()) {
            useDomain();
        }
        const auto user = makeUser(L"PANEL\\d1");
        const auto all = [&] { return allOf(*user); };
        EXPECT_EQ(calls.back(), "NetUserAdd 2" + at);
        EXPECT_EQ(stored(L"Users\\d1", L"flags"),
                  DWORD(UF_SCRIPT | UF_NORMAL_ACCOUNT | UF_DONT_EXPIRE_PASSWD));
        EXPECT_EQ(all(), "d1,Full,Comment,Description,,1,0,1");
        user->setFlagPasswordNeverExpires(false);
        EXPECT_TRUE(information->userExists(L"D1@panel"));
        EXPECT_FALSE(information->userExists(L"d2"));
        struct Step {
            std::function<void()> set;
            const char* call;
            const char* after;
        };
        const Step steps[] = {
            {[&] { user->setFullName(L"F"); }, "NetUserSetInfo 1011",
             "d1,F,Comment,Description,,0,0,1"},
            {[&] { user->setComment(L"C"); }, "NetUserSetInfo 1012", "d1,F,C,Description,,0,0,1"},
            {[&] { user->setDescription(L"D"); }, "NetUserSetInfo 1007", "d1,F,C,D,,0,0,1"},
            {[&] { user->setHomeDirectory(L"C:\\h"); }, "NetUserSetInfo 1006",
             "d1,F,C,D,C:\\h,0,0,1"},
            {[&] { user->setPassword(L"new"); }, "NetUserSetInfo 1003", "d1,F,C,D,C:\\h,0,0,1"},
            {[&] { user->setFlagPasswordNeverExpires(true); }, "NetUserSetInfo 1008",
             "d1,F,C,D,C:\\h,1,0,1"},
            {[&] { user->setFlagCannotChangePassword(true); }, "NetUserSetInfo 1008",
             "d1,F,C,D,C:\\h,1,1,1"},
            {[&] { user->enable(false); }, "NetUserSetInfo 1008", "d1,F,C,D,C:\\h,1,1,0"},
            {[&] { user->setFlagPasswordNeverExpires(false); }, "NetUserSetInfo 1008",
             "d1,F,C,D,C:\\h,0,1,0"},
            {[&] { user->enable(true); }, "NetUserSetInfo 1008", "d1,F,C,D,C:\\h,0,1,1"},
            {[&] { user->enable(true); }, "NetUserGetInfo 2", "d1,F,C,D,C:\\h,0,1,1"},
            {[&] { user->setHomeDirectory(L""); }, "NetUserSetInfo 1006", "d1,F,C,D,,0,1,1"},
        };
        for (const Step& step : steps) {
            step.set();
            EXPECT_EQ(calls.back(), step.call + at);
            EXPECT_EQ(all(), step.after);
        }
        for (const DWORD allow : {0UL, 7UL}) {
            user->allowUserRDPLogon(allow);
            EXPECT_EQ(calls.back(), "WTSSetUserConfigW" + at);
            EXPECT_EQ(stored(L"Users\\d1", L"rdp"), allow != 0 ? 1UL : 0UL);
        }
        factory->deleteUser(L"d1");
        EXPECT_FALSE(information->userExists(L"d1"));
        EXPECT_EQ(liveBuffers(), 0);
    }
}

TEST_F(NetFactoryTest, GroupsTakeMembersAndLeaveThemWhateverTheirKind) {
    for (const bool domain : {false, true}) {
        if (domain) {
            useDomain();
        }
        EXPECT_FALSE(information->groupExists(L"zopcln"));
        auto group = factory->createGroup(L"zopcln", L"Comment");
        for (const wchar_t* name : {L"d1", L"d2", L"d3", L"d4", L"d5"}) {
            makeUser(name);
        }
        for (const wchar_t* name : {L"zopcln", L"world"}) {
            EXPECT_EQ(information->groupExists(name), domain || name[0] == L'z');
            if (!information->groupExists(name)) {
                continue;
            }
            group = factory->getGroup(std::wstring(L"PANEL\\") + name);
            group->setComment(L"New");
            EXPECT_EQ(group->getComment(), L"New");
            EXPECT_EQ(namesOf(*group), "");
            for (const wchar_t* user : {L"d2", L"PANEL\\d1", L"d5", L"d3@panel", L"d2", L"d4"}) {
                group->addMember(user);
            }
            EXPECT_EQ(namesOf(*group), "d1 d2 d3 d4 d5 ");
            for (const wchar_t* user : {L"d1", L"d3", L"d3", L"nobody"}) {
                group->removeMember(user);
            }
            EXPECT_EQ(namesOf(*group), "d2 d4 d5 ");
            EXPECT_THROW(group->addMember(L"nobody"), VNoSuchMemberException);
            factory->deleteGroup(name);
            EXPECT_FALSE(information->groupExists(name));
            EXPECT_THROW(group->getMembers(), vosexception);
        }
        for (const std::string& call : calls) {
            EXPECT_EQ(call.ends_with(" at dc1"), domain && call.find("DsGet") != 0) << call;
        }
    }
    EXPECT_EQ(liveBuffers(), 0);
}

TEST_F(NetFactoryTest, AdministratorsAreToldFromOtherUsers) {
    const auto user = makeUser(L"d1");
    EXPECT_FALSE(user->isAdministrator());
    const DWORD yes = 1;
    ::RegSetKeyValueW(HKEY_CURRENT_USER, (std::wstring(accountsKey) + L"\\Users\\d1").c_str(),
                      L"administrator", REG_DWORD, &yes, sizeof yes);
    EXPECT_TRUE(user->isAdministrator());
}

TEST_F(NetFactoryTest, WhatWindowsRefusesSaysWhyAndWhatToDo) {
    makeUser(L"d1");
    factory->createGroup(L"g", L"");
    NewUser user;
    const auto create = [&](const std::wstring& name, const std::wstring& password) {
        user.name = name;
        user.password = password;
        factory->createUser(user);
    };
    expectError<vosexception>(
        NERR_UserExists, L"Unable to create the user (d1): an account of this name exists already",
        [&] { create(L"d1", secret); });
    expectError<VPasswordTooShortException>(
        NERR_PasswordTooShort,
        L"Unable to create the user (d2): give a password that the server's password policy "
        L"admits: long and complex enough, and not used lately",
        [&] { create(L"d2", L""); });
    expectError<vosexception>(NERR_UserNotFound,
                              L"Unable to open the user (d2): there is no such user",
                              [&] { factory->getUser(L"d2"); });
    expectError<vosexception>(ERROR_ALIAS_EXISTS, L"Unable to create the group (g)",
                              [&] { factory->createGroup(L"g", L""); });
    expectError<vosexception>(NERR_GroupNotFound,
                              L"Unable to open the group (h): there is no such group",
                              [&] { factory->deleteGroup(L"h"); });
    for (const std::wstring& name : {std::wstring(), std::wstring(L"d1\0x", 4)}) {
        EXPECT_THROW(factory->deleteUser(name), ArgumentException);
        EXPECT_THROW(create(name, secret), ArgumentException);
    }
    EXPECT_THROW(create(L"d3", std::wstring(L"a\0b", 3)), ArgumentException);
    EXPECT_TRUE(information->userExists(L"d1"));
}

// Whichever call fails, the error says so and names the account, but no password; what was not to
// be done is not done, and no buffer is left.
TEST_F(NetFactoryTest, AnyCallMayFail) {
    for (const bool domain : {false, true}) {
        long tried = 0;
        for (bool fired = true; fired; ++tried) {
            domain ? useDomain() : useComputer();
            failAt = tried + 1;
            try {
                EXPECT_FALSE(information->userExists(L"d1"));
                const auto user = makeUser(L"d1");
                factory->getUser(L"d1")->setPassword(secret);
                user->enable(false);
                user->allowUserRDPLogon(0);
                factory->createGroup(L"group d1", L"")->setComment(L"x");
                for (const wchar_t* name : {L"group d1", L"world"}) {
                    if (information->groupExists(name)) {
                        const auto group = factory->getGroup(name);
                        group->addMember(L"d1");
                        EXPECT_EQ(group->getMembers().size(), 1U);
                        group->setComment(group->getComment());
                        group->removeMember(L"d1");
                        factory->deleteGroup(name);
                    }
                }
                factory->deleteUser(L"d1");
                fired = false;
            } catch (const vosexception& error) {
                const std::string text = toUtf8(error.what());
                EXPECT_EQ(error.get_errorCode(), DWORD(ERROR_ACCESS_DENIED)) << text;
                EXPECT_NE(text.find("Unable to "), std::string::npos) << text;
                EXPECT_EQ(text.find("d1") != std::string::npos ||
                              text.find("world") != std::string::npos,
                          calls.back().find("DsGet") != 0)
                    << text;
                EXPECT_EQ(text.find(toUtf8(secret)), std::string::npos) << text;
                const std::string failed = calls.back();
                EXPECT_EQ(failAt, 0) << "went on after " << failed;
                if (failed.starts_with("NetUserAdd")) {
                    EXPECT_FALSE(information->userExists(L"d1"));
                }
            }
            EXPECT_EQ(liveBuffers(), 0);
        }
        EXPECT_GT(tried, domain ? 30 : 20);
    }
}

TEST_F(NetFactoryTest, QuotasAreThoseOfTheUserOnTheVolumeOfThePath) {
    const ImportPatch patch("CoCreateInstance", &QuotaFake::create);
    makeUser(L"other");
    const auto user = makeUser(L"d1");
    QuotaFake::limit = -1;
    EXPECT_FALSE(user->getQuota(L"C:\\windows\\no such directory").has_value());
    EXPECT_EQ(QuotaFake::volume, L"C:\\");
    EXPECT_EQ(QuotaFake::rid, stored(L"Users\\d1", L"rid"));
    user->setQuota(L"\\\\?\\C:\\windows", 5'000'000'000);
    EXPECT_EQ(QuotaFake::limit, 5'000'000'000);
    EXPECT_EQ(user->getQuota(L"C:\\"), 5'000'000'000U);
    user->setQuota(L"C:\\", ~0ULL); // more than can be counted
    EXPECT_EQ(QuotaFake::limit, -1);
    QuotaFake::limit = 0;
    EXPECT_EQ(user->getQuota(L"C:\\"), 0U);
    user->removeQuota(L"C:\\");
    EXPECT_EQ(QuotaFake::limit, -1);
    for (HRESULT& step : QuotaFake::failures) {
        step = E_ACCESSDENIED;
        for (const auto& call : {std::function<void()>([&] { user->getQuota(L"C:\\"); }),
                                 std::function<void()>([&] { user->setQuota(L"C:\\", 1); })}) {
            try {
                call();
                ADD_FAILURE() << "nothing was thrown";
            } catch (const vosexception& error) {
                EXPECT_EQ(error.get_errorCode(), static_cast<DWORD>(E_ACCESSDENIED));
                EXPECT_NE(error.message().find(L"C:\\)"), std::wstring::npos);
            }
        }
        step = S_OK;
    }
    EXPECT_EQ(QuotaFake::living, 0);
    EXPECT_EQ(liveBuffers(), 0);
}
