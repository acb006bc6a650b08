#include "relocation/vhosts/user_list.h"

#include "relocation/copy_privileges.h"
#include "relocation/directory.h"
#include "relocation/failure.h"
#include "relocation/vhosts/move_record.h"
#include "runtime/accounts/privilege_scope.h"
#include "runtime/accounts/user_information.h"
#include "runtime/database/zop_database.h"
#include "runtime/exception.h"
#include "runtime/files/file.h"
#include "runtime/files/pinned_path.h"
#include "runtime/files/volume_kind.h"
#include "runtime/format_string.h"
#include "runtime/log_manager.h"
#include "runtime/native_span.h"
#include "runtime/thread_cancelation.h"

#include <algorithm>
#include <lmerr.h>
#include <map>
#include <set>
#include <utility>

using RunTime::nicePath;

namespace {

std::wstring quoted(const std::wstring& text) {
    return L"\"" + text + L"\"";
}

void throwIfCanceled(bool cancel) {
    if (cancel) {
        throw CanceledException({L"", "UserList::move", __LINE__});
    }
}

// Existing components get their long names.
std::wstring normalized(const std::wstring& path) {
    const std::wstring full = RunTime::withoutTrailingBackslash(RunTime::longPath(path));
    return RunTime::exists(full) ? RunTime::longNamePath(full) : full;
}

// Runs one step of an undo; whatever goes wrong is reported, and the steps behind it run.
template <class Step>
bool attempt(const NativeSpan& span, const std::wstring& what, Step&& step) {
    try {
        step();
        return true;
    } catch (...) {
        reportFailure(span, what);
        return false;
    }
}

// An account that is gone has nothing to be put back.
template <class Change>
void unlessGone(Change&& change) {
    try {
        change();
    } catch (const vosexception& error) {
        if (error.get_errorCode() != NERR_UserNotFound) {
            throw;
        }
    }
}

} // namespace

// Passes on its events for as long as it lives.
class UserList::Mover final : public backupmove {
public:
    explicit Mover(UserList& list) {
        set_streams(list.streams_);
        set_copyOwner(list.copyOwner_);
        hooks_[0] =
            progressEvent_Total.hook([&list](std::int32_t count, std::int64_t cost, bool& cancel) {
                list.backupmove_TotalHandler(count, cost, cancel);
            });
        hooks_[1] = progressEvent_Name.hook(
            [&list](const std::wstring& name, bool isFile, std::int64_t cost, bool& cancel) {
                list.backupmove_NameHandler(name, isFile, cost, cancel);
            });
        hooks_[2] = errorEvent.hook([&list](const std::wstring& message, bool& ignore) {
            list.backupmove_ignorebleErrorEvent_Handler(message, ignore);
        });
    }

private:
    Hook hooks_[3];
};

UserList::UserList(std::shared_ptr<UserManagement::IFactory> factory,
                   std::shared_ptr<UserManagement::IUserInformation> information)
    : factory_(std::move(factory)), information_(std::move(information)) {}

UserList::~UserList() = default;

bool UserList::move(const std::wstring& from, const std::wstring& to) {
    const NativeSpan span("UserList::move", __LINE__);
    const ThreadCancelation::CancelationPoint cancellable;
    ThreadCancelation::check();
    if (isPending() || !unchanged_.empty()) {
        return false;
    }
    clear();
    from_ = normalized(from);
    to_ = normalized(to);
    differentVolume_ = !RunTime::theSameVolume(from_, to_);
    newVolumeHasQuotas_ = (RunTime::volumeKind(to_).flags & FILE_VOLUME_QUOTAS) != 0;

    ZOPDatabase database = ZOPDatabase::connect();
    std::vector<Row> rows = readRows(database);
    PathGroups groups(nicePath(from_));
    for (const Row& row : rows) {
        groups.add(row.login, row.path.empty() ? row.home : nicePath(row.path));
    }
    scanned_ = true;
    bool cancel = false;
    progressEvent_Total.raise(static_cast<std::int32_t>(rows.size()), cancel);
    throwIfCanceled(cancel);
    recordUsers(groups, rows);
    database.forgetSynchronisation();
    for (Row& row : rows) {
        changeUser(database, groups, std::move(row));
    }
    moveHomes();
    completed_ = true;
    return false;
}

