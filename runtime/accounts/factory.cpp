#include "runtime/accounts/factory.h"

#include "runtime/accounts/net_factory.h"

#include <mutex>
#include <utility>

namespace UserManagement {

namespace {

std::mutex providerMutex;

Factory::Provider& current() {
    static Factory::Provider replaced;
    return replaced;
}

} // namespace

std::shared_ptr<IFactory> Factory::createInstance(std::shared_ptr<IUserInformation> information) {
    Provider replaced;
    {
        const std::lock_guard lock(providerMutex);
        replaced = current();
    }
    return replaced ? replaced(std::move(information)) : makeNetFactory(std::move(information));
}

Factory::Provider Factory::replaceProvider(Provider provider) {
    const std::lock_guard lock(providerMutex);
    return std::exchange(current(), std::move(provider));
}

} // namespace UserManagement
