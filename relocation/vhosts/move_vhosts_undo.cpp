// How MoveVHosts puts back what a move has changed.
#include "relocation/vhosts/move_vhosts.h"

#include "config/tarvo_srv_client.h"
#include "relocation/failure.h"
#include "relocation/vhosts/replace_file_path.h"
#include "runtime/exception.h"
#include "runtime/files/file.h"
#include "runtime/log_manager.h"
#include "runtime/native_span.h"
#include "runtime/thread_cancelation.h"

#include <algorithm>

// Attempts one part after another and gathers what fails.
class MoveVHosts::PuttingBack {
public:
    PuttingBack(MoveVHosts& owner, const NativeSpan& span) : owner_(owner), span_(span) {}

    // A part that succeeds, or was not begun, has nothing left to do.
    template <class Action>
    void attempt(Part part, const wchar_t* name, Action&& action) {
        if (!owner_.isBegun(part)) {
            return;
        }
        try {
            action();
            owner_.record_.begun.erase(part);
        } catch (...) {
            report(name);
            failures_ +=
                (failures_.empty() ? L"" : L"; ") + std::wstring(name) + L": " + currentCause();
        }
    }

    // For what may fail: it is said, and no more.
    template <class Action>
    void attemptAside(const wchar_t* name, Action&& action) {
        try {
            action();
        } catch (...) {
            report(name);
        }
    }

    // For what the others may make good: the failure is only logged, and returned for tell().
    template <class Action>
    std::wstring attemptFirst(const wchar_t* name, Action&& action) {
        try {
            action();
            return {};
        } catch (...) {
            reportFailure(span_, name);
            return std::wstring(name) + L": " + currentCause();
        }
    }

    void tell(const std::wstring& failure) const {
        try {
            owner_.errorEvent.raise(failure);
        } catch (...) { // a listener; the parts that follow must still be put back
            logFailure(failure);
        }
    }

    const std::wstring& failures() const noexcept { return failures_; }

private:
    void report(const wchar_t* name) const {
        reportFailure(span_, name);
        tell(std::wstring(name) + L": " + currentCause());
    }

    MoveVHosts& owner_;
    const NativeSpan& span_;
    std::wstring failures_;
};

bool MoveVHosts::rollback() {
    return isMoved() && putBack(true);
}

bool MoveVHosts::undo() {
    return putBack(false);
}

bool MoveVHosts::recover(InterruptedMove interrupted) {
    const NativeSpan span("MoveVHosts::recover", __LINE__);
    {
        const Running running(*this);
        if (!record_.begun.empty()) {
            throw vexception(L"Unable to start new transaction",
                             {L"", "MoveVHosts::recover", __LINE__});
        }
        leftBehind_.clear();
        pendingRestart_.clear();
        const InterruptedMove::Outlook outlook = interrupted.outlook();
        if (outlook.way == InterruptedMove::Way::Refused) {
            throw vexception(outlook.reason + L" " + outlook.remedy,
                             {L"", "MoveVHosts::recover", __LINE__});
        }
        const RecordedMove move = interrupted.move();
        if (outlook.way == InterruptedMove::Way::Finish || move.parts.empty()) {
            leftBehind_ = outlook.left;
            interrupted.takeRecord()->remove();
            return false;
        }
        try {
            resume(move, outlook);
        } catch (...) {
            record_ = {};
            throw;
        }
        file_ = interrupted.takeRecord();
    }
    return undo();
}

void MoveVHosts::resume(const RecordedMove& move, const InterruptedMove::Outlook& outlook) {
    record_.begun = move.parts;
    record_.from = move.from;
    record_.to = move.to;
    record_.setting = move.setting;
    record_.renamed = move.way == RecordedMove::Way::Rename;
    record_.left = outlook.left;
    record_.made = move.made;
    if (!move.made.empty()) { // said when it is not empty
        std::erase(record_.left, move.to);
    }
    if (isBegun(Part::Users)) {
        users_.resume(move.from, move.to, move.users);
    }
    record_.installer.emplace(HKEY_LOCAL_MACHINE, installerKey);
    record_.installer->resume(move.values);
    if (!move.serversAside.empty() && RunTime::exists(move.serversAside) &&
        !RunTime::exists(RunTime::combine(move.from, L"Servers"))) {
        record_.serversAside = move.serversAside;
        record_.begun.insert(Part::Servers);
    }
    record_.webmailStamp = move.webmail;
    if (record_.renamed && !move.links.empty()) {
        record_.links = move.links;
        record_.begun.insert(Part::Links);
    }
    sites_.resume(move.to, move.sites);
    wwwRoot_->resume(move.from, move.to, move.hasRoots, move.roots);
    phpSettings_ = std::make_unique<PHPSettingsReconfigure>(move.from, move.to);
    record_.begun.erase(Part::Tree); // unless there is something to do
    if (outlook.isOldPlaceEmpty) {
        RunTime::removeDirectory(move.from);
    }
    if (outlook.isRenamed || !outlook.aside.empty()) {
        resumeRename(move.from, move.to, outlook.isRenamed, outlook.aside);
        record_.begun.insert(Part::Tree);
    }
}

