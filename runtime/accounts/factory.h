// Makes the objects for users and groups of the place that the user information names.
#pragma once

#include "runtime/accounts/user_information.h"
#include "runtime/accounts/user_management.h"

#include <functional>
#include <memory>

namespace UserManagement {

// Functions may be called from any thread.
class Factory {
public:
    static std::shared_ptr<IFactory> createInstance(std::shared_ptr<IUserInformation> information);

    // What createInstance() makes from now on, so that a test leaves the machine's accounts alone;
    // empty for the real ones. Returns what was there before.
    using Provider = std::function<std::shared_ptr<IFactory>(std::shared_ptr<IUserInformation>)>;
    static Provider replaceProvider(Provider provider);
};

} // namespace UserManagement
