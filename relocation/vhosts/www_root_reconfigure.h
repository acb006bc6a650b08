// The document roots of the hosted domains, in the panel's database.
//
// All that change are written in one transaction: a failure leaves every one as it was. A root is
// stored with backslashes and without "\\?\". One that names the directory by its 8.3 form follows
// it, too: as long as the disk can tell what that form stands for, and after remember() also when
// the directory has been renamed.
#pragma once

#include "relocation/vhosts/old_path.h"
#include "relocation/vhosts/reconfigure.h"
#include "relocation/vhosts/recorded_move.h"

#include <map>
#include <optional>
#include <string>

class MoveRecord;

class WwwRootReconfigure final : public Reconfigure {
public:
    WwwRootReconfigure();

    // Takes down the names that a directory has, while it is there, for a reconfigure() from it.
    // Throws as OldPath does.
    void remember(const std::wstring& directory) { names_.emplace(directory); }
    using Roots = std::map<std::wstring, RecordedMove::Root>; // by the domain's id

    // For the next run forward: where the roots are recorded before one is changed; null: nowhere.
    void set_record(MoveRecord* record) noexcept { file_ = record; }
    // Takes up what a process that has ended had recorded in its run forward, for one backwards.
    // isRead: the roots are known; before that, nothing was written.
    void resume(const std::wstring& fromPath, const std::wstring& toPath, bool isRead, Roots roots);

private:
    // The roots as the last run forward found them and wanted them. A run backwards puts the former
    // back, letter by letter, and leaves alone what that run did not touch.
    struct Record {
        std::wstring fromPath;
        std::wstring toPath;
        bool isRead = false; // before that, nothing was written
        Roots roots;
    };
    void work(bool forward) override;
    std::wstring movedRoot(const std::wstring& root) const;
    bool undoesRecord(bool forward) const;

    Record record_;
    std::optional<OldPath> names_;
    MoveRecord* file_ = nullptr;
};
