#include "relocation/vhosts/php_settings_reconfigure.h"

#include "relocation/failure.h"
#include "runtime/exception.h"
#include "runtime/files/path.h"
#include "runtime/native_span.h"
#include "runtime/process/product_utility.h"
#include "runtime/thread_cancelation.h"

#include <utility>

namespace {

void reconfigureFrom(const std::wstring& oldPath, const wchar_t* failure,
                     const vexception::CallStackInfo& site) {
    const NativeSpan span(site.function.c_str(), site.line);
    std::wstring message;
    try {
        const ThreadCancelation::CancelationPoint cancellable;
        ThreadCancelation::check();
        RunTime::execUtil(L"relink_tool.exe", {L"--reconfigure-php-settings",
                                               L"--old-path=" + RunTime::nicePath(oldPath)});
        return;
    } catch (const CanceledException&) {
        throw;
    } catch (...) { // of whatever class: the caller gets one
        message = failure + currentCause();
    }
    span.markFailure(message);
    throw vexception(message, site);
}

} // namespace

PHPSettingsReconfigure::PHPSettingsReconfigure(std::wstring fromPath, std::wstring toPath)
    : fromPath_(std::move(fromPath)), toPath_(std::move(toPath)) {}

void PHPSettingsReconfigure::reconfigure(const std::wstring& fromPath, const std::wstring& toPath) {
    fromPath_ = fromPath;
    toPath_ = toPath;
    reconfigureFrom(fromPath_, L"Unable to reconfigure PHP settings: ",
                    {L"", "PHPSettingsReconfigure::reconfigure", __LINE__});
}

void PHPSettingsReconfigure::rollback() {
    if (!toPath_.empty()) {
        reconfigureFrom(toPath_, L"Unable to rollback PHP settings reconfiguration: ",
                        {L"", "PHPSettingsReconfigure::rollback", __LINE__});
    }
}
