// The move of the virtual hosts that a process has not brought to its end: what its record tells,
// held against what is on the disk now.
//
//     if (auto move = InterruptedMove::find()) {
//         if (move->outlook().way == InterruptedMove::Way::PutBack) {
//             MoveVHosts mover;
//             mover.recover(std::move(*move));
//         }
//     }
//
// Nothing that was copied is removed: the old place is whole until commit(), and what lies in the
// new one, which may have been written to since, is left for people to judge. A rename is turned
// back where the file system knows the directory again.
#pragma once

#include "relocation/vhosts/move_record.h"

#include <memory>
#include <optional>
#include <string>
#include <vector>

class InterruptedMove {
public:
    enum class Way {
        PutBack, // everything, to the old place
        Finish,  // the commit had begun: the new place is the whole one
        Refused, // something has to be done by hand first
    };
    struct Outlook {
        Way way = Way::Refused;
        std::wstring reason; // of a refusal, and what to do
        std::wstring remedy;
        bool isRenamed = false;         // the tree is at the new place, and goes back
        bool isOldPlaceEmpty = false;   // somebody has made an empty directory in its place
        std::wstring aside;             // what stood at the target goes back there from here
        std::vector<std::wstring> left; // what stays for people to look at, in nice form
    };

    // None where no process has left a record. Throws vexception where another move is running, and
    // MoveRecordException for a record that is not to be trusted.
    static std::optional<InterruptedMove> find();

    const RecordedMove& move() const noexcept { return move_; }
    const std::wstring& path() const noexcept { return record_->path(); } // of the record

    // Looks at both places, and at the configuration; changes nothing. vexception where something
    // does not answer.
    Outlook outlook() const;

    // Hands on the record, which is held open.
    std::unique_ptr<MoveRecord> takeRecord() noexcept { return std::move(record_); }

    // Of a directory; zeros where there is none, or the file system does not tell.
    static HostingSecurity::ItemIdentity identityOf(const std::wstring& directory);

private:
    InterruptedMove(std::unique_ptr<MoveRecord> record, RecordedMove move);

    Outlook lookForward() const;
    Outlook lookAtTree() const;
    void addLeftovers(Outlook& outlook) const;

    std::unique_ptr<MoveRecord> record_;
    RecordedMove move_;
};
