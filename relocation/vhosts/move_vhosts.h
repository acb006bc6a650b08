// Moves the directory of virtual hosts and everything on the server that names it, as one
// transaction: move() does the work in nineteen steps, commit() makes it final, rollback() or
// undo() puts everything back. One thread at a time; handlers run on the calling thread.
//
// The object is itself the mover of the tree (backupmove) and owns a component for each other step,
// whose events come out of it folded into one stream.
//
// The homes of users are copied before the tree moves, and lie in it. The tree's mover leaves out
// what has been moved so.
#pragma once

#include "relocation/backupmove.h"
#include "relocation/vhosts/app_vault_reconfigure.h"
#include "relocation/vhosts/asp_net_reconfigure.h"
#include "relocation/vhosts/folded_progress.h"
#include "relocation/vhosts/multiple_key_value_change.h"
#include "relocation/vhosts/php_settings_reconfigure.h"
#include "relocation/vhosts/tarvo_iis_sites.h"
#include "relocation/vhosts/user_list.h"
#include "relocation/vhosts/www_root_reconfigure.h"
#include "runtime/accounts/user_information.h"
#include "runtime/event.h"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

class MoveVHosts : private backupmove {
public:
    MoveVHosts();
    ~MoveVHosts() override;

    // to    absolute, in either form; need not exist
    // from  where the directory is now; "HTTPD_VHOSTS_D" when it is not given
    // Returns false; throws CanceledException when a handler cancels, and what the step that failed
    // throws. undo() puts back what was done until then; rollback() does not. Refused (vexception)
    // while a move is neither committed nor undone.
    bool move(const std::wstring& from, const std::wstring& to);
    bool move(const std::wstring& to);

    // Removes what is left in the old place. Refused (vexception) for a move that has not been
    // completed. May be called again after a failure; rollback() and undo() are refused once it has
    // begun. Handlers cannot cancel it.
    bool commit();

    // Undoes a completed move; does nothing after one that threw. Every part is attempted; when one
    // fails, vexception at the end says which. Only the FTP sites may fail unsaid, but for
    // errorEvent and the log. May be called again, and goes on with what is left. Handlers cannot
    // cancel it.
    bool rollback();

    // The same for a move that threw, as far as it had come; a failure with the FTP sites counts as
    // one. Does nothing when there is nothing to undo.
    bool undo();

    // Of the tree's mover, with the homes that it leaves to theirs.
    using backupmove::get_copyOwner;
    using backupmove::get_failed;
    using backupmove::get_leftBehind;
    using backupmove::get_pendingRestart;
    using backupmove::get_report;
    using backupmove::get_streams;
    using backupmove::set_copyOwner;
    using backupmove::set_streams;

    FoldedProgress::Cost progressEvent_Cost; // amount of work, cancel
    FoldedProgress::Name progressEvent_Name; // name, position, names so far, delta, cancel
    FoldedProgress::Sub subProgressEvent_Start;
    FoldedProgress::Sub subProgressEvent_End;
    Event<const std::wstring&> errorEvent;                 // message
    Event<const std::wstring&, bool&> ignorebleErrorEvent; // message, ignore
    Event<std::int32_t, const std::wstring&> stepEvent;    // number from 1 to 19, its log line
};
