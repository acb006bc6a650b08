// Moves the directory of virtual hosts, which holds all hosted sites, to a new place, and brings
// everything that names it into line: FTP, homes of users, permissions, IIS sites, document roots,
// ASP.NET, PHP and webmail settings, the installer's registry values, and the configuration value
// "HTTPD_VHOSTS_D". Change does it, then the caller decides to Commit or Rollback.
//
// After a Change that threw, cancelled or not, Rollback puts everything back that had been changed.
//
// One thread at a time; a handler must not call Change, Commit or Rollback, which are refused
// there. Every failure leaves as zopobsolete::Exception with the whole text.
//
//     zopobsolete::VirtualHostsLocation location;
//     auto shown = location.ProgressEvent_Name.hook(...);
//     try {
//         location.Change(L"D:\\vhosts");
//         location.Commit();
//     } catch (const zopobsolete::Exception&) {
//         location.Rollback();
//     }
//
// The computer must be left alone meanwhile by everything else that changes hostings. A process
// that ends halfway leaves a record: Change is refused from then on, until "zopctl vhosts recover"
// has put everything back.
#pragma once

#include "api/backup_copy_error_event.h"
#include "relocation/copy_report.h"
#include "relocation/stream_type.h"
#include "runtime/event.h"
#include "runtime/export.h"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace zopobsolete {

using ::StreamType;

class VirtualHostsLocationProxy;

class ZOP_API VirtualHostsLocation {
public:
    VirtualHostsLocation();
    // type       the kinds of stream that a copy carries over, see CopyStreams
    explicit VirtualHostsLocation(StreamType type);
    // copyOwner  gives each copied item the owner of its source
    VirtualHostsLocation(StreamType type, bool copyOwner);
    ~VirtualHostsLocation();
    VirtualHostsLocation(const VirtualHostsLocation&) = delete;
    VirtualHostsLocation& operator=(const VirtualHostsLocation&) = delete;

    // The kinds of stream that a copy of the tree carries over. None is stored as all seven.
    StreamType get_CopyStreams();
    void set_CopyStreams(StreamType type);

    // Moves the directory from its configured place ("HTTPD_VHOSTS_D"), or from source, to dest,
    // which is created where it does not exist, with the permissions of the old directory. Throws
    // when a handler cancels, too ("Canceled!"; get_Canceled tells it from a failure); otherwise
    // returns false. Refused while an earlier Change is neither committed nor rolled back.
    bool Change(const std::wstring& dest);
    bool Change(const std::wstring& source, const std::wstring& dest);

    // Deletes the old copies. Refused after a Change that threw. Once it has begun, only Commit can
    // be called again, until it succeeds. Cannot be cancelled. Returns whether a part of it was
    // cancelled, which is never so.
    bool Commit();

    // Undoes the Change, also one that threw, as far as it had come; does nothing without one.
    // Every part is attempted, even when others fail, and none can be cancelled. Throws when
    // something could not be put back, and says what; called again, it goes on with that, and
    // Commit is refused. After a Change that succeeded, a failure to bring the FTP sites back is
    // only reported (ErrorEvent). Returns whether a part of it was cancelled, which is never so.
    bool Rollback();

    // Names of the items that could not be moved, in the order of failure; a copy of the list.
    // Empty when the last Change was cancelled.
    std::vector<std::wstring> get_Failed();
    // Whether the last Change was cancelled.
    bool get_Canceled();
    // What the last Change could not carry over, beyond the items that failed; a copy.
    CopyReport get_Report();
    // What the last Commit or Rollback left in place, and what is done at the next restart.
    std::vector<std::wstring> get_LeftBehind();
    std::vector<std::wstring> get_PendingRestart();

    // amount of work announced so far, or 1 for a point where work can be cancelled; cancel
    Event<std::int64_t, bool&> ProgressEvent_Cost;
    // name of the step or item; val: amount of work announced so far; completeCount: names so far;
    // itemSize: what the item before took, in bytes, -1 where that is not known; cancel
    Event<const std::wstring&, std::int64_t, std::int32_t, std::int64_t, bool&> ProgressEvent_Name;
    // A unit of work of its own begins and ends: the home of one user. cancel
    Event<bool&> SubProgressEvent_Start;
    Event<bool&> SubProgressEvent_End;
    // message
    Event<const std::wstring&> ErrorEvent;
    // An item failed; without a handler that ignores it, the move fails.
    Event<BackupCopyErrorEvent&> IgnorebleErrorEvent;
    // Change has come to a step: its number, from 1 to stepCount, and its name ("Moving
    // folders..."). Steps with nothing to say are passed by. For display; cannot be cancelled.
    Event<std::int32_t, const std::wstring&> StepEvent;
    static constexpr std::int32_t stepCount = 19;

    // Raise the events; the result is whether a handler cancelled.
    bool Fire_ProgressEvent_Cost(std::int64_t cost);
    bool Fire_ProgressEvent_Name(const std::wstring& name, std::int64_t val,
                                 std::int32_t completeCount, std::int64_t itemSize);
    bool Fire_SubProgressEvent_Start();
    bool Fire_SubProgressEvent_End();
    void Fire_ErrorEvent(const std::wstring& msg);
    void Fire_IgnorebleErrorEvent(BackupCopyErrorEvent& ee);

    // Releases what the object holds; a move is neither committed nor rolled back. Later calls
    // fail. Called by a handler, it takes effect when the running operation has ended.
    void Dispose();

private:
    template <class Move>
    bool change(Move&& move);
    std::shared_ptr<VirtualHostsLocationProxy> native();

    std::shared_ptr<VirtualHostsLocationProxy> proxy_; // shared with the operation that runs
    bool moved_ = false;                               // the last Change was cancelled
};

} // namespace zopobsolete
