#include "security/hosting/security_manager.h"

#include "runtime/accounts/privilege_scope.h"
#include "runtime/files/file.h"
#include "runtime/files/path.h"
#include "runtime/format_string.h"
#include "runtime/log_manager.h"
#include "runtime/native_span.h"
#include "runtime/thread_cancelation.h"
#include "security/hosting/manager_path_cache.h"
#include "security/hosting/privileges.h"
#include "security/hosting/security_walk.h"
#include "security/sddl.h"

#include <optional>
#include <utility>

namespace HostingSecurity {

namespace {

constexpr DWORD shareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;

void log(LogType type, const wchar_t* format, const std::wstring& path) {
    LogManager::getInstance().vAddLog(type, formatString(format, RunTime::nicePath(path).c_str()));
}

RunTime::DescriptorBytes descriptorOf(const std::wstring& path, int line) {
    const RunTime::AutoHandle handle = RunTime::openExisting(path, READ_CONTROL, shareAll);
    DWORD code = handle ? ERROR_SUCCESS : ::GetLastError();
    RunTime::DescriptorBytes bytes;
    if (code == ERROR_SUCCESS) {
        code = RunTime::readDescriptor(handle.get(), false, bytes);
    }
    if (code != ERROR_SUCCESS) {
        RunTime::throwForPath(L"Unable to read the permissions of (%s)", path, code,
                              "HostingSecurity::SecurityManager::getSecurityInformation", line);
    }
    return bytes;
}

} // namespace

struct SecurityManager::State {
    HostingRoot root;
    HostingKind kind = HostingKind::Forwarding;
    HostingAccounts accounts;
    std::optional<HostingTemplate> loaded; // in place of the installed one
    std::wstring undoFile;
    std::uint64_t replaced = 0;

    // For getSecurityInformation(), while the template stays the same.
    struct Asked {
        explicit Asked(const State& state)
            : tree(state.current().expand(state.accounts)),
              cache(tree, std::make_shared<const ItemAccess>(
                              descriptorOf(RunTime::parentPath(state.root.path), __LINE__))) {}
        TemplateTree tree;
        ManagerPathCache cache;
    };
    std::unique_ptr<Asked> asked;

    HostingTemplate current() const { return loaded ? *loaded : loadSecurity(kind); }
};

SecurityManager::SecurityManager(const std::wstring& root) : state_(std::make_unique<State>()) {
    state_->root = HostingRoot::find(root);
    log(LogType::Information, L"Root path is %s", state_->root.path);
}

SecurityManager::~SecurityManager() = default;

void SecurityManager::setHosting(HostingKind kind, HostingAccounts accounts) {
    state_->kind = kind;
    state_->accounts = std::move(accounts);
    state_->loaded.reset();
    state_->asked.reset();
}

void SecurityManager::loadFromFile(const std::wstring& path) {
    state_->loaded = HostingTemplate::fromFile(path);
    state_->asked.reset();
}

void SecurityManager::saveToFile(const std::wstring& path) const {
    state_->current().save(path);
}

std::vector<DiskSecurity::PolicyEntry> SecurityManager::_expandTemplate() const {
    return state_->current().expand(state_->accounts);
}

void SecurityManager::commit(ICommitCallback& callback, CommitMode mode, bool descend,
                             bool reportAll) {
    const NativeSpan span("HostingSecurity::SecurityManager::commit", __LINE__);
    const ThreadCancelation::CancelationPoint cancellable;
    log(LogType::Information, L"Commiting file system security changes for root path %s",
        state_->root.path);
    state_->undoFile.clear();
    state_->replaced = 0;
    const TemplateTree tree(_expandTemplate());
    const FilePrivileges privileges;
    const SecurityWalk::Options options = {.repair = mode != CommitMode::Report,
                                           .everything = descend && mode != CommitMode::Fast,
                                           .reportAll = reportAll};
    SecurityWalk walk(state_->root, tree, callback, options);
    const auto keep = [&] {
        state_->undoFile = RunTime::nicePath(walk.undoFile());
        state_->replaced = walk.replaced();
    };
    try {
        walk.run();
    } catch (...) {
        keep();
        throw;
    }
    keep();
    if (walk.failures() != 0) {
        LogManager::getInstance().vAddLog(
            LogType::Warning, formatString(L"%llu items below %s were passed over",
                                           static_cast<unsigned long long>(walk.failures()),
                                           RunTime::nicePath(state_->root.path).c_str()));
    }
    LogManager::getInstance().vAddLog(LogType::Information,
                                      L"File system security changes applied successfully");
}

std::wstring SecurityManager::getSecurityInformation(const std::wstring& path) {
    const std::wstring relative = getRootRelativePath(path);
    const std::wstring whole =
        relative.empty() ? state_->root.path : RunTime::combine(state_->root.path, relative);
    const FilePrivileges privileges;
    const bool directory = RunTime::fileInformation(whole).isDirectory();
    const RunTime::DescriptorBytes present = descriptorOf(whole, __LINE__);
    if (!state_->asked) {
        state_->asked = std::make_unique<State::Asked>(*state_);
    }
    const ItemAccess* access = state_->asked->cache.access(
        relative, directory ? RunTime::AceSubject::Directory : RunTime::AceSubject::File);
    return access == nullptr
               ? std::wstring()
               : RunTime::sddlOf(access->wanted(present).data(), DACL_SECURITY_INFORMATION);
}

std::wstring SecurityManager::getRootRelativePath(const std::wstring& path) const {
    const std::wstring whole = RunTime::withoutTrailingBackslash(RunTime::longPath(path));
    const std::wstring& root = state_->root.path;
    if (RunTime::theSameDirectory(whole, root)) {
        return {};
    }
    // The item itself may be a link: what leads to it must not be.
    const std::wstring real =
        RunTime::combine(RunTime::realPath(RunTime::parentPath(whole)), RunTime::lastName(whole));
    if (!RunTime::isStrictlyInside(real, root)) {
        throw RootCorrelationException(
            formatString(L"The path (%s) is not below the root (%s)",
                         RunTime::nicePath(path).c_str(), RunTime::nicePath(root).c_str()),
            {L"", "HostingSecurity::SecurityManager::getRootRelativePath", __LINE__});
    }
    return real.substr(root.size() + 1);
}

std::wstring SecurityManager::getDomainName() const {
    return state_->root.domainName();
}

const std::wstring& SecurityManager::getUndoFile() const noexcept {
    return state_->undoFile;
}

std::uint64_t SecurityManager::getReplacedCount() const noexcept {
    return state_->replaced;
}

} // namespace HostingSecurity
