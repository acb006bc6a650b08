#include "relocation/move_preflight.h"

#include "relocation/backupmove.h"
#include "relocation/copy_outlook.h"
#include "relocation/item_compare.h"
#include "relocation/move_findings.h"
#include "relocation/place_check.h"
#include "runtime/accounts/privilege_scope.h"
#include "runtime/exception.h"
#include "runtime/thread_cancelation.h"

#include <algorithm>

namespace {

using RunTime::combine;
using RunTime::FileInformation;
using RunTime::nicePath;
using RunTime::VolumeInformation;

constexpr std::size_t oldPathLimit = 259; // what programs without long path support can open
constexpr wchar_t noDrive[] =
    L"There is no such drive or share, or it does not answer: check how the path begins.";

class Examination : MoveFindings {
public:
    Examination(const std::wstring& source, const std::wstring& target,
                const MovePreflight::Options& options, MovePreflight& events)
        : MoveFindings(result_), options_(options), events_(events), source_(source),
          target_(target) {
        result_.source = nicePath(source);
        result_.target = nicePath(target);
    }

    MovePreflight::Result run() {
        try {
            look();
        } catch (const vosexception& e) {
            refuse("cannot-look", L"The two places cannot be examined: " + e.message() + L".",
                   L"Check the drives and your rights there.");
        }
        return std::move(result_);
    }

private:
    void look() {
        checkText(source_, L"source");
        checkText(target_, L"target");
        if (result_.isRefused()) {
            return;
        }
        source_ = RunTime::withoutTrailingBackslash(RunTime::longPath(source_));
        target_ = RunTime::withoutTrailingBackslash(RunTime::longPath(target_));
        result_.source = nicePath(source_);
        result_.target = nicePath(target_);
        checkSource();
        if (result_.isRefused()) {
            return;
        }
        realSource_ = realPath(source_);
        realTarget_ = realPath(target_);
        checkRelation();
        if (!result_.isRefused()) {
            checkTarget();
        }
        if (result_.isRefused()) {
            return;
        }
        checkVolume();
        checkPrivileges();
        checkUse();
        checkEarlierMoves();
        chooseStrategy();
        if (result_.isRefused()) {
            return;
        }
        scan();
        CopyOutlook(result_, options_, source_, target_, sourceVolume_, targetVolume_).check();
    }

    void checkText(const std::wstring& path, const std::wstring& which) {
        const std::wstring nice = nicePath(path);
        if (path.empty()) {
            return refuse("empty-path", L"The " + which + L" is empty.",
                          L"Name a directory, such as \"D:\\data\".");
        }
        if (nice.find(L'"') != std::wstring::npos) {
            return refuse("quote-in-path",
                          L"The " + which + L" has a quotation mark in it: " + nice,
                          L"A backslash before the closing quotation mark makes it part of the "
                          L"name: write \"D:\\data\", not \"D:\\data\\\".");
        }
        const std::wstring body = nice.size() > 2 && nice[1] == L':' ? nice.substr(2) : nice;
        const std::size_t bad = body.find_first_of(L"<>|?*:");
        if (bad != std::wstring::npos) {
            return refuse("bad-character",
                          L"The " + which + L" " + quoted(path) +
                              L" has a character that no name "
                              L"can have: " +
                              body[bad],
                          L"Name one directory, without wildcards.");
        }
        if (!isAbsolutePath(path)) {
            return refuse("relative-path",
                          L"The " + which + L" " + quoted(path) + L" is a relative path.",
                          L"Give the whole path, beginning with the drive: " +
                              quoted(suggestAbsolute(path)) + L"?");
        }
        try {
            RunTime::longPath(path);
        } catch (const vexception& e) {
            refuse("bad-path",
                   L"The " + which + L" " + quoted(path) + L" is no usable path: " + e.message(),
                   L"Name a directory, such as \"D:\\data\".");
        }
    }

    static std::wstring suggestAbsolute(const std::wstring& path) {
        try {
            return nicePath(RunTime::longPath(path));
        } catch (const vexception&) {
            return L"D:\\data";
        }
    }

