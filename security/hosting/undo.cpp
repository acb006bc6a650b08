#include "security/hosting/undo.h"

#include "runtime/files/file.h"
#include "runtime/files/path.h"
#include "runtime/files/pinned_path.h"
#include "runtime/format_string.h"
#include "runtime/native_span.h"
#include "runtime/thread_cancelation.h"
#include "security/administrators_file.h"
#include "security/hosting/hosting_root.h"
#include "security/hosting/privileges.h"
#include "security/hosting/undo_log.h"

namespace HostingSecurity {

namespace {

constexpr DWORD shareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;

// A file that nobody writes meanwhile.
class UndoFile : public IUndoBytes {
public:
    explicit UndoFile(const std::wstring& path)
        : path_(path), handle_(RunTime::openExisting(path, GENERIC_READ, FILE_SHARE_READ)) {
        constexpr const char* function = "HostingSecurity::undo";
        DWORD code = handle_ ? ERROR_SUCCESS : ::GetLastError();
        RunTime::FileInformation kind;
        if (code == ERROR_SUCCESS) {
            code = RunTime::readKind(handle_.get(), kind);
        }
        if (code != ERROR_SUCCESS) {
            RunTime::throwForPath(L"Unable to open (%s)", path, code, function, __LINE__);
        }
        if (kind.isDirectory() || kind.isLink()) {
            throw UndoFileException(L"The undo file is a directory or a link",
                                    {L"", function, __LINE__});
        }
        RunTime::DescriptorBytes descriptor;
        if (const DWORD failure = RunTime::readDescriptor(handle_.get(), false, descriptor)) {
            RunTime::throwForPath(L"Unable to read the permissions of (%s)", path, failure,
                                  function, __LINE__);
        }
        // What the file holds is done with an administrator's rights.
        if (!RunTime::isAdministratorsOwn(descriptor)) {
            throw UndoFileException(L"The undo file may have been written by somebody who is no "
                                    L"administrator: others own it, or may change it",
                                    {L"", function, __LINE__});
        }
        LARGE_INTEGER size;
        if (!::GetFileSizeEx(handle_.get(), &size)) {
            const DWORD failure = ::GetLastError();
            RunTime::throwForPath(L"Unable to read file (%s)", path, failure, function, __LINE__);
        }
        size_ = static_cast<std::uint64_t>(size.QuadPart);
    }
    std::uint64_t size() override { return size_; }
    void read(std::uint64_t offset, std::span<unsigned char> bytes) override {
        OVERLAPPED place = {};
        place.Offset = static_cast<DWORD>(offset);
        place.OffsetHigh = static_cast<DWORD>(offset >> 32);
        DWORD done = 0;
        DWORD code = ERROR_SUCCESS;
        if (!::ReadFile(handle_.get(), bytes.data(), static_cast<DWORD>(bytes.size()), &done,
                        &place)) {
            code = ::GetLastError();
        }
        if (code != ERROR_SUCCESS || done != bytes.size()) {
            RunTime::throwForPath(L"Unable to read file (%s)", path_,
                                  code != ERROR_SUCCESS ? code : ERROR_HANDLE_EOF,
                                  "HostingSecurity::undo", __LINE__);
        }
    }

private:
    std::wstring path_;
    RunTime::AutoHandle handle_;
    std::uint64_t size_ = 0;
};

[[noreturn]] void passOver(const wchar_t* format, const std::wstring& path, DWORD code, int line) {
    RunTime::throwForPath(format, path, code, "HostingSecurity::undo", line);
}

ItemIdentity identityOf(const HostingRoot& root, RunTime::PinnedPath& way) {
    const bool held = way.hold(root.path);
    const RunTime::AutoHandle handle =
        held ? RunTime::openExisting(root.path, FILE_READ_ATTRIBUTES, shareAll)
             : RunTime::AutoHandle();
    DWORD code = handle ? ERROR_SUCCESS : held ? ::GetLastError() : ERROR_PATH_NOT_FOUND;
    ItemFacts facts;
    if (code == ERROR_SUCCESS) {
        code = readFacts(handle.get(), facts);
    }
    if (code != ERROR_SUCCESS) {
        RunTime::throwForPath(L"Unable to open (%s)", root.path, code, "HostingSecurity::undo",
                              __LINE__);
    }
    return facts.identity;
}

// True when the item's permissions were others. Throws vosexception to pass it over.
bool restore(UndoItem& item, const std::wstring& path, DWORD volume, RunTime::PinnedPath& way,
             RunTime::DescriptorBytes& present) {
    if (!way.hold(RunTime::parentPath(path))) {
        passOver(L"The item (%s) has gone", path, ERROR_PATH_NOT_FOUND, __LINE__);
    }
    const RunTime::AutoHandle handle =
        RunTime::openExisting(path, READ_CONTROL | WRITE_DAC | FILE_READ_ATTRIBUTES, shareAll);
    if (!handle) {
        const DWORD code = ::GetLastError();
        passOver(L"Unable to open (%s)", path, code, __LINE__);
    }
    ItemFacts facts;
    if (const DWORD code = readFacts(handle.get(), volume, facts)) {
        passOver(L"Unable to get file information (%s)", path, code, __LINE__);
    }
    if (facts.identity != item.identity) {
        passOver(L"Something else has come in the place of (%s)", path, ERROR_FILE_INVALID,
                 __LINE__);
    }
    if (!facts.isDirectory && facts.names > 1) {
        passOver(L"The file (%s) has more names than this, and its permissions are left alone",
                 path, ERROR_TOO_MANY_LINKS, __LINE__);
    }
    if (const DWORD code = RunTime::readDescriptor(handle.get(), false, present)) {
        passOver(L"Unable to read the permissions of (%s)", path, code, __LINE__);
    }
    RunTime::requireDacl(item.descriptor);
    RunTime::requireDacl(present);
    if (RunTime::sameDescriptor(present, item.descriptor, false, false)) {
        return false;
    }
    if (const DWORD code = RunTime::writeDescriptor(handle.get(), item.descriptor, false, false)) {
        passOver(L"Unable to change the permissions of (%s)", path, code, __LINE__);
    }
    return true;
}

} // namespace

UndoCounts undo(const std::wstring& file, ICommitCallback& callback, bool unfinished) {
    const NativeSpan span("HostingSecurity::undo", __LINE__);
    const ThreadCancelation::CancelationPoint cancellable;
    const FilePrivileges privileges;
    UndoFile bytes(file);
    UndoReader reader(bytes, unfinished);
    const HostingRoot root = HostingRoot::find(reader.head().root);
    RunTime::PinnedPath way(root.vhosts);
    const ItemIdentity identity = identityOf(root, way);
    const HostingLock lock(root.path, identity);
    UndoCounts counts;
    UndoItem item;
    RunTime::DescriptorBytes present;
    while (reader.previous(item)) {
        ThreadCancelation::check();
        const std::wstring path =
            item.path.empty() ? root.path : RunTime::combine(root.path, item.path);
        const std::wstring nice = RunTime::nicePath(path);
        bool changed = false;
        try {
            changed = restore(item, path, identity.volume, way, present);
        } catch (const vosexception& error) {
            ++counts.passedOver;
            callback.onError(nice, error);
            continue;
        }
        ++(changed ? counts.restored : counts.unchanged);
        if (changed) {
            callback.onItem(nice);
        }
    }
    return counts;
}

} // namespace HostingSecurity
