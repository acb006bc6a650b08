// What will come of the tree's contents at the new place: what a copy needs there and would lose,
// names that are taken, paths that get too long, links that will lead nowhere. The last step of a
// move's preflight, for which the tree has been scanned.
#pragma once

#include "relocation/move_findings.h"
#include "relocation/move_preflight.h"
#include "runtime/files/path.h"

#include <string>
#include <windows.h>

class CopyOutlook : MoveFindings {
public:
    // All of them must outlive the object; source and target are in long form.
    CopyOutlook(MovePreflight::Result& result, const MovePreflight::Options& options,
                const std::wstring& source, const std::wstring& target,
                const RunTime::VolumeInformation& sourceVolume,
                const RunTime::VolumeInformation& targetVolume);

    // Adds its findings to the result, and what the target's file system will not keep.
    void check();

private:
    void checkStreams();
    void checkSpace();
    bool losesFeature(DWORD flag) const;
    void checkLosses();
    void checkCollisions();
    void checkPathLengths();
    void checkLinks();

    MovePreflight::Result& result_;
    const MovePreflight::Options& options_;
    const std::wstring& source_;
    const std::wstring& target_;
    const RunTime::VolumeInformation& sourceVolume_;
    const RunTime::VolumeInformation& targetVolume_;
};