bool MoveVHosts::putBack(bool ftpMayFail) {
    const NativeSpan span("MoveVHosts::rollback", __LINE__);
    const Running running(*this);
    const ThreadCancelation::CancelationPoint shielded(false);
    const FoldedProgress::Shield shield(progress_);
    if (record_.begun.empty()) {
        clearVars();
        return false;
    }
    if (committing_) { // old copies are gone
        throw vexception(L"Unable to rollback: the commit has begun and must be repeated",
                         {L"", "MoveVHosts::rollback", __LINE__});
    }
    record_.undoing = true;
    leftBehind_.clear();
    pendingRestart_.clear();
    progress_.clear(); // a failure may have left frames of homes
    progress_.push();

    PuttingBack parts(*this, span);
    bool canceled = false;
    // What the utilities do follows the setting.
    const auto needSetting = [&] {
        if (isBegun(Part::Setting)) {
            throw vexception(L"HTTPD_VHOSTS_D has not been put back",
                             {L"", "MoveVHosts::rollback", __LINE__});
        }
    };
    const auto reconfigureBack = [&](Part part, const wchar_t* name, Reconfigure* what) {
        parts.attempt(part, name, [&] {
            if (what == nullptr) { // no step of this version; another's record may tell of it
                return;
            }
            needSetting();
            what->reconfigure(record_.to, record_.from, false);
            if (!what->get_failure().empty()) {
                throw vexception(what->get_failure(), {L"", "MoveVHosts::rollback", __LINE__});
            }
        });
    };
    constexpr const wchar_t* ftpFailure = L"Unable to restore IIS FTP settings";

    const std::wstring firstStageFailure = parts.attemptFirst(ftpFailure, [&] {
        checkCanceled();
        nameStep(L"Reconfigure FTP server: first stage");
        runUtil({L"--remove-all"}, L"ftphostctl.exe", true);
    });
    parts.attempt(Part::Setting, L"Unable to restore HTTPD_VHOSTS_D", [&] { restoreSetting(); });
    parts.attempt(Part::Installer, L"Unable to restore the installer's values", [&] {
        if (!record_.installer->restore()) {
            throw vexception(L"the log says which", {L"", "MoveVHosts::rollback", __LINE__});
        }
    });
    parts.attempt(Part::Servers, L"Unable to restore the directory of the FTP server", [&] {
        RunTime::moveEx(record_.serversAside, RunTime::combine(record_.from, L"Servers"));
    });
    parts.attempt(Part::Webmail, L"Unable to restore the webmail settings",
                  [&] { restoreWebmail(); });
    parts.attempt(Part::Links, L"Unable to restore links", [&] { restoreLinks(); });
    parts.attempt(Part::Tree, L"Unable to restore the directory of virtual hosts",
                  [&] { backupmove::rollback(); });
    parts.attempt(Part::Sites, L"Unable to restore IIS sites", [&] {
        const bool stopped = sites_.rollback();
        canceled = canceled || stopped;
    });
    parts.attempt(Part::Users, L"Unable to restore users", [&] { restoreUsers(canceled); });
    reconfigureBack(Part::WwwRoot, L"Unable to restore www roots", wwwRoot_.get());
    reconfigureBack(Part::AppVault, L"Unable to restore application vaults", appVault_.get());
    reconfigureBack(Part::AspNet, L"Unable to restore ASP.NET settings", aspNet_.get());
    parts.attempt(Part::Php, L"Unable to restore PHP settings", [&] {
        needSetting();
        phpSettings_->rollback();
    });
    parts.attempt(Part::Target, L"Unable to remove the directory made for the move",
                  [&] { removeTarget(); });

    const bool othersAreBack = parts.failures().empty();
    bool ftpIsBack = false;
    const auto secondStage = [&] {
        checkCanceled();
        nameStep(L"Reconfigure FTP server: second stage");
        needSetting();
        runCreationUtil(L"repair.php", {L"--reconfigure-ftp-sites"});
        ftpIsBack = true;
    };
    if (ftpMayFail) {
        parts.attemptAside(ftpFailure, secondStage);
    } else {
        parts.attempt(Part::FtpSites, ftpFailure, secondStage);
    }
    if (!ftpIsBack && !firstStageFailure.empty()) { // else the second stage has made it good
        parts.tell(firstStageFailure);
    }
    gatherLeftovers();
    if (!parts.failures().empty()) {
        if (!othersAreBack) {
            record_.begun.insert(Part::FtpSites); // to be made anew when the others are
        }
        throw vexception(L"Unable to put everything back. Remove the cause and roll back again. " +
                             parts.failures(),
                         {L"", "MoveVHosts::rollback", __LINE__});
    }
    forgetFile();
    clearVars();
    progress_.clear();
    record_ = {};
    return canceled;
}

