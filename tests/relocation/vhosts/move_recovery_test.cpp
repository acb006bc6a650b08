// A process that moves the virtual hosts is killed, and another one puts everything back by the
// record that the first has left.
#include "config/tarvo_srv_client.h"
#include "relocation/vhosts/interrupted_move.h"
#include "runtime/files/checked_record.h"
#include "runtime/files/file.h"
#include "runtime/files/whole_file.h"
#include "runtime/process/execute.h"
#include "tests/relocation/vhosts/move_vhosts_fixture.h"
#include "tests/support/child_program.h"
#include "tests/support/expect_error.h"
#include "tests/support/mutator.h"
#include "tests/support/tree_image.h"

#include <cstring>
#include <gtest/gtest.h>
#include <set>

namespace {

using RunTime::RecordContent;
using Kind = MoveRecord::Kind;

constexpr UINT killed = 77; // the exit status of a process that was

std::wstring variable(const wchar_t* name) {
    const wchar_t* value = _wgetenv(name);
    return value != nullptr ? value : L"";
}

// Between two processes, a line for each account: login, home.
void writeAccounts(const std::wstring& path, const AccountFake::State& state) {
    std::string text;
    for (const auto& [login, user] : state.users) {
        text += toUtf8(login + L"\t" + user.home + L"\n");
    }
    RunTime::WholeFile file(path);
    file.write(text);
    file.commit();
}

void readAccounts(const std::wstring& path, AccountFake::State& state) {
    const TreeImage image = imageOf(path);
    std::istringstream lines(image.at(L"").content);
    for (std::string line; std::getline(lines, line);) {
        const std::size_t tab = line.find('\t');
        state.users[toWide(line.substr(0, tab))].home = toWide(line.substr(tab + 1));
    }
}

// The one that is killed: it is told by its environment what to move, and where it ends.
TEST(MoveRecoveryChild, DISABLED_MovesUntilItIsKilled) {
    RunTime::AutoRegKey key;
    ASSERT_EQ(ERROR_SUCCESS,
              ::RegOpenKeyExW(HKEY_CURRENT_USER, variable(L"ZOP_CHILD_REGISTRY").c_str(), 0,
                              KEY_ALL_ACCESS, key.put()));
    ASSERT_EQ(ERROR_SUCCESS, ::RegOverridePredefKey(HKEY_LOCAL_MACHINE, key.get()));
    const panel::InProcess utilities;
    AccountFake accounts;
    readAccounts(variable(L"ZOP_CHILD_ACCOUNTS"), accounts.state);
    const std::wstring place = variable(L"ZOP_CHILD_END");
    int left = std::stoi(variable(L"ZOP_CHILD_COUNT"));
    const auto pass = [&](const std::wstring& text) {
        if (text.find(place) != text.npos && --left == 0) {
            writeAccounts(variable(L"ZOP_CHILD_ACCOUNTS"), accounts.state);
            ::TerminateProcess(::GetCurrentProcess(), killed);
        }
    };
    MoveVHosts mover;
    const Hook hooks[] = {
        mover.stepEvent.hook([&](std::int32_t number, const std::wstring&) {
            pass(L"step " + std::to_wstring(number) + L".");
        }),
        mover.progressEvent_Name.hook([&](const std::wstring& name, std::int64_t, std::int32_t,
                                          std::int64_t, bool&) { pass(name); }),
    };
    mover.move(variable(L"ZOP_CHILD_TARGET"));
    pass(L"moved.");
    mover.commit();
}

class MoveRecoveryTest : public MoveVHostsFixture {
protected:
    // Whether the child was killed at the place, and did not end before.
    bool killAt(const std::wstring& to, const wchar_t* place, int count) {
        const std::wstring file = directory_.nice() + L"\\accounts.txt";
        writeAccounts(file, accounts_.state);
        ::SetEnvironmentVariableW(
            L"ZOP_CHILD_REGISTRY",
            (L"Software\\ZopTests\\" + std::to_wstring(::GetCurrentProcessId())).c_str());
        ::SetEnvironmentVariableW(L"ZOP_CHILD_ACCOUNTS", file.c_str());
        ::SetEnvironmentVariableW(L"ZOP_CHILD_END", place);
        ::SetEnvironmentVariableW(L"ZOP_CHILD_COUNT", std::to_wstring(count).c_str());
        ::SetEnvironmentVariableW(L"ZOP_CHILD_TARGET", to.c_str());
        const RunTime::Execute::Result result = startingAgain([&] {
            return RunTime::Execute(childProgram(), {L"--gtest_filter=MoveRecoveryChild.*",
                                                     L"--gtest_also_run_disabled_tests"})
                .run();
        });
        EXPECT_EQ(result.exitStatus, killed) << toUtf8(result.output + result.errors);
        readAccounts(file, accounts_.state);
        RunTime::deleteFile(file);
        return result.exitStatus == killed;
    }

