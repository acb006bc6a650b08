// Holds the directories from a root down to a place below it open, without sharing their deletion,
// so that none of them can be replaced by a link while something is done in the lowest. Going from
// one place to the next opens only what is not held already.
#pragma once

#include "runtime/auto_handle.h"

#include <string>
#include <vector>

namespace RunTime {

class PinnedPath {
public:
    // root, in long form; it is not looked at before hold().
    explicit PinnedPath(std::wstring root);

    // Holds directory, which is the root or lies below it, and everything between. False when one
    // of them does not exist. Throws vosexception when one is a link or cannot be opened.
    bool hold(const std::wstring& directory);
    // Lets go of directory and what is held below it, so that it can be removed.
    void release(const std::wstring& directory);

private:
    struct Pin {
        std::size_t length; // of path_, for this directory
        AutoHandle handle;
    };
    bool pin(std::size_t length);

    std::wstring root_;
    std::wstring path_; // of the lowest directory held
    std::vector<Pin> pins_;
};

} // namespace RunTime
