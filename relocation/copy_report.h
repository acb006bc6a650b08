// What a tree copy could not carry over although the items' data arrived whole, by kind and count.
#pragma once

#include "runtime/export.h"

#include <array>
#include <cstdint>
#include <string>
#include <vector>

enum class CopyLoss : unsigned {
    AlternateStream,    // named streams: the target's file system has none
    Security,           // security descriptors: the target's file system keeps none
    AuditList,          // audit lists: SeSecurityPrivilege is not held
    Owner,              // owners that could not be set
    ExtendedAttributes, // extended attributes
    ObjectId,           // object identifiers, which are unique on a volume
    ReparseTag,         // tags that are no links (deduplicated, cloud): the data was copied
    Sparse,             // holes that now take room on disk
    Compression,        // compressed files that are now stored plainly
    HardLink,           // names of one file that are separate files now
    TransactionData,    // the file system's own transaction data
    MergedDirectory,    // directories that were there already and kept what they had
    Link,               // links, left out because their kind of stream was not asked for
    ChangedMeanwhile,   // files that kept changing while they were copied
    Count
};

// Counts, with the first names of each kind as examples.
class CopyReport {
public:
    struct Entry {
        std::int64_t count = 0;
        std::vector<std::wstring> examples; // nice paths, at most maxExamples
    };
    static constexpr std::size_t maxExamples = 10;

    // path may be in either form; it is kept in the nice one.
    ZOP_API void add(CopyLoss kind, const std::wstring& path);
    ZOP_API void add(const CopyReport& other);
    const Entry& of(CopyLoss kind) const { return entries_[static_cast<std::size_t>(kind)]; }
    ZOP_API bool isEmpty() const;
    void clear() { entries_ = {}; }

private:
    std::array<Entry, static_cast<std::size_t>(CopyLoss::Count)> entries_;
};

// The kind in words, for a list shown to people ("named streams").
ZOP_API const wchar_t* describe(CopyLoss kind);
