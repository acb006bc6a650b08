// Homes of accounts that move with the directory of virtual hosts: real trees on two drives, the
// panel's tables on a real server, and accounts held in memory.
#include "relocation/vhosts/user_list.h"

#include "runtime/accounts/user_information.h"
#include "runtime/files/path.h"
#include "tests/support/account_fake.h"
#include "tests/support/database_fixture.h"
#include "tests/support/fault_sweep.h"
#include "tests/support/import_patch.h"
#include "tests/support/registry_override.h"
#include "tests/support/temp_directory.h"
#include "tests/support/tree_image.h"

#include <chrono>
#include <optional>

namespace {

// Every volume can have quotas while this lives.
class VolumesWithQuotas {
public:
    VolumesWithQuotas() { original_ = patch_.original<decltype(original_)>(); }

private:
    static BOOL WINAPI information(LPCWSTR root, LPWSTR name, DWORD nameSize, LPDWORD serial,
                                   LPDWORD length, LPDWORD flags, LPWSTR system, DWORD systemSize) {
        const BOOL done =
            original_(root, name, nameSize, serial, length, flags, system, systemSize);
        if (done && flags != nullptr) {
            *flags |= FILE_VOLUME_QUOTAS;
        }
        return done;
    }

    static inline decltype(&::GetVolumeInformationW) original_ = nullptr;
    ImportPatch patch_{"GetVolumeInformationW", &information};
};

std::wstring otherDrive() {
    wchar_t drive[8] = L"";
    ::GetEnvironmentVariableW(L"ZOP_TEST_TMPFS_DRIVE", drive, 8);
    return drive;
}

class UserListTest : public DatabaseFixture {
protected:
    void SetUp() override {
        DatabaseFixture::SetUp();
        if (!database) {
            return;
        }
        if (otherDrive().empty()) {
            GTEST_SKIP() << "no second drive: run by scripts/sandbox.sh";
        }
        registry.emplace();
        configure(*registry);
        oldPlace.emplace(otherDrive());
        newPlace.emplace();
        from = oldPlace->nice() + L"\\vhosts";
        to = newPlace->nice() + L"\\new vhosts";
        makeWorld();
    }

    // Empty: no accounts, rows or trees.
    void clear() {
        for (const wchar_t* table :
             {L"ftp_users", L"hosting", L"domains", L"sys_users", L"ServiceNodeEnvironment"}) {
            database->execute(std::wstring(L"delete from ") + table);
        }
        accounts.state = {};
        accounts.calls.clear();
    }
    void addRow(const std::wstring& login, const std::wstring& home, std::uint64_t quota = 0) {
        database->execute(
            L"insert into sys_users (login, password, home, quota) values (?, '', ?, ?)",
            {login, home, quota});
    }
    void addAccount(const std::wstring& login, const std::wstring& home) {
        accounts.state.users[login] = {.home = home};
    }

    // Three accounts: one that has a quota and another's home in its own, and one below a directory
    // that is not there yet.
    void makeWorld() {
        clear();
        for (const auto& [login, home, quota] :
             {std::tuple(L"d1", L"\\d1", 7000ULL), std::tuple(L"sub", L"\\d1\\web\\sub", 0ULL),
              std::tuple(L"w1", L"\\users\\w1\\", 9000ULL)}) {
            addRow(login, from + home, quota);
            addAccount(login, from + home);
        }
        accounts.state.users[L"w1"].quotas[L"C:"] = 5;
        accounts.state.users[L"d1"].quotas[oldPlace->nice().substr(0, 2)] = 7000;
        TreeBuilder(oldPlace->path())
            .file(L"vhosts\\d1\\index.html", "one")
            .file(L"vhosts\\d1\\web\\sub\\a.txt", "two")
            .file(L"vhosts\\users\\w1\\b.txt", "three", FILE_ATTRIBUTE_READONLY)
            .file(L"vhosts\\stays.txt", "four");
        TreeBuilder(newPlace->path()).file(L"older.txt", "older");
    }

    struct World {
        AccountFake::State accounts;
        std::string rows;
        TreeImage oldTree;
        TreeImage newTree;
    };
    World world() {
        ImageOptions options;
        options.directoryTimes = false;
        return {accounts.state, rows(), imageOf(oldPlace->path(), options),
                imageOf(newPlace->path(), options)};
    }
    std::string rows() {
        return rowsOf(database->query(L"select login, home, quota from sys_users order by id"));
    }
    void expectWorld(const World& expected) {
        const World now = world();
        EXPECT_EQ(now.accounts, expected.accounts);
        EXPECT_EQ(now.rows, expected.rows);
        EXPECT_TRUE(sameTree(expected.oldTree, now.oldTree));
        EXPECT_TRUE(sameTree(expected.newTree, now.newTree));
    }

