#include "relocation/failure.h"

#include "runtime/cwrpexception.h"
#include "runtime/exception.h"
#include "runtime/log_manager.h"
#include "runtime/native_span.h"
#include "runtime/text.h"

#include <comdef.h>
#include <exception>

std::wstring describeCurrentException() {
    try {
        throw;
    } catch (const std::exception& error) {
        return L"standard exception: " + toWide(error.what());
    } catch (const vexception& error) {
        return L"base exception: " + error.what();
    } catch (const _com_error& error) {
        const wchar_t* text = error.ErrorMessage();
        return std::wstring(L"COM error: ") + (text != nullptr ? text : L"");
    } catch (const cwrpexception& error) {
        return L"wrapped exception: " + error.get_ErrorMessage();
    } catch (...) {
        return L"unknown: Unexpected error";
    }
}

std::wstring currentCause() {
    try {
        throw;
    } catch (const vexception& error) {
        return error.message();
    } catch (...) {
        return describeCurrentException();
    }
}

void logFailure(const std::wstring& step) {
    LogManager::getInstance().vAddLog(LogType::Error, step + L": " + describeCurrentException());
}

void reportFailure(const NativeSpan& span, const std::wstring& step) {
    logFailure(step);
    span.markFailure(step + L": " + describeCurrentException());
}
