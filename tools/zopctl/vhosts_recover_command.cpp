#include "tools/zopctl/vhosts_recover_command.h"

#include "config/config_service_exception.h"
#include "relocation/vhosts/move_vhosts.h"
#include "runtime/exception.h"
#include "runtime/files/path.h"
#include "runtime/format_string.h"
#include "runtime/registry/config_values.h"
#include "runtime/text.h"
#include "tools/zopctl/cancel_key.h"
#include "tools/zopctl/json_writer.h"
#include "tools/zopctl/move_session.h"
#include "tools/zopctl/text_format.h"
#include "tools/zopctl/vhosts_recover_arguments.h"

#include <algorithm>
#include <optional>
#include <set>

namespace zopctl {

namespace {

using Way = InterruptedMove::Way;

struct RecoverEnd {
    ExitCode code;
    const wchar_t* status; // for programs
    std::wstring message;
    std::vector<std::wstring> advice;
};

std::wstring whenOf(std::int64_t time) {
    const FILETIME file = {static_cast<DWORD>(time), static_cast<DWORD>(time >> 32)};
    SYSTEMTIME utc;
    if (!::FileTimeToSystemTime(&file, &utc)) {
        return L"at a time that is none";
    }
    return formatString(L"%04d-%02d-%02d %02d:%02d:%02d UTC", utc.wYear, utc.wMonth, utc.wDay,
                        utc.wHour, utc.wMinute, utc.wSecond);
}

class VHostsRecover {
public:
    VHostsRecover(const VHostsRecoverOptions& options, Console& console)
        : options_(options), console_(console), key_([this](const std::wstring& text) {
              if (!options_.json) {
                  console_.errorLine(text);
              }
          }) {}

    ExitCode run() {
        if (options_.json) {
            console_.line(
                jsonLine(L"start", {{"command", L"vhosts recover"}, {"dryRun", options_.dryRun}}));
        }
        return finish(end());
    }

private:
    RecoverEnd end() {
        RunTime::InterprocessLock lock(moveLock);
        std::optional<InterruptedMove> interrupted;
        try {
            lock.lock(L"Unable to lock the move", 0);
            interrupted = InterruptedMove::find();
        } catch (const MoveRecordException& e) {
            return {ExitCode::Refused,
                    L"refused",
                    sentence(e.message()),
                    {L"Nothing has been changed. What the move was to change is in the product's "
                     L"log; the record is to be removed by hand once all of that is in order."}};
        } catch (const vosexception& e) {
            if (e.get_errorCode() == ERROR_TIMEOUT) {
                return {ExitCode::Refused,
                        L"refused",
                        L"Another move is running on this computer.",
                        {}};
            }
            return {ExitCode::Failed, L"failed", e.message(), {}};
        } catch (const vexception& e) {
            return {ExitCode::Refused, L"refused", e.message(), {}};
        }
        if (!interrupted) {
            return {ExitCode::Success,
                    L"nothing",
                    L"There is nothing to recover: no move of the virtual hosts was cut off.",
                    {}};
        }
        try {
            const InterruptedMove::Outlook outlook = interrupted->outlook();
            show(*interrupted, outlook);
            if (outlook.way == Way::Refused) {
                return {ExitCode::Refused, L"refused", outlook.reason, {outlook.remedy}};
            }
            if (options_.dryRun) {
                return {ExitCode::Success,
                        L"dry-run",
                        L"Nothing has been changed: this was a dry run.",
                        {}};
            }
            if (!options_.yes && (options_.json || !console_.canAsk())) {
                return {ExitCode::Refused,
                        L"refused",
                        L"There is nobody to ask whether to start. Nothing has been changed.",
                        {L"Add --yes to start without a question, or --dry-run to look only."}};
            }
            return agree()
                       ? work(std::move(*interrupted), outlook.way)
                       : RecoverEnd{
                             ExitCode::Cancelled, L"declined", L"Nothing has been changed.", {}};
        } catch (const ConfigServiceException& e) {
            return {
                ExitCode::Refused,
                L"refused",
                L"The configuration service does not answer: " + sentence(e.cause()),
                {L"Nothing has been changed: the server is half moved still. Start the service, "
                 L"and run this again: sc start zopconfigsvc"}};
        } catch (const vexception& e) {
            return nothingDone(e.message());
        }
    }