bool UserList::commit() {
    const NativeSpan span("UserList::commit", __LINE__);
    if (isPending() && !completed_) {
        throw vexception(
            L"Unable to commit user homes: the move was not completed and must be rolled back",
            {L"", "UserList::commit", __LINE__});
    }
    const ThreadCancelation::CancelationPoint shielded(false);
    mayCancel_ = false;
    committing_ = isPending();
    leftBehind_.clear();
    pendingRestart_.clear();
    bool cancel = false;
    progressEvent_Total.raise(static_cast<std::int32_t>(movers_.size() + users_.size()), cancel);
    RunTime::PinnedPath above(from_);
    while (!movers_.empty()) {
        backupmove& mover = *movers_.front();
        progressEvent_Name.raise(L"Remove user old home " + quoted(mover.get_source()), cancel);
        progressEvent_MoveUserHomeStart.raise(cancel);
        try {
            // What a link leads to since the move is not what was moved.
            if (attempt(span, L"Remove user old home",
                        [&] { holdAbove(above, from_, mover.get_source()); })) {
                mover.commit();
            } else {
                leftBehind_.push_back(nicePath(mover.get_source()));
            }
        } catch (...) {
            progressEvent_MoveUserHomeEnd.raise(cancel);
            throw;
        }
        progressEvent_MoveUserHomeEnd.raise(cancel);
        collectLeftovers(mover);
        movers_.erase(movers_.begin());
    }
    for (const UserInfo& info : users_) {
        progressEvent_Name.raise(L"Remove user " + quoted(info.row.login) + L" old quota", cancel);
        if (info.quotaMoved) { // a limit too many must not keep the move from being made final
            attempt(span, formatString(L"Remove user (%s) old quota", info.row.login.c_str()),
                    [&] { info.user->removeQuota(from_); });
        }
    }
    clear();
    return false;
}

bool UserList::rollback() {
    const NativeSpan span("UserList::rollback", __LINE__);
    if (committing_) { // old homes are gone
        throw vexception(
            L"Unable to rollback user homes: the commit has begun and must be repeated",
            {L"", "UserList::rollback", __LINE__});
    }
    const ThreadCancelation::CancelationPoint shielded(false);
    mayCancel_ = false;
    completed_ = false; // what is put back is not to be made final
    leftBehind_.clear();
    pendingRestart_.clear();
    attempt(span, L"Report the rollback of user homes", [this] {
        bool cancel = false;
        progressEvent_Total.raise(static_cast<std::int32_t>(2 * users_.size() + movers_.size()),
                                  cancel);
    });
    restoreHomes(span);
    restoreQuotas(span);
    std::erase_if(users_,
                  [](const UserInfo& info) { return info.homeRestored && !info.quotaMoved; });
    rollbackMovers(span);
    if (movers_.empty()) { // else homes are left in what was made above them
        removeMade(span);
    }
    if (!isPending()) {
        clear();
    }
    mayCancel_ = true;
    return false;
}

bool UserList::isPending() const noexcept {
    return !users_.empty() || !movers_.empty() || !made_.empty();
}

std::unique_ptr<backupmove> UserList::moveUserHome(const std::wstring& from,
                                                   const std::wstring& to) {
    const NativeSpan span("UserList::moveUserHome", __LINE__);
    const RunTime::PrivilegeScope privilege{SE_BACKUP_NAME};
    const std::wstring target = RunTime::longPath(to);
    // Who has rights in the new directory could lead what is made and copied to elsewhere.
    RunTime::PinnedPath above(to_);
    const auto holdTarget = [&] {
        if (RunTime::isStrictlyInside(target, to_)) {
            above.hold(RunTime::parentPath(target));
        }
    };
    holdTarget();
    if (const std::wstring parent = RunTime::parentPath(target); !parent.empty()) {
        RunTime::Directory::intermediate(parent, nullptr, made_);
    }
    holdTarget();
    std::unique_ptr<backupmove> mover = std::make_unique<Mover>(*this);
    try {
        mover->move(from, to, true);
    } catch (...) {
        undoPartialMove(std::move(mover), span);
        throw;
    }
    return mover;
}

std::vector<UserList::Row> UserList::readRows(ZOPDatabase& database) const {
    std::vector<Row> rows;
    for (const auto found = database.enumUsers(); found->next();) {
        Row row;
        row.login = found->text(L"login").value_or(L"");
        row.home = found->text(L"home").value_or(L"");
        row.quota = std::wcstoull(found->text(L"quota").value_or(L"0").c_str(), nullptr, 10);
        row.path = homePath(row.home);
        rows.push_back(std::move(row));
    }
    return rows;
}

