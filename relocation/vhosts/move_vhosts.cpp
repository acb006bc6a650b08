#include "relocation/vhosts/move_vhosts.h"

#include "config/tarvo_srv_client.h"
#include "relocation/directory.h"
#include "relocation/failure.h"
#include "relocation/vhosts/interrupted_move.h"
#include "relocation/vhosts/replace_file_path.h"
#include "runtime/accounts/factory.h"
#include "runtime/exception.h"
#include "runtime/files/file.h"
#include "runtime/format_string.h"
#include "runtime/log_manager.h"
#include "runtime/native_span.h"
#include "runtime/process/product_utility.h"
#include "runtime/registry/config_values.h"
#include "runtime/registry/registry.h"
#include "runtime/thread_cancelation.h"
#include "security/access.h"

using RunTime::Directory;
using RunTime::nicePath;

namespace {

constexpr wchar_t vhostsSetting[] = L"HTTPD_VHOSTS_D";
constexpr wchar_t serversFailure[] = L"Unable to remove old IIS FTP 'servers' directory";
constexpr wchar_t setAsidePrefix[] = L"$Backup";

void log(const std::wstring& text) {
    LogManager::getInstance().vAddLog(LogType::Information, text);
}

std::wstring joined(const std::vector<std::wstring>& words) {
    std::wstring text;
    for (const std::wstring& word : words) {
        text += L" " + word;
    }
    return text;
}

// By way of the short form every component comes out with its long name, as it is on disk. Where
// the short form is not to be had, those that are long already stay as they are given.
std::wstring longNames(const std::wstring& existing) {
    std::wstring path = existing;
    try {
        path = RunTime::shortPath(existing);
    } catch (const vosexception&) {
    }
    return RunTime::longNamePath(path);
}

// Nice, absolute, without a backslash at the end, and with long names as far as the path exists, or
// its parent does: two paths to one directory are equal then.
std::wstring normalised(const std::wstring& path) {
    const std::wstring whole = RunTime::withoutTrailingBackslash(RunTime::longPath(path));
    if (RunTime::exists(whole)) {
        return RunTime::withoutTrailingBackslash(nicePath(longNames(whole)));
    }
    const std::wstring parent = RunTime::parentPath(whole);
    if (parent.empty() || !RunTime::exists(parent)) {
        return nicePath(whole);
    }
    return nicePath(RunTime::combine(longNames(parent), RunTime::lastName(whole)));
}

// Where to is above from, what has from's name below from would be moved into from, and go with it.
void refusePlaceOfItsOwn(const std::wstring& from, const std::wstring& to) {
    if (!RunTime::isStrictlyInside(from, to)) {
        return;
    }
    const std::wstring above = to.substr(0, to.find_last_not_of(L'\\') + 1);
    const std::wstring item = RunTime::combine(from, from.substr(above.size() + 1));
    if (RunTime::exists(item)) {
        throw vexception(formatString(L"Unable to move (%s) to (%s), which is moved itself",
                                      nicePath(item).c_str(), nicePath(from).c_str()),
                         {L"", "MoveVHosts::moveInternal", __LINE__});
    }
}

} // namespace

MoveVHosts::MoveVHosts()
    : information_(UserManagement::UserInformation::createInstance()),
      users_(UserManagement::Factory::createInstance(information_), information_),
      progress_(progressEvent_Cost, progressEvent_Name, subProgressEvent_Start,
                subProgressEvent_End),
      wwwRoot_(std::make_unique<WwwRootReconfigure>()),
      aspNet_(std::make_unique<AspNetReconfigure>()),
      phpSettings_(std::make_unique<PHPSettingsReconfigure>(std::wstring(), std::wstring())),
      installerPaths_(HKEY_LOCAL_MACHINE, installerKey) {
    registerHooks();
}

MoveVHosts::~MoveVHosts() = default;

MoveVHosts::Running::Running(MoveVHosts& owner) : owner_(owner) {
    if (owner.isRunning_) {
        throw vexception(L"A move, commit or rollback of the virtual hosts is under way",
                         {L"", "MoveVHosts::Running", __LINE__});
    }
    owner.isRunning_ = true;
}

