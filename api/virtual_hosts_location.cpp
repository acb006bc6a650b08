#include "api/virtual_hosts_location.h"

#include "api/call_frame.h"
#include "api/relay.h"
#include "api/utils.h"
#include "relocation/vhosts/move_vhosts.h"
#include "runtime/exception.h"
#include "runtime/log_manager.h"
#include "runtime/registry/config_values.h"
#include "runtime/registry/registry.h"

namespace zopobsolete {

namespace {

bool isDebugging() {
    DWORD debug = 0;
    try {
        registry::lookup(HKEY_LOCAL_MACHINE, config::configKey, config::name::debug, debug,
                         RegistryView::View32);
    } catch (const vexception&) { // of another type; it must not hide the listener's failure
    }
    return debug != 0;
}

// What a listener does wrong is in the log even where the move's own error hides it.
template <class Raise>
void relayLogged(const char* name, std::int32_t line, Raise&& raise) {
    try {
        relay(name, line, raise);
    } catch (const vexception& error) {
        LogManager::getInstance().vAddLog(LogType::Error,
                                          isDebugging() ? error.what() : error.message());
        throw;
    }
}

} // namespace

// The move itself; its events come out of the public object.
class VirtualHostsLocationProxy : public MoveVHosts {
public:
    explicit VirtualHostsLocationProxy(VirtualHostsLocation& owner) {
        hooks_.push_back(progressEvent_Cost.hook([&owner](std::int64_t cost, bool& cancel) {
            relayLogged("zopobsolete::VirtualHostsLocationProxy::progressEvent_CostHandler",
                        __LINE__, [&] { cancel = owner.Fire_ProgressEvent_Cost(cost); });
        }));
        hooks_.push_back(progressEvent_Name.hook(
            [&owner](const std::wstring& name, std::int64_t val, std::int32_t completeCount,
                     std::int64_t itemSize, bool& cancel) {
                relayLogged("zopobsolete::VirtualHostsLocationProxy::progressEvent_NameHandler",
                            __LINE__, [&] {
                                cancel = owner.Fire_ProgressEvent_Name(name, val, completeCount,
                                                                       itemSize);
                            });
            }));
        hooks_.push_back(subProgressEvent_Start.hook([&owner](bool& cancel) {
            relayLogged("zopobsolete::VirtualHostsLocationProxy::subProgressEvent_StartHandler",
                        __LINE__, [&] { cancel = owner.Fire_SubProgressEvent_Start(); });
        }));
        hooks_.push_back(subProgressEvent_End.hook([&owner](bool& cancel) {
            relayLogged("zopobsolete::VirtualHostsLocationProxy::subProgressEvent_EndHandler",
                        __LINE__, [&] { cancel = owner.Fire_SubProgressEvent_End(); });
        }));
        hooks_.push_back(errorEvent.hook([&owner](const std::wstring& message) {
            relayLogged("zopobsolete::VirtualHostsLocationProxy::errorEvent_Handler", __LINE__,
                        [&] { owner.Fire_ErrorEvent(message); });
        }));
        hooks_.push_back(
            ignorebleErrorEvent.hook([&owner](const std::wstring& message, bool& ignore) {
                relayLogged("zopobsolete::VirtualHostsLocationProxy::ignorebleErrorEvent_Handler",
                            __LINE__, [&] {
                                BackupCopyErrorEvent error(message, ignore);
                                owner.Fire_IgnorebleErrorEvent(error);
                                ignore = error.ignore;
                            });
            }));
        hooks_.push_back(stepEvent.hook([&owner](std::int32_t number, const std::wstring& name) {
            relayLogged("zopobsolete::VirtualHostsLocationProxy::stepEvent_Handler", __LINE__,
                        [&] { owner.StepEvent.raise(number, name); });
        }));
    }

private:
    std::vector<Hook> hooks_;
};

VirtualHostsLocation::VirtualHostsLocation()
    : proxy_(callFrame(
          {"zopobsolete::VirtualHostsLocation::VirtualHostsLocation", __LINE__, __LINE__ + 1},
          [&] { return std::make_shared<VirtualHostsLocationProxy>(*this); })) {}

VirtualHostsLocation::VirtualHostsLocation(StreamType type) : VirtualHostsLocation() {
    set_CopyStreams(type);
}

VirtualHostsLocation::VirtualHostsLocation(StreamType type, bool copyOwner)
    : VirtualHostsLocation(type) {
    callFrame({"zopobsolete::VirtualHostsLocation::VirtualHostsLocation", __LINE__, __LINE__ + 1},
              [&] { native()->set_copyOwner(copyOwner); });
}

VirtualHostsLocation::~VirtualHostsLocation() = default;

StreamType VirtualHostsLocation::get_CopyStreams() {
    return callFrame(
        {"zopobsolete::VirtualHostsLocation::CopyStreams::get", __LINE__, __LINE__ + 1},
        [&] { return native()->get_streams(); });
}

void VirtualHostsLocation::set_CopyStreams(StreamType type) {
    callFrame({"zopobsolete::VirtualHostsLocation::CopyStreams::set", __LINE__, __LINE__ + 1},
              [&] { native()->set_streams(type & StreamType::All); });
}

bool VirtualHostsLocation::Change(const std::wstring& dest) {
    return callFrame({"zopobsolete::VirtualHostsLocation::Change", __LINE__, __LINE__ + 1}, [&] {
        return change(
            [&](MoveVHosts& mover) { return mover.move(Utils::toUnmanagedString(dest)); });
    });
}

bool VirtualHostsLocation::Change(const std::wstring& source, const std::wstring& dest) {
    return callFrame({"zopobsolete::VirtualHostsLocation::Change", __LINE__, __LINE__ + 1}, [&] {
        return change([&](MoveVHosts& mover) {
            return mover.move(Utils::toUnmanagedString(source), Utils::toUnmanagedString(dest));
        });
    });
}

template <class Move>
bool VirtualHostsLocation::change(Move&& move) {
    const auto mover = native();
    moved_ = false;
    try {
        moved_ = move(*mover);
    } catch (const CanceledException&) {
        moved_ = true;
        throw;
    }
    return moved_;
}

bool VirtualHostsLocation::Commit() {
    return callFrame({"zopobsolete::VirtualHostsLocation::Commit", __LINE__, __LINE__ + 1},
                     [&] { return native()->commit(); });
}

bool VirtualHostsLocation::Rollback() {
    return callFrame({"zopobsolete::VirtualHostsLocation::Rollback", __LINE__, __LINE__ + 1}, [&] {
        const auto mover = native();
        return mover->isMoved() ? mover->rollback() : mover->undo();
    });
}

std::vector<std::wstring> VirtualHostsLocation::get_Failed() {
    return callFrame({"zopobsolete::VirtualHostsLocation::Failed::get", __LINE__, __LINE__ + 1},
                     [&] {
                         const auto mover = native();
                         return moved_ ? std::vector<std::wstring>() : mover->get_failed();
                     });
}

bool VirtualHostsLocation::get_Canceled() {
    return callFrame({"zopobsolete::VirtualHostsLocation::Canceled::get", __LINE__, __LINE__ + 1},
                     [&] { return native() && moved_; });
}

CopyReport VirtualHostsLocation::get_Report() {
    return callFrame({"zopobsolete::VirtualHostsLocation::Report::get", __LINE__, __LINE__ + 1},
                     [&] { return native()->get_report(); });
}

std::vector<std::wstring> VirtualHostsLocation::get_LeftBehind() {
    return callFrame({"zopobsolete::VirtualHostsLocation::LeftBehind::get", __LINE__, __LINE__ + 1},
                     [&] { return native()->get_leftBehind(); });
}

std::vector<std::wstring> VirtualHostsLocation::get_PendingRestart() {
    return callFrame(
        {"zopobsolete::VirtualHostsLocation::PendingRestart::get", __LINE__, __LINE__ + 1},
        [&] { return native()->get_pendingRestart(); });
}

bool VirtualHostsLocation::Fire_ProgressEvent_Cost(std::int64_t cost) {
    bool cancel = false;
    ProgressEvent_Cost.raise(cost, cancel);
    return cancel;
}

bool VirtualHostsLocation::Fire_ProgressEvent_Name(const std::wstring& name, std::int64_t val,
                                                   std::int32_t completeCount,
                                                   std::int64_t itemSize) {
    bool cancel = false;
    ProgressEvent_Name.raise(name, val, completeCount, itemSize, cancel);
    return cancel;
}

bool VirtualHostsLocation::Fire_SubProgressEvent_Start() {
    bool cancel = false;
    SubProgressEvent_Start.raise(cancel);
    return cancel;
}

bool VirtualHostsLocation::Fire_SubProgressEvent_End() {
    bool cancel = false;
    SubProgressEvent_End.raise(cancel);
    return cancel;
}

void VirtualHostsLocation::Fire_ErrorEvent(const std::wstring& msg) {
    ErrorEvent.raise(msg);
}

void VirtualHostsLocation::Fire_IgnorebleErrorEvent(BackupCopyErrorEvent& ee) {
    IgnorebleErrorEvent.raise(ee);
}

void VirtualHostsLocation::Dispose() {
    proxy_.reset();
}

std::shared_ptr<VirtualHostsLocationProxy> VirtualHostsLocation::native() {
    if (!proxy_) {
        throw vexception(L"The virtual hosts location has been disposed of",
                         {L"", "VirtualHostsLocation::native", __LINE__});
    }
    return proxy_;
}

} // namespace zopobsolete
