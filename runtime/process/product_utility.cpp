#include "runtime/process/product_utility.h"

#include "runtime/files/file.h"
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

Execute utility(const std::wstring& folder, const std::wstring& name,
                std::vector<std::wstring> arguments) {
    const std::wstring root = registry::getstr(HKEY_LOCAL_MACHINE, config::configKey,
                                               config::name::productRoot, RegistryView::View32);
    return Execute(combine(combine(root, folder), name), std::move(arguments));
}

Execute::Result runUtility(const wchar_t* folder, const std::wstring& name,
                           const std::vector<std::wstring>& arguments,
                           const vexception::CallStackInfo& frame) {
    if (!isFileName(name)) {
        _throwError(
            formatString(L"Unable to execute (%s): a file name is needed", name.c_str()).c_str(),
            ERROR_INVALID_NAME, frame);
    }
    Execute::Result result = utility(folder, name, arguments).run();
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

Execute::Result execScript(const std::wstring& script, const std::vector<std::wstring>& arguments) {
    constexpr const char* function = "RunTime::execScript";
    if (!isFullyQualified(script)) { // the interpreter would look for it in its current directory
        throwForPath(L"Unable to execute (%s): the whole path is needed", script,
                     ERROR_INVALID_PARAMETER, function, __LINE__);
    }
    if (!exists(script) || isDirectory(script)) {
        throwForPath(L"Unable to execute (%s)", script, ERROR_FILE_NOT_FOUND, function, __LINE__);
    }
    std::vector<std::wstring> words{nicePath(script)};
    words.insert(words.end(), arguments.begin(), arguments.end());
    Execute interpreter = utility(L"admin\\bin64", L"php.exe", std::move(words));
    interpreter.mergeErrors = true;
    return interpreter.run();
}

} // namespace RunTime
