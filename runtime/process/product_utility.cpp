#include "runtime/process/product_utility.h"

#include "runtime/files/path.h"
#include "runtime/format_string.h"
#include "runtime/registry/config_values.h"
#include "runtime/registry/registry.h"

#include <algorithm>

namespace RunTime {

namespace {

std::wstring trimmed(const std::wstring& text) {
    constexpr const wchar_t* blanks = L" \t\r\n";
    const std::size_t begin = text.find_first_not_of(blanks);
    return begin == std::wstring::npos
               ? std::wstring()
               : text.substr(begin, text.find_last_not_of(blanks) + 1 - begin);
}

std::wstring ownMessage(const Execute::Result& result) {
    std::wstring message = trimmed(result.errors);
    return message.empty() ? trimmed(result.output) : message;
}

std::wstring messageOf(const std::wstring& name, const Execute::Result& result) {
    std::wstring message = ownMessage(result);
    return message.empty() ? formatString(L"The utility (%s) failed with the exit status %lu",
                                          name.c_str(), result.exitStatus)
                           : message;
}

// A name that cannot lead out of its directory, or to something other than a file of that name.
bool isFileName(const std::wstring& name) {
    return !isDotEntry(name) && name.find_first_of(L"\\/:*?\"<>|") == std::wstring::npos &&
           std::none_of(name.begin(), name.end(), [](wchar_t c) { return c < L' '; });
}

Execute::Result runUtility(const wchar_t* folder, const std::wstring& name,
                           const std::vector<std::wstring>& arguments,
                           const vexception::CallStackInfo& frame) {
    if (!isFileName(name)) {
        _throwError(
            formatString(L"Unable to execute (%s): a file name is needed", name.c_str()).c_str(),
            ERROR_INVALID_NAME, frame);
    }
    const std::wstring root = registry::getstr(HKEY_LOCAL_MACHINE, config::configKey,
                                               config::name::productRoot, RegistryView::View32);
    Execute::Result result = Execute(combine(combine(root, folder), name), arguments).run();
    if (result.exitStatus != 0) {
        throw UtilityException(name, result, frame);
    }
    return result;
}

} // namespace

UtilityException::UtilityException(const std::wstring& name, const Execute::Result& result,
                                   const CallStackInfo& frame)
    : vexception(messageOf(name, result), frame), exitStatus_(result.exitStatus),
      hasOwnMessage_(!ownMessage(result).empty()) {}

Execute::Result execUtil(const std::wstring& name, const std::vector<std::wstring>& arguments) {
    return runUtility(L"admin\\bin", name, arguments, {L"", "RunTime::execUtil", __LINE__});
}

Execute::Result execUtil64Bit(const std::wstring& name,
                              const std::vector<std::wstring>& arguments) {
    return runUtility(L"admin\\bin64", name, arguments, {L"", "RunTime::execUtil64Bit", __LINE__});
}

} // namespace RunTime
