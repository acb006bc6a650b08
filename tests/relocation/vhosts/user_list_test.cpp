// Homes of accounts that move with the directory of virtual hosts: real trees on two drives, the
// panel's tables on a real server, and accounts held in memory.
#include "relocation/vhosts/user_list.h"

#include "runtime/accounts/user_information.h"
#include "runtime/files/path.h"
#include "tests/support/account_fake.h"
#include "tests/support/database_fixture.h"
#include "tests/support/fault_sweep.h"
#include "tests/support/import_patch.h"
#include "tests/support/ntfs_fake.h"
#include "tests/support/registry_override.h"
#include "tests/support/temp_directory.h"
#include "tests/support/test_drive.h"
#include "tests/support/tree_image.h"
#include "tests/support/unix_call.h"

#include <chrono>
#include <deque>
#include <optional>
#include <winsock2.h>

namespace {

std::wstring otherDrive() {
    return testDrive(L"ZOP_TEST_TMPFS_DRIVE");
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
        oldPlace.emplace();
        newPlace.emplace(otherDrive());
        newDrive = newPlace->nice().substr(0, 2);
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
        accounts.state.users[L"w1"].quotas[newDrive] = 5;
        accounts.state.users[L"d1"].quotas[L"C:"] = 7000;
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
    NtfsFake ntfs;                           // its volumes have quotas
    AccountFake accounts;
    std::optional<RegistryOverride> registry;
    std::optional<TempDirectory> oldPlace;
    std::optional<TempDirectory> newPlace;
    std::wstring from;
    std::wstring to;
    std::wstring newDrive;
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
        hooks_.push_back( // the end of a home is no place to cancel at
            list.progressEvent_MoveUserHomeEnd.hook([this](bool&) { text += L")\n"; }));
        hooks_.push_back(list.progressEvent_MoveUserHomeName.hook(
            [this](const std::wstring&, bool, std::int64_t, bool& cancel) { add(L".", cancel); }));
        hooks_.push_back(
            list.errorEvent.hook([this](const std::wstring& message) { text += message + L"\n"; }));
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
    EXPECT_EQ(accounts.state.users[L"d1"].quotas[newDrive], 7000U);
    EXPECT_EQ(accounts.state.users[L"sub"].quotas.size(), 0U);
    EXPECT_EQ(accounts.state.users[L"w1"].quotas[newDrive], 9000U);
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
    const std::wstring longName = L"\\" + std::wstring(300, L'x');
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
        {L"device name", from + L"\\..\\NUL", nullptr},
        {L"out of long", L"\\\\?\\" + from + L"\\..\\elsewhere\\home", nullptr},
        {L"long name", from + L"\\" + std::wstring(300, L'x'), longName.c_str()},
        {L"too long", from + L"\\" + std::wstring(40'000, L'x'), nullptr},
        {L"no server", L"\\\\no-such-server\\share\\SHORT~1", nullptr},
        {L"none", L"", nullptr},
        {L"gone", from + L"\\shared", nullptr},
    };
    const auto bare = &UserManagement::UserInformation::getNameWithoutDomain;
    for (const Case& c : cases) {
        addRow(c.login, c.home);
        if (c.login != L"gone") {
            addAccount(bare(c.login), c.home);
        }
    }
    const World before = world();
    const auto list = newList();
    Recorder recorder(*list);
    list->move(from, to);
    for (const Case& c : cases) {
        SCOPED_TRACE(toUtf8(c.login));
        const std::wstring expected = c.moved != nullptr ? to + c.moved : c.home;
        EXPECT_EQ(one(L"select home from sys_users where login = ?", {c.login}), toUtf8(expected));
        if (c.login != L"gone") {
            EXPECT_EQ(accounts.state.users[bare(c.login)].home, expected);
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

// The owner of a directory above a home may put a link there, before the move or after it.
TEST_F(UserListTest, NoLinkAboveAHomeIsFollowed) {
    const std::wstring users = *oldPlace / L"vhosts\\users";
    const std::wstring newUsers = *newPlace / L"new vhosts\\users";
    const auto list = newList();
    newPlace->makeDirectory(L"new vhosts\\users");
    newPlace->makeDirectory(L"lure");
    ASSERT_TRUE(ntfs.swapForLink(newUsers, unixPath((*newPlace / L"lure").c_str())));
    EXPECT_THROW(list->move(from, to), VInvalidDirectoryNameException);
    EXPECT_TRUE(newPlace->list(L"lure").empty());
    list->rollback();
    EXPECT_FALSE(list->isPending());
    ASSERT_TRUE(::RemoveDirectoryW(newUsers.c_str()));

    list->move(from, to);
    newPlace->writeFile(L"foreign\\w1\\precious.txt");
    ASSERT_TRUE(ntfs.swapForLink(newUsers, unixPath((*newPlace / L"foreign").c_str())));
    list->rollback();
    EXPECT_TRUE(list->isPending());
    EXPECT_TRUE(newPlace->has(L"foreign\\w1\\precious.txt"));
    EXPECT_FALSE(list->move(from, to)); // nothing
    EXPECT_THROW(list->commit(), vexception);
    ASSERT_TRUE(::RemoveDirectoryW(newUsers.c_str()) &&
                ::MoveFileW((newUsers + L".aside").c_str(), newUsers.c_str()));
    list->rollback();
    EXPECT_FALSE(list->isPending());

    list->move(from, to);
    oldPlace->writeFile(L"foreign\\w1\\precious.txt");
    ASSERT_TRUE(ntfs.swapForLink(users, unixPath((*oldPlace / L"foreign").c_str())));
    list->commit();
    EXPECT_EQ(list->get_leftBehind(), (std::vector<std::wstring>{from + L"\\users\\w1"}));
    EXPECT_TRUE(oldPlace->has(L"foreign\\w1\\precious.txt"));
    EXPECT_FALSE(oldPlace->has(L"vhosts\\d1"));
    addRow(L"other", from + L"\\users\\w1");
    addAccount(L"other", L"");
    EXPECT_THROW(list->move(from, to), VInvalidDirectoryNameException);
    list->rollback();
    const Hook hook =
        list->ignorebleErrorEvent.hook([](const std::wstring&, bool& ignore) { ignore = true; });
    list->move(from, to);
    EXPECT_TRUE(list->get_movers().empty());
    EXPECT_FALSE(newPlace->has(L"new vhosts\\users\\w1\\precious.txt"));
}

namespace {

class UserListFaultTest : public UserListTest {
protected:
    // The connection to the database breaks before a statement is sent, or before its answer comes.
    enum class Kind { AccountCall, Send, Receive, SystemCall, Cancel };

    // Runs the operation with its n-th step of a kind failing; false when it has not so many.
    bool runWith(Kind kind, long n, Recorder& recorder, const std::function<void()>& operation) {
        if (kind == Kind::SystemCall) {
            const FaultOutcome outcome = runWithFault(n, ERROR_DISK_FULL, operation);
            failed = outcome.text();
            return outcome.fired;
        }
        FaultPoint connection(kind == Kind::Send ? "send" : "recv");
        connection.result = static_cast<std::uintptr_t>(SOCKET_ERROR);
        connection.code = WSAECONNRESET;
        connection.failAt = kind == Kind::Send || kind == Kind::Receive ? n - 1 : -1;
        accounts.failAt = kind == Kind::AccountCall ? n : 0;
        recorder.cancelAt = kind == Kind::Cancel ? n : 0;
        failed.clear();
        try {
            operation();
        } catch (const vexception& error) {
            failed = toUtf8(error.what());
        }
        accounts.failAt.left = 0;
        recorder.cancelAt = 0;
        return connection.fired() || accounts.failAt.fired || recorder.canceled;
    }

    // Tries a fault at every step that the operation has; returns how many there are.
    long sweep(Kind kind, const World& before, bool inMove) {
        // The movers' own system calls are all tried in the tests of the mover.
        const long stride = SweepExtent(kind != Kind::SystemCall ? 1 : inMove ? 11 : 3).stride;
        long n = 1;
        for (bool fired = true; fired && !HasFailure(); n += stride) {
            const auto list = newList();
            Recorder recorder(*list);
            const auto move = [&] { list->move(from, to); };
            const auto rollback = [&] { list->rollback(); };
            if (!inMove) {
                move();
            }
            fired =
                inMove ? runWith(kind, n, recorder, move) : runWith(kind, n, recorder, rollback);
            SCOPED_TRACE("step " + std::to_string(n) + ", kind " +
                         std::to_string(static_cast<int>(kind)) + ": " + failed);
            const bool mayPass =
                kind == Kind::SystemCall || kind == Kind::Send; // such as a goodbye
            EXPECT_TRUE(!inMove || !fired || mayPass || !failed.empty());
            if (inMove || list->isPending()) {
                list->rollback();
            }
            if (!list->get_pendingRestart().empty()) { // the copy that cannot be removed now
                newPlace.emplace(otherDrive());
                to = newPlace->nice() + L"\\new vhosts";
                TreeBuilder(newPlace->path()).file(L"older.txt", "older");
            }
            EXPECT_FALSE(list->isPending());
            expectWorld(before);
        }
        return n - 1 - stride;
    }

    std::string failed;
};

} // namespace

// Whatever fails, and wherever a handler cancels, rollback() puts accounts, rows and trees back;
// and whatever fails in rollback(), the next one puts back the rest.
TEST_F(UserListFaultTest, RollbackRestoresEverythingWhateverFails) {
    const World before = world();
    for (const Kind kind :
         {Kind::AccountCall, Kind::Send, Kind::Receive, Kind::SystemCall, Kind::Cancel}) {
        for (const bool inMove : {true, false}) {
            EXPECT_GE(sweep(kind, before, inMove), 6) << static_cast<int>(kind) << inMove;
        }
    }
}

TEST_F(UserListFaultTest, ACommitThatFailedGoesOnAndIsNotUndone) {
    const auto list = newList();
    Recorder recorder(*list);
    accounts.failAt = 5;
    EXPECT_THROW(list->move(from, to), vexception);
    EXPECT_THROW(list->commit(), vexception); // it was not completed
    list->rollback();
    list->move(from, to);
    const Hook hook = list->progressEvent_MoveUserHomeEnd.hook([&, homes = 0](bool&) mutable {
        if (++homes == 2) {
            throw vexception(L"a handler's failure");
        }
    });
    EXPECT_THROW(list->commit(), vexception);
    EXPECT_TRUE(list->isPending());
    EXPECT_THROW(list->rollback(), vexception);
    accounts.failCall = L"removeQuota"; // no reason not to make the move final
    accounts.failAt = 1;
    recorder.cancelAt = 1; // no more than this
    list->commit();
    EXPECT_TRUE(accounts.failAt.fired);
    EXPECT_FALSE(list->isPending());
    EXPECT_EQ(oldPlace->list(L"vhosts"), (std::vector<std::wstring>{L"stays.txt", L"users\\"}));
    EXPECT_TRUE(newPlace->has(L"new vhosts\\users\\w1\\b.txt"));
}

// Each account costs what it costs by itself, however many there are.
TEST_F(UserListTest, ThousandsOfAccountsAreMovedInSeconds) {
    clear();
    std::wstring statement = L"insert into sys_users (login, password, home, quota) values ";
    std::deque<std::wstring> texts; // values only refer to them
    VDatabase::Values values;
    for (int i = 0; i < 4000; ++i) {
        const std::wstring& login = texts.emplace_back(L"user" + std::to_wstring(i));
        // Of each ten, nine lie in the home of the tenth, and one in thirty of those exists.
        const std::wstring& home =
            texts.emplace_back(from + L"\\user" + std::to_wstring(i / 10 * 10) +
                               (i % 10 != 0 ? L"\\web\\" + login : L""));
        addAccount(login, home);
        statement += i == 0 ? L"(?, '', ?, 1)" : L", (?, '', ?, 1)";
        values.insert(values.end(), {login, home});
        if (i % 300 < 2) {
            oldPlace->makeDirectory(home.substr(oldPlace->nice().size() + 1));
        }
    }
    database->execute(statement, values);
    const AccountFake::State before = accounts.state;
    const std::string rowsBefore = rows();
    const auto list = newList();
    const auto begin = std::chrono::steady_clock::now();
    list->move(from, to);
    EXPECT_EQ(list->get_movers().size(), 14U);
    EXPECT_EQ(one(L"select count(*) from sys_users where substr(home, 1, ?) = ?",
                  {std::to_wstring(to.size()), to}),
              "4000");
    list->rollback();
    const auto time = std::chrono::steady_clock::now() - begin;
    EXPECT_LT(time, std::chrono::minutes(3)); // an idle machine takes seconds
    EXPECT_EQ(accounts.state, before);
    EXPECT_EQ(rows(), rowsBefore);
}
