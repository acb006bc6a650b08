// The product's own command-line utilities, which lie below the directory named by the
// configuration value "PRODUCT_ROOT_D": in "admin\bin" those of 32 bits, in "admin\bin64" the
// others.
//
//     const RunTime::Execute::Result done =
//         RunTime::execUtil64Bit(L"ftphostctl.exe", {L"--remove-all"});
#pragma once

#include "runtime/exception.h"
#include "runtime/process/execute.h"

#include <string>
#include <vector>

namespace RunTime {

// A utility ran and ended with another status than 0. The message is what it printed to standard
// error, or to standard output when that is empty, without blanks and line ends around it; when it
// printed nothing at all, a text with its name and status.
class UtilityException : public vexception {
public:
    UtilityException(const std::wstring& name, const Execute::Result& result,
                     const CallStackInfo& frame);

    DWORD exitStatus() const noexcept { return exitStatus_; }
    // Whether the message is the utility's own.
    bool hasOwnMessage() const noexcept { return hasOwnMessage_; }

private:
    DWORD exitStatus_;
    bool hasOwnMessage_;
};

// Run a utility, wait for its end, and return what it printed. They are cancellation points while
// it runs.
//   name       the utility's file name with ".exe", no path: vosexception with code 123 otherwise
//   arguments  as the utility is to see them
// Throw UtilityException; what Execute::run throws; and what registry::getstr throws when there is
// no "PRODUCT_ROOT_D".
Execute::Result execUtil(const std::wstring& name, const std::vector<std::wstring>& arguments);
Execute::Result execUtil64Bit(const std::wstring& name, const std::vector<std::wstring>& arguments);

// Runs one of the panel's scripts by the product's own interpreter, "admin\bin64\php.exe", to its
// end, and returns what it printed to both streams, in order, and its exit status: another than 0
// is the caller's to judge. A cancellation point while it runs.
//   script     the whole path of the script
//   arguments  as the script is to see them
// Throws vosexception "Unable to execute (%s)" for a script that is no whole path (code 87) or no
// file that is there (2); otherwise as the functions above for what cannot be run.
Execute::Result execScript(const std::wstring& script, const std::vector<std::wstring>& arguments);

} // namespace RunTime
