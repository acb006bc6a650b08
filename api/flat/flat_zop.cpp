#include "api/flat/flat_support.h"
#include "api/zop.h"
#include "runtime/thread_cancelation.h"

using namespace zopobsolete::flat;

namespace {

zopobsolete::zop& panel() {
    return zopobsolete::zop::getInstance();
}

} // namespace

zop_text* ZOP_CALL zop_config_get(const wchar_t* name, zop_error** error) {
    return guarded(error, [&] { return newText(panel().get_Item(needed(name, L"name"))); });
}

std::int32_t ZOP_CALL zop_config_set(const wchar_t* name, const wchar_t* value, zop_error** error) {
    return done(error, [&] {
        std::wstring text = needed(value, L"value");
        const RunTime::WipeOnExit wiped(text);
        panel().set_Item(needed(name, L"name"), text);
    });
}

std::int32_t ZOP_CALL zop_config_get_dword(const wchar_t* name, std::uint32_t* value,
                                           zop_error** error) {
    return done(error,
                [&] { *needed(value, L"value") = panel().get_ConfigDWORD(needed(name, L"name")); });
}

std::int32_t ZOP_CALL zop_config_set_dword(const wchar_t* name, std::uint32_t value,
                                           zop_error** error) {
    return done(error, [&] { panel().set_ConfigDWORD(needed(name, L"name"), value); });
}

std::int32_t ZOP_CALL zop_is_vps(std::int32_t* result, zop_error** error) {
    return done(error, [&] { *needed(result, L"result") = panel().get_isVPS() ? 1 : 0; });
}

zop_text* ZOP_CALL zop_exec_bin_util(const wchar_t* name, const wchar_t* const* arguments,
                                     std::size_t count, zop_error** error) {
    return guarded(error, [&] {
        std::vector<std::wstring> texts;
        for (std::size_t i = 0; i < count; ++i) {
            texts.emplace_back(needed(needed(arguments, L"arguments")[i], L"arguments"));
        }
        return newText(panel().execBinUtil(needed(name, L"name"), texts));
    });
}

zop_text* ZOP_CALL zop_user_name_without_domain(const wchar_t* name, zop_error** error) {
    return guarded(
        error, [&] { return newText(panel().getUserNameWithoutDomain(needed(name, L"name"))); });
}

zop_text* ZOP_CALL zop_user_domain_server_name(zop_error** error) {
    return guarded(error, [] { return newText(panel().getUserDomainServerName()); });
}

std::int32_t ZOP_CALL zop_cancel_thread(std::uint32_t thread, zop_error** error) {
    return done(error, [&] { ThreadCancelation::request(thread); });
}
