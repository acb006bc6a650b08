// Moves a data directory to a new place as a transaction: Change moves it, then the caller decides
// to Commit or Rollback. Progress, names and errors are reported through three events; a handler
// that returns true cancels.
//
// One thread at a time; other threads may move other trees meanwhile, with objects of their own.
// Every failure leaves as zopobsolete::Exception with the whole text.
//
//     zopobsolete::DataLocation location;
//     auto shown = location.ProgressEvent_Name.hook(...);
//     if (location.Change(L"C:\\panel\\data", L"D:\\panel\\data")) location.Commit();
//     else location.Rollback();
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

class DataLocationProxy;

class ZOP_API DataLocation {
public:
    DataLocation();
    // type       the kinds of stream that a copy carries over, see CopyStreams
    explicit DataLocation(StreamType type);
    // copyOwner  gives each copied item the owner of its source
    DataLocation(StreamType type, bool copyOwner);
    ~DataLocation();
    DataLocation(const DataLocation&) = delete;
    DataLocation& operator=(const DataLocation&) = delete;

    // The kinds of stream that a copy carries over. None is stored as all seven.
    StreamType get_CopyStreams();
    void set_CopyStreams(StreamType type);

    // Moves the directory. False when a handler cancelled; roll back then. A second Change before
    // Commit or Rollback fails with "Unable to start new transaction".
    bool Change(const std::wstring& source, const std::wstring& dest);
    void Commit();
    void Rollback();

    // Names of the items that could not be copied, in the order of failure; a copy of the list.
    std::vector<std::wstring> get_Failed();
    // What the last Change could not carry over, beyond the items that failed; a copy.
    CopyReport get_Report();
    // What the last Commit or Rollback left in place, and what is done at the next restart.
    std::vector<std::wstring> get_LeftBehind();
    std::vector<std::wstring> get_PendingRestart();

    // count of items, bytes, cancel
    Event<std::int32_t, std::int64_t, bool&> ProgressEvent_Cost;
    // name, isFile, bytes done before the item, cancel
    Event<const std::wstring&, bool, std::int64_t, bool&> ProgressEvent_Name;
    Event<BackupCopyErrorEvent&> ErrorEvent;

    // Releases the transaction's resources; it is not rolled back. Later calls fail. Called by a
    // handler, it takes effect when the running operation has ended.
    void Dispose();

private:
    std::shared_ptr<DataLocationProxy> native();

    std::shared_ptr<DataLocationProxy> proxy_; // shared with the operation that runs
    bool moved_ = false;
};

} // namespace zopobsolete