void MoveVHosts::registerHooks() {
    const auto total1 = [this](std::int32_t items, std::int64_t bytes, bool& cancel) {
        progress_.progress1_TotalHandler(items, bytes, cancel);
    };
    const auto name1 = [this](const std::wstring& name, bool isFile, std::int64_t cost,
                              bool& cancel) {
        progress_.progress1_NameHandler(name, isFile, cost, cancel);
    };
    const auto total2 = [this](std::int32_t items, bool& cancel) {
        progress_.progress2_TotalHandler(items, cancel);
    };
    const auto name2 = [this](const std::wstring& name, bool& cancel) {
        progress_.progress2_NameHandler(name, cancel);
    };
    const auto error_Handler = [this](const std::wstring& message) { errorEvent.raise(message); };
    const auto ignorebleError_Handler = [this](const std::wstring& message, bool& ignore) {
        ignorebleErrorEvent.raise(message, ignore);
    };
    const auto hook = [this](auto& event, auto handler) {
        hooks_.push_back(event.hook(std::move(handler)));
    };

    hook(backupmove::progressEvent_Total, total1);
    hook(backupmove::progressEvent_Name, name1);
    hook(backupmove::errorEvent, ignorebleError_Handler);

    hook(users_.progressEvent_Total, total2);
    hook(users_.progressEvent_Name, name2);
    hook(users_.progressEvent_MoveUserHomeStart,
         [this](bool& cancel) { progress_.subProgressEvent_StartHandler(cancel); });
    hook(users_.progressEvent_MoveUserHomeEnd,
         [this](bool& cancel) { progress_.subProgressEvent_EndHandler(cancel); });
    hook(users_.progressEvent_MoveUserHomeTotal, total1);
    hook(users_.progressEvent_MoveUserHomeName, name1);
    hook(users_.errorEvent, error_Handler);
    hook(users_.ignorebleErrorEvent, ignorebleError_Handler);

    hook(sites_.progressEvent_Total, total2);
    hook(sites_.progressEvent_Name, name2);
    hook(sites_.progressEvent_MoveDomainTotal, total1);
    hook(sites_.progressEvent_MoveDomainName, name1);
    hook(sites_.errorEvent, error_Handler);
    hook(sites_.ignorebleErrorEvent, ignorebleError_Handler);

    for (Reconfigure* reconfigurer :
         {static_cast<Reconfigure*>(appVault_.get()), static_cast<Reconfigure*>(wwwRoot_.get()),
          static_cast<Reconfigure*>(aspNet_.get())}) {
        if (reconfigurer != nullptr) {
            hook(reconfigurer->progressEvent_Total, total2);
            hook(reconfigurer->progressEvent_Name, name2);
            hook(reconfigurer->errorEvent, ignorebleError_Handler);
        }
    }
}

bool MoveVHosts::move(const std::wstring& from, const std::wstring& to) {
    return start(&from, to);
}

bool MoveVHosts::move(const std::wstring& to) {
    return start(nullptr, to);
}

bool MoveVHosts::start(const std::wstring* from, const std::wstring& to) {
    const NativeSpan span("MoveVHosts::move", __LINE__);
    const Running running(*this);
    const ThreadCancelation::CancelationPoint cancellable;
    if (!record_.begun.empty()) {
        throw vexception(L"Unable to start new transaction", {L"", "MoveVHosts::move", __LINE__});
    }
    failed_.clear();
    report_.clear();
    leftBehind_.clear();
    pendingRestart_.clear();
    progress_.clear();
    try {
        saveVars();
        return moveInternal(from != nullptr ? *from : oldPath_, to);
    } catch (...) {
        logFailure(L"Move of the virtual hosts");
        clearVars();
        if (record_.begun.empty()) {
            forgetFile();
        }
        throw;
    }
}

void MoveVHosts::saveVars() {
    oldPath_ = TarvoSrvClient::getInstance().getString(vhostsSetting);
    installerPaths_.save(oldPath_);
}

void MoveVHosts::clearVars() noexcept {
    oldPath_.clear();
    installerPaths_.clear();
}

