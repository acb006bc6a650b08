#include "relocation/vhosts/move_record.h"

#include "relocation/failure.h"
#include "runtime/files/file.h"
#include "runtime/files/path.h"
#include "runtime/format_string.h"
#include "runtime/registry/config_values.h"
#include "runtime/registry/registry.h"
#include "security/administrators_file.h"

#include <utility>

using RunTime::AutoHandle;
using RunTime::RecordContent;

namespace {

constexpr wchar_t directoryName[] = L"vhosts-move";
constexpr wchar_t fileName[] = L"running";
constexpr DWORD fileAccess = GENERIC_READ | GENERIC_WRITE | DELETE;

// The directories that may have the record's, in long form.
std::vector<std::wstring> panelDirectories() {
    std::vector<std::wstring> directories;
    for (const wchar_t* name : {config::name::productData, config::name::productRoot}) {
        std::wstring path;
        if (registry::lookup(HKEY_LOCAL_MACHINE, config::configKey, name, path,
                             RegistryView::View32) == ERROR_SUCCESS &&
            RunTime::isFullyQualified(path)) {
            directories.push_back(RunTime::withoutTrailingBackslash(RunTime::longPath(path)));
        }
    }
    return directories;
}

std::wstring fileBelow(const std::wstring& directory) {
    return RunTime::combine(RunTime::combine(directory, directoryName), fileName);
}

// Empty when there is none. The code is ERROR_SHARING_VIOLATION while a process holds it.
AutoHandle openLeft(std::wstring& path, DWORD& code) {
    code = ERROR_FILE_NOT_FOUND;
    for (const std::wstring& directory : panelDirectories()) {
        path = fileBelow(directory);
        AutoHandle file = RunTime::openExisting(path, fileAccess | READ_CONTROL, FILE_SHARE_READ);
        code = file ? ERROR_SUCCESS : ::GetLastError();
        if (!RunTime::meansMissing(code)) {
            return file;
        }
    }
    code = ERROR_FILE_NOT_FOUND;
    return {};
}

[[noreturn]] void refuse(MoveRecord::State state, const std::wstring& path, int line) {
    throw vexception(MoveRecord::reason(state, path) + L" " + MoveRecord::remedy(state),
                     {L"", "MoveRecord::create", line});
}

void removeDirectoryOf(const std::wstring& path) {
    try {
        RunTime::removeDirectory(RunTime::parentPath(path), 1);
    } catch (const vosexception&) { // somebody looks into it; it is in nobody's way
        logFailure(L"Remove the directory of the move's record");
    }
}

std::int64_t now() {
    FILETIME time;
    ::GetSystemTimeAsFileTime(&time);
    return (static_cast<std::int64_t>(time.dwHighDateTime) << 32) | time.dwLowDateTime;
}

} // namespace

MoveRecord::State MoveRecord::look(std::wstring& path) {
    DWORD code = ERROR_SUCCESS;
    const AutoHandle file = openLeft(path, code);
    if (file) {
        return State::Left;
    }
    if (RunTime::meansMissing(code)) {
        return State::None;
    }
    if (code != ERROR_SHARING_VIOLATION) {
        RunTime::throwForPath(L"Unable to open (%s)", path, code, "MoveRecord::look", __LINE__);
    }
    return State::Running;
}

std::wstring MoveRecord::reason(State state, const std::wstring& path) {
    return formatString(state == State::Running
                            ? L"Another move of the virtual hosts is running, with its record in "
                              L"(%s)."
                            : L"A move of the virtual hosts was cut off before its end, and has "
                              L"left the server half moved; its record is (%s).",
                        RunTime::nicePath(path).c_str());
}

std::wstring MoveRecord::remedy(State state) {
    return state == State::Running ? L"Wait until it has ended."
                                   : L"Put everything back: zopctl vhosts recover";
}

MoveRecord::MoveRecord(const std::wstring& path, AutoHandle file)
    : path_(RunTime::nicePath(path)), file_(std::move(file)) {}