    void checkSource() {
        if (RunTime::isRoot(source_)) {
            return refuse("source-root", L"The source " + quoted(source_) + L" is a whole drive.",
                          L"Move the directories on it one by one.");
        }
        FileInformation entry;
        try {
            entry = RunTime::fileInformation(source_);
        } catch (const vosexception& e) {
            const DWORD code = e.get_errorCode();
            if (code != ERROR_FILE_NOT_FOUND && code != ERROR_PATH_NOT_FOUND) {
                return refuse("source-unreadable",
                              L"The source " + quoted(source_) + L" cannot be read: " +
                                  systemText(code) + L".",
                              L"Check the drive and your rights there.");
            }
            return refuse("source-missing", L"The source " + quoted(source_) + L" does not exist.",
                          remedyForMissing());
        }
        if (entry.isLink()) {
            const std::wstring real = realPath(source_);
            return refuse("source-link",
                          L"The source " + quoted(source_) + L" is a link, not a directory.",
                          RunTime::equalNames(real, source_)
                              ? L"Name the directory that it leads to."
                              : L"Name the directory that it leads to: " + quoted(real) + L".");
        }
        if (!entry.isDirectory()) {
            return refuse("source-file",
                          L"The source " + quoted(source_) + L" is a file, not a directory.",
                          L"Name the directory that is to move.");
        }
        checkSystemPlace(realPath(source_), source_, L"source");
    }

    std::wstring remedyForMissing() const {
        if (isThere(target_)) {
            return L"The target " + quoted(target_) +
                   L" does exist: are the two paths the wrong way round? It is SOURCE first, then "
                   L"TARGET.";
        }
        const std::wstring above = existingAbove(source_);
        return above.empty()
                   ? noDrive
                   : L"Check the spelling; as far as " + quoted(above) + L" the path is right.";
    }

    // The nearest directory above the path that is there; empty when not even its drive is.
    static std::wstring existingAbove(const std::wstring& path) {
        std::wstring above = RunTime::parentPath(path);
        while (!above.empty() && !isThere(above)) {
            above = RunTime::parentPath(above);
        }
        return above;
    }

    void checkSystemPlace(const std::wstring& real, const std::wstring& shown,
                          const std::wstring& which) {
        const std::wstring reason = systemPlace(real);
        if (!reason.empty()) {
            refuse((which == L"source") ? "source-system" : "target-system",
                   L"The " + which + L" " + quoted(shown) + L" " + reason + L".",
                   which == L"source" ? L"Move only directories of the product's own."
                                      : L"Choose a directory of its own for the product.");
        }
    }

    // Names are only what people see: the places behind them are compared.
    void checkRelation() {
        if (RunTime::equalNames(realSource_, realTarget_) ||
            RunTime::theSameDirectory(source_, target_)) {
            return refuse("same-place",
                          L"The target " + quoted(target_) +
                              L" is the place where the source is "
                              L"already.",
                          L"Nothing needs to be moved; or name another target.");
        }
        if (RunTime::isStrictlyInside(realTarget_, realSource_) || isBelow(target_, source_)) {
            return refuse("target-inside-source",
                          L"The target " + quoted(target_) + L" lies inside the source.",
                          L"Choose a target outside " + quoted(realSource_) + L".");
        }
        if (RunTime::isStrictlyInside(realSource_, realTarget_) || isBelow(source_, target_)) {
            return refuse("target-around-source",
                          L"The source lies inside the target " + quoted(target_) + L".",
                          L"Choose a target that does not hold " + quoted(realSource_) + L".");
        }
    }

    // By identity, which sees through shares too: some directory above path is this one.
    static bool isBelow(const std::wstring& path, const std::wstring& directory) {
        if (!isThere(directory)) {
            return false;
        }
        for (std::wstring above = RunTime::parentPath(path); !above.empty();
             above = RunTime::parentPath(above)) {
            if (isThere(above) && RunTime::theSameDirectory(above, directory)) {
                return true;
            }
        }
        return false;
    }

    void checkTarget() {
        if (RunTime::isRoot(target_)) {
            return refuse("target-root", L"The target " + quoted(target_) + L" is a whole drive.",
                          L"Name a directory on it: " +
                              quoted(combine(target_, RunTime::lastName(source_))) + L".");
        }
        checkSystemPlace(realTarget_, target_, L"target");
        const std::wstring parent = RunTime::parentPath(target_);
        if (!isThere(target_)) {
            if (existingAbove(target_).empty()) {
                refuse("target-parent-missing",
                       L"The target " + quoted(target_) + L" cannot be reached.", noDrive);
            } else if (!isThere(parent) && !options_.createsTarget) {
                refuse("target-parent-missing",
                       L"The directory " + quoted(parent) +
                           L", where the target is to be, does "
                           L"not exist.",
                       L"Create it first, with the permissions it should have, or check the "
                       L"spelling.");
            }
            return;
        }
        result_.targetExists = true;
        const FileInformation entry = RunTime::fileInformation(target_);
        if (entry.isLink()) {
            return refuse("target-link", L"The target " + quoted(target_) + L" is a link.",
                          L"Name the directory that it leads to, or remove the link.");
        }
        if (!entry.isDirectory()) {
            return refuse("target-file", L"The target " + quoted(target_) + L" is a file.",
                          L"Name a directory that does not exist yet, or an empty one.");
        }
        result_.targetContents = TreeScan().scan(target_, {});
        if (result_.targetHoldsItems()) {
            warn("target-not-empty",
                 L"The target " + quoted(target_) + L" holds something already (files: " +
                     number(result_.targetContents.files) + L", directories: " +
                     number(result_.targetContents.directories) + L", links: " +
                     number(result_.targetContents.links) +
                     L"); the source is merged into them, and nothing there is "
                     L"overwritten.",
                 L"Choose an empty or a new directory if that is not meant.");
        }
    }

