// A test with a panel of four domains: the first and the last are hosted in the directory of
// virtual hosts, the second is hosted elsewhere, the third is there without being hosted.
#pragma once

#include "runtime/event.h"
#include "tests/panel/panel.h"
#include "tests/support/database_fixture.h"
#include "tests/support/registry_override.h"
#include "tests/support/temp_directory.h"

class PanelFixture : public DatabaseFixture {
protected:
    using Lines = std::vector<std::string>;

    void SetUp() override {
        DatabaseFixture::SetUp();
        if (database) {
            panel_.build();
        }
    }

    // The calls of utilities since the last time: their words with blanks between them.
    Lines takeCalls() const {
        Lines lines;
        for (const panel::Words& words : panel_.store().calls()) {
            std::wstring line;
            for (const std::wstring& word : words) {
                line += (line.empty() ? L"" : L" ") + word;
            }
            lines.push_back(toUtf8(line));
        }
        panel_.store().forgetCalls();
        return lines;
    }

    // The n-th call from now that has the text in it fails, with what it should have done done or
    // not; 0: none.
    void failCall(int n, const wchar_t* text, bool isDone) const {
        panel_.store().forgetCalls();
        panel_.store().setControl({{isDone ? L"half" : L"fail", std::to_wstring(n == 0 ? 9999 : n),
                                    text, L"3", L"it has refused"}});
    }

    const TempDirectory directory_;
    const RegistryOverride registry_;
    const panel::Panel panel_{directory_.nice(), {.domains = 4, .files = 0}};
    const std::wstring from_ = panel_.vhosts();
    const std::wstring to_ = directory_.nice() + L"\\new place";
};

// What a component of a move raises, in order: totals as numbers, names as they are. One of them
// may cancel.
struct StepWatch {
    template <class Source>
    explicit StepWatch(Source& source)
        : total(source.progressEvent_Total.hook([this](std::int32_t count, bool& cancel) {
              events.push_back(std::to_string(count));
              cancel = events.size() == cancelAt;
          })),
          name(source.progressEvent_Name.hook([this](const std::wstring& text, bool& cancel) {
              events.push_back(toUtf8(text));
              cancel = events.size() == cancelAt;
          })) {}

    std::vector<std::string> events;
    std::size_t cancelAt = 0; // the number of the event, from 1
    Hook total;
    Hook name;
};
