#include "relocation/copy_report.h"

#include "runtime/files/path.h"

#include <algorithm>

void CopyReport::add(CopyLoss kind, const std::wstring& path) {
    Entry& entry = entries_[static_cast<std::size_t>(kind)];
    ++entry.count;
    if (entry.examples.size() < maxExamples) {
        entry.examples.push_back(RunTime::nicePath(path));
    }
}

void CopyReport::add(const CopyReport& other) {
    for (std::size_t kind = 0; kind < entries_.size(); ++kind) {
        Entry& entry = entries_[kind];
        const Entry& more = other.entries_[kind];
        entry.count += more.count;
        for (std::size_t i = 0; i < more.examples.size() && entry.examples.size() < maxExamples;
             ++i) {
            entry.examples.push_back(more.examples[i]);
        }
    }
}

bool CopyReport::isEmpty() const {
    return std::all_of(entries_.begin(), entries_.end(),
                       [](const Entry& entry) { return entry.count == 0; });
}

const wchar_t* describe(CopyLoss kind) {
    switch (kind) {
    case CopyLoss::AlternateStream:
        return L"named streams, which the target's file system does not have";
    case CopyLoss::Security:
        return L"security descriptors, which the target's file system does not keep";
    case CopyLoss::AuditList:
        return L"audit lists, because SeSecurityPrivilege is not held";
    case CopyLoss::Owner:
        return L"owners, which could not be set";
    case CopyLoss::ExtendedAttributes:
        return L"extended attributes, which the target's file system does not have";
    case CopyLoss::ObjectId:
        return L"object identifiers";
    case CopyLoss::ReparseTag:
        return L"reparse tags that are no links (the data was copied)";
    case CopyLoss::Sparse:
        return L"holes of sparse files, which now take room on disk";
    case CopyLoss::Compression:
        return L"compression of files";
    case CopyLoss::HardLink:
        return L"hard links whose names are separate files now";
    case CopyLoss::TransactionData:
        return L"transaction data of the file system";
    case CopyLoss::MergedDirectory:
        return L"directories that were there already and kept their own settings";
    case CopyLoss::Link:
        return L"links, which were not asked for";
    case CopyLoss::ChangedMeanwhile:
        return L"files that kept changing while they were copied";
    case CopyLoss::Count:
        break;
    }
    return L"";
}
