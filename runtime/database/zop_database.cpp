#include "runtime/database/zop_database.h"

#include "runtime/database/mysql_database.h"
#include "runtime/files/path.h"
#include "runtime/wipe.h"

#include <algorithm>

namespace {

// docs/database.md says what they mean.
struct NeededTable {
    const wchar_t* name;
    const wchar_t* columns[5]; // null behind the last
};
constexpr NeededTable neededTables[] = {
    {L"sys_users", {L"id", L"login", L"password", L"home", L"quota"}},
    {L"domains", {L"id", L"name", L"htype"}},
    {L"hosting", {L"dom_id", L"sys_user_id", L"www_root", L"app_pool_user"}},
    {L"ftp_users", {L"id", L"dom_id", L"sys_user_id"}},
    {L"ServiceNodeEnvironment", {L"serviceNodeId", L"section", L"name", L"value"}},
};

} // namespace

ZOPDatabase::UserInfo::~UserInfo() {
    RunTime::wipe(password);
}

ZOPDatabase::ZOPDatabase(std::shared_ptr<VDatabase> database) : database_(std::move(database)) {}

ZOPDatabase ZOPDatabase::connect() {
    VMySQLDatabase::Parameters parameters = VMySQLDatabase::configuredParameters();
    const RunTime::WipeOnExit wiped(parameters.password);
    return ZOPDatabase(std::make_shared<VMySQLDatabase>(parameters));
}

std::vector<std::wstring> ZOPDatabase::missing() {
    const auto rows = database_->query(L"select table_name as t, column_name as c from "
                                       L"information_schema.columns where table_schema = "
                                       L"database()");
    std::vector<std::pair<std::wstring, std::wstring>> found;
    while (rows->next()) {
        found.emplace_back(rows->value(L"t"), rows->value(L"c"));
    }
    std::vector<std::wstring> result;
    for (const NeededTable& table : neededTables) {
        std::vector<std::wstring> lacking;
        for (const wchar_t* column : table.columns) {
            // Servers on Windows make the names of tables small.
            const bool there =
                column == nullptr || std::any_of(found.begin(), found.end(), [&](const auto& each) {
                    return RunTime::equalNames(each.first, table.name) &&
                           RunTime::equalNames(each.second, column);
                });
            if (!there) {
                lacking.push_back(std::wstring(table.name) + L"." + column);
            }
        }
        const bool isThere = std::any_of(found.begin(), found.end(), [&](const auto& each) {
            return RunTime::equalNames(each.first, table.name);
        });
        if (isThere) {
            result.insert(result.end(), lacking.begin(), lacking.end());
        } else {
            result.emplace_back(table.name);
        }
    }
    return result;
}

ZOPDatabase::UserInfo ZOPDatabase::getUserInfo(const std::wstring& user) {
    const auto rows =
        database_->query(L"select login, password, home from sys_users where login = ?", {user});
    if (!rows->next()) {
        throw vexception(L"The panel's database has no user (" + user + L")",
                         {L"", "ZOPDatabase::getUserInfo", __LINE__});
    }
    UserInfo info;
    info.login = rows->value(L"login");
    info.password = rows->value(L"password");
    info.home = rows->value(L"home");
    return info;
}

std::wstring ZOPDatabase::getAppPoolUser(const std::wstring& domain) {
    const auto rows =
        database_->query(L"select h.app_pool_user from hosting h join domains d on d.id = h.dom_id "
                         L"where d.name = ? and h.app_pool_user <> ''",
                         {domain});
    if (!rows->next()) {
        throw vexception(L"The panel's database has no application pool user for the domain (" +
                             domain + L")",
                         {L"", "ZOPDatabase::getAppPoolUser", __LINE__});
    }
    return rows->value(L"app_pool_user");
}

std::unique_ptr<VRecordSet> ZOPDatabase::enumFtpDomainSubFtpUsers() {
    return database_->query(L"select s.login from ftp_users f "
                            L"left join sys_users s on s.id = f.sys_user_id order by f.id");
}

std::unique_ptr<VRecordSet> ZOPDatabase::enumUsers() {
    return database_->query(L"select login, home, quota from sys_users");
}

std::unique_ptr<VRecordSet> ZOPDatabase::enumDomains() {
    return database_->query(L"SELECT id, name, htype FROM domains");
}

std::unique_ptr<VRecordSet> ZOPDatabase::enumHostings() {
    return database_->query(L"SELECT dom_id, www_root FROM hosting");
}

void ZOPDatabase::setUserHome(const std::wstring& login, const std::wstring& home) {
    database_->execute(L"update sys_users set home=? where login=?", {home, login});
}

void ZOPDatabase::setWwwRoot(const std::wstring& domainId, const std::wstring& root) {
    database_->execute(L"UPDATE hosting SET www_root = ? WHERE (dom_id = ?)", {root, domainId});
}

void ZOPDatabase::forgetSynchronisation() {
    for (const wchar_t* section : {L"configuration", L"os"}) {
        database_->execute(L"DELETE FROM `ServiceNodeEnvironment` WHERE `serviceNodeId` = 1 AND "
                           L"`section` = ? AND `name` = 'synced'",
                           {section});
    }
}
