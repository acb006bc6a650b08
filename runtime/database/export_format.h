// What writer and reader of a database's export agree on. docs/database.md has the format.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace database::export_format {

// The first line, with the version of the format.
inline constexpr std::string_view magic = "-- ZOP database export, version 1\n";

// For the standard client; our own import sets its session by itself, to the same.
inline constexpr std::string_view preamble =
    "SET NAMES utf8mb4;\n"
    "SET time_zone = '+00:00';\n"
    "SET foreign_key_checks = 0;\n"
    "SET sql_mode = 'NO_AUTO_VALUE_ON_ZERO,ALLOW_INVALID_DATES,STRICT_ALL_TABLES,"
    "NO_ENGINE_SUBSTITUTION';\n";

// The last line: "-- Tables 5, rows 12, SHA-256 ...\n", the sum of all bytes in front of it.
inline constexpr std::string_view trailer = "-- Tables ";

inline constexpr std::size_t rowsBytes = 1024 * 1024; // of a statement, unless one row has more
inline constexpr std::uint64_t longestStatement = 1024 * 1024 * 1024; // no server takes more
inline constexpr std::size_t longestDefinition = 1024 * 1024;
inline constexpr std::size_t longestName = 256; // bytes of a name; a server takes 64 characters
inline constexpr std::size_t longestNumber = 400;
inline constexpr std::size_t longestLine = 1024; // of the header
inline constexpr std::uint32_t mostTables = 100'000;

// Tables of an import on their way in or out. No table of a panel is named so, and they are left
// out of exports.
inline constexpr std::wstring_view importPrefix = L"zop$import$";

} // namespace database::export_format
