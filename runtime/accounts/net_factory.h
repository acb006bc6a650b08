// The accounts of Windows itself, by the NetAPI: those of this computer, or of the domain whose
// controller the user information names.
#pragma once

#include "runtime/accounts/user_information.h"
#include "runtime/accounts/user_management.h"

#include <memory>

namespace UserManagement {

// The server is asked for at each getUser(), createUser() and so on; an object that came of it
// stays with that server.
std::shared_ptr<IFactory> makeNetFactory(std::shared_ptr<IUserInformation> information);

} // namespace UserManagement