void MoveVHosts::restoreSetting() {
    LogManager::getInstance().vAddLog(LogType::Information,
                                      L"HTTPD_VHOSTS_D: back to (" + record_.setting + L")");
    TarvoSrvClient::getInstance().setString(L"HTTPD_VHOSTS_D", record_.setting);
}

// A copy goes away as it is, unless the file was in the new place before; a tree that was renamed
// takes its file with it.
void MoveVHosts::restoreWebmail() {
    const std::wstring& root = treeRoot();
    const std::wstring file = webmailFile(root);
    // In a copy that is left the file may have been there before. What named the new place before
    // the move cannot be told from what names it since: rather than wrong, a copy stays as it is.
    if (record_.webmailStamp && !SavedFile::restoreTimes(*record_.webmailStamp, file, root)) {
        const std::optional<SavedFile> copy =
            record_.renamed ? std::nullopt : SavedFile::of(file, root);
        RunTime::replaceFilePathInFile(file, record_.to, record_.from, root);
        if (!SavedFile::restoreTimes(*record_.webmailStamp, file, root) && copy) {
            copy->restore(file, root);
        }
    }
    if (!record_.webmail) {
        return;
    }
    const std::vector<std::wstring>& failed = get_failed();
    const bool wasThere =
        std::any_of(failed.begin(), failed.end(), [this](const std::wstring& name) {
            return RunTime::equalNames(RunTime::nicePath(name), webmailFile(record_.from));
        });
    if (record_.renamed || wasThere) {
        record_.webmail->restore(file, root);
    }
}

// Where the tree that the move has changed is now.
const std::wstring& MoveVHosts::treeRoot() const {
    const bool isBack = record_.renamed && !isBegun(Part::Tree);
    return isBack ? record_.from : record_.to;
}

void MoveVHosts::restoreLinks() {
    const std::wstring& root = treeRoot();
    LinkRelink links(root);
    std::wstring failure;
    const Hook error = links.errorEvent.hook(
        [&failure](const std::wstring& message, bool&) { failure = message; });
    links.resume(root, record_.links);
    links.rollback();
    if (!failure.empty()) {
        throw vexception(failure, {L"", "MoveVHosts::rollback", __LINE__});
    }
}

void MoveVHosts::restoreUsers(bool& canceled) {
    if (treeIsAway()) { // the homes would be looked for where they are not
        throw vexception(L"the directory of virtual hosts has not been put back",
                         {L"", "MoveVHosts::rollback", __LINE__});
    }
    const bool stopped = users_.rollback();
    canceled = canceled || stopped;
    if (users_.isPending()) {
        throw vexception(L"the log says which", {L"", "MoveVHosts::rollback", __LINE__});
    }
}

void MoveVHosts::removeTarget() {
    if (isBegun(Part::Tree) || isBegun(Part::Users)) {
        throw vexception(L"what was moved there has not been put back",
                         {L"", "MoveVHosts::rollback", __LINE__});
    }
    for (; !record_.made.empty(); record_.made.pop_back()) {
        try {
            RunTime::removeDirectory(record_.made.back());
        } catch (const VDirectoryNotEmptyException&) { // it holds what is not ours
            leftBehind_.push_back(RunTime::nicePath(record_.made.back()));
            record_.made.clear();
            return;
        }
    }
}

bool MoveVHosts::treeIsAway() const {
    return isBegun(Part::Tree) && !RunTime::exists(record_.from);
}

void MoveVHosts::gatherLeftovers() {
    const auto add = [](std::vector<std::wstring>& to, const std::vector<std::wstring>& more) {
        to.insert(to.end(), more.begin(), more.end());
    };
    add(leftBehind_, record_.left);
    add(leftBehind_, backupmove::get_leftBehind());
    add(leftBehind_, users_.get_leftBehind());
    add(pendingRestart_, backupmove::get_pendingRestart());
    add(pendingRestart_, users_.get_pendingRestart());
}
