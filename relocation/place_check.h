// What a place on disk is to a move: facts about one path that a move's preflight judges by.
#pragma once

#include <string>
#include <windows.h>

// Absolute as people type it: a drive with a backslash, a share, or either in long form.
// "C:data" and "\data" depend on where the caller stands.
bool isAbsolutePath(const std::wstring& path);

// Whether anything, a link included, has this name, as far as this account can tell.
bool isThere(const std::wstring& path);

// The path as the system resolves it: links, mounted folders and substituted drives followed, with
// true letter case, in long form. What does not exist yet is appended as it stands. The path
// itself, in long form, where the system cannot tell.
std::wstring realPath(const std::wstring& path);

// Why nobody should move the real path away or put a tree in its place ("is the directory of
// Windows itself or lies in it"); empty when there is no reason.
std::wstring systemPlace(const std::wstring& real);

// Whether a file can be created in the directory: tries it and deletes the file again; the
// directory's times are put back. A Win32 code, 0 when it can.
DWORD probeWritable(const std::wstring& directory);