bool MoveVHosts::moveInternal(const std::wstring& source, const std::wstring& target) {
    checkCanceled();
    RunTime::longPath(source); // before anything is changed: whether these are paths at all
    RunTime::longPath(target);
    file_ = MoveRecord::create(oldPath_, source, target);

    enterStep(2, L"Reconfiguring FTP first stage...");
    nameStep(L"Reconfigure FTP server: first stage");
    begin(Part::FtpSites);
    runUtil({L"--remove-all"}, L"ftphostctl.exe", true);

    enterStep(3, L"Formating paths...");
    record_.from = normalised(source);
    record_.to = normalised(target);
    const std::wstring& from = record_.from;
    const std::wstring& to = record_.to;
    refusePlaceOfItsOwn(from, to);
    if (wwwRoot_) {
        wwwRoot_->remember(from);
    }
    file_->paths(from, to);

    enterStep(4, L"Storing paths...");
    record_.setting = oldPath_;
    begin(Part::Setting);
    log(formatString(L"%s: (%s) becomes (%s)", vhostsSetting, oldPath_.c_str(), to.c_str()));
    TarvoSrvClient::getInstance().setString(vhostsSetting, to);

    enterStep(5, L"Fixing multiple paths...");
    record_.installer.emplace(installerPaths_);
    file_->values(installerPaths_.plan(to));
    begin(Part::Installer);
    installerPaths_.change(to);

    progress_.push();
    enterStep(7, L"Fixing permissions...");
    makeTarget();

    enterStep(8, L"Moving users...");
    begin(Part::Users);
    users_.set_streams(get_streams());
    users_.set_copyOwner(get_copyOwner());
    users_.set_record(file_.get());
    if (users_.move(from, to)) {
        throw CanceledException({L"", "MoveVHosts::moveInternal", __LINE__});
    }

    enterStep(9, L"Moving folders...");
    moveTree();

    enterStep(10, L"Repairing permissions for all subscriptions...");
    checkCanceled();
    nameStep(L"Repairing permissions for all subscriptions");
    runCreationUtil(L"repair.php", {L"--repair-all-webspaces-security"});

    enterStep(11, L"Moving sites in IIS...");
    begin(Part::Sites);
    sites_.set_record(file_.get());
    if (sites_.change(from, to)) {
        throw CanceledException({L"", "MoveVHosts::moveInternal", __LINE__});
    }

    if (wwwRoot_) {
        wwwRoot_->set_record(file_.get());
    }
    reconfigure(12, L"Reconfiguring www roots...", Part::WwwRoot, wwwRoot_.get());
    reconfigure(13, L"Reconfiguring application vaults...", Part::AppVault, appVault_.get());
    reconfigure(14, L"Reconfiguring ASP.NET settings...", Part::AspNet, aspNet_.get());
    enterStep(15, L"Reconfiguring PHP settings...");
    if (phpSettings_) {
        begin(Part::Php);
        phpSettings_->reconfigure(from, to);
    }

    enterStep(16, L"Fixing atmail settings...");
    fixWebmail();

    enterStep(17, L"Reconfiguring FTP second stage...");
    setServersAside();
    checkCanceled();
    nameStep(L"Reconfigure FTP server: second stage");
    runCreationUtil(L"repair.php", {L"--reconfigure-ftp-sites"});
    file_->completed();
    return false;
}

void MoveVHosts::begin(Part part) {
    file_->begin(part);
    record_.begun.insert(part);
}

void MoveVHosts::makeTarget() {
    if (!RunTime::exists(record_.to)) {
        const RunTime::DescriptorBytes security = RunTime::Access::getSecurity(record_.from);
        file_->made(Directory::missing(record_.to));
        begin(Part::Target);
        Directory::intermediate(record_.to, &security, record_.made);
    }
    if (!RunTime::isDirectory(record_.to)) {
        throw vexception(
            formatString(L"Destinition (%s) is not a directory", nicePath(record_.to).c_str()),
            {L"", "MoveVHosts::moveInternal", __LINE__});
    }
}

void MoveVHosts::intend(Intent intent, const std::wstring& name) {
    switch (intent) {
    case Intent::SetAside:
        file_->setAside(name);
        break;
    case Intent::Rename:
        file_->way(RecordedMove::Way::Rename, {});
        break;
    case Intent::Copy:
        file_->way(RecordedMove::Way::Copy, name);
        break;
    }
}