// Empty for a text that is no path by itself. The disk is asked only where the answer may matter:
// a home elsewhere may be on a server that does not answer.
std::wstring UserList::homePath(const std::wstring& home) const {
    if (!RunTime::isFullyQualified(home)) {
        return {};
    }
    std::wstring path;
    try {
        path = RunTime::withoutTrailingBackslash(RunTime::longPath(home));
    } catch (const ArgumentException&) { // names a device
        return {};
    } catch (const vosexception&) { // too long, or no name
        return {};
    }
    const bool mayHaveShortNames =
        path.find(L'~') != std::wstring::npos && !commonPathPart(path, from_).empty();
    return mayHaveShortNames || RunTime::File::inpath(path, from_) ? normalized(path) : path;
}

// In long form; empty where the home stays. Only the group that the directory itself is the root of
// moves with it. What else a group's root would make of a home leads to where another home, or
// something of the new directory's own, may be.
std::wstring UserList::newPathOf(const PathGroups& groups, const Row& row) const {
    const std::wstring root = groups.rootOf(row.login).value_or(L"");
    std::wstring directory = nicePath(from_);
    directory.resize(directory.find_last_not_of(L'\\') + 1);
    if (row.path.empty() || !RunTime::equalNames(root, directory) ||
        !RunTime::File::inpath(row.path, from_)) { // "..", which a long path keeps
        return {};
    }
    const std::wstring remainder = nicePath(row.path).substr(root.size());
    return remainder.size() > 1 ? RunTime::combine(to_, remainder.substr(1)) : to_;
}

// All that may be changed, at once; what the accounts had comes as they are asked.
void UserList::recordUsers(const PathGroups& groups, const std::vector<Row>& rows) const {
    if (record_ == nullptr) {
        return;
    }
    std::vector<RecordedMove::User> users;
    for (const Row& row : rows) {
        const std::wstring newPath = newPathOf(groups, row);
        if (!newPath.empty() && !row.login.empty()) { // which is no account
            users.push_back({row.login, row.home, nicePath(newPath), std::nullopt, false, {}});
        }
    }
    record_->users(users);
}

void UserList::resume(const std::wstring& from, const std::wstring& to,
                      const std::vector<RecordedMove::User>& users) {
    clear();
    from_ = normalized(from);
    to_ = normalized(to);
    ZOPDatabase database = ZOPDatabase::connect();
    std::map<std::wstring, std::wstring> homes; // by login
    for (const auto found = database.enumUsers(); found->next();) {
        homes[found->value(L"login")] = found->text(L"home").value_or(L"");
    }
    for (const RecordedMove::User& user : users) {
        const auto row = homes.find(user.login);
        const bool isChanged = row != homes.end() && row->second == user.newHome;
        UserInfo info;
        std::wstring accountHome;
        if (information_->userExists(user.login)) {
            info.user = factory_->getUser(user.login);
            accountHome = info.user->getHomeDirectory();
        }
        // What the account had may have been lost with the machine's power, and not the change.
        if (!isChanged && accountHome != user.newHome && !user.accountHome) {
            continue;
        }
        info.row.login = user.login;
        info.row.home = isChanged || row == homes.end() ? user.home : row->second;
        info.quotaMoved = user.quotaMoved;
        info.oldQuota = user.oldQuota;
        info.oldHome = accountHome == user.newHome ? user.accountHome.value_or(user.home)
                                                   : std::move(accountHome);
        users_.push_back(std::move(info));
    }
}

void UserList::changeUser(ZOPDatabase& database, const PathGroups& groups, Row row) {
    ThreadCancelation::check();
    bool cancel = false;
    progressEvent_Name.raise(L"Change user: " + quoted(row.login) + L" settings", cancel);
    throwIfCanceled(cancel);
    if (!information_->userExists(row.login)) {
        errorEvent.raise(L"Unable to change home of " + quoted(row.login) +
                         L" because user does not exist.");
        return;
    }
    std::wstring newPath = newPathOf(groups, row);
    if (newPath.empty()) {
        LogManager::getInstance().vAddLog(
            LogType::Warning,
            formatString(L"The home (%s) of the user (%s) lies outside the directory (%s) and "
                         L"stays where it is",
                         row.home.c_str(), row.login.c_str(), nicePath(from_).c_str()));
        return;
    }
    UserInfo info;
    info.user = factory_->getUser(row.login);
    info.oldHome = info.user->getHomeDirectory();
    info.newPath = std::move(newPath);
    info.row = std::move(row);
    users_.push_back(std::move(info)); // before the first change: rollback() is to know of it
    UserInfo& recorded = users_.back();
    const std::wstring newHome = nicePath(recorded.newPath);
    if (record_ != nullptr) {
        record_->account(recorded.row.login, recorded.oldHome);
    }
    recorded.user->setHomeDirectory(newHome);
    if (differentVolume_ && newVolumeHasQuotas_) {
        moveQuota(recorded);
    }
    database.setUserHome(recorded.row.login, newHome);
}

