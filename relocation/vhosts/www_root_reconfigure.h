// The document roots of the hosted domains, in the panel's database.
//
// All that change are written in one transaction: a failure leaves every one as it was. A root is
// stored with backslashes and without "\\?\". One that names the directory by its 8.3 form follows
// it, too: as long as the disk can tell what that form stands for, and after remember() also when
// the directory has been renamed.
#pragma once

#include "relocation/vhosts/old_path.h"
#include "relocation/vhosts/reconfigure.h"

#include <map>
#include <optional>
#include <string>

class WwwRootReconfigure final : public Reconfigure {
public:
    WwwRootReconfigure();

    // Takes down the names that a directory has, while it is there, for a reconfigure() from it.
    // Throws as OldPath does.
    void remember(const std::wstring& directory) { names_.emplace(directory); }

private:
    // The roots as the last run forward found them and wanted them. A run backwards puts the former
    // back, letter by letter, and leaves alone what that run did not touch.
    struct Record {
        struct Roots {
            std::wstring before;
            std::wstring after;
        };
        std::wstring fromPath;
        std::wstring toPath;
        bool isRead = false;                 // before that, nothing was written
        std::map<std::wstring, Roots> roots; // by the domain's id
    };
    void work(bool forward) override;
    std::wstring movedRoot(const std::wstring& root) const;
    bool undoesRecord(bool forward) const;

    Record record_;
    std::optional<OldPath> names_;
};
