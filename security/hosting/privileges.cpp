#include "security/hosting/privileges.h"

#include "runtime/log_manager.h"

namespace HostingSecurity {

FilePrivileges::FilePrivileges() : scope_{SE_BACKUP_NAME, SE_RESTORE_NAME} {
    for (const std::wstring& name : scope_.missing()) {
        LogManager::getInstance().vAddLog(
            LogType::Warning, L"The privilege " + name +
                                  L" is not held: permissions of some items may stay as they are");
    }
}

} // namespace HostingSecurity