void UserList::moveQuota(UserInfo& info) const {
    info.oldQuota = info.user->getQuota(to_);
    if (record_ != nullptr) {
        record_->quota(info.row.login, info.oldQuota);
    }
    info.quotaMoved = true;
    if (info.row.quota != 0) {
        info.user->setQuota(to_, info.row.quota);
    } else {
        info.user->removeQuota(to_);
    }
}

void UserList::moveHomes() {
    const CopyPrivileges privileges; // once for all of them
    RunTime::PinnedPath above(from_);
    for (const UserInfo* info : outermostHomes()) {
        ThreadCancelation::check();
        try {
            if (!holdAbove(above, from_, info->row.path)) {
                continue; // it has gone
            }
        } catch (const vosexception& error) {
            bool ignore = false;
            ignorebleErrorEvent.raise(error.what(), ignore);
            if (!ignore) {
                throw;
            }
            continue;
        }
        bool cancel = false;
        progressEvent_MoveUserHomeStart.raise(cancel);
        throwIfCanceled(cancel);
        movers_.push_back(moveUserHome(info->row.path, info->newPath));
        progressEvent_MoveUserHomeEnd.raise(cancel);
    }
}

// Holds what is between one of the two directories and a home. Those who own something there could
// put a link to others' files in its place, or may have done so before.
bool UserList::holdAbove(RunTime::PinnedPath& above, const std::wstring& root,
                         const std::wstring& home) {
    return home.size() <= root.size() || above.hold(RunTime::parentPath(home));
}

// The homes on disk that lie in no other, each once, in the order of the accounts.
std::vector<const UserList::UserInfo*> UserList::outermostHomes() const {
    std::vector<const UserInfo*> homes;
    for (const UserInfo& info : users_) {
        if (RunTime::exists(info.row.path)) {
            homes.push_back(&info);
        }
    }
    // What a home lies in has the shorter path.
    std::stable_sort(homes.begin(), homes.end(), [](const UserInfo* first, const UserInfo* second) {
        return first->row.path.size() < second->row.path.size();
    });
    std::set<std::wstring, RunTime::NameOrder> taken;
    std::erase_if(homes, [&taken](const UserInfo* home) {
        for (std::wstring at = home->row.path; !at.empty(); at = RunTime::parentPath(at)) {
            if (taken.contains(at)) {
                return true;
            }
        }
        taken.insert(home->row.path);
        return false;
    });
    std::sort(homes.begin(), homes.end()); // they point into the list of accounts
    return homes;
}

// One that cannot be undone at once is kept for rollback().
void UserList::undoPartialMove(std::unique_ptr<backupmove> mover, const NativeSpan& span) {
    const ThreadCancelation::CancelationPoint shielded(false);
    mayCancel_ = false;
    const bool undone = attempt(span, L"Rollback failed", [&] {
        bool cancel = false;
        progressEvent_MoveUserHomeEnd.raise(cancel);
        progressEvent_MoveUserHomeStart.raise(cancel);
        mover->rollback();
        progressEvent_MoveUserHomeEnd.raise(cancel);
    });
    mayCancel_ = true;
    if (!undone) {
        movers_.push_back(std::move(mover));
    }
}

void UserList::restoreHomes(const NativeSpan& span) {
    if (users_.empty()) {
        return;
    }
    std::optional<ZOPDatabase> database;
    attempt(span, L"Connect to the database", [&] { database = ZOPDatabase::connect(); });
    for (UserInfo& info : users_) {
        const std::wstring& login = info.row.login;
        raiseUndoName(span, L"Restore Tarvo user " + quoted(login) + L" home");
        const std::wstring failure = formatString(L"Restore Tarvo user (%s) home", login.c_str());
        const bool account = attempt(span, failure, [&] {
            if (info.user) {
                unlessGone([&] { info.user->setHomeDirectory(info.oldHome); });
            }
        });
        const bool row = attempt(span, failure, [&] {
            if (!database) {
                throw vexception(L"There is no connection to the database",
                                 {L"", "UserList::rollback", __LINE__});
            }
            database->setUserHome(login, info.row.home);
        });
        info.homeRestored = account && row;
    }
}

