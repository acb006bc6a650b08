// Collects the findings of a move's preflight, and words what they speak of.
#pragma once

#include "relocation/move_preflight.h"

#include <cstdint>
#include <string>
#include <utility>

class MoveFindings {
protected:
    using Severity = MoveFinding::Severity;

    explicit MoveFindings(MovePreflight::Result& to) : to_(to) {}

    void find(Severity severity, const char* code, std::wstring reason, std::wstring remedy = {}) {
        to_.findings.push_back({severity, code, std::move(reason), std::move(remedy)});
    }
    void refuse(const char* code, std::wstring reason, std::wstring remedy) {
        find(Severity::Refuse, code, std::move(reason), std::move(remedy));
    }
    void warn(const char* code, std::wstring reason, std::wstring remedy = {}) {
        find(Severity::Warn, code, std::move(reason), std::move(remedy));
    }

    static std::wstring quoted(const std::wstring& path) {
        return L"\"" + RunTime::nicePath(path) + L"\"";
    }
    static std::wstring number(std::int64_t count) { return std::to_wstring(count); }
    // "(C:\a, C:\b, and 5 more)"
    static std::wstring exampleText(const TreeContents::Special& special) {
        std::wstring text = L"(";
        for (const std::wstring& example : special.examples) {
            text += (text.size() > 1 ? L", " : L"") + example;
        }
        const std::int64_t more =
            special.count - static_cast<std::int64_t>(special.examples.size());
        return text + (more > 0 ? L", and " + number(more) + L" more)" : L")");
    }

private:
    MovePreflight::Result& to_;
};
