// How far an export or import of a database is.
#pragma once

#include <cstdint>
#include <string>

enum class DatabaseStep {
    Check, // a file is read and vetted; nothing is changed
    Rows,  // tables are written to the file, or filled from it
    Swap,  // import: the new tables take the place of the old ones; can no longer be cancelled
};

struct DatabaseProgress {
    DatabaseStep step = DatabaseStep::Check;
    std::wstring table;            // the one at hand
    std::uint32_t tables = 0;      // of this step, complete
    std::uint32_t totalTables = 0; // 0: not known
    std::uint64_t rows = 0;
    std::uint64_t totalRows = 0;  // export: the server's estimate; 0: not known
    std::uint64_t bytes = 0;      // of the file
    std::uint64_t totalBytes = 0; // 0: not known
};
