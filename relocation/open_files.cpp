#include "relocation/open_files.h"

#include "runtime/exception.h"
#include "runtime/files/file.h"
#include "runtime/files/path.h"
#include "runtime/format_string.h"
#include "runtime/thread_cancelation.h"

#include <memory>
#include <restartmanager.h>

namespace {

using RunTime::AutoHandle;
using RunTime::FileInformation;

struct LibraryCloser {
    void operator()(HMODULE library) const noexcept { ::FreeLibrary(library); }
};
using Library = std::unique_ptr<std::remove_pointer_t<HMODULE>, LibraryCloser>;

// The system's register of who holds which file, where it has one.
class RestartManager {
public:
    RestartManager()
        : library_(::LoadLibraryExW(L"rstrtmgr.dll", nullptr, LOAD_LIBRARY_SEARCH_SYSTEM32)) {
        if (library_) {
            complete_ = load(start_, "RmStartSession") && load(add_, "RmRegisterResources") &&
                        load(list_, "RmGetList") && load(end_, "RmEndSession");
        }
    }

    std::vector<std::wstring> holders(const std::wstring& path) const {
        std::vector<std::wstring> names;
        DWORD session = 0;
        WCHAR key[CCH_RM_SESSION_KEY + 1] = L"";
        if (!complete_ || start_(&session, 0, key) != ERROR_SUCCESS) {
            return names;
        }
        LPCWSTR file = path.c_str();
        RM_PROCESS_INFO processes[8] = {};
        UINT needed = 0;
        UINT count = static_cast<UINT>(std::size(processes));
        DWORD reasons = 0;
        if (add_(session, 1, &file, 0, nullptr, 0, nullptr) == ERROR_SUCCESS) {
            const DWORD code = list_(session, &needed, &count, processes, &reasons);
            for (UINT i = 0; code == ERROR_SUCCESS && i < count; ++i) {
                names.push_back(formatString(L"%s (%lu)", processes[i].strAppName,
                                             processes[i].Process.dwProcessId));
            }
        }
        end_(session);
        return names;
    }

private:
    template <class Function>
    bool load(Function*& function, const char* name) {
        function = reinterpret_cast<Function*>(
            reinterpret_cast<void*>(::GetProcAddress(library_.get(), name)));
        return function != nullptr;
    }

    Library library_;
    bool complete_ = false;
    decltype(&::RmStartSession) start_ = nullptr;
    decltype(&::RmRegisterResources) add_ = nullptr;
    decltype(&::RmGetList) list_ = nullptr;
    decltype(&::RmEndSession) end_ = nullptr;
};

// Whether somebody holds the item so that its directory cannot be renamed.
bool isHeld(const std::wstring& path, bool isDirectory) {
    constexpr DWORD all = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
    const AutoHandle alone = isDirectory ? RunTime::openExisting(path, DELETE, all)
                                         : RunTime::openExisting(path, FILE_READ_DATA, 0);
    return !alone && ::GetLastError() == ERROR_SHARING_VIOLATION;
}

} // namespace

std::vector<OpenItem> findOpenItems(const std::wstring& path, std::size_t limit) {
    const RestartManager manager;
    std::vector<OpenItem> found;
    const auto examine = [&](const std::wstring& item, bool isDirectory) {
        if (isHeld(item, isDirectory)) {
            OpenItem open{RunTime::nicePath(item), {}};
            if (!isDirectory) { // of directories the system keeps no register
                open.holders = manager.holders(open.path);
            }
            found.push_back(std::move(open));
        }
    };
    std::vector<std::wstring> left{RunTime::longPath(path)};
    examine(left.back(), true);
    while (!left.empty() && found.size() < limit) {
        const std::wstring directory = std::move(left.back());
        left.pop_back();
        const AutoHandle handle = RunTime::openExisting(directory, FILE_LIST_DIRECTORY,
                                                        FILE_SHARE_READ | FILE_SHARE_WRITE);
        if (!handle) {
            continue;
        }
        try {
            RunTime::DirectoryLister lister(handle.get(), directory);
            for (FileInformation entry; found.size() < limit && lister.next(entry);) {
                ThreadCancelation::check();
                if (RunTime::isDotEntry(entry.name) || entry.isLink()) {
                    continue;
                }
                const std::wstring item = RunTime::combine(directory, entry.name);
                examine(item, entry.isDirectory());
                if (entry.isDirectory()) {
                    left.push_back(item);
                }
            }
        } catch (const vosexception&) {
            continue; // a directory that cannot be listed tells nothing
        }
    }
    return found;
}
