#include "relocation/vhosts/interrupted_move.h"

#include "config/tarvo_srv_client.h"
#include "relocation/directory.h"
#include "runtime/files/file.h"
#include "runtime/files/path.h"
#include "runtime/format_string.h"
#include "runtime/registry/config_values.h"

#include <utility>

using RunTime::nicePath;

namespace {

using Outlook = InterruptedMove::Outlook;

bool isEmpty(const std::wstring& directory) {
    std::vector<RunTime::FileInformation> entries;
    if (!RunTime::isDirectory(directory)) {
        return false;
    }
    RunTime::Directory(directory).list(entries, 2);
    return entries.empty();
}

Outlook refused(std::wstring reason, std::wstring remedy) {
    Outlook outlook;
    outlook.reason = std::move(reason);
    outlook.remedy = std::move(remedy);
    return outlook;
}

std::wstring named(const wchar_t* format, const std::wstring& first, const std::wstring& second) {
    return formatString(format, nicePath(first).c_str(), nicePath(second).c_str());
}

} // namespace

InterruptedMove::InterruptedMove(std::unique_ptr<MoveRecord> record, RecordedMove move)
    : record_(std::move(record)), move_(std::move(move)) {}

std::optional<InterruptedMove> InterruptedMove::find() {
    std::unique_ptr<MoveRecord> record = MoveRecord::open();
    if (!record) {
        return std::nullopt;
    }
    RecordedMove move = record->read();
    return InterruptedMove(std::move(record), std::move(move));
}

HostingSecurity::ItemIdentity InterruptedMove::identityOf(const std::wstring& directory) {
    const RunTime::AutoHandle handle =
        RunTime::openExisting(RunTime::longPath(directory), FILE_READ_ATTRIBUTES,
                              FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE);
    HostingSecurity::ItemFacts facts;
    if (!handle || HostingSecurity::readFacts(handle.get(), facts) != ERROR_SUCCESS) {
        return {};
    }
    return facts.identity;
}

InterruptedMove::Outlook InterruptedMove::outlook() const {
    if (move_.committing) {
        return lookForward();
    }
    if (move_.parts.empty()) {
        Outlook nothing;
        nothing.way = Way::PutBack;
        return nothing;
    }
    Outlook outlook = lookAtTree();
    if (outlook.way == Way::Refused) {
        return outlook;
    }
    const std::wstring configured = TarvoSrvClient::getInstance().getString(config::name::vhosts);
    if (!RunTime::equalNames(configured, move_.setting) &&
        !RunTime::equalNames(configured, move_.to)) {
        return refused(
            formatString(L"HTTPD_VHOSTS_D has been changed since: it is (%s), and not the place "
                         L"that the directory was moved from or to.",
                         configured.c_str()),
            L"Where the sites are to be in the old place again, set it: zopctl config set "
            L"HTTPD_VHOSTS_D \"" +
                move_.setting + L"\"");
    }
    addLeftovers(outlook);
    return outlook;
}

InterruptedMove::Outlook InterruptedMove::lookForward() const {
    if (!RunTime::exists(move_.to)) {
        return refused(formatString(L"The new place (%s), which is the whole one, cannot be seen.",
                                    move_.to.c_str()),
                       L"Check the drives.");
    }
    Outlook outlook;
    outlook.way = Way::Finish;
    if (RunTime::exists(move_.from) && !RunTime::theSameDirectory(move_.from, move_.to)) {
        outlook.left.push_back(move_.from);
    }
    for (const std::wstring& place : {move_.targetAside, move_.log}) {
        if (!place.empty() && RunTime::exists(place)) {
            outlook.left.push_back(nicePath(place));
        }
    }
    return outlook;
}

// Where the directory is now. The file system knows it by its identity; without that only what
// stands in one place alone is believed.
InterruptedMove::Outlook InterruptedMove::lookAtTree() const {
    const bool hasOld = RunTime::exists(move_.from);
    const bool hasNew = RunTime::exists(move_.to);
    if (!hasOld && !hasNew) {
        return refused(named(L"Neither (%s) nor (%s) can be seen.", move_.from, move_.to),
                       L"Check the drives.");
    }
    Outlook outlook;
    if (move_.way != RecordedMove::Way::Rename) {
        if (!hasOld) {
            return refused(formatString(L"The old place (%s) cannot be seen, although nothing has "
                                        L"been moved out of it.",
                                        move_.from.c_str()),
                           L"Check the drives.");
        }
    } else if (!hasOld) {
        outlook.isRenamed = true;
    } else {
        const bool isKnown = move_.tree != HostingSecurity::ItemIdentity();
        const bool isOld = isKnown && identityOf(move_.from) == move_.tree;
        const bool isNew = isKnown && hasNew && identityOf(move_.to) == move_.tree;
        if (isNew && isEmpty(move_.from)) {
            outlook.isRenamed = outlook.isOldPlaceEmpty = true;
        } else if (!isOld && (isNew || hasNew || isEmpty(move_.from))) {
            return refused(
                named(isNew ? L"In the old place (%s) something else has been made since the "
                              L"directory was moved to (%s)."
                            : L"It cannot be told whether (%s) or (%s) is the directory that was "
                              L"moved.",
                      move_.from, move_.to),
                L"Give what does not belong there another name, and start again.");
        }
    }
    if (!move_.targetAside.empty() && RunTime::exists(move_.targetAside)) {
        if (outlook.isRenamed || !hasNew) {
            outlook.aside = move_.targetAside;
        } else {
            outlook.left.push_back(nicePath(move_.targetAside));
        }
    }
    outlook.way = Way::PutBack;
    return outlook;
}

void InterruptedMove::addLeftovers(Outlook& outlook) const {
    const bool copied =
        move_.way == RecordedMove::Way::Copy || move_.parts.contains(MovePart::Users);
    if (copied && !outlook.isRenamed && RunTime::exists(move_.to) && !isEmpty(move_.to)) {
        outlook.left.push_back(move_.to);
    }
    if (!move_.log.empty() && RunTime::exists(move_.log)) {
        outlook.left.push_back(nicePath(move_.log));
    }
    if (!move_.serversAside.empty() && RunTime::exists(move_.serversAside) &&
        RunTime::exists(RunTime::combine(move_.from, L"Servers"))) { // made anew
        outlook.left.push_back(nicePath(move_.serversAside));
    }
}
