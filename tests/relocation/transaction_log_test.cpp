// The log of a copy: its layout, and that a damaged one deletes nothing it should not.
#include "relocation/transaction_log.h"

#include "runtime/exception.h"
#include "runtime/text.h"
#include "tests/relocation/move_fixture.h"
#include "tests/support/expect_error.h"
#include "tests/support/unix_call.h"

#include <algorithm>
#include <functional>

namespace {

std::string record(unsigned char flag, const std::wstring& name, std::uint32_t length,
                   std::int64_t cost) {
    std::string bytes(1, static_cast<char>(flag));
    bytes.append(reinterpret_cast<const char*>(name.data()), name.size() * sizeof(wchar_t));
    bytes.append(reinterpret_cast<const char*>(&length), sizeof length);
    return bytes.append(reinterpret_cast<const char*>(&cost), sizeof cost);
}

std::string record(const std::wstring& name) {
    return record(1, name, static_cast<std::uint32_t>(name.size()), 7);
}

// Behind the back of the log's own handle, which shares reading only.
std::string bytesOf(const std::wstring& path) {
    return unixRead(unixPath(path));
}

void setBytes(const std::wstring& path, const std::string& bytes) {
    unixWrite(unixPath(path), bytes);
}

class TransactionLogTest : public MoveFixture {
protected:
    std::wstring logPath() const { return temp_.path().substr(0, 7) + logs().at(0); }
};

TEST_F(TransactionLogTest, RecordsHaveTheLayoutByteForByte) {
    const std::wstring place = L"\\\\?\\X:\\t";
    TransactionLog log;
    log.create(temp_.path());
    log.append(false, place + L"\\d", 0);
    log.append(true, place + L"\\d\\\u0416", 0x0102030405060708);
    const std::string bytes = bytesOf(log.name());
    EXPECT_EQ(bytes, std::string("\0"
                                 "\\\0\\\0?\0\\\0X\0:\0\\\0t\0\\\0d\0"
                                 "\x0A\0\0\0"
                                 "\0\0\0\0\0\0\0\0"
                                 "\1"
                                 "\\\0\\\0?\0\\\0X\0:\0\\\0t\0\\\0d\0\\\0\x16\x04"
                                 "\x0C\0\0\0"
                                 "\x08\x07\x06\x05\x04\x03\x02\x01",
                                 33 + 37));
    EXPECT_EQ(log.totalCount(), 2);
    EXPECT_EQ(log.totalCost(), 0x0102030405060708);
    log.append(true, place + L"\\gone", 9);
    log.dropLast();
    log.dropLast(); // once only
    EXPECT_EQ(bytesOf(log.name()), bytes);
    EXPECT_EQ(log.totalCount(), 2);
    EXPECT_EQ(log.totalCost(), 0x0102030405060708);

    log.seekToEnd(place);
    TransactionLog::Record found;
    ASSERT_TRUE(log.previous(found, place));
    EXPECT_TRUE(found.isFile);
    EXPECT_EQ(found.name, place + L"\\d\\\u0416");
    EXPECT_EQ(found.cost, 0x0102030405060708);
    ASSERT_TRUE(log.previous(found, place));
    EXPECT_FALSE(found.isFile);
    EXPECT_EQ(found.name, place + L"\\d");
    EXPECT_FALSE(log.previous(found, place));
    const std::wstring name = log.name();
    log.remove();
    EXPECT_FALSE(RunTime::exists(name));
    EXPECT_EQ(log.totalCount(), 0);
}

TEST_F(TransactionLogTest, DamagedLogDeletesNothing) {
    makeSmallSource();
    makeFilledTarget();
    const std::wstring victim = temp_.writeFile(L"victim.txt", "precious");
    const World before = world();
    const std::wstring inside = target() + L"\\older.txt", outside = victim;
    constexpr const wchar_t* cost = L"Unable to read complete size from log";
    constexpr const wchar_t* length = L"Unable to read name length from log";
    constexpr const wchar_t* name = L"Unable to read name from log";
    constexpr const wchar_t* type = L"Unable to read file type from log";
    struct Case {
        const char* what;
        std::function<std::string(std::string)> damage;
        const wchar_t* message;
    };
    const auto only = [](const std::string& bytes) {
        return [=](const std::string&) { return bytes; };
    };
    const auto added = [](const std::string& bytes) {
        return [=](const std::string& log) { return log + bytes; };
    };
    const Case cases[] = {
        Case{"emptied", only(""), name},
        Case{"a few bytes", only("1234567"), cost},
        Case{"no length", only("12345678901"), length},
        Case{"length zero", added(record(1, L"", 0, 7)), length},
        Case{"length beyond all names", added(record(1, inside, 40'000, 7)), length},
        Case{"length beyond the log", only(record(1, inside, 5'000, 7)), name},
        Case{"no flag", only(record(inside).substr(1)), type},
        Case{"flag neither 0 nor 1",
             added(record(2, inside, static_cast<std::uint32_t>(inside.size()), 7)), type},
        Case{"cut short", [](const std::string& log) { return log.substr(0, log.size() - 3); },
             nullptr},
        Case{"half lost at the front",
             [](const std::string& log) { return log.substr(log.size() / 2); }, nullptr},
        Case{"rubbish behind", added("\xFF\xFE\xFD"), nullptr},
        Case{"an older item", added(record(inside)), name},
        Case{"outside", added(record(outside)), name},
        Case{"the target itself", added(record(target())), name},
        Case{"dots", added(record(target() + L"\\..\\..\\victim.txt")), name},
        Case{"a neighbour", added(record(target() + L"2\\x")), name},
        Case{"a stream", added(record(inside + L":note")), name},
        Case{"a zero", added(record(target() + std::wstring(L"\\a\0b", 4))), name},
        Case{"another name of the same length",
             [&](std::string log) {
                 const std::wstring from = L"a.txt", to = L"A.txt";
                 const std::string old(reinterpret_cast<const char*>(from.data()), 10);
                 log.replace(log.find(old), 10, reinterpret_cast<const char*>(to.data()), 10);
                 return log;
             },
             name},
    };
    for (const Case& damage : cases) {
        SCOPED_TRACE(damage.what);
        backupmove mover;
        EXPECT_FALSE(mover.move(source(), target(), false));
        const std::string good = bytesOf(logPath());
        setBytes(logPath(), damage.damage(good));
        const std::string moved = fingerprint();
        std::wstring message;
        try {
            mover.rollback();
        } catch (const vexception& error) {
            message = error.message();
        }
        EXPECT_FALSE(message.empty());
        if (damage.message != nullptr) {
            EXPECT_EQ(toUtf8(message), toUtf8(damage.message));
        }
        EXPECT_EQ(fingerprint(), moved) << "something was deleted";
        EXPECT_EQ(temp_.readFile(L"victim.txt"), "precious");
        setBytes(logPath(), good); // whole again, so is the way back
        mover.rollback();
        expectWorld(before);
    }
}

TEST_F(TransactionLogTest, LogOnAFullDiskEndsTheMoveAndItIsUndone) {
    const std::wstring drive = testDrive(L"ZOP_TEST_FULL_DRIVE");
    if (drive.empty()) {
        GTEST_SKIP() << "needs a small drive";
    }
    const TempDirectory small(drive);
    small.writeFile(L"data\\older.txt", "older");
    for (int i = 0; i < 200; ++i) { // their records need more than the room
        temp_.makeDirectory(L"panel\\data\\" + std::wstring(200, L'd') + std::to_wstring(i));
    }
    const std::wstring filler = small.writeFile(L"filler", "");
    setBytes(filler, std::string(1 << 20, 'x'));
    ASSERT_GT(bytesOf(filler).size(), 0u);
    const TreeImage before = imageOf(small / L"data");
    backupmove mover;
    DWORD code = 0;
    std::wstring message;
    try {
        mover.move(source(), small / L"data", false);
    } catch (const vosexception& error) {
        code = error.get_errorCode();
        message = error.message();
    }
    EXPECT_EQ(code, DWORD(ERROR_DISK_FULL)) << toUtf8(message);
    EXPECT_NE(message.find(L"at Unable to write log"), std::wstring::npos) << toUtf8(message);
    mover.rollback();
    EXPECT_TRUE(sameTree(before, imageOf(small / L"data")));
}

} // namespace