    std::unique_ptr<UserList> newList() {
        const std::shared_ptr<UserManagement::IUserInformation> information =
            UserManagement::UserInformation::createInstance();
        return std::make_unique<UserList>(UserManagement::Factory::createInstance(information),
                                          information);
    }

    static void WINAPI noPause(DWORD) {}
    ImportPatch noPauses{"Sleep", &noPause}; // of the retries
    VolumesWithQuotas quotas;
    AccountFake accounts;
    std::optional<RegistryOverride> registry;
    std::optional<TempDirectory> oldPlace;
    std::optional<TempDirectory> newPlace;
    std::wstring from;
    std::wstring to;
};

// Everything that a list tells, a line each; cancels at an event of its own choice.
class Recorder {
public:
    explicit Recorder(UserList& list) {
        hooks_.push_back(list.progressEvent_Total.hook([this](std::int32_t count, bool& cancel) {
            add(L"total " + std::to_wstring(count), cancel);
        }));
        hooks_.push_back(list.progressEvent_Name.hook(
            [this](const std::wstring& name, bool& cancel) { add(name, cancel); }));
        hooks_.push_back(
            list.progressEvent_MoveUserHomeStart.hook([this](bool& cancel) { add(L"(", cancel); }));
        hooks_.push_back(list.progressEvent_MoveUserHomeEnd.hook([this](bool& cancel) {
            bool ignored = false; // the end of a home is no place to cancel at
            add(L")", ignored);
            cancel = false;
        }));
        hooks_.push_back(list.progressEvent_MoveUserHomeName.hook(
            [this](const std::wstring&, bool, std::int64_t, bool& cancel) { add(L".", cancel); }));
        hooks_.push_back(list.errorEvent.hook([this](const std::wstring& message) {
            bool ignored = false;
            add(message, ignored);
        }));
    }

    std::wstring text;
    long cancelAt = 0; // counted from 1; later ones as well
    bool canceled = false;

private:
    void add(const std::wstring& line, bool& cancel) {
        text += line + L"\n";
        if (cancelAt > 0 && ++events_ >= cancelAt) {
            cancel = canceled = true;
        }
    }

    long events_ = 0;
    std::vector<Hook> hooks_; // after what they fill
};

} // namespace

TEST_F(UserListTest, AccountsRowsAndQuotasFollowTheirHomesAndCommitLeavesNothingBehind) {
    const World before = world();
    const auto list = newList();
    Recorder recorder(*list);
    EXPECT_FALSE(list->move(from, to));
    const std::wstring& home = to;
    EXPECT_EQ(rows(), toUtf8(L"d1 " + home + L"\\d1 7000 sub " + home + L"\\d1\\web\\sub 0 w1 " +
                             home + L"\\users\\w1 9000 "));
    for (const auto& [login, path] :
         {std::pair(L"d1", L"\\d1"), {L"sub", L"\\d1\\web\\sub"}, {L"w1", L"\\users\\w1"}}) {
        EXPECT_EQ(accounts.state.users[login].home, to + path);
    }
    EXPECT_EQ(accounts.state.users[L"d1"].quotas.size(), 2U);
    EXPECT_EQ(accounts.state.users[L"d1"].quotas[L"C:"], 7000U);
    EXPECT_EQ(accounts.state.users[L"sub"].quotas.size(), 0U);
    EXPECT_EQ(accounts.state.users[L"w1"].quotas[L"C:"], 9000U);
    EXPECT_TRUE(sameTree(before.oldTree, world().oldTree)); // usable until the end
    EXPECT_TRUE(newPlace->has(L"new vhosts\\d1\\web\\sub\\a.txt"));
    EXPECT_EQ(list->get_movers().size(), 2U);
    EXPECT_EQ(list->get_made().size(), 2U); // the directory itself, and that of the users
    EXPECT_TRUE(list->isPending());
    const std::wstring expected =
        L"total 3\nChange user: \"d1\" settings\nChange user: \"sub\" settings\n"
        L"Change user: \"w1\" settings\n(\n.\n.\n.\n.\n.\n)\n(\n.\n.\n)\n";
    EXPECT_EQ(toUtf8(recorder.text), toUtf8(expected));

    EXPECT_FALSE(list->move(from, to)); // nothing is done while a move is recorded
    EXPECT_EQ(recorder.text, expected);

    recorder.text.clear();
    EXPECT_FALSE(list->commit());
    EXPECT_FALSE(list->isPending());
    EXPECT_EQ(oldPlace->list(L"vhosts"), (std::vector<std::wstring>{L"stays.txt", L"users\\"}));
    EXPECT_EQ(newPlace->readFile(L"new vhosts\\users\\w1\\b.txt"), "three");
    EXPECT_EQ(accounts.state.users[L"d1"].quotas.size(), 1U);
    EXPECT_TRUE(recorder.text.starts_with(L"total 5\nRemove user old home \""))
        << toUtf8(recorder.text);
    EXPECT_TRUE(recorder.text.ends_with(L")\nRemove user \"d1\" old quota\nRemove user \"sub\" old "
                                        L"quota\nRemove user \"w1\" old quota\n"))
        << toUtf8(recorder.text);
    const World committed = world();
    list->rollback(); // there is nothing any more
    expectWorld(committed);
}