    static RecoverEnd nothingDone(const std::wstring& why) {
        return {ExitCode::Failed,
                L"failed",
                sentence(why) + L" Nothing has been changed.",
                {L"The server is half moved still: remove the cause, and run this again."}};
    }

    // ---- before anything is changed

    void show(const InterruptedMove& interrupted, const InterruptedMove::Outlook& outlook) {
        const RecordedMove& move = interrupted.move();
        const wchar_t* way = outlook.way == Way::PutBack  ? L"put-back"
                             : outlook.way == Way::Finish ? L"finish"
                                                          : L"refused";
        if (options_.json) {
            console_.line(jsonLine(
                L"plan", {{"record", interrupted.path()},
                          {"begun", move.begun == 0 ? L"" : whenOf(move.begun)},
                          {"source", move.from},
                          {"target", move.to},
                          {"way", way},
                          {"renamed", outlook.isRenamed},
                          {"completed", move.completed},
                          {"homes", count(move, MovePart::Users, move.users)},
                          {"sites", count(move, MovePart::Sites, move.sites)},
                          {"wwwRoots", count(move, MovePart::WwwRoot, move.roots)},
                          {"installerValues", count(move, MovePart::Installer, move.values)},
                          {"stays", outlook.left}}));
            return;
        }
        if (move.parts.empty()) {
            console_.line(L"Nothing had been changed when the move was cut off: only its record is "
                          L"removed.");
            return;
        }
        console_.line(L"Move   " + quoted(move.from));
        console_.line(L"    to " + quoted(move.to));
        console_.line(L"Begun: " + whenOf(move.begun) +
                      (move.committing  ? L", cut off while the old place was being removed"
                       : move.completed ? L", cut off when all was done but the commit"
                                        : L", and cut off before its end"));
        if (outlook.way == Way::PutBack) {
            console_.line(L"Sets:  " + changes(move) + L" as they were");
            console_.line(L"Then:  " +
                          (outlook.isRenamed
                               ? L"the directory, which is in the new place, is renamed back"
                               : std::wstring(L"the old place is whole, and stays")));
        } else if (outlook.way == Way::Finish) {
            console_.line(L"Then:  the new place is whole, and stays; nothing goes back. The "
                          L"record of the move is removed");
        }
        for (const std::wstring& path : outlook.left) {
            console_.line(L"Stays: " + quoted(path));
        }
    }

    template <class Things>
    static std::int64_t count(const RecordedMove& move, MovePart part, const Things& things) {
        return move.parts.contains(part) ? static_cast<std::int64_t>(things.size()) : 0;
    }

    static std::wstring changes(const RecordedMove& move) {
        return countOf(count(move, MovePart::Users, move.users), L"home of an account",
                       L"homes of accounts") +
               L", " +
               countOf(count(move, MovePart::Sites, move.sites), L"IIS site", L"IIS sites") +
               L", " +
               countOf(count(move, MovePart::Installer, move.values), L"installer value",
                       L"installer values") +
               L", " + config::name::vhosts;
    }

    bool agree() {
        if (options_.yes) {
            return true;
        }
        key_.enter(CancelKey::Stage::Asking);
        const bool yes =
            console_.ask(L"FTP is down until everything is in order. Continue? (y/N) ");
        key_.enter(CancelKey::Stage::Looking);
        return yes && !key_.isRequested();
    }

    // ---- the work

