// Rewrites a settings file that names a directory which has moved.
#pragma once

#include <cstddef>
#include <string>

namespace RunTime {

// Replaces every occurrence of oldPath in a file by newPath, and returns how many there were.
//
//   file              absolute, of any length; at most 16 MiB
//   oldPath, newPath  absolute, in either form
//   root              a directory above the file: none between the two may be a link. When empty,
//                     only the file's own directory is looked at.
//
// A path is found whatever the case of its letters a to z, written with backslashes, with two for
// each, as in the strings of a program, or with slashes, and newPath is written the same way. It
// must be a whole one: "D:\vhosts" is not in "D:\vhosts2", "D:\vhosts-old", "D:\vhosts.old" or
// "XD:\vhosts", but it is in "D:\vhosts\a", "D:\vhosts'", "D:\vhosts;" and "D:\vhosts. ". Nothing
// is escaped: a newPath with a quotation mark in it would end the string that it gets into, so such
// a path is not for files of a program.
//
// The text is UTF-8 where it is that, and of the system's code page otherwise. A new file is
// written beside the old one and renamed over it, so that there is always a whole one; owner,
// permissions, attributes and creation time stay, alternate streams and other names of the file do
// not. Called with the paths swapped it undoes itself, but for a newPath that was there before.
//
// A file that is missing, without the path, or a link or below one, stays as it is, and 0 is
// returned; a link is logged. Throws vosexception "Unable to replace a path in (%s)" and what
// cannot be made or renamed; then the file is as it was.
std::size_t replaceFilePathInFile(const std::wstring& file, const std::wstring& oldPath,
                                  const std::wstring& newPath, const std::wstring& root = {});

} // namespace RunTime
