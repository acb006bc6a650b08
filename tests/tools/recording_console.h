// A console that keeps what is printed and answers as a test wants.
#pragma once

#include "runtime/text.h"
#include "tools/zopctl/console.h"

#include <functional>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

namespace zopctl {

class RecordingConsole final : public Console {
public:
    // isConsole  whether there is a user in front of it, who can be asked
    explicit RecordingConsole(bool isConsole = false) : Console(isConsole, isConsole) {}

    bool answer = false;
    std::function<void()> onAsk;             // before the answer
    std::vector<std::wstring> hiddenAnswers; // in the order of the questions
    std::optional<std::string> input;        // what standard input holds
    std::vector<std::string> questions;
    std::string output; // UTF-8
    std::string errors;

    // What was printed, line by line, as JSON.
    std::vector<nlohmann::json> objects() const {
        std::vector<nlohmann::json> result;
        std::istringstream lines(output);
        for (std::string line; std::getline(lines, line);) {
            result.push_back(nlohmann::json::parse(line));
        }
        return result;
    }

    int width() const override { return 100; }
    bool ask(const std::wstring& question) override {
        questions.push_back(toUtf8(question));
        if (onAsk) {
            onAsk();
        }
        return answer;
    }
    bool askHidden(const std::wstring& question, std::wstring& given) override {
        questions.push_back(toUtf8(question));
        if (questions.size() > hiddenAnswers.size()) {
            return false;
        }
        given = hiddenAnswers[questions.size() - 1];
        return true;
    }
    std::optional<std::string> readInput(std::size_t limit) override {
        return input && input->size() <= limit ? input : std::nullopt;
    }

protected:
    void write(const std::wstring& text, bool error) override {
        (error ? errors : output) += toUtf8(text);
    }
};

} // namespace zopctl