    RecoverEnd work(InterruptedMove interrupted, Way way) {
        key_.enter(CancelKey::Stage::RollingBack);
        MoveVHosts mover;
        const auto fail = [this](const std::wstring& message) {
            const std::wstring text = message.substr(0, message.find(L"\n   at "));
            if (!told_.insert(text).second) {
                return;
            }
            if (options_.json) {
                console_.line(jsonLine(L"error", {{"message", text}}));
            } else {
                console_.errorLine(L"Error: " + printableLines(text));
            }
        };
        const Hook hooks[] = {
            mover.errorEvent.hook(fail),
            mover.ignorebleErrorEvent.hook([&](const std::wstring& message, bool& ignore) {
                fail(message);
                ignore = true;
            }),
            mover.progressEvent_Name.hook([this](const std::wstring& name, std::int64_t,
                                                 std::int32_t, std::int64_t,
                                                 bool&) { draw(name); }),
        };
        const bool ownTarget = !interrupted.move().made.empty();
        const std::wstring target = interrupted.move().to;
        const std::wstring log = RunTime::nicePath(interrupted.move().log);
        std::wstring failure;
        try {
            mover.recover(std::move(interrupted));
        } catch (const vexception& e) {
            failure = e.message();
        } catch (const std::exception& e) {
            failure = toWide(e.what());
        }
        drawNothing();
        left_ = mover.get_leftBehind();
        pending_ = mover.get_pendingRestart();
        if (!failure.empty()) {
            return mover.isPending()
                       ? RecoverEnd{ExitCode::RollbackIncomplete,
                                    L"incomplete",
                                    failure,
                                    {L"What is not named here is as it was. Remove the cause, and "
                                     L"run this again: it goes on with what is left."}}
                       : nothingDone(failure);
        }
        RecoverEnd end{ExitCode::Success,
                       L"recovered",
                       way == Way::Finish
                           ? L"Everything is in the new place " + quotedPath(target) + L"."
                           : std::wstring(L"Everything is as it was before the move."),
                       {}};
        if (!left_.empty() || !pending_.empty() || !told_.empty()) {
            end.code = ExitCode::DoneWithRemainder;
            end.status = L"recovered-with-remainder";
        }
        if (!left_.empty()) {
            end.advice.push_back(
                way == Way::Finish
                    ? L"What is left of the old place may hold what was written there during the "
                      L"move. Look at it, and remove it yourself."
                : ownTarget
                    ? L"What was copied may have been written to since, and was left. Compare it "
                      L"with the old place (zopctl tree compare), and remove it yourself."
                    : L"What was copied into the new place lies beside what was there before the "
                      L"move, and may have been written to since. It was left: look at each, and "
                      L"remove only what is in the old place as well.");
        }
        if (std::ranges::find(left_, log) != left_.end()) {
            end.advice.push_back(L"The file " + quotedPath(log) +
                                 L" only lists what the move made: remove it last.");
        }
        if (!pending_.empty()) {
            end.advice.push_back(L"Restart the computer to have it finished.");
        }
        return end;
    }

    void draw(const std::wstring& name) {
        if (!options_.json && console_.isConsole()) {
            console_.status(cutToCells(printable(name), console_.width() - 1));
        }
    }
    void drawNothing() {
        if (!options_.json && console_.isConsole()) {
            console_.status({});
        }
    }

    ExitCode finish(const RecoverEnd& end) {
        if (options_.json) {
            console_.line(jsonLine(L"result", {{"status", end.status},
                                               {"exitCode", static_cast<int>(end.code)},
                                               {"message", end.message},
                                               {"leftBehind", left_},
                                               {"pendingRestart", pending_},
                                               {"advice", end.advice}}));
            return end.code;
        }
        for (const std::wstring& path : left_) {
            console_.line(L"Left:  " + quoted(path));
        }
        for (const std::wstring& path : pending_) {
            console_.line(L"At the next restart: " + quoted(path));
        }
        const bool isGood =
            end.code == ExitCode::Success || end.code == ExitCode::DoneWithRemainder;
        const auto print = [&](const std::wstring& text) {
            isGood ? console_.line(text) : console_.errorLine(text);
        };
        print((end.code == ExitCode::Refused ? L"Refused: "
               : end.code == ExitCode::Failed || end.code == ExitCode::RollbackIncomplete
                   ? L"Error: "
                   : L"") +
              printableLines(end.message));
        for (const std::wstring& text : end.advice) {
            print(printable(text));
        }
        return end.code;
    }

    const VHostsRecoverOptions& options_;
    Console& console_;
    CancelKey key_;
    std::set<std::wstring> told_;
    std::vector<std::wstring> left_;
    std::vector<std::wstring> pending_;
};

} // namespace

ExitCode runVHostsRecover(const std::vector<std::wstring>& arguments, Console& console) {
    return runParsed(
        parseVHostsRecover(arguments), console,
        [&](const VHostsRecoverOptions& options) { return VHostsRecover(options, console).run(); });
}

} // namespace zopctl
