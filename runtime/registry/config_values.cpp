#include "runtime/registry/config_values.h"

#include <algorithm>
#include <cwctype>
#include <iterator>
#include <string>
#include <windows.h>

namespace config {

namespace {

constexpr ValueDescription table[] = {
    {name::productRoot, ValueType::String, false, L"installation root of the panel"},
    {name::productData, ValueType::String, false, L"data directory of the panel"},
    {name::vhosts, ValueType::String, false, L"directory of all hosted sites"},
    {name::namedRunRoot, ValueType::String, false, L"run root of the DNS server"},
    {name::awstatsPath, ValueType::String, false, L"installation path of AWStats"},
    {name::webalizerPath, ValueType::String, false, L"installation path of Webalizer"},
    {name::activeDirectoryMode, ValueType::Dword, false,
     L"1: the accounts of hostings live in Active Directory"},
    {name::activeDirectoryAdminLogin, ValueType::String, false,
     L"login of the Active Directory administrator"},
    {name::debug, ValueType::Dword, false, L"1: debug output of the whole process"},
    {name::debugSecuritySettings, ValueType::Dword, false,
     L"1: debug output of the disk security checker"},
    {name::pipeConnectTryCount, ValueType::Dword, false,
     L"attempts to connect to the configuration service while its pipe is absent; 5 when missing"},
    {name::pipeName, ValueType::String, false,
     L"pipe of the configuration service; zoppipe when missing"},
    {name::mySqlConnectionTimeout, ValueType::Dword, false,
     L"seconds to wait for a connection to the panel database; 15 when missing or 0, 3600 at most"},
    {name::mySqlHost, ValueType::String, false,
     L"server of the panel database; localhost when missing"},
    {name::mySqlPort, ValueType::Dword, false, L"its port; 3306 when missing"},
    {name::mySqlLogin, ValueType::String, false,
     L"account on the database server; admin when missing"},
    {name::mySqlPassword, ValueType::String, true, L"its password; none when missing"},
    {name::mySqlDatabase, ValueType::String, false, L"the panel database; panel when missing"},
    {name::opentracingEnabled, ValueType::Dword, false, L"1: tracing is on"},
    {name::crashDumpDirectory, ValueType::String, false,
     L"directory for crash dumps; absent: none are written"},
    {name::virtualEnvironment, ValueType::Dword, false,
     L"1 or 0: the panel runs in a virtual environment or not; absent: the processor is asked"},
    {name::ftpPassword, ValueType::String, true, L"password of the FTP service account"},
};

} // namespace

std::span<const ValueDescription> valueTable() {
    return table;
}

bool isSecret(const wchar_t* valueName) {
    for (const ValueDescription& row : table) {
        if (::CompareStringOrdinal(row.name, -1, valueName, -1, TRUE) == CSTR_EQUAL) {
            return row.secret;
        }
    }
    std::wstring lower;
    for (const wchar_t* at = valueName; *at != L'\0'; ++at) {
        lower += static_cast<wchar_t>(std::towlower(*at));
    }
    constexpr const wchar_t* signs[] = {L"password", L"passwd", L"pwd", L"secret", L"token"};
    return std::any_of(std::begin(signs), std::end(signs), [&lower](const wchar_t* sign) {
        return lower.find(sign) != std::wstring::npos;
    });
}

} // namespace config
