// NtfsFake itself: its state, the records of files, what items show.
#include "tests/support/ntfs_fake_state.h"

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <gtest/gtest.h>
#include <initializer_list>
#include <stdexcept>

namespace ntfs {

State* state = nullptr;

namespace {

std::recursive_mutex mutex;

constexpr char idAttribute[] = "user.zop.id";

std::string inodeKey(const unixcall::Stat64& item) {
    return "inode " + std::to_string(item.device) + " " + std::to_string(item.inode);
}

// A random id in an extended attribute stays with the file for life, whatever its inode is used for
// later. Links cannot have one; the text of the link shows a record that was another link's.
std::string keyOf(const UnixFile& file, bool create) {
    const unixcall::Stat64 item = file.stat();
    if (item.isLink()) {
        return inodeKey(item);
    }
    char id[64];
    const std::string name = file.proc();
    const long long length = unixCall(unixcall::Getxattr, name.c_str(), idAttribute, id, sizeof id);
    if (length > 0) {
        return std::string(id, static_cast<std::size_t>(length));
    }
    if (create) {
        static std::atomic<int> count{0};
        LARGE_INTEGER now;
        ::QueryPerformanceCounter(&now);
        const std::string made = std::to_string(now.QuadPart) + "-" + std::to_string(++count);
        if (unixCall(unixcall::Setxattr, name.c_str(), idAttribute, made.c_str(),
                     static_cast<long long>(made.size())) == 0) {
            return made;
        }
    }
    return inodeKey(item);
}

} // namespace

void* systemFunction(const char* name) {
    for (const wchar_t* module : {L"kernel32.dll", L"advapi32.dll"}) {
        if (void* function =
                reinterpret_cast<void*>(::GetProcAddress(::GetModuleHandleW(module), name))) {
            return function;
        }
    }
    throw std::runtime_error(std::string("not in the system: ") + name);
}

Lock::Lock() {
    mutex.lock();
}

Lock::~Lock() {
    const DWORD code = REAL(GetLastError)();
    mutex.unlock();
    REAL(SetLastError)(code);
}

bool fail(DWORD code) {
    REAL(SetLastError)(code);
    return false;
}

DWORD errorOf(long long result) {
    switch (result < 0 ? -result : 0) {
    case 0:
        return ERROR_SUCCESS;
    case 2:
        return ERROR_FILE_NOT_FOUND;
    case 28:
        return ERROR_DISK_FULL;
    default:
        return ERROR_ACCESS_DENIED;
    }
}

std::int64_t fileTime(std::int64_t seconds, std::int64_t nanoseconds) {
    return (seconds + 11'644'473'600) * 10'000'000 + nanoseconds / 100;
}

bool hasPrivilege(const wchar_t* name) {
    PRIVILEGE_SET wanted = {1, PRIVILEGE_SET_ALL_NECESSARY, {}};
    BOOL held = FALSE;
    HANDLE token = nullptr;
    if (!REAL(OpenThreadToken)(REAL(GetCurrentThread)(), TOKEN_QUERY, TRUE, &token) &&
        !REAL(OpenProcessToken)(REAL(GetCurrentProcess)(), TOKEN_QUERY, &token)) {
        return false;
    }
    REAL(LookupPrivilegeValueW)(nullptr, name, &wanted.Privilege[0].Luid);
    REAL(PrivilegeCheck)(token, &wanted, &held);
    REAL(CloseHandle)(token);
    return held;
}

DWORD volumeFlagsOf(const std::wstring& path) {
    constexpr DWORD all = 0x03E7 << 16 | 0xFF;
    const std::size_t colon = path.find(L':');
    const bool drive = colon != path.npos && colon != 0;
    const auto given =
        state->volumeFlags.find(drive ? static_cast<wchar_t>(towupper(path[colon - 1])) : L'C');
    return given != state->volumeFlags.end() ? given->second : all;
}

bool OpenFile::may(DWORD right) const {
    const DWORD read = READ_CONTROL | FILE_READ_DATA | FILE_READ_ATTRIBUTES | FILE_READ_EA;
    const DWORD write = FILE_WRITE_DATA | FILE_APPEND_DATA | FILE_WRITE_ATTRIBUTES | FILE_WRITE_EA;
    DWORD granted = access;
    granted |= (access & GENERIC_READ) != 0 ? read : 0;
    granted |= (access & GENERIC_WRITE) != 0 ? write | READ_CONTROL : 0;
    granted |= (access & (GENERIC_ALL | MAXIMUM_ALLOWED)) != 0 ? FILE_ALL_ACCESS : 0;
    return (granted & right) == right;
}

Extra* extraOf(const UnixFile& file, bool create) {
    if (!file) {
        return nullptr;
    }
    const std::string key = keyOf(file, create);
    const unixcall::Stat64 item = file.stat();
    if (item.isLink()) {
        const std::string text = unixReadLink(file.path());
        if (const auto found = state->extras.find(key);
            found != state->extras.end() && found->second.linkText != text) {
            state->extras.erase(found);
        }
        if (create && !state->extras.contains(key)) {
            Extra& extra = state->extras[key];
            extra.linkText = text;
            unixcall::Stat64 target;
            extra.directoryLink = unixStat(file.path(), target, true) && target.isDirectory();
        }
    }
    const auto found = state->extras.find(key);
    return found != state->extras.end() ? &found->second : create ? &state->extras[key] : nullptr;
}

Extra* extraAt(const std::string& unixName, bool create) {
    return extraOf(UnixFile(unixName, unixcall::OnlyPath | unixcall::NoFollow), create);
}

void forgetIfGone(const UnixFile& file) {
    if (file && file.stat().links == 0) {
        if (const Extra* extra = extraOf(file)) {
            for (const auto& [name, backing] : extra->streams) {
                unixCall(unixcall::Unlink, backing.c_str());
            }
        }
        state->extras.erase(keyOf(file, false));
    }
}

Shown shownOf(const std::string& unixName, DWORD attributes, std::int64_t created) {
    const UnixFile file(unixName, unixcall::OnlyPath | unixcall::NoFollow);
    Shown shown{attributes, 0, created, std::nullopt};
    if (!file) {
        return shown;
    }
    const Extra* extra = extraOf(file);
    const unixcall::Stat64 item = file.stat();
    if (item.isLink()) {
        shown.attributes = isDirectoryLink(file) ? FILE_ATTRIBUTE_DIRECTORY : 0;
        shown.tag = IO_REPARSE_TAG_SYMLINK;
        shown.created = fileTime(item.written.seconds, item.written.nanoseconds);
        shown.link = item;
    }
    if (extra != nullptr) {
        if (extra->attributes) {
            shown.attributes &= ~(settableAttributes | FILE_ATTRIBUTE_NORMAL);
            shown.attributes |= *extra->attributes;
        }
        shown.attributes |= extra->flags;
        shown.created = extra->created != 0 ? extra->created : shown.created;
        shown.tag = extra->tag != 0 ? extra->tag : shown.tag;
    }
    shown.attributes |= shown.tag != 0 ? FILE_ATTRIBUTE_REPARSE_POINT : 0;
    shown.attributes = shown.attributes != 0 ? shown.attributes : FILE_ATTRIBUTE_NORMAL;
    return shown;
}

void patchImport(State& target, const char* name, void* hook) {
    try {
        target.patches.emplace_back(nullptr, name, hook);
    } catch (const std::runtime_error&) {
        // Not imported: nobody calls it.
    }
}

OpenFile* State::find(HANDLE handle) {
    const auto found = open.find(handle);
    return found != open.end() ? &found->second : nullptr;
}

void State::violation(const std::string& text) {
    violations.push_back(text);
}

State::State() {
    if (state != nullptr) {
        throw std::logic_error("another NtfsFake lives");
    }
}

State::~State() {
    while (!patches.empty()) {
        patches.pop_back();
    }
    state = nullptr;
}

} // namespace ntfs

namespace {

std::unique_ptr<ntfs::State> owner;

void addText(std::string& out, const std::string& text) {
    out.append(std::to_string(text.size())).append(":").append(text);
}

void addNumbers(std::string& out, std::initializer_list<std::uint64_t> numbers) {
    for (const std::uint64_t number : numbers) {
        out.append(std::to_string(number)).append(" ");
    }
}

void addRecord(std::string& out, const ntfs::Extra& extra) {
    addNumbers(out, {extra.attributes.value_or(~DWORD(0)), extra.flags,
                     static_cast<std::uint64_t>(extra.created), extra.tag});
    if (extra.security) {
        const ntfs::Descriptor& security = *extra.security;
        addNumbers(out, {security.control, security.dacl.has_value(), security.sacl.has_value()});
        addText(out, security.owner);
        addText(out, security.group);
        addText(out, security.dacl.value_or(""));
        addText(out, security.sacl.value_or(""));
    }
    addText(out, extra.ea);
    addText(out, extra.objectId);
    addText(out, extra.reparse);
    for (const auto& [name, backing] : extra.streams) {
        addText(out, toUtf8(name));
        addText(out, unixRead(backing));
    }
}

void addItem(std::string& out, const std::string& path, bool top) {
    const ntfs::UnixFile file(path, unixcall::OnlyPath | unixcall::NoFollow);
    if (!file) {
        out += "missing";
        return;
    }
    const unixcall::Stat64 item = file.stat();
    addNumbers(out, {item.mode, item.links, item.inode, item.device});
    if (!top) {
        addNumbers(out, {static_cast<std::uint64_t>(item.written.seconds),
                         static_cast<std::uint64_t>(item.written.nanoseconds / 100)});
    }
    if (const ntfs::Extra* extra = ntfs::extraOf(file)) {
        addRecord(out, *extra);
    }
    if (item.isLink()) {
        addText(out, unixReadLink(path));
    } else if (!item.isDirectory()) {
        addText(out, unixRead(path));
    } else {
        std::vector<std::string> names = unixEntries(path);
        std::sort(names.begin(), names.end());
        for (const std::string& name : names) {
            addText(out, name);
            addItem(out, path + "/" + name, false);
        }
        out += "end ";
    }
}

ntfs::UnixFile existing(const std::wstring& path) {
    ntfs::UnixFile file(unixPath(path), unixcall::OnlyPath | unixcall::NoFollow);
    if (!file) {
        throw std::runtime_error("not there: " + toUtf8(path));
    }
    return file;
}

} // namespace

NtfsFake::NtfsFake() {
    owner = std::make_unique<ntfs::State>();
    owner->fake = this;
    ntfs::state = owner.get();
    ntfs::patchFiles(*owner);
    ntfs::patchLinks(*owner);
    ntfs::patchSecurity(*owner);
    ntfs::patchStreams(*owner);
    ntfs::patchBackup(*owner);
    ntfs::patchEncrypted(*owner);
}

NtfsFake::~NtfsFake() {
    if (!owner->contexts.empty()) {
        owner->violation("a backup context was never ended");
    }
    for (const std::string& text : owner->violations) {
        ADD_FAILURE() << "backup API: " << text;
    }
    owner.reset();
}

bool NtfsFake::isAlive() {
    return owner != nullptr;
}

void NtfsFake::setFlags(const std::wstring& path, DWORD flags) {
    ntfs::extraOf(existing(path), true)->flags = flags;
}

void NtfsFake::setVolumeFlags(wchar_t drive, DWORD flags) {
    owner->volumeFlags[drive] = flags;
}

void NtfsFake::onOpen(const std::wstring& path, int n, std::function<void()> fn) {
    owner->moments.push_back({unixPath(path), n, std::move(fn)});
}

std::string NtfsFake::fingerprint(const std::wstring& path) {
    std::string out;
    addItem(out, unixPath(path), true);
    return out;
}

int NtfsFake::openHandles(const std::wstring& path, bool below) {
    const std::string unixName =
        ntfs::UnixFile(unixPath(path), unixcall::OnlyPath | unixcall::NoFollow).path();
    int count = 0;
    for (const auto& [handle, file] : owner->open) {
        const std::string name = file.file.path();
        count += name == unixName || (below && name.starts_with(unixName + "/"));
    }
    return count;
}

std::vector<std::string> NtfsFake::takeViolations() {
    return std::exchange(owner->violations, {});
}
