// What stands in the way when one tree is merged into another.
#pragma once

#include "relocation/tree_scan.h"

#include <string>

// Items of target whose names source has too, except directories on both sides, which merge. Only
// directories that both have are read; links are not followed. Both exist; paths in long form.
// Throws CanceledException, vosexception.
TreeContents::Special findNameCollisions(const std::wstring& source, const std::wstring& target);