    void checkVolume() {
        sourceVolume_ = RunTime::volumeInformation(source_);
        targetVolume_ = RunTime::volumeInformation(target_);
        const std::wstring root = quoted(targetVolume_.root);
        switch (targetVolume_.driveType) {
        case DRIVE_REMOVABLE:
        case DRIVE_CDROM:
            refuse("target-removable", L"The target's drive " + root + L" can be removed.",
                   L"Choose a drive that is built in.");
            break;
        case DRIVE_REMOTE:
            refuse("target-network", L"The target's drive " + root + L" is a network drive.",
                   L"Choose a drive of this computer.");
            break;
        default:
            break;
        }
        if ((targetVolume_.flags & FILE_PERSISTENT_ACLS) == 0) {
            refuse("target-without-permissions",
                   L"The target's drive " + root + L" (" + targetVolume_.fileSystem +
                       L") cannot keep permissions: everybody could read the moved files.",
                   L"Choose a drive with NTFS.");
        }
        if ((targetVolume_.flags & FILE_READ_ONLY_VOLUME) != 0) {
            refuse("target-read-only", L"The target's drive " + root + L" is read-only.",
                   L"Choose another drive.");
            return;
        }
        std::wstring place = target_;
        while (!isThere(place) && !RunTime::parentPath(place).empty()) {
            place = RunTime::parentPath(place);
        }
        if (const DWORD code = probeWritable(place); code != ERROR_SUCCESS) {
            refuse("target-not-writable",
                   L"Nothing can be created in " + quoted(place) + L": " + systemText(code) + L".",
                   L"Check the directory's permissions, and whether the drive is full or "
                   L"write-protected.");
        }
    }

    void checkPrivileges() {
        const RunTime::PrivilegeScope held({SE_BACKUP_NAME, SE_RESTORE_NAME, SE_SECURITY_NAME});
        std::wstring missing;
        for (const wchar_t* name : {SE_BACKUP_NAME, SE_RESTORE_NAME}) {
            if (!held.holds(name)) {
                missing += (missing.empty() ? L"" : L", ") + std::wstring(name);
            }
        }
        if (!missing.empty()) {
            refuse("missing-privileges",
                   L"This account may not read and restore every file (" + missing + L").",
                   L"Run zopctl from an elevated command prompt, as an administrator or a backup "
                   L"operator.");
        }
        if (!held.holds(SE_SECURITY_NAME)) {
            warn("no-audit-lists",
                 L"Audit lists are not carried over by a copy: this account does not hold "
                 L"SeSecurityPrivilege.");
        }
    }

    void checkUse() {
        const std::wstring current = currentDirectory();
        if (!current.empty()) {
            const std::wstring real = realPath(current);
            if (RunTime::equalNames(real, realSource_) ||
                RunTime::isStrictlyInside(real, realSource_)) {
                refuse("current-directory",
                       L"You are standing in the source: " + quoted(current) +
                           L" is the current directory, and so held open.",
                       L"Change to another directory first: cd /d " +
                           nicePath(RunTime::parentPath(source_)));
            }
        }
        const RunTime::PrivilegeScope restore({SE_RESTORE_NAME});
        const RunTime::AutoHandle handle = RunTime::openExisting(
            source_, DELETE, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE);
        if (!handle) {
            heldOpen_ = ::GetLastError();
        }
    }

    static std::wstring currentDirectory() {
        std::wstring path(::GetCurrentDirectoryW(0, nullptr), L'\0');
        path.resize(path.empty()
                        ? 0
                        : ::GetCurrentDirectoryW(static_cast<DWORD>(path.size()), path.data()));
        return path;
    }

    // A move that was cut off leaves a directory set aside, or its log, for someone to look at.
    void checkEarlierMoves() {
        const std::wstring parent = RunTime::parentPath(target_);
        const auto look = [&](const std::wstring& directory, const wchar_t* pattern,
                              const wchar_t* what) {
            WIN32_FIND_DATAW data{};
            const HANDLE search = ::FindFirstFileW(combine(directory, pattern).c_str(), &data);
            if (search == INVALID_HANDLE_VALUE) {
                return;
            }
            ::FindClose(search);
            warn("earlier-move",
                 L"An earlier move was not finished, or is still running: " +
                     quoted(combine(directory, data.cFileName)) + L" is " + what + L".",
                 L"Find out what became of that move before you start another.");
        };
        look(parent, L"$Backup*", L"a directory that it set aside");
        look(RunTime::longPath(targetVolume_.root), L"{71D2213F-C992-4279-B3B7-EEB2A16870A3}*",
             L"its log");
    }

