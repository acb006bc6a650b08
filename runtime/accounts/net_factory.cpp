#include "runtime/accounts/net_factory.h"

#include "runtime/exception.h"

namespace UserManagement {

std::shared_ptr<IFactory> makeNetFactory(std::shared_ptr<IUserInformation>) {
    _throwError(L"Unable to reach the accounts", ERROR_CALL_NOT_IMPLEMENTED,
                {L"", "UserManagement::makeNetFactory", __LINE__});
}

} // namespace UserManagement