TEST_F(UserListTest, OnOneVolumeNoQuotaIsTouched) {
    const World before = world();
    const auto list = newList();
    list->move(from, oldPlace->nice() + L"\\other\\vhosts");
    EXPECT_EQ(accounts.count(L"setQuota") + accounts.count(L"removeQuota"), 0);
    EXPECT_TRUE(oldPlace->has(L"other\\vhosts\\users\\w1\\b.txt"));
    list->rollback();
    expectWorld(before);
    list->move(from, oldPlace->nice() + L"\\other\\vhosts"); // the same list again
    list->commit();
    EXPECT_EQ(accounts.count(L"setQuota") + accounts.count(L"removeQuota"), 0);
    EXPECT_FALSE(oldPlace->has(L"vhosts\\d1"));
}

// Whatever stands in the database: homes inside the directory follow it, all others are left alone.
TEST_F(UserListTest, HomesAreRecognizedHoweverTheyAreWritten) {
    clear();
    TreeBuilder(oldPlace->path())
        .file(L"vhosts\\it's 50% 100%s\\a.txt") // "\"" is a character like others here
        .file(L"vhosts\\some long name.example.com\\x\\a.txt")
        .file(L"vhosts\\shared\\a.txt")
        .file(L"vhosts\\shared (2)\\a.txt")
        .file(L"vhosts2\\next\\a.txt")
        .file(L"elsewhere\\home\\a.txt");
    const std::wstring shortName =
        RunTime::nicePath(RunTime::shortPath(from + L"\\some long name.example.com"));
    const std::wstring root = oldPlace->nice();
    std::wstring upper = from;
    ::CharUpperW(upper.data());
    struct Case {
        std::wstring login;
        std::wstring home;
        const wchar_t* moved; // below the new directory; null: not
    };
    const Case cases[] = {
        {L"o'brien", from + L"\\it's 50% 100%s", L"\\it's 50% 100%s"},
        {L"%s %n", from + L"\\missing \"100%\"\\", L"\\missing \"100%\""},
        {L"back\\slash\\", from + L"\\shared\\\\", L"\\shared"},
        {L"short", shortName + L"\\x", L"\\some long name.example.com\\x"},
        {L"upper", upper + L"\\shared", L"\\shared"},
        {L"slashes", RunTime::nicePath(from) + L"/shared/../shared/", L"\\shared"},
        {L"long", L"\\\\?\\" + from + L"\\shared (2)", L"\\shared (2)"},
        {L"beside", root + L"\\vhosts2\\next", nullptr},
        {L"outside", root + L"\\elsewhere\\home", nullptr},
        {L"above", root, nullptr},
        {L"out", from + L"\\..\\elsewhere\\home", nullptr},
        {L"system", L"C:\\windows", nullptr},
        {L"server", L"\\\\no-such-server\\share\\home", nullptr},
        {L"relative", L"shared", nullptr},
        {L"device", L"\\\\.\\pipe\\x", nullptr},
        {L"none", L"", nullptr},
        {L"gone", from + L"\\shared", nullptr},
    };
    for (const Case& c : cases) {
        addRow(c.login, c.home);
        if (c.login != L"gone") {
            addAccount(UserManagement::UserInformation::getNameWithoutDomain(c.login), c.home);
        }
    }
    const World before = world();
    const auto list = newList();
    Recorder recorder(*list);
    list->move(from, to);
    for (const Case& c : cases) {
        const std::wstring expected = c.moved != nullptr ? to + c.moved : c.home;
        EXPECT_EQ(one(L"select home from sys_users where login = ?", {c.login}), toUtf8(expected))
            << toUtf8(c.login);
        if (c.login != L"gone") {
            EXPECT_EQ(
                accounts.state.users[UserManagement::UserInformation::getNameWithoutDomain(c.login)]
                    .home,
                expected)
                << toUtf8(c.login);
        }
    }
    EXPECT_EQ(
        recorder.text.find(L"Unable to change home of \"gone\" because user does not exist.\n"),
        recorder.text.rfind(L"Unable"));
    EXPECT_EQ(list->get_movers().size(),
              4U); // one for the homes that are shared, none for a missing
    EXPECT_EQ(newPlace->list(L"new vhosts"),
              (std::vector<std::wstring>{L"it's 50% 100%s\\", L"it's 50% 100%s\\a.txt",
                                         L"shared (2)\\", L"shared (2)\\a.txt", L"shared\\",
                                         L"shared\\a.txt", L"some long name.example.com\\",
                                         L"some long name.example.com\\x\\",
                                         L"some long name.example.com\\x\\a.txt"}));
    list->rollback();
    expectWorld(before);
}
