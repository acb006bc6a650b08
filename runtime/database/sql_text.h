// Statements on their way to the server: text to UTF-8, values into placeholders, and what of a
// statement may be shown to people.
#pragma once

#include "runtime/database/database.h"
#include "runtime/wipe.h"

#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace database {

// Bytes that may hold passwords.
using Bytes = std::vector<char, RunTime::WipingAllocator<char>>;

// Puts a text, escaped for a place between single quotes, behind what is there.
using Escape = std::function<void(Bytes& to, std::string_view text)>;

// In UTF-8. Throws ArgumentException for half a surrogate pair: to replace it would name another
// user or file than was meant.
Bytes toSqlBytes(std::wstring_view text);

// The statement with its values in the places of the placeholders; without values as it is.
// Throws ArgumentException when they do not match.
Bytes bindValues(const std::wstring& sql, const VDatabase::Values& values, const Escape& escape);

// What an error may show of a statement: its first line, cut, up to the first quote, behind which
// there may be a secret.
std::wstring shownStatement(const std::wstring& sql);

// A name of a table as it stands in a statement, between backticks.
std::wstring quotedName(const std::wstring& name);

} // namespace database
