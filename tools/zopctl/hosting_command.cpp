#include "tools/zopctl/hosting_command.h"

#include "api/exception.h"
#include "api/vhosts_security.h"
#include "runtime/exception.h"
#include "runtime/files/path.h"
#include "runtime/thread_cancelation.h"
#include "security/hosting/hosting_root.h"
#include "security/hosting/undo.h"
#include "security/hosting/undo_log.h"
#include "tools/zopctl/cancel_key.h"
#include "tools/zopctl/hosting_arguments.h"
#include "tools/zopctl/hosting_look.h"
#include "tools/zopctl/json_writer.h"
#include "tools/zopctl/text_format.h"
#include "tools/zopctl/work_progress.h"

#include <algorithm>

namespace zopctl {

namespace {

using zopobsolete::VHostsSecurity;

constexpr std::uint64_t redrawTime = 100; // milliseconds
constexpr std::uint64_t lineTime = 30'000;

// Texts of several lines, one below another behind the same margin.
std::wstring indented(const std::wstring& text) {
    std::wstring result;
    for (std::size_t begin = 0; begin < text.size();) {
        const std::size_t end = std::min(text.find(L'\n', begin), text.size());
        result += L"\n  " + printable(std::wstring_view(text).substr(begin, end - begin));
        begin = end + 1;
    }
    return result;
}

// The text of a public error without the places that it has passed.
std::wstring firstLine(const std::wstring& text) {
    return text.substr(0, text.find(L"\n   at "));
}

const wchar_t* statusOf(ExitCode code) {
    static constexpr const wchar_t* names[] = {L"in-order", L"different", L"",           L"refused",
                                               L"failed",   L"cancelled", L"incomplete", L"errors"};
    return names[static_cast<int>(code)];
}

void printError(Console& console, bool json, const std::wstring& path, const std::wstring& text) {
    if (json) {
        console.line(jsonLine(L"error", {{"path", path}, {"message", text}}));
    } else {
        console.errorLine(L"Error: " + printable(path) + indented(text));
    }
}

void printMessage(Console& console, const HostingStop& end) {
    if (end.message.empty()) {
        return;
    }
    const bool failed = end.code == ExitCode::Failed || (end.code == ExitCode::RollbackIncomplete &&
                                                         !end.message.starts_with(L"Cancelled"));
    const wchar_t* begin = end.code == ExitCode::Refused ? L"Refused: " : failed ? L"Error: " : L"";
    console.errorLine(begin + printable(end.message) + (end.message.ends_with(L'.') ? L"" : L"."));
}

void printRemedy(Console& console, const HostingStop& end) {
    if (!end.remedy.empty()) {
        console.errorLine(end.remedy);
    }
}

class HostingCheck {
public:
    HostingCheck(const HostingCheckOptions& options, Console& console)
        : options_(options), console_(console),
          key_([this](const std::wstring& text) { console_.errorLine(text); }) {}

    ExitCode run() {
        start_ = drawn_ = ::GetTickCount64();
        HostingStop end{ExitCode::Success, {}, {}};
        try {
            found_ = lookAtHosting(options_);
            ask();
            check();
            end = outcome();
        } catch (const HostingStop& stop) {
            end = stop;
        } catch (const zopobsolete::Exception& e) {
            end = broken(e.message());
        }
        console_.status({});
        return finish(end);
    }

private:
    // ---- before anything is changed

    void ask() {
        if (options_.readOnly || options_.yes) {
            return;
        }
        if (options_.json || !console_.canAsk()) {
            throw HostingStop{
                ExitCode::Refused,
                L"There is nobody to ask whether to repair. Nothing has been changed.",
                L"Add --yes to repair without a question, or --read-only to look only."};
        }
        std::wstring question;
        if (found_.isFile) {
            question = quoted(RunTime::nicePath(options_.root)) +
                       L" is no directory: it is removed, and a directory made in its place. ";
        } else if (!found_.isThere) {
            question = L"There is no directory " + quoted(RunTime::nicePath(options_.root)) +
                       L": it is made. ";
        }
        question += options_.forwarding ? L"Permissions that differ are replaced."
                                        : L"Missing accounts are made, and permissions that differ "
                                          L"are replaced.";
        key_.enter(CancelKey::Stage::Asking);
        const bool yes = console_.ask(question + L" Continue? (y/N) ");
        key_.enter(CancelKey::Stage::Repairing);
        if (!yes || key_.isRequested()) {
            throw HostingStop{ExitCode::Cancelled, L"Nothing has been changed.", {}};
        }
    }

    // ---- the work

