#include "runtime/database/mysql_connection.h"

#include "runtime/format_string.h"
#include "runtime/text.h"

#include <errmsg.h>
#include <mysqld_error.h>
#include <new>
#include <winsock2.h>

namespace database {

namespace {

// The client library's lengths have 32 bits, and escaping doubles. No server takes more.
constexpr std::size_t longestText = 0x3FFFFFFF;

void checkLength(std::size_t length) {
    if (length > longestText) {
        throw ArgumentException(L"The text for the database is too long",
                                {L"", "database::checkLength", __LINE__});
    }
}

// What every session of ours is set to, against whatever the server's own defaults are. Strict, so
// that a path that is too long, or has letters that the column lacks, is not stored as another one.
constexpr char sessionSetUp[] =
    "SET NAMES utf8mb4, SESSION sql_mode = 'STRICT_ALL_TABLES,NO_ENGINE_SUBSTITUTION', "
    "SESSION autocommit = 1";

// Those that are linked in. For any other that a server names the client library would load a DLL
// from a folder that need not be the administrator's.
constexpr char authentications[] =
    "mysql_native_password,caching_sha2_password,sha256_password,client_ed25519";

bool meansLost(unsigned int error) {
    return error == CR_SERVER_GONE_ERROR || error == CR_SERVER_LOST ||
           error == CR_SERVER_LOST_EXTENDED || error == ER_CONNECTION_KILLED ||
           error == ER_SERVER_SHUTDOWN;
}

std::string zeroTerminated(const std::wstring& text) {
    if (text.find(L'\0') != std::wstring::npos) {
        throw ArgumentException(L"Unable to connect to the database: a zero character in its name, "
                                L"the user or the password",
                                {L"", "database::zeroTerminated", __LINE__});
    }
    const Bytes bytes = toSqlBytes(text);
    return {bytes.begin(), bytes.end()};
}

} // namespace

MySQLConnection::MySQLConnection(VMySQLDatabase::Parameters parameters)
    : parameters_(std::move(parameters)) {
    if (parameters_.connectTimeout.count() <= 0) {
        parameters_.connectTimeout = VMySQLDatabase::configuredTimeout();
    }
}

MySQLConnection::~MySQLConnection() {
    RunTime::wipe(parameters_.password);
}

void MySQLConnection::open() {
    close();
    // Once for the process: left to itself, the library would do it in two threads at a time.
    static const bool ready = ::mysql_library_init(0, nullptr, nullptr) == 0;
    Handle handle(ready ? ::mysql_init(nullptr) : nullptr);
    if (!handle) {
        throw std::bad_alloc();
    }
    const auto seconds = static_cast<unsigned int>(parameters_.connectTimeout.count());
    const unsigned int protocol = MYSQL_PROTOCOL_TCP;
    const unsigned int no = 0;
    // Holds until the server has let us in, also for one that accepts and then says nothing.
    ::mysql_options(handle.get(), MYSQL_OPT_CONNECT_TIMEOUT, &seconds);
    ::mysql_options(handle.get(), MYSQL_OPT_PROTOCOL, &protocol);
    ::mysql_options(handle.get(), MYSQL_OPT_LOCAL_INFILE, &no); // a server could ask for any file
    ::mysql_options(handle.get(), MYSQL_SET_CHARSET_NAME, "utf8mb4");
    ::mysql_optionsv(handle.get(), MARIADB_OPT_RESTRICTED_AUTH, authentications);

    std::string password = zeroTerminated(parameters_.password);
    const RunTime::WipeOnExit wipePassword(password);
    MYSQL* connected = ::mysql_real_connect(
        handle.get(), zeroTerminated(parameters_.host).c_str(),
        zeroTerminated(parameters_.user).c_str(), password.c_str(),
        parameters_.database.empty() ? nullptr : zeroTerminated(parameters_.database).c_str(),
        parameters_.port, nullptr, CLIENT_FOUND_ROWS | CLIENT_MULTI_RESULTS);
    if (connected == nullptr) {
        failToConnect(handle.get());
    }
    if (handle->passwd != nullptr) { // the library's copy, for connecting again, which we do
        ::SecureZeroMemory(handle->passwd, std::char_traits<char>::length(handle->passwd));
    }
    if (::mysql_real_query(handle.get(), sessionSetUp, sizeof sessionSetUp - 1) != 0) {
        failToConnect(handle.get());
    }
    handle_ = std::move(handle);
}

void MySQLConnection::failToConnect(MYSQL* handle) const {
    throw VDatabase::ConnectException(
        formatString(L"Unable to connect to the database server (%s:%u) as (%s): %s (Error "
                     L"number %u)",
                     parameters_.host.c_str(), static_cast<unsigned int>(parameters_.port),
                     parameters_.user.c_str(), toWide(::mysql_error(handle)).c_str(),
                     ::mysql_errno(handle)),
        {L"", "database::MySQLConnection::open", __LINE__});
}

bool MySQLConnection::isAlive() const noexcept {
    if (!handle_) {
        return false;
    }
    // Between two statements a server has nothing to say but farewell.
    const auto socket = static_cast<SOCKET>(::mysql_get_socket(handle_.get()));
    fd_set readable;
    FD_ZERO(&readable);
    FD_SET(socket, &readable);
    timeval atOnce{};
    return ::select(0, &readable, nullptr, nullptr, &atOnce) == 0;
}

bool MySQLConnection::send(std::string_view statement) {
    checkLength(statement.size());
    return ::mysql_real_query(handle_.get(), statement.data(),
                              static_cast<unsigned long>(statement.size())) == 0;
}

VDatabase::StatementException MySQLConnection::failure(const std::wstring& shownStatement,
                                                       const vexception::CallStackInfo& frame) {
    const unsigned int number = ::mysql_errno(handle_.get());
    VDatabase::StatementException result(
        formatString(L"Unable to execute (%s): %s (Error number %u)", shownStatement.c_str(),
                     toWide(::mysql_error(handle_.get())).c_str(), number),
        number, frame);
    if (meansLost(number)) {
        close();
    }
    return result;
}

bool MySQLConnection::dropFurtherResults() noexcept {
    int status = 0;
    while ((status = ::mysql_next_result(handle_.get())) == 0) {
        ::mysql_free_result(::mysql_use_result(handle_.get()));
    }
    return status < 0; // there are no more
}

void MySQLConnection::escape(Bytes& to, std::string_view text) const {
    checkLength(text.size());
    const std::size_t before = to.size();
    to.resize(before + 2 * text.size() + 1);
    const unsigned long length = ::mysql_real_escape_string(
        handle_.get(), to.data() + before, text.data(), static_cast<unsigned long>(text.size()));
    if (length > 2 * text.size()) { // the library's sign of a text that it cannot escape
        throw ArgumentException(L"The text for the database cannot be escaped",
                                {L"", "database::MySQLConnection::escape", __LINE__});
    }
    to.resize(before + length);
}

bool MySQLConnection::inTransaction() const noexcept {
    unsigned int status = 0;
    return ::mariadb_get_infov(handle_.get(), MARIADB_CONNECTION_SERVER_STATUS, &status) == 0 &&
           (status & SERVER_STATUS_IN_TRANS) != 0;
}

} // namespace database
