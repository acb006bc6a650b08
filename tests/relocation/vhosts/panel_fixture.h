// A panel for one test: its utilities, its database, and the configuration that leads to both.
#pragma once

#include "runtime/event.h"
#include "tests/support/database_fixture.h"
#include "tests/support/panel_utilities.h"

class PanelFixture : public DatabaseFixture {
protected:
    void SetUp() override {
        DatabaseFixture::SetUp();
        if (!database) {
            return;
        }
        const Parameters server = parameters();
        RegistryOverride::setString(L"MySQLHost", server.host);
        RegistryOverride::setDword(L"MySQLPort", server.port);
        RegistryOverride::setString(L"MySQLLogin", server.user);
        RegistryOverride::setString(L"MySQLPassword", server.password);
        RegistryOverride::setString(L"MySQLDatabase", server.database);
        for (const wchar_t* table : {L"hosting", L"domains", L"ftp_users", L"sys_users"}) {
            database->execute(std::wstring(L"delete from ") + table);
        }
        database->execute(L"insert into sys_users (id, login, password, home) "
                          L"values (1, 'd1', '', '')");
    }

    PanelUtilities panel{{L"webhostctl.exe"}, {L"relink_tool.exe"}};
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
