// Numbers as people read them, and texts cut to a width. Pure functions; any thread.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace zopctl {

std::wstring formatCount(std::int64_t count); // "1,234,567"
std::wstring formatBytes(std::int64_t bytes); // "999 bytes", "1.5 MB" (of 1024 KB)
std::wstring
formatDuration(std::uint64_t milliseconds); // "0.4 s", "42 s", "3 min 05 s", "2 h 07 min"
std::wstring formatRate(std::int64_t bytes, std::uint64_t milliseconds); // "31 MB/s"; "" unknown

// "1 file", "1,234 files".
std::wstring countOf(std::int64_t count, const wchar_t* one, const wchar_t* many);

// How many character cells a console gives the text: two for a wide (East Asian, emoji) character,
// none for a combining mark.
int cellWidth(std::wstring_view text);

// The text, or as much of its beginning and end as fits with "..." in the middle: the end of a path
// says more than its middle. Never cuts a surrogate pair apart.
std::wstring cutToCells(std::wstring_view text, int cells);

// The candidate that differs least from the text, ignoring case; empty when none is near.
std::wstring nearest(const std::wstring& text, const std::vector<std::wstring>& candidates);

// Control characters, which a file name may hold, as U+FFFD: a name must not steer the console. So
// with those that end a line or turn the direction of writing: a name must not look like another.
std::wstring printable(std::wstring_view text);

// The same of a text that may have several lines, such as what a utility printed: their ends stay.
std::wstring printableLines(std::wstring_view text);

// With one full stop at the end: utilities print messages with and without.
std::wstring sentence(const std::wstring& text);

// A printable text in quotation marks.
std::wstring quoted(std::wstring_view text);

} // namespace zopctl
