// Copies one directory tree (or file) with backup semantics: streams, security, attributes, times,
// hard links as such and links as links. One thread at a time; handlers run on the calling thread.
#pragma once

#include "relocation/copy_report.h"
#include "relocation/directory.h"
#include "relocation/stream_type.h"
#include "runtime/event.h"

#include <cstdint>
#include <string>
#include <unordered_set>
#include <vector>

class backupcopy {
public:
    backupcopy() = default;
    virtual ~backupcopy() = default;
    backupcopy(const backupcopy&) = delete;
    backupcopy& operator=(const backupcopy&) = delete;

    using Target = RunTime::Directory::CopyTarget;

    // Copies source to target; paths in either form, of any length. Items are created new: an item
    // whose name the target has already is an error of that item, except that a directory is merged
    // into one that is there (it keeps its attributes, security and streams). A target inside the
    // source is left out of the copy. Throws CanceledException ("Canceled!") when a handler
    // cancels, and the error of an item that no handler of errorEvent ignores. What was copied so
    // far stays.
    void copy(const std::wstring& source, const std::wstring& target, Target kind = Target::Filled);

    // Which kinds of stream are carried over; none is stored as all.
    StreamType get_streams() const noexcept { return streams_; }
    void set_streams(StreamType streams) noexcept {
        streams_ = streams == StreamType::None ? StreamType::All : streams;
    }
    // Whether each copied item is given the owner of its source. Off at first.
    bool get_copyOwner() const noexcept { return copyOwner_; }
    void set_copyOwner(bool copyOwner) noexcept { copyOwner_ = copyOwner; }

    // Names (nice form) of the source items that failed in the last copy, in the order of failure.
    const std::vector<std::wstring>& get_failed() const noexcept { return failed_; }
    // What the last copy could not carry over, beyond the items that failed.
    const CopyReport& get_report() const noexcept { return report_; }

    // Entries of the top directory and bytes of its files; raised once, before anything is done.
    // count, cost, cancel
    Event<std::int32_t, std::int64_t, bool&> progressEvent_Total;
    // source, target, isFile, bytes done before this item, cancel; in long form
    Event<const std::wstring&, const std::wstring&, bool, std::int64_t, bool&> progressEvent_Name2;
    // bytes of the current file copied so far, cancel; for files larger than the buffer (1 MiB)
    Event<std::int64_t, bool&> progressEvent_Bytes;
    // The item last named was not created after all: it was there already, failed, or was
    // cancelled.
    Event<> itemAbandonedEvent;
    // message, ignore
    Event<const std::wstring&, bool&> errorEvent;

protected:
    std::vector<std::wstring> failed_;
    std::unordered_set<std::wstring> failedPaths_; // the same, in long form
    std::vector<RunTime::Directory::Existing> existing_;
    RunTime::Directory::PathSet leftOut_; // of the next copy; in long form with long names
    RunTime::Directory::PathSet adopted_;
    CopyReport report_;
    // What the next copy begins its lists with.
    std::vector<std::wstring> failedBefore_;
    CopyReport reportBefore_;

private:
    StreamType streams_ = StreamType::All;
    bool copyOwner_ = false;
};
