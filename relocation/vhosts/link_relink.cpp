#include "relocation/vhosts/link_relink.h"

#include "relocation/failure.h"
#include "runtime/accounts/privilege_scope.h"
#include "runtime/exception.h"
#include "runtime/files/file.h"
#include "runtime/files/path.h"
#include "runtime/files/pinned_path.h"
#include "runtime/native_span.h"
#include "runtime/thread_cancelation.h"

#include <algorithm>

namespace {

using RunTime::AutoHandle;
using RunTime::nicePath;

constexpr DWORD anyShare = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;

std::wstring plain(const std::wstring& path) {
    std::wstring text = nicePath(path);
    text.resize(text.find_last_not_of(L'\\') + 1);
    return text;
}

AutoHandle openLink(const std::wstring& path) {
    AutoHandle link =
        RunTime::openExisting(path, FILE_READ_ATTRIBUTES | FILE_WRITE_ATTRIBUTES, anyShare);
    if (!link) {
        const DWORD code = ::GetLastError();
        RunTime::throwForPath(L"Unable to open the link (%s)", path, code, "LinkRelink", __LINE__);
    }
    return link;
}

// Empty for what is no link any more.
std::vector<unsigned char> readLink(HANDLE link, const std::wstring& path) {
    std::vector<unsigned char> data = readReparsePoint(link);
    const DWORD code = data.empty() ? ::GetLastError() : ERROR_SUCCESS;
    if (code != ERROR_SUCCESS && code != ERROR_NOT_A_REPARSE_POINT) {
        RunTime::throwForPath(L"Unable to read the link (%s)", path, code, "LinkRelink", __LINE__);
    }
    return data;
}

FILE_BASIC_INFO readTimes(HANDLE link, const std::wstring& path) {
    FILE_BASIC_INFO times{};
    if (!::GetFileInformationByHandleEx(link, FileBasicInfo, &times, sizeof(times))) {
        const DWORD code = ::GetLastError();
        RunTime::throwForPath(L"Unable to get the times of the link (%s)", path, code, "LinkRelink",
                              __LINE__);
    }
    times.FileAttributes = 0; // stay as they are
    return times;
}

// Puts other data into a link, whose times are not those of its data.
void write(HANDLE link, const std::wstring& path, const std::vector<unsigned char>& data,
           FILE_BASIC_INFO times) {
    if (const DWORD code = writeReparsePoint(link, data)) {
        RunTime::throwForPath(L"Unable to change the link (%s)", path, code, "LinkRelink",
                              __LINE__);
    }
    if (!::SetFileInformationByHandle(link, FileBasicInfo, &times, sizeof(times))) {
        const DWORD code = ::GetLastError();
        RunTime::throwForPath(L"Unable to set the times of the link (%s)", path, code, "LinkRelink",
                              __LINE__);
    }
}

} // namespace

LinkRelink::LinkRelink(const std::wstring& oldRoot)
    : oldRoot_(RunTime::withoutTrailingBackslash(RunTime::longPath(oldRoot))),
      oldForms_{plain(RunTime::longPath(oldRoot))} {
    if (RunTime::exists(oldRoot)) {
        for (std::wstring form : {plain(RunTime::File::longPath(RunTime::longPath(oldRoot))),
                                  plain(RunTime::shortPath(RunTime::longPath(oldRoot)))}) {
            if (std::none_of(oldForms_.begin(), oldForms_.end(), [&](const std::wstring& known) {
                    return RunTime::equalNames(known, form);
                })) {
                oldForms_.push_back(std::move(form));
            }
        }
    }
}

void LinkRelink::add(const std::wstring& path) {
    const AutoHandle link = RunTime::openExisting(path, FILE_READ_ATTRIBUTES, anyShare);
    const std::optional<LinkNames> names =
        link ? linkNames(readReparsePoint(link.get())) : std::nullopt;
    if (!names || names->relative || path.size() <= oldRoot_.size() ||
        lengthInOldRoot(names->target) == 0) {
        return;
    }
    const std::size_t bytes =
        sizeof(Link) + (path.size() - oldRoot_.size() + names->target.size()) * sizeof(wchar_t);
    if (bytes_ + bytes > maxBytes) {
        ++notKept_;
        return;
    }
    bytes_ += bytes;
    links_.push_back({path.substr(oldRoot_.size()), names->target});
}