std::unique_ptr<MoveRecord> MoveRecord::create(const std::wstring& setting,
                                               const std::wstring& from, const std::wstring& to) {
    constexpr const char* function = "MoveRecord::create";
    std::wstring path;
    if (const State state = look(path); state != State::None) {
        refuse(state, path, __LINE__);
    }
    path.clear();
    for (const std::wstring& directory : panelDirectories()) {
        if (path.empty() && !RunTime::File::inpath(directory, RunTime::longPath(from))) {
            path = fileBelow(directory);
        }
    }
    if (path.empty()) {
        throw vexception(L"There is no place for the record of the move: set PRODUCT_DATA_D to the "
                         L"panel's data directory, outside of what is moved. zopctl config set "
                         L"PRODUCT_DATA_D \"C:\\...\"",
                         {L"", function, __LINE__});
    }
    try {
        RunTime::createAdministratorsDirectory(RunTime::parentPath(path));
        AutoHandle file = RunTime::createAdministratorsFile(path, fileAccess, FILE_SHARE_READ);
        if (!file) {
            const DWORD code = ::GetLastError();
            if (code == ERROR_FILE_EXISTS || code == ERROR_SHARING_VIOLATION) { // quicker
                refuse(State::Running, path, __LINE__);
            }
            RunTime::throwForPath(L"Unable to create file (%s)", path, code, function, __LINE__);
        }
        auto record = std::make_unique<MoveRecord>(path, std::move(file));
        try {
            record->add(Kind::Head, RecordContent()
                                        .number(version)
                                        .number(now())
                                        .text(setting)
                                        .text(RunTime::nicePath(RunTime::longPath(from)))
                                        .text(RunTime::nicePath(RunTime::longPath(to))));
            record->write(true);
        } catch (const vexception&) {
            record->remove();
            throw;
        }
        return record;
    } catch (const vosexception& error) {
        removeDirectoryOf(path);
        throw vexception(L"The record of the move cannot be written, so nothing has been moved: " +
                             error.message() + L". See that there is room, and that " +
                             RunTime::nicePath(RunTime::parentPath(path)) +
                             L" is open to administrators, and start again",
                         {L"", function, __LINE__});
    }
}

std::unique_ptr<MoveRecord> MoveRecord::open() {
    constexpr const char* function = "MoveRecord::open";
    std::wstring path;
    DWORD code = ERROR_SUCCESS;
    AutoHandle file = openLeft(path, code);
    if (!file && RunTime::meansMissing(code)) {
        return nullptr;
    }
    if (!file && code == ERROR_SHARING_VIOLATION) {
        refuse(State::Running, path, __LINE__);
    }
    RunTime::FileInformation kind;
    RunTime::DescriptorBytes descriptor;
    if (code == ERROR_SUCCESS) {
        code = RunTime::readKind(file.get(), kind);
    }
    if (code == ERROR_SUCCESS) {
        code = RunTime::readDescriptor(file.get(), false, descriptor);
    }
    if (code != ERROR_SUCCESS) {
        RunTime::throwForPath(L"Unable to open (%s)", path, code, function, __LINE__);
    }
    if (kind.isDirectory() || kind.isLink() || !RunTime::isAdministratorsOwn(descriptor)) {
        throw MoveRecordException(
            formatString(L"The record (%s) is no file of an administrator: others own it, or may "
                         L"change it",
                         RunTime::nicePath(path).c_str()),
            {L"", function, __LINE__});
    }
    return std::make_unique<MoveRecord>(path, std::move(file));
}

RecordedMove MoveRecord::read() {
    constexpr const char* function = "MoveRecord::read";
    LARGE_INTEGER size{};
    if (!::GetFileSizeEx(file_.get(), &size)) {
        const DWORD code = ::GetLastError();
        RunTime::throwForPath(L"Unable to read file (%s)", path_, code, function, __LINE__);
    }
    if (size.QuadPart > static_cast<LONGLONG>(maxSize)) {
        RunTime::throwForPath(L"Unable to read file (%s)", path_, ERROR_FILE_TOO_LARGE, function,
                              __LINE__);
    }
    std::vector<unsigned char> bytes(static_cast<std::size_t>(size.QuadPart));
    OVERLAPPED place = {};
    DWORD done = 0;
    if (!bytes.empty() &&
        !::ReadFile(file_.get(), bytes.data(), static_cast<DWORD>(bytes.size()), &done, &place)) {
        const DWORD code = ::GetLastError();
        RunTime::throwForPath(L"Unable to read file (%s)", path_, code, function, __LINE__);
    }
    if (done != bytes.size()) {
        RunTime::throwForPath(L"Unable to read file (%s)", path_, ERROR_HANDLE_EOF, function,
                              __LINE__);
    }
    try {
        return readRecordedMove(bytes);
    } catch (const MoveRecordException& error) {
        throw MoveRecordException(error.message() + L": (" + path_ + L")",
                                  {L"", function, __LINE__});
    }
}

void MoveRecord::paths(const std::wstring& from, const std::wstring& to) {
    add(Kind::Paths, RecordContent().text(from).text(to));
    write(false);
}

void MoveRecord::begin(MovePart part) {
    add(Kind::Part, RecordContent().number(static_cast<DWORD>(part)));
    write(true);
}

void MoveRecord::values(const std::vector<RecordedMove::Value>& values) {
    for (const RecordedMove::Value& value : values) {
        add(Kind::Value,
            RecordContent().text(value.key).text(value.name).text(value.before).text(value.after));
    }
    write(false); // before the part begins
}

void MoveRecord::made(const std::vector<std::wstring>& directories) {
    for (const std::wstring& directory : directories) {
        add(Kind::Made, RecordContent().text(directory));
    }
    write(false);
}

void MoveRecord::users(const std::vector<RecordedMove::User>& users) {
    for (const RecordedMove::User& user : users) {
        add(Kind::User, RecordContent().text(user.login).text(user.home).text(user.newHome));
    }
    write(true);
}

void MoveRecord::account(const std::wstring& login, const std::wstring& home) {
    add(Kind::Account, RecordContent().text(login).text(home));
    write(false);
}