    std::wstring recordPath() const {
        return panel_.productRoot() + L"\\var\\vhosts-move\\running";
    }

    static std::vector<std::wstring> recover() {
        const panel::InProcess utilities;
        std::optional<InterruptedMove> interrupted = InterruptedMove::find();
        if (!interrupted) {
            ADD_FAILURE() << "there is no record";
            return {};
        }
        MoveVHosts mover;
        EXPECT_FALSE(mover.recover(std::move(*interrupted)));
        EXPECT_TRUE(mover.get_pendingRestart().empty());
        return mover.get_leftBehind();
    }

    // What was said to be left is removed as people would.
    static void removeLeft(const std::vector<std::wstring>& left) {
        for (const std::wstring& path : left) {
            backupmove remover;
            RunTime::isDirectory(path) ? remover.remove(path) : RunTime::deleteFile(path);
        }
    }
};

struct End {
    const wchar_t* place;
    int count;
};

// Each step, and what is done in the middle of one.
constexpr End ends[] = {
    {L"step 2.", 1},    {L"step 3.", 1},  {L"step 4.", 1},       {L"step 5.", 1},
    {L"step 7.", 1},    {L"step 8.", 1},  {L"Change user: ", 2}, {L"Copy: ", 3},
    {L"step 9.", 1},    {L"Copy: ", 9},   {L"step 10.", 1},      {L"step 11.", 1},
    {L"IIS site: ", 2}, {L"step 12.", 1}, {L"step 13.", 1},      {L"step 14.", 1},
    {L"step 15.", 1},   {L"step 16.", 1}, {L"step 17.", 1},      {L"FTP server: second", 1},
    {L"moved.", 1},
};

TEST_F(MoveRecoveryTest, PutsTheMachineBackWhereverTheProcessWasKilled) {
    forEachWay([&](bool renames, const std::wstring& to, const std::string& before) {
        int round = 0;
        for (const End& end : ends) {
            if (renames && std::wstring(end.place) == L"Copy: ") {
                continue;
            }
            SCOPED_TRACE(toUtf8(end.place) + " " + std::to_string(end.count));
            ASSERT_TRUE(killAt(to, end.place, end.count));
            MoveVHosts second;
            expectError<vexception>(L"A move of the virtual hosts was cut off before its end, and "
                                    L"has left the server half moved; its record is (" +
                                        recordPath() +
                                        L"). Put everything back: zopctl vhosts recover",
                                    [&] { second.move(to); });
            if (++round % 3 == 0) { // a part fails, and the next time all of it is put back
                panel_.store().setControl(
                    {{L"fail", L"0", L"--reconfigure-ftp-sites", L"1", L"refused"}});
                const panel::InProcess utilities;
                MoveVHosts mover;
                EXPECT_THROW(mover.recover(std::move(*InterruptedMove::find())), vexception);
                panel_.store().setControl({});
            }
            const std::vector<std::wstring> left = recover();
            EXPECT_TRUE(!renames || left.empty());
            removeLeft(left);
            ASSERT_EQ(before, world({to}));
            EXPECT_FALSE(InterruptedMove::find());
        }
    });
}

// Whatever had gone by then, everything is in the new place, and nothing more goes.
TEST_F(MoveRecoveryTest, GoesOnlyForwardOnceTheCommitHadBegun) {
    const TreeImage tree = imageOf(oldPlace());
    const std::wstring to = otherVolume();
    ASSERT_TRUE(killAt(to, L"Remove: ", 4));
    const std::string before = world({to});
    EXPECT_NE(before.find("running"), before.npos);
    const std::vector<std::wstring> left = recover();
    ASSERT_EQ(left.empty(), false);
    EXPECT_EQ(left[0], oldPlace());
    EXPECT_TRUE(RunTime::exists(oldPlace()));
    for (const auto& [name, item] : tree) {
        EXPECT_TRUE(RunTime::exists(to + L"\\" + name)) << toUtf8(name);
    }
    EXPECT_EQ(TarvoSrvClient::getInstance().getString(L"HTTPD_VHOSTS_D"), to);
    EXPECT_FALSE(InterruptedMove::find());
    removeLeft({left.begin() + 1, left.end()});
}

TEST_F(MoveRecoveryTest, LeavesEverythingAloneWhereItCannotTellWhatIsWhere) {
    accounts_.state.users.clear();
    const std::wstring to = newPlace();
    const std::string before = world({to});
    ASSERT_TRUE(killAt(to, L"step 10.", 1));
    const auto expectRefused = [&](const wchar_t* begin) {
        const std::string now = world({to});
        try {
            MoveVHosts mover;
            mover.recover(std::move(*InterruptedMove::find()));
            ADD_FAILURE() << "it was not refused";
        } catch (const vexception& e) {
            EXPECT_TRUE(e.message().starts_with(begin)) << toUtf8(e.message());
        }
        EXPECT_EQ(now, world({to}));
    };
    TarvoSrvClient& service = TarvoSrvClient::getInstance();
    service.setString(L"HTTPD_VHOSTS_D", panel_.elsewhere());
    expectRefused(L"HTTPD_VHOSTS_D has been changed since");
    service.setString(L"HTTPD_VHOSTS_D", to);
    RunTime::moveEx(to, to + L" away");
    expectRefused(L"Neither (");
    ASSERT_TRUE(RunTime::createDirectory(oldPlace()));
    expectRefused(L"It cannot be told whether (");
    RunTime::moveEx(to + L" away", to);
    ASSERT_TRUE(RunTime::createDirectory(oldPlace() + L"\\new"));
    expectRefused(L"In the old place (");
    RunTime::removeDirectory(oldPlace() + L"\\new"); // an empty one is in nobody's way
    EXPECT_TRUE(recover().empty());
    EXPECT_EQ(before, world({to}));
}

TEST_F(MoveRecoveryTest, ASiteThatHasGoneSinceKeepsNoOtherInTheNewPlace) {
    const std::wstring to = otherVolume();
    ASSERT_TRUE(killAt(to, L"step 12.", 1));
    std::vector<panel::Setting> settings = panel_.store().settings();
    std::set<std::wstring> names;
    for (const panel::Setting& setting : settings) {
        if (setting.owner == L"iis") {
            names.insert(setting.name);
        }
    }
    ASSERT_GE(names.size(), 2U);
    std::erase_if(settings, [&](const panel::Setting& setting) {
        return setting.name == *names.begin() &&
               (setting.owner == L"iis" || setting.owner == L"relink");
    });
    panel_.store().write(settings);
    removeLeft(recover());
    EXPECT_EQ("", panel_.references(to));
}

// The settings of webmail name something beside the old place, which is in the new one.
TEST_F(MoveRecoveryTest, WhatACopyNamedInTheNewPlaceBeforeIsNotTakenForTheMovesWork) {
    const std::wstring to = RunTime::parentPath(oldPlace());
    ASSERT_TRUE(killAt(to, L"step 17.", 1));
    const TreeImage copy = imageOf(MoveVHosts::webmailFile(to));
    panel_.store().setControl({{L"fail", L"1", L"--reconfigure-ftp-sites", L"1", L"refused"}});
    {
        const panel::InProcess utilities;
        MoveVHosts mover;
        EXPECT_THROW(mover.recover(std::move(*InterruptedMove::find())), vexception);
    }
    recover();
    EXPECT_TRUE(sameTree(copy, imageOf(MoveVHosts::webmailFile(to))));
}

// With the machine's power goes what was written last, and not what the system has done after it.
TEST_F(MoveRecoveryTest, AnAccountThatWasChangedAfterTheRecordsEndIsPutBack) {
    const panel::Account& account = panel_.accounts().at(0);
    const std::wstring moved = newPlace() + L"\\d";
    accounts_.state.users[account.login].home = moved;
    const std::shared_ptr<UserManagement::IUserInformation> information =
        UserManagement::UserInformation::createInstance();
    UserList users(UserManagement::Factory::createInstance(information), information);
    users.resume(oldPlace(), newPlace(), {{account.login, account.home, moved, {}, false, {}}});
    EXPECT_FALSE(users.rollback());
    EXPECT_EQ(accounts_.state.users[account.login].home, account.home);
}

TEST_F(MoveRecoveryTest, RefusesASecondMoveAndOneWhoseRecordCannotBeWritten) {
    const panel::InProcess utilities;
    const std::string before = world();
    {
        FaultPoint flush("FlushFileBuffers");
        flush.failAt = 0;
        MoveVHosts mover;
        try {
            mover.move(newPlace());
            ADD_FAILURE() << "there is no record";
        } catch (const vexception& e) {
            EXPECT_TRUE(e.message().starts_with(L"The record of the move cannot be written, so "
                                                L"nothing has been moved: "))
                << toUtf8(e.message());
        }
        EXPECT_TRUE(panel_.store().calls().empty());
        EXPECT_FALSE(mover.undo());
        EXPECT_EQ(before, world());
    }
    const std::wstring running = L"Another move of the virtual hosts is running, with its record "
                                 L"in (" +
                                 recordPath() + L"). Wait until it has ended.";
    MoveVHosts first;
    const Hook during = first.stepEvent.hook([&](std::int32_t, const std::wstring&) {
        MoveVHosts second;
        expectError<vexception>(running, [&] { second.move(newPlace()); });
        expectError<vexception>(running, [] { InterruptedMove::find(); });
        std::wstring path;
        EXPECT_EQ(MoveRecord::look(path), MoveRecord::State::Running);
    });
    EXPECT_FALSE(first.move(newPlace()));
    EXPECT_FALSE(first.rollback());
    EXPECT_EQ(before, world());
}

// A record with something of each kind, and its bytes.
class MoveRecordTest : public ::testing::Test {
protected:
    MoveRecordTest() {
        RegistryOverride::setString(config::name::productData, directory_.nice());
        const auto record = MoveRecord::create(L"C:\\Vhosts", L"C:\\vhosts", L"D:\\new\\vhosts");
        record->paths(L"C:\\vhosts", L"D:\\new\\vhosts");
        record->begin(MovePart::FtpSites);
        record->values({{L"SOFTWARE\\TARVO\\Installer\\a", L"n", std::wstring(L"x\0y", 3), L""}});
        record->made({L"\\\\?\\D:\\new", L"\\\\?\\D:\\new\\vhosts"});
        record->users({{L"d1", L"C:\\vhosts\\d1", L"D:\\new\\vhosts\\d1", {}, false, {}}});
        record->account(L"d1", L"c:\\VHOSTS\\d1");
        record->quota(L"d1", 5);
        record->tree({7, 8});
        record->setAside(L"\\\\?\\D:\\new\\$Backup1");
        record->way(RecordedMove::Way::Rename, L"");
        record->sites({{L"s", L"C:\\vhosts\\s"}});
        record->roots({{L"1", {L"C:/vhosts", L"D:\\new\\vhosts"}}});
        record->servers(L"\\\\?\\C:\\vhosts\\$Backup2");
        record->webmail({std::string(64, 'a'), {}, {}});
        record->link({L"\\l", {1}, {2}, {}});
        record->completed();
        record->commit();
        const std::string content =
            imageOf(directory_.nice() + L"\\vhosts-move\\running").at(L"").content;
        bytes_.assign(content.begin(), content.end());
        record->remove();
    }