    void chooseStrategy() {
        const bool sameVolume = RunTime::theSameVolume(source_, target_);
        // A directory right below the root of its drive is never set aside.
        const std::wstring target = nicePath(target_);
        const bool canSetAside = result_.targetContents.bytes == 0 && target.rfind(L'\\') >= 5;
        const bool isInTheWay = result_.targetExists || options_.createsTarget;
        result_.willCopy = options_.copy || !sameVolume || (isInTheWay && !canSetAside);
        if (result_.willCopy && sameVolume && !options_.copy) {
            find(Severity::Info, "copies-on-one-drive",
                 L"Source and target are on one drive, but the target exists" +
                     std::wstring(result_.targetContents.bytes == 0 ? L" right below the drive"
                                                                    : L" and holds data") +
                     L": everything is copied instead of renamed.",
                 L"Name a target that does not exist yet to have it done at once.");
        }
        if (heldOpen_ != ERROR_SUCCESS) {
            const std::wstring reason = L"The source " + quoted(source_) +
                                        L" is held by another program or may not be "
                                        L"deleted: " +
                                        systemText(heldOpen_) + L".";
            const std::wstring remedy =
                L"Stop the programs and services that use it (a shell that stands in it counts).";
            if (result_.willCopy) {
                warn("source-in-use", reason + L" The old copy may have to stay until a restart.",
                     remedy);
            } else {
                refuse("source-in-use", reason, remedy);
            }
        }
    }

    void scan() {
        TreeScan scan;
        const Hook forward = forwardEvent(scan.progressEvent, events_.progressEvent);
        const Hook links = forwardEvent(scan.linkEvent, events_.linkEvent);
        TreeScan::Options options;
        options.thorough = result_.willCopy;
        options.streams = has(options_.streams, StreamType::AlternateData);
        options.clusterBytes = targetVolume_.clusterBytes;
        options.sparseOnTarget = (targetVolume_.flags & FILE_SUPPORTS_SPARSE_FILES) != 0;
        options.hardLinksOnTarget = (targetVolume_.flags & FILE_SUPPORTS_HARD_LINKS) != 0;
        const std::size_t top = result_.target.size();
        options.pathLimit = top < oldPathLimit ? oldPathLimit - top : 0;
        const RunTime::PrivilegeScope backup({SE_BACKUP_NAME});
        try {
            result_.contents = scan.scan(source_, options);
        } catch (const vosexception& e) {
            return refuse("source-unreadable",
                          L"The source " + quoted(source_) + L" cannot be read: " + e.message() +
                              L".",
                          L"Check your rights there.");
        }
        result_.isExamined = true;
        result_.longestPath = top + result_.contents.longestPath;
        result_.bytesNeeded = result_.contents.bytesOnTarget;
        result_.bytesFree = static_cast<std::int64_t>(targetVolume_.freeBytes);
        result_.keepsSource = result_.willCopy && backupmove::keepsSource(source_, target_);
        if (result_.keepsSource) {
            warn("keeps-source",
                 L"The old directory " + quoted(source_) +
                     L" will stay after the move: the name "
                     L"of the target begins with its name.",
                 L"Delete it yourself afterwards, or choose a target with another beginning.");
        }
        if (result_.contents.unreadable.count != 0) {
            warn("unreadable-items",
                 number(result_.contents.unreadable.count) + L" items cannot be opened now " +
                     exampleText(result_.contents.unreadable) +
                     (options_.keepGoing ? L"; they are left at the old place."
                                         : L"; the move will fail at the first of them."),
                 options_.keepGoing ? L"" : L"Close what uses them, or use --keep-going.");
        }
    }

    const MovePreflight::Options& options_;
    MovePreflight& events_;
    std::wstring source_; // long form once the texts have been checked
    std::wstring target_;
    std::wstring realSource_;
    std::wstring realTarget_;
    VolumeInformation sourceVolume_;
    VolumeInformation targetVolume_;
    DWORD heldOpen_ = ERROR_SUCCESS;
    MovePreflight::Result result_;
};

} // namespace

bool MovePreflight::Result::isRefused() const {
    return std::any_of(findings.begin(), findings.end(), [](const MoveFinding& finding) {
        return finding.severity == MoveFinding::Severity::Refuse;
    });
}

MovePreflight::Result MovePreflight::examine(const std::wstring& source, const std::wstring& target,
                                             const Options& options) {
    const ThreadCancelation::CancelationPoint cancellable;
    return Examination(source, target, options, *this).run();
}
