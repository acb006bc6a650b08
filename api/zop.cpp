#include "api/zop.h"

#include "api/call_frame.h"
#include "api/utils.h"
#include "config/encoded_value.h"
#include "config/tarvo_srv_client.h"
#include "runtime/accounts/user_information.h"
#include "runtime/exception.h"
#include "runtime/process/product_utility.h"
#include "runtime/wipe.h"

#include <atomic>

namespace zopobsolete {

namespace {

std::atomic<zop*> instance{nullptr};

TarvoSrvClient& client() {
    return TarvoSrvClient::getInstance();
}

} // namespace

// Neither locked nor ever destroyed: of two threads that make one each, both go on using theirs.
zop& zop::getInstance() {
    zop* found = instance.load();
    if (found == nullptr) {
        found = std::make_unique<zop>(Key()).release();
        instance.store(found);
    }
    return *found;
}

void zop::init() {}

void zop::done() {}

std::wstring zop::get_Item(const std::wstring& name) {
    return callFrame({"zopobsolete::zop::Item::get", 68, 91}, [&] {
        std::wstring stored = client().getString(Utils::toUnmanagedString(name));
        const RunTime::WipeOnExit wipeStored(stored);
        return config::fromStored(name, stored);
    });
}

void zop::set_Item(const std::wstring& name, const std::wstring& value) {
    callFrame({"zopobsolete::zop::Item::set", 98, 110}, [&] {
        std::wstring stored = config::toStored(name, value);
        const RunTime::WipeOnExit wipeStored(stored);
        client().setString(Utils::toUnmanagedString(name), stored);
    });
}

std::uint32_t zop::get_ConfigDWORD(const std::wstring& name) {
    return callFrame(
        {"zopobsolete::zop::ConfigDWORD::get", __LINE__, __LINE__ + 1},
        [&]() -> std::uint32_t { return client().getDWORD(Utils::toUnmanagedString(name)); });
}

void zop::set_ConfigDWORD(const std::wstring& name, std::uint32_t value) {
    callFrame({"zopobsolete::zop::ConfigDWORD::set", __LINE__, __LINE__ + 1},
              [&] { client().setDWORD(Utils::toUnmanagedString(name), value); });
}

bool zop::get_isVPS() {
    try {
        return client().isVE();
    } catch (const vexception& e) { // a type that no caller knows
        throw Exception(e.what());
    }
}

std::wstring zop::execBinUtil(const std::wstring& name,
                              const std::vector<std::wstring>& arguments) {
    return callFrame({"zopobsolete::zop::execBinUtil", __LINE__, __LINE__ + 1},
                     [&] { return RunTime::execUtil(name, arguments).output; });
}

std::wstring zop::getUserNameWithoutDomain(const std::wstring& name) {
    return callFrame({"zopobsolete::zop::getUserNameWithoutDomain", __LINE__, __LINE__ + 1},
                     [&] { return UserManagement::UserInformation::getNameWithoutDomain(name); });
}

std::wstring zop::getUserDomainServerName() {
    return callFrame({"zopobsolete::zop::getUserDomainServerName", __LINE__, __LINE__ + 1}, [&] {
        return UserManagement::UserInformation::createInstance()->getDomainServerName();
    });
}

void zop::Dispose() {
    callFrame({"zopobsolete::zop::Dispose", __LINE__, __LINE__ + 1}, [] {});
}

} // namespace zopobsolete