    void check() {
        using Flags = VHostsSecurity::CheckPermissionsFlags;
        const Flags flags = options_.readOnly ? Flags::ReadOnly
                            : options_.fast   ? Flags::FastCheck
                                              : Flags::None;
        const auto type = options_.webuser ? VHostsSecurity::HostingType::Webuser
                                           : VHostsSecurity::HostingType::Domain;
        key_.enter(options_.readOnly ? CancelKey::Stage::Looking : CancelKey::Stage::Repairing);
        if (key_.isRequested()) { // a stage hears nothing of the one before
            throw HostingStop{ExitCode::Cancelled, L"Cancelled; nothing has been changed.", {}};
        }
        VHostsSecurity security(options_.root, !options_.readOnly);
        madeRoot_ = !found_.isThere;
        const Hook hooks[] = {
            security.Progress.hook([this](const std::wstring& path) {
                ++items_;
                draw(path);
            }),
            security.SecurityException.hook(
                [this](const std::wstring& path, const std::wstring& text) {
                    differs(path, text);
                }),
            security.Warning.hook([this](const std::wstring& text) { warn(text); }),
            security.Error.hook([this](const std::wstring& path, const std::wstring& text) {
                fail(path, firstLine(text));
            }),
        };
        try {
            if (options_.forwarding) {
                security.CheckFrameForwardingPermissions(flags);
            } else if (options_.readOnly) {
                isComplete_ = security.InspectPermissions(type, options_.user.c_str(),
                                                          options_.parent.c_str());
            } else {
                security.CheckPermissions(type, options_.user.c_str(), options_.parent.c_str(),
                                          flags);
            }
            keepOutcome(security);
        } catch (const zopobsolete::Exception&) {
            keepOutcome(security);
            throw;
        }
    }

    void keepOutcome(VHostsSecurity& security) {
        const ThreadCancelation::CancelationPoint shield(false); // Ctrl+C may come again
        repaired_ = security.get_RepairedCount();
        undoFile_ = security.get_UndoFile();
    }

    void differs(const std::wstring& path, const std::wstring& text) {
        ++different_;
        if (options_.json) {
            console_.line(jsonLine(L"difference", {{"path", path}, {"text", text}}));
        } else if (!options_.quiet) {
            console_.line(L"Different: " + printable(path) + indented(text));
        }
    }

    void warn(const std::wstring& text) {
        ++warnings_;
        if (options_.json) {
            console_.line(jsonLine(L"warning", {{"message", text}}));
        } else {
            console_.errorLine(L"Warning: " + printable(text));
        }
    }

    void fail(const std::wstring& path, const std::wstring& text) {
        ++errors_;
        printError(console_, options_.json, path, text);
    }

    void draw(const std::wstring& path) {
        const std::uint64_t now = ::GetTickCount64();
        const bool inPlace = console_.isConsole() && !options_.json;
        if (options_.quiet || now - drawn_ < (inPlace || options_.json ? redrawTime : lineTime)) {
            return;
        }
        drawn_ = now;
        if (options_.json) {
            console_.line(jsonLine(L"progress", {{"items", items_},
                                                 {"different", different_},
                                                 {"errors", errors_},
                                                 {"name", path}}));
            return;
        }
        std::wstring counts = countOf(items_, L"item", L"items");
        if (different_ != 0) {
            counts += L", " + formatCount(different_) + L" different";
        }
        const std::wstring line = progressLine({.verb = L"Checking",
                                                .fraction = -1,
                                                .timeLeft = -1,
                                                .rate = counts,
                                                .errors = errors_,
                                                .name = path},
                                               inPlace ? console_.width() : 1000);
        inPlace ? console_.status(line) : console_.line(line);
    }

    // ---- afterwards

    HostingStop outcome() const {
        if (!isComplete_) {
            return {ExitCode::Different,
                    L"An account is missing; permissions could not be compared without it.",
                    L"Without --read-only it is made."};
        }
        if (errors_ != 0) {
            return {ExitCode::DoneWithRemainder, {}, {}};
        }
        return {options_.readOnly && (different_ != 0 || warnings_ != 0) ? ExitCode::Different
                                                                         : ExitCode::Success,
                {},
                {}};
    }

    // What ended with an error or by Ctrl+C.
    HostingStop broken(const std::wstring& text) const {
        const bool cancelled = text.starts_with(L"Canceled!");
        const bool changed = !options_.readOnly && (madeRoot_ || warnings_ != 0 || repaired_ > 0);
        return {changed     ? ExitCode::RollbackIncomplete
                : cancelled ? ExitCode::Cancelled
                            : ExitCode::Failed,
                cancelled ? L"Cancelled." : firstLine(text),
                changed ? L"What has been done so far stays; run the command again to finish."
                        : std::wstring()};
    }

    ExitCode finish(const HostingStop& end) {
        const bool began = items_ != 0 || warnings_ != 0 || errors_ != 0;
        if (options_.json) {
            const wchar_t* status = end.code == ExitCode::Success && repaired_ + warnings_ > 0
                                        ? L"repaired"
                                        : statusOf(end.code);
            console_.line(jsonLine(L"result", {{"status", status},
                                               {"exitCode", static_cast<int>(end.code)},
                                               {"message", end.message},
                                               {"remedy", end.remedy},
                                               {"root", RunTime::nicePath(options_.root)},
                                               {"items", items_},
                                               {"different", different_},
                                               {"repaired", repaired_},
                                               {"errors", errors_},
                                               {"warnings", warnings_},
                                               {"undoFile", undoFile_},
                                               {"milliseconds", ::GetTickCount64() - start_}}));
            return end.code;
        }
        printMessage(console_, end);
        if (began) {
            console_.line(summary());
        }
        printRemedy(console_, end);
        if (!undoFile_.empty()) {
            console_.line(L"To undo: zopctl hosting undo " + quoted(undoFile_));
        }
        return end.code;
    }

