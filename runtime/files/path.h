// Path texts and what the system says about a path, for paths of any length.
//
// Two forms of a path are used. The long form is absolute, has backslashes only and begins with
// "\\?\" (a share: "\\?\UNC\"); the system takes it as it stands, with more than 260 characters,
// names that end in a dot or a blank, and names of devices. The nice form is the same path for
// people, without the prefix. Functions take either and say which they return.
//
// Names are compared as the file system does it: ordinal, ignoring case, whatever the locale.
// All functions may be called from any thread.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <windows.h>

namespace RunTime {

inline constexpr std::wstring_view longPrefix = L"\\\\?\\";
inline constexpr std::wstring_view longUncPrefix = L"\\\\?\\UNC\\";

// The long form. A path that has the prefix already is returned as it is; any other is first made
// absolute by the system's rules for typed paths (current directory, "." and "..", slashes, blanks
// and dots at the end of a name cut off). Throws ArgumentException for an empty path, for one with
// an embedded zero, and for one that names a device ("\\.\...", "NUL"); vosexception when the
// system cannot make it absolute.
std::wstring longPath(const std::wstring& path);

// The form shown to people: without "\\?\", and with "\\" for "\\?\UNC\". Never throws on odd text.
std::wstring nicePath(const std::wstring& path);

// Throws for a call that failed on a path, as vosexception or its subclass. format has "%s" for the
// path, which is shown in nice form; function is the caller's qualified name.
[[noreturn]] void throwForPath(const wchar_t* format, const std::wstring& path, DWORD code,
                               const char* function, int line);

// directory + "\" + name, with exactly one backslash between them. The name is taken as it stands.
std::wstring combine(const std::wstring& directory, std::wstring_view name);

// Without the backslashes at the end; the one of a drive or volume root stays.
std::wstring withoutTrailingBackslash(const std::wstring& path);

// What stands before and behind the last backslash; backslashes at the end of path do not count.
// Directly below a drive or volume the parent is its root, with the backslash. The parent of a
// root, of a share ("\\server\share") and of a bare name is empty, and so is a root's name.
std::wstring parentPath(const std::wstring& path);
std::wstring lastName(const std::wstring& path);

// "C:\", "C:", "\\?\C:\", "\\?\Volume{...}\", "\\server\share" and their long forms.
bool isRoot(const std::wstring& path);

// True for ".", ".." and the empty name: the entries that every walk skips.
bool isDotEntry(std::wstring_view name);

// Ordinal, ignoring case.
bool equalNames(std::wstring_view first, std::wstring_view second);
bool beginsWith(std::wstring_view text, std::wstring_view prefix);
// An order in which such names are equal, for containers.
struct NameOrder {
    using is_transparent = void;
    bool operator()(std::wstring_view first, std::wstring_view second) const;
};

// True when path names something strictly below directory, by whole components. Both are in the
// same form; a path with a "." or ".." or an empty component is never inside.
bool isStrictlyInside(const std::wstring& path, const std::wstring& directory);

// "C:\...", "C:/...", and whatever begins with two backslashes or slashes: a path that needs
// neither the current directory nor the current drive.
bool isFullyQualified(std::wstring_view path);

// The 8.3 form, and the form with every long name, of an existing path ("Unable to get a short
// path (%s)", "Unable to get a long path (%s)"). On a volume without 8.3 names the short form has
// the long names in it. Both return the long form ("\\?\") when they are given it.
std::wstring shortPath(const std::wstring& path);
std::wstring longNamePath(const std::wstring& path);

// Where an existing path leads in the end, in long form: links, substituted drives, mounted folders
// and short names are resolved. "Unable to find the real path (%s)".
std::wstring realPath(const std::wstring& path);

// The forms in which paths that people and programs have written down are compared.
namespace File {

using RunTime::nicePath;

// Whether path is directory or lies below it, by whole components: "D:\vhosts2" is not in
// "D:\vhosts". Either may be typed with slashes, in long form, or with backslashes at its end; both
// are absolute. A path with a "." or ".." behind the directory's part is in nothing. Nothing is
// asked of the disk.
bool inpath(const std::wstring& path, const std::wstring& directory);

// longNamePath: no component in 8.3 form.
std::wstring longPath(const std::wstring& path);

} // namespace File

// Root of the volume that holds path, mounted folders seen, in long form and with a backslash at
// the end. The path need not exist: the nearest existing directory above it is asked then.
std::wstring volumeRoot(const std::wstring& path);

// Whether both lie on one volume. The volumes' GUID names are compared where the system has them
// (which sees through substituted drives and mounted folders), the roots otherwise.
bool theSameVolume(const std::wstring& first, const std::wstring& second);

// Whether both name one existing directory or file: equal 8.3 forms, or equal volume serial number
// and file id, which sees through junctions, mounted folders, substituted drives and shares.
// False when either does not exist.
bool theSameDirectory(const std::wstring& first, const std::wstring& second);

// What a volume is and can hold.
struct VolumeInformation {
    std::wstring root;       // in long form, with a backslash at the end
    std::wstring fileSystem; // "NTFS"
    DWORD serial = 0;
    DWORD flags = 0;             // FILE_PERSISTENT_ACLS, FILE_NAMED_STREAMS, FILE_SUPPORTS_...
    UINT driveType = 0;          // DRIVE_FIXED, DRIVE_REMOVABLE, DRIVE_REMOTE, ...
    std::uint64_t freeBytes = 0; // available to the caller, quota counted
    std::uint64_t totalBytes = 0;
    DWORD clusterBytes = 0;
};
// Of the volume that holds path, which need not exist. "Unable to get volume information (%s)".
VolumeInformation volumeInformation(const std::wstring& path);

} // namespace RunTime
