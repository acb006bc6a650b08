#include "tools/zopctl/json_writer.h"
#include "tools/zopctl/move_reporter.h"

namespace zopctl {

namespace {

const wchar_t* nameOf(MoveFinding::Severity severity) {
    switch (severity) {
    case MoveFinding::Severity::Refuse:
        return L"refuse";
    case MoveFinding::Severity::Warn:
        return L"warn";
    case MoveFinding::Severity::Info:
        break;
    }
    return L"info";
}

std::wstring wide(const char* ascii) {
    return std::wstring(ascii, ascii + std::char_traits<char>::length(ascii));
}

class MoveJsonReporter final : public MoveReporter {
public:
    explicit MoveJsonReporter(Console& console) : console_(console) {}

    void start(const JsonFields& fields) override { put(L"start", fields); }

    void preflight(const MovePreflight::Result& seen, const MoveDetails& plan) override {
        JsonList findings;
        for (const MoveFinding& finding : seen.findings) {
            findings.push_back(JsonFields{{"severity", nameOf(finding.severity)},
                                          {"code", wide(finding.code.c_str())},
                                          {"reason", finding.reason},
                                          {"remedy", finding.remedy}});
        }
        JsonFields fields{{"source", seen.source},
                          {"target", seen.target},
                          {"refused", seen.isRefused()},
                          {"findings", findings}};
        if (seen.isExamined) {
            const JsonFields facts{{"strategy", seen.willCopy ? L"copy" : L"rename"},
                                   {"files", seen.contents.files},
                                   {"directories", seen.contents.directories},
                                   {"links", seen.contents.links},
                                   {"bytes", seen.contents.bytes},
                                   {"bytesNeeded", seen.bytesNeeded},
                                   {"bytesFree", seen.bytesFree},
                                   {"longestPath", std::uint64_t{seen.longestPath}},
                                   {"targetExists", seen.targetExists},
                                   {"targetHoldsItems", seen.targetHoldsItems()},
                                   {"keepsSource", seen.keepsSource}};
            fields.insert(fields.end(), facts.begin(), facts.end());
            fields.insert(fields.end(), plan.fields.begin(), plan.fields.end());
        }
        put(L"preflight", fields);
    }

    void step(std::int32_t number, std::int32_t of, const std::wstring& name) override {
        put(L"step", {{"number", number}, {"of", of}, {"name", name}});
    }

    void progress(const MoveProgress& progress) override {
        put(L"progress",
            {{"phase", wide(progress.phase)},
             {"percent", progress.view.fraction < 0
                             ? JsonValue()
                             : JsonValue(static_cast<int>(progress.view.fraction * 100))},
             {"items", progress.items},
             {"bytes", progress.bytes},
             {"millisecondsLeft",
              progress.view.timeLeft < 0 ? JsonValue() : JsonValue(progress.view.timeLeft)},
             {"errors", progress.view.errors},
             {"name", progress.view.name}});
    }

    void progressEnds() override {}
    void item(const std::wstring&) override {}

    void failed(const FailedItem& item) override {
        put(L"error", {{"path", item.path}, {"message", item.reason}});
    }
    void difference(const TreeDifference& difference) override {
        put(L"difference", {{"kind", describe(difference.kind)},
                            {"path", difference.path},
                            {"detail", difference.detail}});
    }
    void warning(const std::wstring& text) override { put(L"warning", {{"message", text}}); }
    void logged(const std::wstring& text) override { put(L"log", {{"message", text}}); }

    void result(const MoveOutcome& outcome) override {
        JsonList failed;
        for (const FailedItem& item : outcome.failed) {
            failed.push_back(JsonFields{{"path", item.path}, {"message", item.reason}});
        }
        JsonList losses;
        for (std::size_t i = 0; i < static_cast<std::size_t>(CopyLoss::Count); ++i) {
            const auto kind = static_cast<CopyLoss>(i);
            const CopyReport::Entry& entry = outcome.losses.of(kind);
            if (entry.count != 0) {
                losses.push_back(JsonFields{{"kind", ::describe(kind)},
                                            {"count", entry.count},
                                            {"examples", entry.examples}});
            }
        }
        JsonFields fields{{"status", outcome.status},
                          {"exitCode", static_cast<int>(outcome.code)},
                          {"message", outcome.message},
                          {"source", outcome.source},
                          {"target", outcome.target},
                          {"renamed", outcome.renamed},
                          {"verified", outcome.verified},
                          {"files", outcome.files},
                          {"directories", outcome.directories},
                          {"bytes", outcome.bytes},
                          {"milliseconds", outcome.milliseconds},
                          {"failed", failed},
                          {"leftBehind", outcome.leftBehind},
                          {"pendingRestart", outcome.pendingRestart},
                          {"losses", losses},
                          {"advice", outcome.advice}};
        const JsonFields& more = outcome.details.fields;
        fields.insert(fields.end(), more.begin(), more.end());
        put(L"result", fields);
    }

private:
    void put(const wchar_t* event, const JsonFields& fields) {
        console_.line(jsonLine(event, fields));
    }

    Console& console_;
};

} // namespace

std::unique_ptr<MoveReporter> makeMoveJsonReporter(Console& console) {
    return std::make_unique<MoveJsonReporter>(console);
}

} // namespace zopctl
