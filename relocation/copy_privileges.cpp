#include "relocation/copy_privileges.h"

#include "runtime/log_manager.h"

CopyPrivileges::CopyPrivileges()
    : PrivilegeScope{SE_BACKUP_NAME, SE_RESTORE_NAME, SE_SECURITY_NAME,
                     SE_CREATE_SYMBOLIC_LINK_NAME} {
    for (const std::wstring& name : newlyMissing()) {
        LogManager::getInstance().vAddLog(LogType::Warning, L"Privilege " + name + L" is not held");
    }
}