    std::wstring summary() const {
        std::wstring text = countOf(items_, L"item", L"items") + L" looked at";
        if (different_ == 0 && errors_ == 0 && items_ != 0) {
            text += L", all permissions in order";
        } else if (different_ != 0) {
            text += L", " + formatCount(different_) + L" different";
            if (!options_.readOnly) {
                text += L", " + formatCount(repaired_) + L" repaired";
            }
        }
        if (warnings_ != 0) {
            text += L", " + countOf(warnings_, L"account or group", L"accounts or groups") +
                    (options_.readOnly ? L" not in order" : L" made");
        }
        if (errors_ != 0) {
            text += L", " + countOf(errors_, L"error", L"errors");
        }
        return text + L", in " + formatDuration(::GetTickCount64() - start_) + L".";
    }

    const HostingCheckOptions& options_;
    Console& console_;
    CancelKey key_;
    HostingFound found_;
    bool madeRoot_ = false;
    bool isComplete_ = true;
    std::int64_t items_ = 0;
    std::int64_t different_ = 0;
    std::int64_t repaired_ = 0;
    std::int64_t errors_ = 0;
    std::int64_t warnings_ = 0;
    std::wstring undoFile_;
    std::uint64_t start_ = 0;
    std::uint64_t drawn_ = 0;
};

class HostingUndo : public HostingSecurity::ICommitCallback {
public:
    HostingUndo(const HostingUndoOptions& options, Console& console)
        : options_(options), console_(console),
          key_([this](const std::wstring& text) { console_.errorLine(text); }) {}

    ExitCode run() {
        key_.enter(CancelKey::Stage::Repairing);
        HostingStop end{ExitCode::Success, {}, {}};
        try {
            const HostingSecurity::UndoCounts counts =
                HostingSecurity::undo(options_.file, *this, options_.unfinished);
            unchanged_ = static_cast<std::int64_t>(counts.unchanged);
            if (counts.passedOver != 0) {
                end.code = ExitCode::DoneWithRemainder;
            }
        } catch (const HostingSecurity::UndoFileException& e) {
            end = {
                ExitCode::Refused, e.message(),
                L"Give the file that \"zopctl hosting check\" named. --unfinished takes one whose "
                L"end is missing, as when the machine went down during the repair."};
        } catch (const HostingSecurity::RootCorrelationException& e) {
            end = {ExitCode::Refused, e.message(), {}};
        } catch (const CanceledException&) {
            end = {restored_ != 0 ? ExitCode::RollbackIncomplete : ExitCode::Cancelled,
                   L"Cancelled.", L"The same command goes on with the rest."};
        } catch (const vexception& e) {
            end = {
                restored_ != 0 ? ExitCode::RollbackIncomplete : ExitCode::Failed, e.message(), {}};
        }
        return finish(end);
    }

    void onItem(const std::wstring& path) override {
        ++restored_;
        if (options_.json) {
            console_.line(jsonLine(L"restored", {{"path", path}}));
        }
    }
    void onError(const std::wstring& path, const vexception& error) override {
        ++passedOver_;
        printError(console_, options_.json, path, error.message());
    }

private:
    ExitCode finish(const HostingStop& end) {
        if (options_.json) {
            const wchar_t* status =
                end.code == ExitCode::Success ? L"restored" : statusOf(end.code);
            console_.line(jsonLine(L"result", {{"status", status},
                                               {"exitCode", static_cast<int>(end.code)},
                                               {"message", end.message},
                                               {"remedy", end.remedy},
                                               {"restored", restored_},
                                               {"unchanged", unchanged_},
                                               {"errors", passedOver_}}));
            return end.code;
        }
        printMessage(console_, end);
        if (end.message.empty() || restored_ != 0 || passedOver_ != 0) {
            std::wstring text =
                countOf(restored_, L"item has", L"items have") + L" the old permissions again";
            if (unchanged_ != 0) {
                text += L", " + formatCount(unchanged_) + L" had them already";
            }
            if (passedOver_ != 0) {
                text += L", " + countOf(passedOver_, L"error", L"errors");
            }
            console_.line(text + L".");
        }
        printRemedy(console_, end);
        return end.code;
    }

    const HostingUndoOptions& options_;
    Console& console_;
    CancelKey key_;
    std::int64_t restored_ = 0;
    std::int64_t unchanged_ = 0;
    std::int64_t passedOver_ = 0;
};

} // namespace

ExitCode runHostingCheck(const std::vector<std::wstring>& arguments, Console& console) {
    return runParsed(
        parseHostingCheck(arguments), console,
        [&](const HostingCheckOptions& options) { return HostingCheck(options, console).run(); });
}

ExitCode runHostingUndo(const std::vector<std::wstring>& arguments, Console& console) {
    return runParsed(parseHostingUndo(arguments), console, [&](const HostingUndoOptions& options) {
        return HostingUndo(options, console).run();
    });
}

} // namespace zopctl