void LinkRelink::change(const std::wstring& newRoot) {
    const NativeSpan span("LinkRelink::change", __LINE__);
    const ThreadCancelation::CancelationPoint cancellable;
    newRoot_ = RunTime::withoutTrailingBackslash(RunTime::longPath(newRoot));
    const RunTime::PrivilegeScope privileges(
        {SE_BACKUP_NAME, SE_RESTORE_NAME, SE_CREATE_SYMBOLIC_LINK_NAME});
    bool cancel = false;
    progressEvent_Total.raise(static_cast<std::int32_t>(links_.size()), cancel);
    RunTime::PinnedPath pinned(newRoot_);
    for (const Link& link : links_) {
        ThreadCancelation::check();
        if (!cancel) {
            progressEvent_Name.raise(nicePath(newRoot_ + link.path), cancel);
        }
        if (cancel) {
            throw CanceledException({L"", "LinkRelink::change", __LINE__});
        }
        try {
            changeOne(link, pinned);
        } catch (const vosexception& e) {
            bool ignore = false;
            errorEvent.raise(e.message(), ignore);
            if (!ignore) {
                throw;
            }
        }
    }
}

void LinkRelink::resume(const std::wstring& root, std::vector<Changed> links) {
    newRoot_ = RunTime::withoutTrailingBackslash(RunTime::longPath(root));
    done_ = std::move(links);
}

void LinkRelink::rollback() {
    const NativeSpan span("LinkRelink::rollback", __LINE__);
    const RunTime::PrivilegeScope privileges(
        {SE_BACKUP_NAME, SE_RESTORE_NAME, SE_CREATE_SYMBOLIC_LINK_NAME});
    RunTime::PinnedPath inNew(newRoot_);
    RunTime::PinnedPath inOld(oldRoot_);
    changed_ = 0;
    for (std::size_t left = done_.size(); left-- > 0;) {
        const Changed& done = done_[left];
        try {
            // One that is in neither has been removed by its owner. In the old place is either the
            // tree, back by a rename, or the original of what was copied, which names the old
            // place.
            if (!restoreOne(done, newRoot_, inNew)) {
                restoreOne(done, oldRoot_, inOld);
            }
        } catch (const vosexception& e) {
            reportFailure(span,
                          L"Unable to restore the link (" + nicePath(newRoot_ + done.path) + L")");
            bool ignore = true;
            errorEvent.raise(e.message(), ignore);
            continue;
        }
        done_.erase(done_.begin() + static_cast<std::ptrdiff_t>(left));
    }
}

// False when it is not there.
bool LinkRelink::restoreOne(const Changed& done, const std::wstring& root,
                            RunTime::PinnedPath& pinned) {
    const std::wstring path = root + done.path;
    try {
        if (!pinned.hold(RunTime::parentPath(path))) {
            return false;
        }
        const AutoHandle link = openLink(path);
        const std::vector<unsigned char> now = readLink(link.get(), path);
        if (now == done.after || now == done.before) { // otherwise it is somebody else's
            write(link.get(), path, done.before, done.times);
        }
        return true;
    } catch (const vosexception& e) {
        if (!RunTime::meansMissing(e.get_errorCode())) {
            throw;
        }
        return false;
    }
}

// Characters of the path that name the old root; 0 when it lies elsewhere.
std::size_t LinkRelink::lengthInOldRoot(const std::wstring& path) const {
    for (const std::wstring& form : oldForms_) {
        if (RunTime::beginsWith(path, form) && RunTime::File::inpath(path, form)) {
            return form.size();
        }
    }
    return 0;
}

void LinkRelink::changeOne(const Link& link, RunTime::PinnedPath& pinned) {
    const std::wstring path = newRoot_ + link.path;
    if (!pinned.hold(RunTime::parentPath(path))) {
        RunTime::throwForPath(L"Unable to find the link (%s)", path, ERROR_PATH_NOT_FOUND,
                              "LinkRelink::changeOne", __LINE__);
    }
    const AutoHandle handle = openLink(path);
    std::vector<unsigned char> before = readLink(handle.get(), path);
    std::optional<LinkNames> names = linkNames(before);
    if (!names || names->relative || names->target != link.target) {
        return; // its owner was quicker
    }
    const auto moved = [&](const std::wstring& name) {
        return nicePath(newRoot_) + name.substr(lengthInOldRoot(name));
    };
    names->target = moved(names->target);
    if (!names->print.empty()) {
        names->print = lengthInOldRoot(names->print) != 0 ? moved(names->print) : names->target;
    }
    std::vector<unsigned char> after = linkData(*names);
    const FILE_BASIC_INFO times = readTimes(handle.get(), path);
    // Recorded before it is done: a failure between its steps is undone, too.
    done_.push_back({link.path, std::move(before), std::move(after), times});
    changingEvent.raise(done_.back());
    write(handle.get(), path, done_.back().after, times);
    ++changed_;
}
