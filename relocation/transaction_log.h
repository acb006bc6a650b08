// The log of a copy into a target that holds something already: one record for each item created,
// so that exactly those can be removed again. Binary, little-endian, no header, records one after
// another:
//
//     +--------+-----------------+-------------+--------------+
//     | isFile | name            | n           | cost         |
//     | 1 byte | 2*n bytes       | 4 bytes     | 8 bytes      |
//     | 0 or 1 | UTF-16, no end  | code units  | signed       |
//     +--------+-----------------+-------------+--------------+
//
// Length and cost stand behind the name, so that the log can be read backwards from its end.
// A record is written with one call, so a crash leaves whole records. What is read back is checked
// as if a stranger had written it.
#pragma once

#include "runtime/auto_handle.h"

#include <cstdint>
#include <string>
#include <vector>

class TransactionLog {
public:
    struct Record {
        bool isFile = false;
        std::wstring name; // full path of the item in the target, long form
        std::int64_t cost = 0;
    };

    // Creates the file under a fresh name in the directory (the root of the target's volume).
    void create(const std::wstring& directory);
    bool isOpen() const noexcept { return static_cast<bool>(file_); }
    const std::wstring& name() const noexcept { return name_; }

    // Adds a record at the end. On failure nothing of it stays. "Unable to write log".
    void append(bool isFile, const std::wstring& name, std::int64_t cost);
    // Takes the record last appended out again, once: the item was not created after all.
    void dropLast();

    // Records appended and not dropped, and the cost of the last one.
    std::int32_t totalCount() const noexcept { return totalCount_; }
    std::int64_t totalCost() const noexcept { return totalCost_; }

    // Reading backwards: begin at the end, then previous() until it returns false. The first reads
    // the whole log and compares it with what was written, so that a damaged log is refused before
    // anything is acted on. Both throw vexception for a record that is damaged ("Unable to read
    // complete size from log", and so for name length, name and file type) or that names anything
    // but an item strictly inside target.
    void seekToEnd(const std::wstring& target);
    bool previous(Record& record, const std::wstring& target);

    // Closes the file and deletes it. The name is kept until the file is gone.
    void remove();
    void close() noexcept { file_.reset(); }

private:
    void cutToSize();
    std::uint64_t sumOfFile(std::int64_t size);
    void readAt(std::int64_t position, void* buffer, std::uint32_t bytes, const wchar_t* failure);

    RunTime::AutoHandle file_;
    std::wstring name_;
    std::int64_t size_ = 0;
    bool hasStaleEnd_ = false;     // something stands in the file behind size_
    std::int64_t sizeBefore_ = -1; // of the record last appended; -1: there is none to drop
    std::int64_t position_ = 0;    // of the reader
    std::int32_t totalCount_ = 0;
    std::int64_t totalCost_ = 0;
    std::int64_t costBefore_ = 0;
    std::uint64_t sum_ = 0; // of all bytes that should be in the file
    std::uint64_t sumBefore_ = 0;
    std::vector<unsigned char> buffer_;
};