void UserList::restoreQuotas(const NativeSpan& span) {
    for (UserInfo& info : users_) {
        const std::wstring& login = info.row.login;
        raiseUndoName(span, L"Restore Tarvo user " + quoted(login) + L" quota");
        if (!info.quotaMoved) {
            continue;
        }
        attempt(span, formatString(L"Restore Tarvo user (%s) quota", login.c_str()), [&] {
            unlessGone([&] {
                if (!info.user) {
                    return;
                }
                if (info.oldQuota) {
                    info.user->setQuota(to_, *info.oldQuota);
                } else {
                    info.user->removeQuota(to_);
                }
            });
            info.quotaMoved = false;
        });
    }
}

void UserList::rollbackMovers(const NativeSpan& span) {
    std::vector<std::unique_ptr<backupmove>> failed;
    RunTime::PinnedPath above(to_);
    for (std::unique_ptr<backupmove>& mover : movers_) {
        raiseUndoName(span, L"Rollback user home " + quoted(mover->get_source()));
        bool cancel = false;
        attempt(span, L"Rollback user home",
                [&] { progressEvent_MoveUserHomeStart.raise(cancel); });
        if (!attempt(span, L"Rollback user home", [&] {
                holdAbove(above, to_, mover->get_target());
                mover->rollback();
            })) {
            failed.push_back(std::move(mover));
        } else {
            collectLeftovers(*mover);
        }
        attempt(span, L"Rollback user home", [&] { progressEvent_MoveUserHomeEnd.raise(cancel); });
    }
    movers_ = std::move(failed);
}

// Innermost first. What others have put something into stays; what holds one that could not be
// removed is kept for the next time as well.
void UserList::removeMade(const NativeSpan& span) {
    std::vector<std::wstring> failed;
    RunTime::PinnedPath above(to_);
    while (!made_.empty()) {
        const std::wstring directory = std::move(made_.back());
        made_.pop_back();
        const auto remove = [&] {
            constexpr int tries = 3;
            above.release(directory);
            holdAbove(above, to_, directory);
            try {
                RunTime::removeDirectory(directory, tries);
            } catch (const VDirectoryNotEmptyException&) {
                if (!failed.empty()) {
                    throw;
                }
                leftBehind_.push_back(nicePath(directory));
            }
        };
        if (!attempt(span, formatString(L"Remove (%s)", nicePath(directory).c_str()), remove)) {
            failed.insert(failed.begin(), directory);
        }
    }
    made_ = std::move(failed);
}

void UserList::collectLeftovers(const backupmove& mover) {
    const auto append = [](std::vector<std::wstring>& to, const std::vector<std::wstring>& from) {
        to.insert(to.end(), from.begin(), from.end());
    };
    append(leftBehind_, mover.get_leftBehind());
    append(pendingRestart_, mover.get_pendingRestart());
}

void UserList::raiseUndoName(const NativeSpan& span, const std::wstring& name) {
    attempt(span, name, [&] {
        bool cancel = false;
        progressEvent_Name.raise(name, cancel);
    });
}

void UserList::clear() noexcept {
    users_.clear();
    movers_.clear();
    made_.clear();
    scanned_ = false;
    completed_ = false;
    committing_ = false;
    mayCancel_ = true;
}

void UserList::backupmove_TotalHandler(std::int32_t count, std::int64_t cost, bool& cancel) {
    bool wish = cancel;
    progressEvent_MoveUserHomeTotal.raise(count, cost, wish);
    cancel = wish && mayCancel_;
}

void UserList::backupmove_NameHandler(const std::wstring& name, bool isFile, std::int64_t cost,
                                      bool& cancel) {
    bool wish = cancel;
    progressEvent_MoveUserHomeName.raise(name, isFile, cost, wish);
    cancel = wish && mayCancel_;
}

void UserList::backupmove_ignorebleErrorEvent_Handler(const std::wstring& message, bool& ignore) {
    ignorebleErrorEvent.raise(message, ignore);
}
