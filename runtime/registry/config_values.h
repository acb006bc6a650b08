// The panel's configuration values: every name that the library uses, declared once, with its type
// and meaning. They lie under HKEY_LOCAL_MACHINE, in the 32-bit view.
#pragma once

#include <span>

namespace config {

inline constexpr wchar_t configKey[] = L"SOFTWARE\\Tarvo\\ZOP Config\\Config";
inline constexpr wchar_t packagesKey[] = L"SOFTWARE\\Tarvo\\ZOP Config\\Config\\Packages";
inline constexpr wchar_t smarterMailKey[] = L"SOFTWARE\\Tarvo\\ZOP Config\\SmarterMail";

namespace name {

inline constexpr wchar_t productRoot[] = L"PRODUCT_ROOT_D";
inline constexpr wchar_t productData[] = L"PRODUCT_DATA_D";
inline constexpr wchar_t vhosts[] = L"HTTPD_VHOSTS_D";
inline constexpr wchar_t namedRunRoot[] = L"NAMED_RUN_ROOT_D";
inline constexpr wchar_t awstatsPath[] = L"AWStatsPath";
inline constexpr wchar_t webalizerPath[] = L"WebalizerPath";
inline constexpr wchar_t activeDirectoryMode[] = L"active_directory_mode";
inline constexpr wchar_t activeDirectoryAdminLogin[] = L"active_directory_admin_login";
inline constexpr wchar_t debug[] = L"Debug";
inline constexpr wchar_t debugSecuritySettings[] = L"DebugSecuritySettings";
inline constexpr wchar_t pipeConnectTryCount[] = L"PipeConnectTryCount";
inline constexpr wchar_t pipeName[] = L"ZOP_pipe";
inline constexpr wchar_t mySqlConnectionTimeout[] = L"MySQLConnectionTimeout";
inline constexpr wchar_t mySqlHost[] = L"MySQLHost";
inline constexpr wchar_t mySqlPort[] = L"MySQLPort";
inline constexpr wchar_t mySqlLogin[] = L"MySQLLogin";
inline constexpr wchar_t mySqlPassword[] = L"MySQLPassword";
inline constexpr wchar_t mySqlDatabase[] = L"MySQLDatabase";
inline constexpr wchar_t opentracingEnabled[] = L"opentracing_enabled";
inline constexpr wchar_t crashDumpDirectory[] = L"CrashDumpDirectory";
inline constexpr wchar_t virtualEnvironment[] = L"VirtualEnvironment";
inline constexpr wchar_t ftpPassword[] = L"FTPPassword";

} // namespace name

enum class ValueType { String, Dword };

struct ValueDescription {
    const wchar_t* name;
    ValueType type;
    bool secret; // a password: never shown or logged unless asked for
    const wchar_t* meaning;
};

// The table of the values above.
std::span<const ValueDescription> valueTable();

// Whether a value of this name holds a secret: it is in the table as one, or its name says so
// ("password", "passwd", "pwd", "secret", "token", in any case). The table cannot know every name.
bool isSecret(const wchar_t* valueName);

} // namespace config
