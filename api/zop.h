// The panel's configuration values, read and written through the configuration service, and what
// else the panel's tools ask of the installation.
//
//     zopobsolete::zop& panel = zopobsolete::zop::getInstance();
//     const std::wstring vhosts = panel.get_Item(L"HTTPD_VHOSTS_D");
//     panel.set_ConfigDWORD(L"Debug", 1);
//
// There is one object in a process. It has no state, and may be used from any thread. Every failure
// leaves as zopobsolete::Exception with the whole text; texts never hold the value of a string.
#pragma once

#include "runtime/export.h"

#include <cstdint>
#include <string>
#include <vector>

namespace zopobsolete {

class ZOP_API zop {
    struct Key { // only getInstance has one
        explicit Key() = default;
    };

public:
    // Made at the first call and there until the process ends. Threads that race for the first call
    // may be given different objects, which does no harm.
    static zop& getInstance();

    explicit zop(Key) {}
    zop(const zop&) = delete;
    zop& operator=(const zop&) = delete;

    // Do nothing; programs call them around their use of the class.
    void init();
    void done();

    // The string value of this name. "FTPPassword", in exactly this letter case, is stored encoded
    // and given and taken plain; one that is stored otherwise is given as it is stored.
    std::wstring get_Item(const std::wstring& name);
    void set_Item(const std::wstring& name, const std::wstring& value);

    // The number value of this name.
    std::uint32_t get_ConfigDWORD(const std::wstring& name);
    void set_ConfigDWORD(const std::wstring& name, std::uint32_t value);

    // Whether the panel runs in a virtual environment. Runs without span and cancellation point,
    // and the text of its failure has no line for it.
    bool get_isVPS();

    // Runs a utility of the panel, from "admin\bin" below its installation root, waits for its end
    // and returns what it printed to standard output. Can be cancelled meanwhile.
    //   name       file name with ".exe", no path
    //   arguments  as the utility is to see them, whatever characters they have
    // Fails with what the utility printed to standard error when it ends with a status other than
    // 0.
    std::wstring execBinUtil(const std::wstring& name, const std::vector<std::wstring>& arguments);

    // "DOMAIN\user" and "user@domain" as "user"; other names as they are.
    std::wstring getUserNameWithoutDomain(const std::wstring& name);

    // A domain controller where the accounts of hostings live in Active Directory, else empty.
    std::wstring getUserDomainServerName();

    // There is nothing to release; the object can be used as before.
    void Dispose();
};

} // namespace zopobsolete
