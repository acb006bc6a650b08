#include "api/flat/flat_support.h"
#include "api/vhosts_security.h"

#include <memory>

using namespace zopobsolete::flat;
using zopobsolete::VHostsSecurity;

namespace {

struct Security : Hooked<VHostsSecurity, zop_vhosts_security_events> {
    Security(const zop_vhosts_security_events* callbacks, const wchar_t* root)
        : Hooked(callbacks, root) {
        hook(native.Progress, events.progress);
        hook(native.SecurityException, events.security_exception);
        hook(native.Warning, events.warning);
        hook(native.Error, events.error);
    }
};

} // namespace

struct zop_vhosts_security {
    std::shared_ptr<Security> shared;
};

namespace {

std::shared_ptr<Security> of(zop_vhosts_security* given) {
    return needed(given, L"security")->shared;
}

} // namespace

zop_vhosts_security* ZOP_CALL zop_vhosts_security_create(const wchar_t* root,
                                                         const zop_vhosts_security_events* events,
                                                         zop_error** error) {
    return guarded(error, [&] {
        return handle<zop_vhosts_security>(
            std::make_shared<Security>(events, needed(root, L"root")));
    });
}

void ZOP_CALL zop_vhosts_security_free(zop_vhosts_security* security) {
    destroy(security);
}

std::int32_t ZOP_CALL zop_vhosts_security_check(zop_vhosts_security* security, std::int32_t hosting,
                                                const wchar_t* user, const wchar_t* parent,
                                                std::int32_t flags, zop_error** error) {
    return done(error, [&] {
        of(security)->native.CheckPermissions(
            static_cast<VHostsSecurity::HostingType>(hosting), user, parent,
            static_cast<VHostsSecurity::CheckPermissionsFlags>(flags));
    });
}

std::int32_t ZOP_CALL zop_vhosts_security_check_frame_forwarding(zop_vhosts_security* security,
                                                                 std::int32_t flags,
                                                                 zop_error** error) {
    return done(error, [&] {
        of(security)->native.CheckFrameForwardingPermissions(
            static_cast<VHostsSecurity::CheckPermissionsFlags>(flags));
    });
}

std::int32_t ZOP_CALL zop_vhosts_security_inspect(zop_vhosts_security* security,
                                                  std::int32_t hosting, const wchar_t* user,
                                                  const wchar_t* parent, std::int32_t* whole,
                                                  zop_error** error) {
    return done(error, [&] {
        const bool result = of(security)->native.InspectPermissions(
            static_cast<VHostsSecurity::HostingType>(hosting), user, parent);
        if (whole != nullptr) {
            *whole = result ? 1 : 0;
        }
    });
}

std::int32_t ZOP_CALL zop_vhosts_security_repaired_count(zop_vhosts_security* security,
                                                         std::int64_t* count, zop_error** error) {
    return done(error,
                [&] { *needed(count, L"count") = of(security)->native.get_RepairedCount(); });
}

zop_text* ZOP_CALL zop_vhosts_security_undo_file(zop_vhosts_security* security, zop_error** error) {
    return guarded(error, [&] { return newText(of(security)->native.get_UndoFile()); });
}
