#include "runtime/files/pinned_path.h"

#include "runtime/files/file.h"

#include <utility>

namespace RunTime {

PinnedPath::PinnedPath(std::wstring root) : root_(std::move(root)) {}

bool PinnedPath::hold(const std::wstring& directory) {
    // Keep the pins that are on the way.
    while (!pins_.empty()) {
        const std::size_t length = pins_.back().length;
        if (directory.compare(0, length, path_, 0, length) == 0 &&
            (directory.size() == length || directory[length] == L'\\' ||
             directory[length - 1] == L'\\')) {
            break;
        }
        pins_.pop_back();
    }
    path_ = directory;
    if (pins_.empty() && !pin(root_.size())) {
        return false;
    }
    while (pins_.back().length < directory.size()) {
        const std::size_t end = directory.find(L'\\', pins_.back().length + 1);
        if (!pin(end == std::wstring::npos ? directory.size() : end)) {
            return false;
        }
    }
    return true;
}

void PinnedPath::release(const std::wstring& directory) {
    while (!pins_.empty() && pins_.back().length >= directory.size()) {
        pins_.pop_back();
    }
}

bool PinnedPath::pin(std::size_t length) {
    const std::wstring path = path_.substr(0, length);
    AutoHandle handle = openExisting(path, FILE_LIST_DIRECTORY | FILE_READ_ATTRIBUTES,
                                     FILE_SHARE_READ | FILE_SHARE_WRITE);
    if (!handle) {
        const DWORD code = ::GetLastError();
        if (code == ERROR_FILE_NOT_FOUND || code == ERROR_PATH_NOT_FOUND) {
            return false;
        }
        throwForPath(L"Unable to open directory (%s)", path, code, "RunTime::PinnedPath::pin",
                     __LINE__);
    }
    FileInformation now;
    if (const DWORD code = readKind(handle.get(), now)) {
        throwForPath(L"Unable to get attributes (%s)", path, code, "RunTime::PinnedPath::pin",
                     __LINE__);
    }
    if (now.isLink() || !now.isDirectory()) {
        throwForPath(L"Unable to open directory (%s), which is a link or a file now", path,
                     ERROR_DIRECTORY, "RunTime::PinnedPath::pin", __LINE__);
    }
    pins_.push_back({length, std::move(handle)});
    return true;
}

} // namespace RunTime
