#include "runtime/accounts/user_management.h"

#include "runtime/wipe.h"

namespace UserManagement {

NewUser::~NewUser() {
    RunTime::wipe(password);
}

} // namespace UserManagement
