// Checks and repairs the security of one hosting: the Windows accounts of a domain or of a web
// user, and the permissions below its root, which is a directory below that of the virtual hosts.
// What is found comes through events.
//
//     zopobsolete::VHostsSecurity security(L"C:\\vhosts\\example.com");
//     auto shown = security.SecurityException.hook(
//         [](const std::wstring& path, const std::wstring& text) { ... });
//     security.CheckPermissions(VHostsSecurity::HostingType::Domain, L"d1", nullptr,
//                               VHostsSecurity::CheckPermissionsFlags::None);
//
// One thread at a time; handlers run on the calling thread, inside the call. A call can be
// cancelled (ThreadCancelation::request). Every failure leaves as zopobsolete::Exception with the
// whole text; so does what a handler throws, which ends the call. What was done before a failure
// stays done.
#pragma once

#include "runtime/event.h"
#include "runtime/export.h"

#include <cstdint>
#include <memory>
#include <string>

namespace zopobsolete {

class VHostsSecurityProxy;

class ZOP_API VHostsSecurity {
public:
    enum class HostingType : std::int32_t {
        Domain = 1,
        Webuser = 2, // of a web user under a domain
    };
    enum class CheckPermissionsFlags : std::int32_t {
        None = 0,      // check and repair every item
        ReadOnly = 1,  // check every item and report; accounts are seen to all the same
        FastCheck = 2, // check and repair the items that the template names, no others
    };

    // "web" for Webuser, "domain" for everything else.
    static std::wstring translateHostingType(HostingType hosting);

    // root  of the hosting, absolute. Made where it is missing. A file in its place is removed,
    // into
    //       the recycle bin where there is one. Fails for a root that is not below the directory of
    //       virtual hosts, or is reached through a link.
    explicit VHostsSecurity(const std::wstring& root);
    // prepareRoot  false leaves the disk as it is: the root has to be there
    VHostsSecurity(const std::wstring& root, bool prepareRoot);
    ~VHostsSecurity();
    VHostsSecurity(const VHostsSecurity&) = delete;
    VHostsSecurity& operator=(const VHostsSecurity&) = delete;

    // Sees to the accounts and groups, which are made where they are missing, then to the
    // permissions. The panel's database has to be reachable.
    //   user    name of the hosting's account; null is an ArgumentNullException
    //   parent  name of the domain's account; needed for a web user, null or empty otherwise
    //   flags   other values count as None
    void CheckPermissions(HostingType hosting, const wchar_t* user, const wchar_t* parent,
                          CheckPermissionsFlags flags);

    // Sees to the permissions of a domain that only forwards, and so has no account.
    void CheckFrameForwardingPermissions(CheckPermissionsFlags flags);

    // Looks at accounts and permissions and changes nothing at all. Missing accounts and groups
    // come as Warning; false when an account is missing, and the permissions could not be looked
    // at for it. Arguments as above.
    bool InspectPermissions(HostingType hosting, const wchar_t* user, const wchar_t* parent);

    // How many items the last check gave other permissions, and the file in which it kept the old
    // ones, empty when there were none; HostingSecurity::undo() reads it. Also after a check that
    // failed or was cancelled.
    std::int64_t get_RepairedCount();
    std::wstring get_UndoFile();

    // An item is looked at: its path in nice form.
    Event<const std::wstring&> Progress;
    // The permissions of an item are not as they should be: its path in nice form; what was
    // expected and what was found, in words.
    Event<const std::wstring&, const std::wstring&> SecurityException;
    // An account or a group was missing and is made next: a text that says so.
    Event<const std::wstring&> Warning;
    // An item could not be looked at or repaired, and is passed over: its path in nice form; the
    // text of the error.
    Event<const std::wstring&, const std::wstring&> Error;

    // Releases what the object holds. Later calls fail. Called by a handler, it takes effect when
    // the running call has ended.
    void Dispose();

private:
    std::shared_ptr<VHostsSecurityProxy> native();

    std::shared_ptr<VHostsSecurityProxy> proxy_; // shared with the call that runs
};

} // namespace zopobsolete