    // Where each record ends.
    std::vector<std::size_t> recordEnds() const {
        std::vector<std::size_t> places;
        for (std::size_t at = 0; at < bytes_.size(); places.push_back(at)) {
            DWORD size = 0;
            std::memcpy(&size, &bytes_[at], sizeof size);
            at += size;
        }
        return places;
    }

    const RegistryOverride registry_;
    const TempDirectory directory_;
    std::vector<unsigned char> bytes_;
};

TEST_F(MoveRecordTest, ATornEndIsPassedOverAndOtherDamageIsRefused) {
    const RecordedMove whole = readRecordedMove(bytes_);
    EXPECT_EQ(whole.setting, L"C:\\Vhosts");
    EXPECT_EQ(whole.values.at(0).before, std::wstring(L"x\0y", 3));
    EXPECT_EQ(whole.users.at(0).accountHome, L"c:\\VHOSTS\\d1");
    EXPECT_EQ(whole.users.at(0).oldQuota, 5U);
    EXPECT_TRUE(whole.hasRoots && whole.completed && whole.committing && whole.webmail);
    EXPECT_EQ(whole.links.at(0).after, std::vector<unsigned char>{2});
    EXPECT_EQ(whole.made.size(), 2U);

    const std::vector<std::size_t> records = recordEnds();
    for (std::size_t size = 0; size < bytes_.size(); ++size) {
        std::vector<unsigned char> torn(bytes_.begin(), bytes_.begin() + std::ptrdiff_t(size));
        torn.resize(size + 50, 0xEE); // as a disk leaves it that knew the length already
        if (size < records[0]) {
            EXPECT_TRUE(readRecordedMove(torn).parts.empty()) << size;
        } else {
            EXPECT_EQ(readRecordedMove(torn).committing, size >= records[records.size() - 2])
                << size;
        }
    }
    for (std::size_t at = 0; at < bytes_.size(); ++at) {
        std::vector<unsigned char> damaged = bytes_;
        damaged[at] ^= 0x10;
        if (at < records[records.size() - 2]) {
            EXPECT_THROW(readRecordedMove(damaged), MoveRecordException) << at;
        } else {
            EXPECT_TRUE(readRecordedMove(damaged).committing) << at;
        }
    }
    // Contents that somebody has made up come with the right sums.
    FuzzCorpus contents;
    std::size_t begin = 0;
    for (const std::size_t end : records) {
        contents.emplace_back(bytes_.begin() + std::ptrdiff_t(begin + sizeof(DWORD)),
                              bytes_.begin() + std::ptrdiff_t(end - RunTime::recordTailSize));
        begin = end;
    }
    const auto read = [&](std::span<const std::uint8_t> input) {
        DWORD kind = 0;
        const std::size_t size = std::min(input.size(), sizeof kind);
        std::memcpy(&kind, input.data(), size);
        std::vector<unsigned char> made = bytes_;
        RunTime::appendRecord(made, kind, input.subspan(size), records.size());
        try {
            readRecordedMove(made);
        } catch (const MoveRecordException&) {
            return;
        }
    };
    fuzz(contents, read, 20);
}

// Places and names that an ordinary move meets, too.
TEST_F(MoveRecordTest, ReadsWhateverAMoveWrites) {
    const auto record = MoveRecord::create(L"D:\\", L"D:\\", L"C:\\PROGRA~1\\new\\vhosts");
    record->users({{L"d1", L"D:\\a|b", L"C:\\Program Files\\new\\vhosts\\a|b", {}, false, {}}});
    record->servers(L"\\\\?\\D:\\$Backup2");
    record->begin(MovePart::Users);
    EXPECT_EQ(record->read().users.size(), 1U);
    record->remove();
}

// Nothing that could be put back is left of it either.
TEST_F(MoveRecordTest, ACommitThatCannotBeWrittenEmptiesTheRecord) {
    for (const bool twice : {false, true}) {
        const auto record = MoveRecord::create(L"C:\\vhosts", L"C:\\vhosts", L"D:\\vhosts");
        record->begin(MovePart::Setting);
        {
            FaultPoint flush("FlushFileBuffers");
            flush.failAt = 0;
            flush.failOnwards = twice;
            if (twice) {
                EXPECT_THROW(record->commit(), vosexception);
            } else {
                record->commit();
            }
        }
        EXPECT_TRUE(record->read().parts.empty());
        record->commit();
        EXPECT_TRUE(record->read().parts.empty());
        record->remove();
    }
}

// Whole records, and their sums are right: somebody has made them up.
TEST_F(MoveRecordTest, RefusesWhatNoMoveDoes) {
    const std::vector<std::size_t> records = recordEnds();
    const auto places = [](const wchar_t* from, const wchar_t* to) {
        return RecordContent().text(from).text(to);
    };
    const auto value = [](const wchar_t* key) {
        return RecordContent().text(key).text(L"n").text(L"").text(L"");
    };
    const auto link = [](const wchar_t* path) {
        return RecordContent().text(path).block({}).block({}).number(FILE_BASIC_INFO{});
    };
    struct Forgery {
        Kind kind;
        RecordContent content;
    };
    const Forgery forgeries[] = {
        {Kind::Paths, places(L"vhosts", L"D:\\new")},
        {Kind::Paths, places(L"C:\\vhosts\\..\\Windows", L"D:\\new")},
        {Kind::Paths, places(L"\\\\.\\C:", L"D:\\new")},
        {Kind::Paths, places(L"C:\\vhosts:stream", L"D:\\new")},
        {Kind::Paths, RecordContent().text(std::wstring(L"C:\\a\0b", 6)).text(L"D:\\new")},
        {Kind::Part, RecordContent().number(DWORD{0})},
        {Kind::Part, RecordContent().number(DWORD{15})},
        {Kind::Part, RecordContent().number(DWORD{1}).number(DWORD{1})},
        {Kind::Value, value(L"SOFTWARE\\Microsoft")},
        {Kind::Value, value(L"SOFTWARE\\TARVO\\Installer2")},
        {Kind::Made, RecordContent().text(L"C:\\Windows")},
        {Kind::User, RecordContent().text(L"").text(L"C:\\vhosts").text(L"D:\\new")},
        {Kind::Account, RecordContent().text(L"nobody").text(L"")},
        {Kind::SetAside, RecordContent().text(L"D:\\new\\other")},
        {Kind::SetAside, RecordContent().text(L"C:\\$Backup1")},
        {Kind::Way, RecordContent().number(DWORD{3}).text(L"")},
        {Kind::Servers, RecordContent().text(L"C:\\vhosts\\site")},
        {Kind::Servers, RecordContent().text(L"C:\\vhosts\\a\\$Backup2")},
        {Kind::Root, RecordContent().text(L"1' or '1").text(L"").text(L"")},
        {Kind::Link, link(L"l")},
        {Kind::Link, link(L"\\..\\l")},
        {Kind::Head, RecordContent().number(MoveRecord::version)},
        {static_cast<Kind>(99), RecordContent()},
    };
    for (const Forgery& forgery : forgeries) {
        std::vector<unsigned char> bytes = bytes_;
        RunTime::appendRecord(bytes, static_cast<DWORD>(forgery.kind), forgery.content.bytes(),
                              records.size());
        EXPECT_THROW(readRecordedMove(bytes), MoveRecordException) << &forgery - forgeries;
    }
    std::vector<unsigned char> newer;
    RunTime::appendRecord(newer, static_cast<DWORD>(Kind::Head),
                          RecordContent().number(MoveRecord::version + 1).bytes(), 0);
    expectError<MoveRecordException>(L"The record of the move was written by another version",
                                     [&] { readRecordedMove(newer); });
}

} // namespace