void MoveVHosts::moveTree() {
    file_->tree(InterruptedMove::identityOf(record_.from));
    begin(Part::Tree);
    for (const std::unique_ptr<backupmove>& home : users_.get_movers()) {
        leaveOut(*home);
    }
    for (const std::wstring& directory : record_.made) {
        adopt(directory);
    }
    for (const std::wstring& directory : users_.get_made()) {
        adopt(directory);
    }
    // True means that a rename did it; a cancel is an exception.
    record_.renamed = backupmove::move(record_.from, record_.to, false);
}

void MoveVHosts::reconfigure(int number, const wchar_t* logLine, Part part, Reconfigure* what) {
    enterStep(number, logLine);
    if (what == nullptr) {
        return;
    }
    begin(part);
    if (what->reconfigure(record_.from, record_.to, true)) {
        throw CanceledException({L"", "MoveVHosts::moveInternal", __LINE__});
    }
}

std::wstring MoveVHosts::webmailFile(const std::wstring& vhosts) {
    return RunTime::combine(vhosts, L"webmail\\atmail\\libs\\Atmail\\config.php");
}

void MoveVHosts::fixWebmail() {
    const std::wstring from = normalised(record_.from);
    const std::wstring to = normalised(record_.to);
    if (RunTime::equalNames(from, to)) {
        return;
    }
    const std::wstring file = webmailFile(to);
    record_.webmail = SavedFile::of(file, to);
    if (record_.webmail && (from + to).find(L'\'') != std::wstring::npos) {
        record_.webmail.reset();
        const std::wstring text =
            formatString(L"Not rewritten: (%s). A quotation mark in (%s) or (%s) would end a text "
                         L"in it. Change by hand what names the former",
                         file.c_str(), from.c_str(), to.c_str());
        LogManager::getInstance().vAddLog(LogType::Warning, text);
        errorEvent.raise(text);
    } else if (record_.webmail) {
        file_->webmail(record_.webmail->stamp());
        begin(Part::Webmail);
        RunTime::replaceFilePathInFile(file, from, to, to);
    }
}

// What rollback() may need again is removed at commit() only; until then it has another name.
void MoveVHosts::setServersAside() {
    const NativeSpan span("MoveVHosts::removeServers", __LINE__);
    try {
        const std::wstring servers = RunTime::combine(record_.from, L"Servers");
        if (!RunTime::isDirectory(servers) || RunTime::File::inpath(record_.to, servers) ||
            RunTime::theSameDirectory(record_.from, record_.to)) { // it holds the new place, or is
            return;
        }
        const std::wstring name = RunTime::temporaryName(record_.from, setAsidePrefix);
        file_->servers(name);
        RunTime::moveEx(servers, name);
        record_.serversAside = name;
        record_.begun.insert(Part::Servers);
        log(formatString(L"(%s) is (%s) until the move is committed", servers.c_str(),
                         nicePath(record_.serversAside).c_str()));
    } catch (...) {
        reportFailure(span, serversFailure);
    }
}

bool MoveVHosts::commit() {
    const NativeSpan span("MoveVHosts::commit", __LINE__);
    const Running running(*this);
    const ThreadCancelation::CancelationPoint shielded(false);
    if (record_.begun.empty()) {
        return false;
    }
    if (!isMoved()) {
        throw vexception(L"Unable to commit: the move was not completed and must be rolled back",
                         {L"", "MoveVHosts::commit", __LINE__});
    }
    if (record_.undoing) {
        throw vexception(L"Unable to commit: the rollback has begun and must be repeated",
                         {L"", "MoveVHosts::commit", __LINE__});
    }
    const FoldedProgress::Shield shield(progress_);
    if (!committing_) {
        file_->commit();
    }
    committing_ = true;
    leftBehind_.clear();
    pendingRestart_.clear();
    removeServersAside(); // first: it lies where the others remove what they know
    const bool canceled = users_.commit();
    sites_.commit();
    backupmove::commit();
    gatherLeftovers();
    forgetFile();
    clearVars();
    progress_.pop();
    record_ = {};
    committing_ = false;
    return canceled;
}