void MoveRecord::quota(const std::wstring& login, const std::optional<std::uint64_t>& old) {
    add(Kind::Quota, RecordContent()
                         .text(login)
                         .number(DWORD{old ? 1U : 0U})
                         .number(old.value_or(std::uint64_t{0})));
    write(false);
}

void MoveRecord::tree(const HostingSecurity::ItemIdentity& identity) {
    add(Kind::Identity, RecordContent().number(identity.volume).number(identity.file));
    write(false);
}

void MoveRecord::setAside(const std::wstring& name) {
    add(Kind::SetAside, RecordContent().text(name));
    write(true);
}

void MoveRecord::way(RecordedMove::Way way, const std::wstring& log) {
    add(Kind::Way, RecordContent().number(static_cast<DWORD>(way)).text(log));
    write(true);
}

void MoveRecord::sites(const std::map<std::wstring, std::wstring>& sites) {
    for (const auto& [name, path] : sites) {
        add(Kind::Site, RecordContent().text(name).text(path));
    }
    write(true);
}

void MoveRecord::roots(const std::map<std::wstring, RecordedMove::Root>& roots) {
    for (const auto& [domain, root] : roots) {
        add(Kind::Root, RecordContent().text(domain).text(root.before).text(root.after));
    }
    add(Kind::Roots, RecordContent()); // all of them are there
    write(true);
}

void MoveRecord::servers(const std::wstring& aside) {
    add(Kind::Servers, RecordContent().text(aside));
    write(true);
}

void MoveRecord::webmail(const SavedFile::Stamp& stamp) {
    RecordContent content;
    content.block(
        {reinterpret_cast<const unsigned char*>(stamp.sha256.data()), stamp.sha256.size()});
    content.number(stamp.file).number(stamp.directory);
    add(Kind::Webmail, content);
    write(false);
}

// Whoever owns a site can fill it with links; the record stays one that is read.
void MoveRecord::link(const LinkRelink::Changed& link) {
    constexpr std::uint64_t room = 1024 * 1024; // for what is to come
    RecordContent content;
    content.text(link.path).block(link.before).block(link.after).number(link.times);
    if (size_ + content.bytes().size() > maxSize - room) {
        RunTime::throwForPath(L"Unable to write file (%s)", path_, ERROR_FILE_TOO_LARGE,
                              "MoveRecord::link", __LINE__);
    }
    add(Kind::Link, content);
    write(false);
}

void MoveRecord::completed() {
    add(Kind::Completed, RecordContent());
    write(true);
}

// Twice: the one that must not get lost should the disk lose a block.
void MoveRecord::commit() {
    add(Kind::Commit, RecordContent());
    add(Kind::Commit, RecordContent());
    try {
        write(true);
    } catch (const vosexception&) {
        logFailure(L"Tell the commit in the record of the move");
        isVoid_ = true;
        size_ = 0;
        write(true);
    }
}

void MoveRecord::remove() {
    const std::wstring path = RunTime::longPath(path_);
    if (file_) {
        if (const DWORD code = RunTime::deleteByHandle(file_.get())) {
            RunTime::throwForPath(L"Unable to delete file (%s)", path, code, "MoveRecord::remove",
                                  __LINE__);
        }
        file_.reset();
    }
    removeDirectoryOf(path);
}

void MoveRecord::add(Kind kind, const RecordContent& content) {
    RunTime::appendRecord(waiting_, static_cast<DWORD>(kind), content.bytes(), next_++);
}

void MoveRecord::write(bool toDisk) {
    if (isVoid_) {
        waiting_.clear();
    }
    const auto fail = [this](DWORD code, int line) {
        hasStaleEnd_ = true;
        waiting_.clear();
        next_ = written_;
        RunTime::throwForPath(L"Unable to write file (%s)", path_, code, "MoveRecord::write", line);
    };
    if (hasStaleEnd_) {
        FILE_END_OF_FILE_INFO end{};
        end.EndOfFile.QuadPart = static_cast<LONGLONG>(size_);
        if (!::SetFileInformationByHandle(file_.get(), FileEndOfFileInfo, &end, sizeof(end))) {
            const DWORD code = ::GetLastError();
            fail(code, __LINE__);
        }
        hasStaleEnd_ = false;
    }
    OVERLAPPED place = {};
    place.Offset = static_cast<DWORD>(size_);
    place.OffsetHigh = static_cast<DWORD>(size_ >> 32);
    DWORD done = 0;
    if (!waiting_.empty() && !::WriteFile(file_.get(), waiting_.data(),
                                          static_cast<DWORD>(waiting_.size()), &done, &place)) {
        const DWORD code = ::GetLastError();
        fail(code, __LINE__);
    }
    if (done != waiting_.size()) {
        fail(ERROR_DISK_FULL, __LINE__);
    }
    if (toDisk && !::FlushFileBuffers(file_.get())) {
        const DWORD code = ::GetLastError();
        fail(code, __LINE__);
    }
    size_ += waiting_.size();
    written_ = next_;
    waiting_.clear();
}