void MoveVHosts::recordLink(const LinkRelink::Changed& link) {
    if (file_ && record_.renamed) {
        file_->link(link);
    }
}

// The move is final or undone all the same, and recovering it once more does no harm.
void MoveVHosts::forgetFile() noexcept {
    if (!file_) {
        return;
    }
    try {
        file_->remove();
    } catch (...) {
        logFailure(L"Remove the record of the move");
    }
    file_.reset();
}

void MoveVHosts::removeServersAside() {
    if (record_.serversAside.empty()) {
        return;
    }
    const NativeSpan span("MoveVHosts::removeServers", __LINE__);
    try {
        Directory servers(record_.serversAside, true);
        const Hook hooks[] = {
            servers.progressEvent_Total.hook(
                [this](std::int32_t items, std::int64_t bytes, bool& cancel) {
                    progress_.progress1_TotalHandler(items, bytes, cancel);
                }),
            servers.progressEvent_Name.hook([this](const std::wstring& name, bool isFile,
                                                   std::int64_t cost, bool& cancel) {
                progress_.progress1_NameHandler(L"Remove: " + nicePath(name), isFile, cost, cancel);
            }),
        };
        servers.remove(RunTime::defaultTryCount, true, true, nullptr);
    } catch (...) {
        reportFailure(span, serversFailure);
    }
    record_.serversAside.clear();
}

void MoveVHosts::enterStep(std::int32_t number, const wchar_t* logLine) {
    log(logLine);
    stepEvent.raise(number, logLine);
}

void MoveVHosts::checkCanceled() {
    ThreadCancelation::check();
    bool cancel = false;
    progress_.raiseCost(1, cancel);
    if (cancel) {
        throw CanceledException({L"", "MoveVHosts::moveInternal", __LINE__});
    }
}

void MoveVHosts::nameStep(const wchar_t* name) {
    bool cancel = false;
    progress_.raiseName(name, 1, 1, -1, cancel);
    if (cancel) {
        throw CanceledException({L"", "MoveVHosts::moveInternal", __LINE__});
    }
}

void MoveVHosts::runUtil(const std::vector<std::wstring>& arguments, const std::wstring& program,
                         bool is64Bit) {
    const std::wstring call = L"call (" + program + joined(arguments);
    const vexception::CallStackInfo site(L"", "MoveVHosts::runUtil", __LINE__);
    try {
        is64Bit ? RunTime::execUtil64Bit(program, arguments)
                : RunTime::execUtil(program, arguments);
    } catch (const CanceledException&) {
        throw;
    } catch (const RunTime::UtilityException& error) {
        if (error.hasOwnMessage()) {
            throw vexception(call + L") " + error.message(), site);
        }
        throw vexception(call + formatString(L") empty message from utilty with exit status %lu",
                                             error.exitStatus()),
                         site);
    } catch (const vexception& error) {
        throw vexception(call + L") " + error.message(), site);
    }
}

void MoveVHosts::runCreationUtil(const std::wstring& script,
                                 const std::vector<std::wstring>& arguments) {
    const vexception::CallStackInfo site(L"", "MoveVHosts::runCreationUtil", __LINE__);
    const std::wstring root = RunTime::withoutTrailingBackslash(registry::getstr(
        HKEY_LOCAL_MACHINE, config::configKey, config::name::productRoot, RegistryView::View32));
    const std::wstring path = root + L"\\admin\\modlib\\cu\\" + script;
    const std::wstring failure =
        formatString(L"Unable to execute (%s) ", (path + joined(arguments)).c_str());
    RunTime::Execute::Result done;
    try {
        done = RunTime::execScript(path, arguments);
    } catch (const CanceledException&) {
        throw;
    } catch (const vexception& error) {
        throw vexception(failure + error.message(), site);
    }
    if (done.exitStatus != 0) {
        const std::wstring output =
            done.output.substr(0, done.output.find_last_not_of(L" \t\r\n") + 1);
        throw vexception(failure + formatString(L"exit status %lu", done.exitStatus) +
                             (output.empty() ? L"" : L": " + output),
                         site);
    }
}
